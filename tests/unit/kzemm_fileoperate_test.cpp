// External commands: what their outcome is reduced to, and what of the host they see.

#include "plugin/kzemm_fileoperate.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/plugin_test.h"

using fakes::at;
using fakes::log_lines;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

size_t open_descriptors() {
    size_t number = 0;
    for (const auto &each : std::filesystem::directory_iterator("/proc/self/fd")) {
        number += each.is_symlink() ? 1 : 0;
    }
    return number;
}

class kzemm_fileoperate_test : public plugin_test {
  protected:
    void SetUp() override {
        plugin_test::SetUp();
        descriptors = open_descriptors();
    }

    void TearDown() override {
        errno = 0;
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
        EXPECT_EQ(errno, ECHILD);
        EXPECT_EQ(open_descriptors(), descriptors) << "descriptors are left";
        plugin_test::TearDown();
    }

  private:
    size_t descriptors = 0;
};

// Sets a variable of the environment for a scope.
class scoped_variable {
  public:
    scoped_variable(const char *variable, const std::string &value) : name(variable) {
        const char *const now = getenv(variable);
        existed = now != nullptr;
        before = existed ? now : "";
        setenv(variable, value.c_str(), 1);
    }
    ~scoped_variable() {
        if (existed) {
            setenv(name, before.c_str(), 1);
        } else {
            unsetenv(name);
        }
    }
    scoped_variable(const scoped_variable &) = delete;
    scoped_variable &operator=(const scoped_variable &) = delete;

  private:
    const char *name;
    bool existed = false;
    std::string before;
};

// Sets what a signal does for a scope. A handler interrupts system calls.
class scoped_signal {
  public:
    scoped_signal(int number, void (*handler)(int)) : signal_number(number) {
        struct sigaction action = {};
        action.sa_handler = handler;
        sigaction(number, &action, &before);
    }
    ~scoped_signal() { sigaction(signal_number, &before, nullptr); }
    scoped_signal(const scoped_signal &) = delete;
    scoped_signal &operator=(const scoped_signal &) = delete;

  private:
    int signal_number;
    struct sigaction before = {};
};

volatile sig_atomic_t s_signals = 0;

void count_signal(int) {
    s_signals = s_signals + 1;
}

