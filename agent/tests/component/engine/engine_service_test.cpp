/* The service tool: one supervised engine, started, stopped and restarted by commands. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <sstream>
#include <thread>
#include <vector>

#include "agent/tests/component/engine/engine_tree.h"

namespace engine_test {
namespace {

struct command_result {
    int status = -1;
    std::string output; /* both streams */
};

class EngineService : public ::testing::Test {
  protected:
    void TearDown() override {
        run("stop");
        EXPECT_EQ(processes_of_tree(), std::vector<std::string>());
    }

    command_result run_tool(const std::string &arguments) const {
        const std::string command = tree.path("bin/vrd_services") + " " + arguments + " 2>&1";
        command_result result;
        FILE *pipe = popen(command.c_str(), "re");
        if (pipe == nullptr) {
            return result;
        }
        std::array<char, 4096> part;
        std::size_t got = 0;
        while ((got = std::fread(part.data(), 1, part.size(), pipe)) > 0) {
            result.output.append(part.data(), got);
        }
        result.status = WEXITSTATUS(pclose(pipe));
        return result;
    }
    int run(const std::string &command) const { return run_tool(command + " 10qd_agent").status; }
    json look() const { return json::parse(run_tool("status 10qd_agent --json").output); }
    pid_t pid_of(const char *which) const { return look().at(which).get<pid_t>(); }
    pid_t program() const { return pid_of("pid"); }
    pid_t supervisor() const { return pid_of("supervisor_pid"); }
    std::string state() const { return look().at("state"); }
    bool comes_to(const std::string &wanted) const {
        return kze_test::eventually([&] { return state() == wanted; });
    }
    bool gone(pid_t process) const {
        return kze_test::eventually([&] {
            std::ifstream file("/proc/" + std::to_string(process) + "/stat");
            std::string text;
            std::getline(file, text);
            /* Nobody may be there to collect what is left of it. */
            return text.empty() || text.find(") Z") != std::string::npos;
        });
    }
    /* The engine's program is replaced by a script. */
    void install_program(const std::string &script) const {
        std::filesystem::remove(tree.path("qd_agent/bin"));
        tree.files().write("qd_agent/bin/qd_agent", script);
        ASSERT_EQ(chmod(tree.path("qd_agent/bin/qd_agent").c_str(), 0700), 0);
    }
    /* The living processes that belong to this tree, by their environment. */
    std::vector<std::string> processes_of_tree() const {
        std::vector<std::string> found;
        const std::string home = "KZE_AGENT_HOME=" + tree.path("bin");
        for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
            const std::string name = entry.path().filename();
            if (name.find_first_not_of("0123456789") != std::string::npos ||
                name == std::to_string(getpid())) {
                continue;
            }
            std::ifstream file(entry.path() / "environ", std::ios::binary);
            const std::string text(std::istreambuf_iterator<char>(file), {});
            if (text.find(home) != std::string::npos) {
                found.push_back(name);
            }
        }
        return found;
    }

    engine_tree tree;
};

TEST_F(EngineService, start_runs_one_engine_below_one_supervisor) {
    EXPECT_EQ(run("start"), 0);
    EXPECT_EQ(state(), "running");
    const pid_t engine = program();
    ASSERT_TRUE(kze_test::eventually([&] {
        return tree.ask({{"op", "status"}}).value("ok", false);
    })) << tree.last_error();
    EXPECT_EQ(tree.ask({{"op", "status"}}).at("pid"), engine);
    EXPECT_EQ(processes_of_tree().size(), 2U);
}

TEST_F(EngineService, start_of_a_running_service_changes_nothing) {
    ASSERT_EQ(run("start"), 0);
    const json before = look();
    EXPECT_EQ(run("start"), 0);
    EXPECT_EQ(look(), before);
}

TEST_F(EngineService, starts_at_the_same_time_run_one_engine) {
    std::vector<std::thread> starters;
    std::array<int, 8> results{};
    for (int &result : results) {
        starters.emplace_back([this, &result] { result = run("start"); });
    }
    for (std::thread &starter : starters) {
        starter.join();
    }
    EXPECT_EQ(results, (std::array<int, 8>{}));
    EXPECT_EQ(processes_of_tree().size(), 2U);
}

TEST_F(EngineService, starts_and_stops_at_the_same_time_leave_no_second_engine) {
    std::vector<std::thread> users;
    for (int user = 0; user < 6; ++user) {
        users.emplace_back([this, user] {
            for (int round = 0; round < 5; ++round) {
                EXPECT_EQ(run((user + round) % 2 == 0 ? "start" : "stop"), 0);
            }
        });
    }
    for (std::thread &user : users) {
        user.join();
    }
    EXPECT_EQ(run("start"), 0);
    EXPECT_EQ(processes_of_tree().size(), 2U);
}

TEST_F(EngineService, stop_leaves_no_process_and_can_be_repeated) {
    ASSERT_EQ(run("start"), 0);
    EXPECT_EQ(run("stop"), 0);
    EXPECT_EQ(processes_of_tree().size(), 0U);
    EXPECT_EQ(state(), "down");
    EXPECT_EQ(run("stop"), 0);
}

TEST_F(EngineService, stop_kills_an_engine_that_does_not_leave) {
    ASSERT_EQ(run("start"), 0);
    ASSERT_EQ(kill(program(), SIGSTOP), 0);
    EXPECT_EQ(run("stop"), 0);
    EXPECT_EQ(processes_of_tree().size(), 0U);
}

TEST_F(EngineService, stop_kills_a_supervisor_that_does_not_leave_and_its_engine) {
    ASSERT_EQ(run("start"), 0);
    ASSERT_EQ(kill(supervisor(), SIGSTOP), 0);
    EXPECT_EQ(run("stop"), 0);
    EXPECT_EQ(processes_of_tree().size(), 0U);
}

TEST_F(EngineService, engine_that_dies_is_started_again_after_two_seconds) {
    ASSERT_EQ(run("start"), 0);
    const pid_t before = program();
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(kill(before, SIGKILL), 0);
    ASSERT_TRUE(comes_to("waiting"));
    ASSERT_TRUE(comes_to("running"));
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took.count(), 2.0);
    EXPECT_LT(took.count(), 6.0);
    EXPECT_NE(program(), before);
    EXPECT_EQ(processes_of_tree().size(), 2U);
}

TEST_F(EngineService, stop_while_the_engine_is_about_to_be_started_again_ends_the_service) {
    ASSERT_EQ(run("start"), 0);
    ASSERT_EQ(kill(program(), SIGKILL), 0);
    ASSERT_TRUE(comes_to("waiting"));
    EXPECT_EQ(run("stop"), 0);
    EXPECT_EQ(processes_of_tree().size(), 0U);
}

TEST_F(EngineService, engine_told_to_stay_down_does_until_it_is_started) {
    ASSERT_EQ(run("restart"), 0);
    ASSERT_TRUE(tree.order({{"op", "die"}, {"stay_down", true}}));
    ASSERT_TRUE(comes_to("down"));
    EXPECT_EQ(processes_of_tree().size(), 0U);
    EXPECT_EQ(run("start"), 0);
    EXPECT_EQ(state(), "running");
}

TEST_F(EngineService, engine_told_to_die_comes_back) {
    ASSERT_EQ(run("restart"), 0);
    const pid_t before = program();
    ASSERT_TRUE(tree.order({{"op", "die"}}));
    ASSERT_TRUE(kze_test::eventually([&] {
        const pid_t now = program();
        return now != 0 && now != before;
    }));
}

TEST_F(EngineService, engine_dies_with_its_supervisor) {
    ASSERT_EQ(run("start"), 0);
    const pid_t engine = program();
    ASSERT_EQ(kill(supervisor(), SIGKILL), 0);
    EXPECT_TRUE(gone(engine));
    EXPECT_TRUE(comes_to("down"));
    EXPECT_EQ(run("start"), 0);
    EXPECT_EQ(state(), "running");
}

TEST_F(EngineService, restart_returns_when_the_new_engine_answers) {
    EXPECT_EQ(run("restart"), 0);
    const json first = tree.ask({{"op", "status"}});
    ASSERT_TRUE(first.value("ok", false)) << tree.last_error();
    EXPECT_EQ(run("restart"), 0);
    const json second = tree.ask({{"op", "status"}});
    ASSERT_TRUE(second.value("ok", false)) << tree.last_error();
    EXPECT_NE(first.at("pid"), second.at("pid"));
    EXPECT_EQ(second.at("pid"), program());
}

TEST_F(EngineService, restart_of_an_engine_that_never_answers_fails_after_ten_seconds) {
    install_program("#!/bin/sh\nexec sleep 1000\n");
    const auto begin = std::chrono::steady_clock::now();
    const command_result result = run_tool("restart 10qd_agent");
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("does not answer"), std::string::npos) << result.output;
    EXPECT_GE(took.count(), 10.0);
    EXPECT_LT(took.count(), 15.0);
}