TEST_F(kzemm_fileoperate_test, refuses_no_command_without_forking) {
    for (const char *const command : {static_cast<const char *>(nullptr), ""}) {
        errno = 0;
        EXPECT_EQ(system_exec(command), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(fakes::forks(), 0U);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_fileoperate_test, answers_0_for_a_command_that_worked) {
    EXPECT_EQ(system_exec("exit 0"), 0);
    EXPECT_EQ(fakes::forks(), 1U);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_fileoperate_test, runs_the_line_by_a_shell) {
    const std::string mark = in_tree("mark");
    EXPECT_EQ(system_exec(("true && printf '%s' 'a  b' > '" + mark + "'").c_str()), 0);
    EXPECT_EQ(read_file("mark"), "a  b");
}

class kzemm_fileoperate_status_test : public kzemm_fileoperate_test,
                                      public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(, kzemm_fileoperate_status_test,
                         testing::Values(1, 2, 64, 126, 127, 128, 137, 254, 255),
                         [](const auto &each) { return std::to_string(each.param); });

TEST_P(kzemm_fileoperate_status_test, answers_minus_1_for_every_other_status) {
    EXPECT_EQ(system_exec(("exit " + std::to_string(GetParam())).c_str()), -1);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_fileoperate_test, answers_minus_1_for_a_command_that_does_not_exist) {
    EXPECT_EQ(system_exec((in_tree("bin") + "/nothing_here").c_str()), -1);
}

class kzemm_fileoperate_death_test : public kzemm_fileoperate_test,
                                     public testing::WithParamInterface<const char *> {};

INSTANTIATE_TEST_SUITE_P(, kzemm_fileoperate_death_test, testing::Values("KILL", "TERM", "USR1"),
                         [](const auto &each) { return each.param; });

TEST_P(kzemm_fileoperate_death_test, answers_minus_1_for_a_command_killed_by_a_signal) {
    EXPECT_EQ(system_exec((std::string("kill -") + GetParam() + " $$; exit 0").c_str()), -1);
}

TEST_F(kzemm_fileoperate_test, lets_no_output_through) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int result = system_exec("echo out; echo err >&2");
    const std::string err = testing::internal::GetCapturedStderr();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
}

TEST_F(kzemm_fileoperate_test, gives_the_command_dev_null_as_all_three_standard_descriptors) {
    for (const char *const descriptor : {"0", "1", "2"}) {
        EXPECT_EQ(system_exec((std::string("test \"$(readlink /proc/$$/fd/") + descriptor +
                               ")\" = /dev/null")
                                  .c_str()),
                  0)
            << descriptor;
    }
}

TEST_F(kzemm_fileoperate_test, gives_the_command_an_input_that_is_at_its_end_and_read_only) {
    EXPECT_EQ(system_exec("read -r line"), -1);
    EXPECT_EQ(system_exec("test \"$(cat)\" = ''"), 0);
    EXPECT_EQ(system_exec("echo text >&0"), -1);
}

TEST_F(kzemm_fileoperate_test, gives_the_command_outputs_that_can_be_read_too) {
    EXPECT_EQ(system_exec("cat <&1"), 0);
    EXPECT_EQ(system_exec("cat <&2"), 0);
}

TEST_F(kzemm_fileoperate_test, works_for_a_host_without_standard_descriptors) {
    const int saved = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    ASSERT_GE(saved, 0);
    close(STDIN_FILENO);
    const int result = system_exec("test \"$(readlink /proc/$$/fd/0)\" = /dev/null");
    dup2(saved, STDIN_FILENO);
    close(saved);
    EXPECT_EQ(result, 0);
}

TEST_F(kzemm_fileoperate_test, leaves_every_other_descriptor_to_the_command) {
    const int file = open(in_tree("inherited").c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GT(file, 2);
    EXPECT_EQ(system_exec(("echo here >&" + std::to_string(file)).c_str()), 0);
    close(file);
    EXPECT_EQ(read_file("inherited"), "here\n");
}

TEST_F(kzemm_fileoperate_test, leaves_the_environment_to_the_command) {
    const scoped_variable variable("KZE_TEST_VARIABLE", "a value");
    EXPECT_EQ(system_exec("test \"$KZE_TEST_VARIABLE\" = 'a value'"), 0);
}

TEST_F(kzemm_fileoperate_test, leaves_the_working_directory_to_the_command) {
    EXPECT_EQ(system_exec("test \"$(readlink /proc/$$/cwd)\" = \"$(readlink /proc/$PPID/cwd)\""),
              0);
}

TEST_F(kzemm_fileoperate_test, leaves_ignored_signals_ignored) {
    EXPECT_EQ(system_exec("kill -USR1 $$; exit 0"), -1);
    const scoped_signal ignored(SIGUSR1, SIG_IGN);
    EXPECT_EQ(system_exec("kill -USR1 $$; exit 0"), 0);
}

TEST_F(kzemm_fileoperate_test, finds_the_shell_through_the_path) {
    write_file("bin/sh", "#!/bin/sh\necho \"$#:$1:$2\" > '" + in_tree("shell_calls") + "'\n");
    std::filesystem::permissions(in_tree("bin/sh"), std::filesystem::perms::owner_all);
    const scoped_variable path("PATH", in_tree("bin"));
    EXPECT_EQ(system_exec("some command"), 0);
    EXPECT_EQ(read_file("shell_calls"), "2:-c:some command\n");
}

TEST_F(kzemm_fileoperate_test, answers_minus_1_without_a_shell) {
    const scoped_variable path("PATH", in_tree("lib"));
    EXPECT_EQ(system_exec("exit 0"), -1);
}

TEST_F(kzemm_fileoperate_test, answers_minus_1_when_dev_null_cannot_be_opened) {
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int result = system_exec("exit 0");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(fakes::forks(), 1U);
}

TEST_F(kzemm_fileoperate_test, answers_minus_1_when_it_cannot_fork) {
    fakes::fork_fails(EAGAIN);
    EXPECT_EQ(system_exec("exit 0"), -1);
    EXPECT_EQ(fakes::forks(), 1U);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_fileoperate_test, waits_on_after_each_interruption) {
    fakes::waitpid_interrupted(3);
    EXPECT_EQ(system_exec("exit 0"), 0);
    EXPECT_EQ(fakes::interruptions_left(), 0U);
    fakes::waitpid_interrupted(3);
    EXPECT_EQ(system_exec("exit 1"), -1);
    EXPECT_EQ(fakes::interruptions_left(), 0U);
}

// The command signals its parent, which waits for it, and then ends well.
TEST_F(kzemm_fileoperate_test, waits_on_after_a_real_signal) {
    const scoped_signal counted(SIGUSR1, count_signal);
    s_signals = 0;
    const std::string mark = in_tree("mark");
    EXPECT_EQ(system_exec(("kill -USR1 $PPID; sleep 0.1; echo > '" + mark + "'").c_str()), 0);
    EXPECT_EQ(s_signals, 1);
    EXPECT_TRUE(std::filesystem::exists(mark)) << "the wait ended before the command";
}

TEST_F(kzemm_fileoperate_test, answers_minus_1_when_the_wait_fails) {
    fakes::waitpid_fails(ECHILD);
    EXPECT_EQ(system_exec("exit 0"), -1);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_fileoperate_test, logs_the_line_before_it_is_run) {
    fakes::fork_fails(EAGAIN);
    EXPECT_EQ(create_process("some command --with 'words'"), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "create process by cmd = some command --with 'words'")));
}

TEST_F(kzemm_fileoperate_test, answers_what_the_command_came_to) {
    EXPECT_EQ(create_process("exit 0"), 0);
    EXPECT_EQ(create_process("exit 1"), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "create process by cmd = exit 0"),
                                         at(3, "create process by cmd = exit 1")));
}

TEST_F(kzemm_fileoperate_test, logs_an_empty_line_and_runs_nothing) {
    errno = 0;
    EXPECT_EQ(create_process(""), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fakes::forks(), 0U);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "create process by cmd = ")));
}

}  // namespace