TEST_F(EngineService, start_without_the_program_fails_and_names_it) {
    std::filesystem::remove(tree.path("qd_agent/bin"));
    const command_result result = run_tool("start 10qd_agent");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("/qd_agent/bin/qd_agent: No such file"), std::string::npos)
        << result.output;
    EXPECT_EQ(state(), "down");
}

TEST_F(EngineService, supervisor_and_engine_keep_nothing_that_the_caller_had_open) {
    /* As from a host that does not close its descriptors: without close-on-exec. */
    tree.files().write("var/held", "held");
    const int held = open(tree.path("var/held").c_str(), O_RDONLY);
    ASSERT_GE(held, 0);
    const int high = dup2(held, 500);
    ASSERT_EQ(high, 500);
    EXPECT_EQ(run("start"), 0);
    close(held);
    close(high);
    for (const pid_t process : {supervisor(), program()}) {
        const std::string folder = "/proc/" + std::to_string(process);
        for (const auto &entry : std::filesystem::directory_iterator(folder + "/fd")) {
            std::error_code ended;
            const std::string target = std::filesystem::read_symlink(entry.path(), ended);
            const int number = std::stoi(entry.path().filename());
            EXPECT_EQ(target.find("var/held"), std::string::npos) << number;
            if (number <= 2) {
                EXPECT_EQ(target, "/dev/null") << number;
            }
        }
        EXPECT_EQ(std::filesystem::read_symlink(folder + "/cwd"), "/");
    }
    EXPECT_NE(getsid(supervisor()), getsid(0));
}

TEST_F(EngineService, caller_that_ignores_and_blocks_signals_does_not_pass_that_on) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &all, &before), 0);
    const auto child_handling = signal(SIGCHLD, SIG_IGN);
    const auto term_handling = signal(SIGTERM, SIG_IGN);
    /* Not through a shell, which would put some of that right. */
    const std::string tool = tree.path("bin/vrd_services");
    const char *arguments[] = {tool.c_str(), "start", "10qd_agent", nullptr};
    pid_t started = 0;
    ASSERT_EQ(posix_spawn(&started, tool.c_str(), nullptr, nullptr,
                          const_cast<char *const *>(arguments), environ),
              0);
    waitpid(started, nullptr, 0);
    signal(SIGCHLD, child_handling);
    signal(SIGTERM, term_handling);
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
    ASSERT_TRUE(comes_to("running"));
    ASSERT_EQ(kill(program(), SIGKILL), 0);
    ASSERT_TRUE(comes_to("waiting"));
    ASSERT_TRUE(comes_to("running"));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(run("stop"), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
}

TEST_F(EngineService, program_gets_no_blocked_signals_from_its_supervisor) {
    install_program("#!/bin/sh\nexec sleep 1000\n");
    ASSERT_EQ(run("start"), 0);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(run("stop"), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
}

TEST_F(EngineService, usage_errors_and_unknown_services_have_a_status_of_their_own) {
    const command_result unknown = run_tool("start 99other");
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.output.find("10qd_agent"), std::string::npos);
    EXPECT_EQ(run_tool("").status, 2);
    EXPECT_EQ(run_tool("begin 10qd_agent").status, 2);
    EXPECT_EQ(run_tool("start").status, 2);
    EXPECT_EQ(run_tool("--help").status, 0);
    EXPECT_EQ(run_tool("status --help").status, 0);
}

TEST_F(EngineService, status_tells_by_its_exit_status_whether_the_service_runs) {
    EXPECT_EQ(run("status"), 1);
    EXPECT_EQ(
        look(),
        (json{{"service", "10qd_agent"}, {"state", "down"}, {"supervisor_pid", 0}, {"pid", 0}}));
    ASSERT_EQ(run("start"), 0);
    EXPECT_EQ(run("status"), 0);
}

TEST_F(EngineService, service_works_from_a_tree_named_by_a_relative_path) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(tree.path(""));
    setenv("KZE_AGENT_HOME", "bin", 1);
    const int started = run("start");
    setenv("KZE_AGENT_HOME", tree.path("bin").c_str(), 1);
    std::filesystem::current_path(before);
    EXPECT_EQ(started, 0);
    EXPECT_EQ(state(), "running");
    EXPECT_TRUE(kze_test::eventually([&] {
        return tree.ask({{"op", "status"}}).value("ok", false);
    })) << tree.last_error();
}

}  // namespace
}  // namespace engine_test
