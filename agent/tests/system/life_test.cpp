/* Starting, stopping and looking at the whole agent. */
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>

#include "agent/tests/system/agent_tree.h"
#include "tests/support/child_process.h"
#include "tests/support/process_state.h"

namespace kze_test {
namespace {

using nlohmann::json;

class life : public system_test {};

TEST_F(life, up_starts_host_and_engine_and_down_leaves_nothing) {
    tree.must({"up", "--fresh"});
    EXPECT_NE(tree.pid_of("bin/kze_agent"), 0);
    EXPECT_NE(tree.pid_of("qd_agent/bin/qd_agent"), 0);
    tree.must({"down"});
    expect_nothing_left(tree);
    EXPECT_TRUE(tree.has_logged("clean succeed"));
    EXPECT_TRUE(tree.has_logged("kzemm_work stopped"));
    EXPECT_TRUE(tree.has_logged("uninit plugin kzemdlmgr success", 0, "host"));
}

TEST_F(life, up_twice_starts_nothing_a_second_time) {
    tree.must({"up"});
    const pid_t host = tree.pid_of("bin/kze_agent");
    const std::size_t processes = tree.processes().size();
    const command_result again = tree.ctl({"up"});
    EXPECT_EQ(again.status, done);
    EXPECT_NE(again.out.find("already up"), std::string::npos) << again.out;
    EXPECT_EQ(tree.pid_of("bin/kze_agent"), host);
    EXPECT_EQ(tree.processes().size(), processes);
}

TEST_F(life, of_two_ups_at_once_one_starts_the_agent_and_the_other_finds_it_up) {
    const std::string kzectl = tree.path("bin/kzectl").string();
    for (int round = 0; round < 3; ++round) {
        child_process first({kzectl, "up"});
        child_process second({kzectl, "up"});
        std::vector<std::string> said = {first.read_line(), second.read_line()};
        for (child_process *each : {&first, &second}) {
            const int status = each->wait();
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == done) << each->read_errors();
        }
        std::sort(said.begin(), said.end());
        EXPECT_EQ(said[0].rfind("The agent is already up", 0), 0U) << said[0];
        EXPECT_EQ(said[1].rfind("The agent is up", 0), 0U) << said[1];
        tree.must({"down"});
        expect_nothing_left(tree);
    }
}

TEST_F(life, up_down_and_reload_wait_no_longer_than_their_time_for_one_another) {
    const int directory = open(tree.path("bin").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(directory, LOCK_EX), 0);
    for (const char *command : {"up", "down", "reload"}) {
        const command_result result = tree.ctl({command, "--timeout", "0.2"});
        EXPECT_EQ(result.status, timed_out) << command;
        EXPECT_NE(result.err.find("another kzectl"), std::string::npos) << result.err;
    }
    EXPECT_TRUE(tree.processes().empty());
    close(directory);
}

TEST_F(life, every_program_works_with_its_standard_descriptors_closed) {
    const std::string bin = tree.path("bin/").string();
    const std::string engine = tree.path("qd_agent/bin/qd_agent").string();
    const auto closed = [](const std::string &command) {
        return run_program({"/bin/sh", "-c", command + " <&- >&- 2>&-"}).status;
    };
    EXPECT_EQ(closed(bin + "vrd_services start 10qd_agent"), done);
    EXPECT_EQ(closed(bin + "vrd_services restart 10qd_agent"), done);
    child_process host({"/bin/sh", "-c", "exec " + bin + "kze_agent <&- >&- 2>&-"});
    tree.see("work loop start");
    EXPECT_EQ(closed(bin + "kzectl status"), done);
    tree.must({"down"});
    EXPECT_EQ(host.wait(), 0);
    EXPECT_EQ(closed(bin + "kzectl up"), done);
    tree.must({"down"});

    child_process alone({"/bin/sh", "-c", "exec " + engine + " <&- >&- 2>&-"});
    EXPECT_TRUE(eventually([this] { return tree.ctl({"engine", "status"}).status == done; }));
    alone.signal(SIGTERM);
    EXPECT_EQ(alone.wait(), 0);
}

TEST_F(life, up_and_reload_end_in_their_time_when_a_program_does_not_answer) {
    tree.must({"up"});
    for (const char *program : {"bin/kze_agent", "qd_agent/bin/qd_agent"}) {
        const pid_t stopped = tree.pid_of(program);
        kill(stopped, SIGSTOP);
        const auto began = std::chrono::steady_clock::now();
        EXPECT_EQ(tree.ctl({"up", "--timeout", "0.5"}).status, timed_out) << program;
        EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(5)) << program;
        kill(stopped, SIGCONT);
    }
    const pid_t host = tree.pid_of("bin/kze_agent");
    kill(host, SIGSTOP);
    const std::int64_t mark = tree.mark();
    EXPECT_EQ(tree.ctl({"reload", "--timeout", "0.5"}).status, timed_out);
    kill(host, SIGCONT);
    tree.see("work loop start", mark); /* the order stands: the host carries it out late */
    EXPECT_EQ(tree.ctl({"reload", "--timeout", "nan"}).status, usage);
}

TEST_F(life, status_tells_a_program_that_does_not_answer_from_one_that_is_not_there) {
    tree.must({"up"});
    for (const char *program : {"bin/kze_agent", "qd_agent/bin/qd_agent"}) {
        const pid_t stopped = tree.pid_of(program);
        kill(stopped, SIGSTOP);
        EXPECT_EQ(tree.ctl({"status"}).status, timed_out) << program;
        kill(stopped, SIGCONT);
    }
    EXPECT_EQ(tree.ctl({"status"}).status, done);
}

TEST_F(life, output_that_can_not_be_written_is_a_failure) {
    const std::string kzectl = tree.path("bin/kzectl").string();
    for (const char *command : {" --help", " gateway mark", " --json gateway mark"}) {
        const command_result result =
            run_program({"/bin/sh", "-c", kzectl + command + " >/dev/full"});
        EXPECT_EQ(result.status, failed) << command;
        EXPECT_NE(result.err.find("could not be written"), std::string::npos) << result.err;
    }
}

TEST_F(life, down_without_an_agent_is_done_and_says_so) {
    const command_result result = tree.ctl({"down"});
    EXPECT_EQ(result.status, done);
    EXPECT_NE(result.out.find("was not up"), std::string::npos) << result.out;
}

TEST_F(life, fresh_is_refused_while_the_agent_runs) {
    tree.must({"up"});
    const command_result result = tree.ctl({"up", "--fresh"});
    EXPECT_EQ(result.status, failed);
    EXPECT_NE(result.err.find("kzectl down"), std::string::npos) << result.err;
    EXPECT_NE(tree.pid_of("bin/kze_agent"), 0);
}

TEST_F(life, fresh_drops_logs_and_journal_and_keeps_the_configuration) {
    tree.switch_on();
    tree.must({"up"});
    tree.wait_record("origin", 0);
    tree.must({"down"});
    tree.must({"up", "--fresh"});
    EXPECT_FALSE(tree.has_logged("kzemm_work stopped"));
    EXPECT_EQ(tree.ask({"config", "get", "/mgr/base_collect/adv_threats"}).value("value", ""),
              "true");
}

TEST_F(life, status_tells_what_runs_and_its_exit_status_what_does_not) {
    EXPECT_EQ(tree.ctl({"status"}).status, not_running);
    tree.must({"up"});
    tree.see("x_client status 1");
    const json status = tree.ask({"status"});
    EXPECT_EQ(status["host"]["pid"], tree.pid_of("bin/kze_agent"));
    EXPECT_EQ(status["engine"]["pid"], tree.pid_of("qd_agent/bin/qd_agent"));
    EXPECT_EQ(status["engine"]["clients"].size(), 1U);
    EXPECT_EQ(status["tree"], std::filesystem::canonical(tree.path()).string());
    const std::string text = tree.ctl({"status"}).out;
    for (const char *word : {"Host", "running", "Plug-in", "initialised", "kzemdlmgr", "Engine",
                             "Gateway", "Capabilities"}) {
        EXPECT_NE(text.find(word), std::string::npos) << word << " is missing in\n" << text;
    }
    tree.must({"engine", "stop"});
    EXPECT_EQ(tree.ctl({"status"}).status, not_running);
    tree.must({"engine", "start"});
    EXPECT_EQ(tree.ctl({"status"}).status, done);
}

TEST_F(life, a_log_level_change_is_seen_in_what_is_logged) {
    tree.must({"up"});
    tree.see("work loop start");
    EXPECT_EQ(tree.ask({"log-level"}).value("level", -1), 3);
    tree.must({"log-level", "1"});
    EXPECT_EQ(tree.ask({"log-level"}).value("level", -1), 1);
    const std::int64_t quiet = tree.mark("host");
    tree.must({"engine", "push", "alarm", tree.path("bin/vrd_services").string()});
    tree.wait_record("alarm", 0);
    EXPECT_FALSE(tree.has_logged("get qd_alarm data", quiet, "host"));
    tree.must({"log-level", "3"});
    tree.must({"engine", "push", "alarm", tree.path("bin/vrd_services").string()});
    tree.see("get qd_alarm data", quiet, "host");
}

TEST_F(life, reload_starts_a_new_worker_in_the_same_host) {
    tree.must({"up"});
    const std::int64_t from = tree.see("work loop start");
    const pid_t host = tree.pid_of("bin/kze_agent");
    tree.must({"reload"});
    tree.see("kzemm_work stopped", from);
    tree.see("work loop start", from);
    EXPECT_EQ(tree.pid_of("bin/kze_agent"), host);
}

TEST_F(life, watch_shows_log_and_records_until_the_hosts_end) {
    tree.switch_on();
    tree.must({"up"});
    child_process watching({tree.path("bin/kzectl").string(), "watch"});
    bool log = false;
    bool record = false;
    while (!(log && record)) {
        const std::string line = watching.read_line();
        ASSERT_NE(line, "") << "it has ended";
        log = log || line.find("plug-in  work loop start") != std::string::npos;
        record = record || (line.find("gateway  record ") != std::string::npos &&
                            line.find(": 5 origin") != std::string::npos);
    }
    tree.must({"down"});
    const int status = watching.wait();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), not_running);
}

/* A worker that is told to stop during its start doesn't notice; up and reload wait for its end. */
TEST_F(life, down_right_behind_up_or_reload_is_clean) {
    for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(tree.ask({"up"}).value("worker", ""), "working");
        tree.must({"down"});
        tree.must({"up"});
        EXPECT_EQ(tree.ask({"reload"}).value("worker", ""), "working");
        tree.must({"down"});
    }
}

TEST_F(life, two_trees_run_side_by_side) {
    agent_tree other;
    for (const agent_tree *each : {&tree, &other}) {
        each->switch_on();
        each->must({"up"});
        each->see("work loop start");
    }
    const std::string marker = "only for the other tree";
    other.write("var/marker", marker);
    other.must({"engine", "push", "alarm", other.path("var/marker").string()});
    EXPECT_NE(other.wait_record("alarm", 0, marker), 0);
    tree.wait_record("origin", 0);
    EXPECT_EQ(tree.ask({"gateway", "list", "--type", "alarm"})["records"].size(), 0U);

    other.must({"down"});
    expect_nothing_left(other);
    EXPECT_EQ(tree.ctl({"status"}).status, done);
}

TEST_F(life, a_tree_deeper_than_a_socket_address_can_hold_works) {
    agent_tree deep(std::string(60, 'a') + "/" + std::string(60, 'b') + "/tree");
    ASSERT_GT(deep.path("run/agt_host.sock").string().size(), 108U);
    deep.switch_on();
    deep.must({"up"});
    EXPECT_NE(deep.wait_record("origin", 0), 0);
    deep.must({"down"});
    expect_nothing_left(deep);
}

TEST_F(life, a_directory_that_is_no_tree_is_refused_and_nothing_in_it_is_touched) {
    agent_tree stranger;
    stranger.write("var/kept", "theirs");
    stranger.write("run/kept", "theirs");
    stranger.remove("bin/kze_agent");
    const std::string directory = stranger.path().string();
    for (const std::vector<std::string> &command :
         {std::vector<std::string>{"up", "--fresh"}, {"down"}, {"status"}}) {
        std::vector<std::string> by_option = command;
        by_option.insert(by_option.end(), {"--tree", directory});
        for (const command_result &result :
             {tree.ctl(by_option), tree.ctl(command, {"KZE_AGENT_HOME=" + directory + "/bin"})}) {
            EXPECT_EQ(result.status, usage) << result.out << result.err;
            EXPECT_NE(result.err.find("it has no bin/kze_agent"), std::string::npos) << result.err;
        }
    }
    EXPECT_EQ(stranger.read("var/kept"), "theirs");
    EXPECT_EQ(stranger.read("run/kept"), "theirs");
}

TEST_F(life, a_strangers_program_below_the_tree_is_left_alone) {
    std::filesystem::create_directories(tree.path("elsewhere"));
    std::filesystem::copy_file("/bin/cat", tree.path("elsewhere/cat"));
    child_process stranger({tree.path("elsewhere/cat").string()});
    stranger.write_line("here");
    ASSERT_EQ(stranger.read_line(), "here");
    tree.must({"up", "--fresh"});
    tree.must({"down"});
    stranger.write_line("still here");
    EXPECT_EQ(stranger.read_line(), "still here");
}

TEST_F(life, another_trees_kzectl_drives_this_one_with_the_tree_option) {
    tree.must({"up"});
    agent_tree other;
    EXPECT_EQ(other.ctl({"status"}).status, not_running);
    EXPECT_EQ(other.ctl({"--tree", tree.path().string(), "status"}).status, done);
    EXPECT_EQ(other.ctl({"down", "--tree", tree.path().string()}).status, done);
    expect_nothing_left(tree);
}

TEST_F(life, a_host_that_was_killed_is_told_from_one_that_runs_and_starts_again) {
    tree.must({"up"});
    const pid_t host = tree.pid_of("bin/kze_agent");
    kill(host, SIGKILL);
    ASSERT_TRUE(eventually([&] { return tree.pid_of("bin/kze_agent") == 0; }));
    EXPECT_EQ(tree.ctl({"status"}).status, not_running);
    const std::int64_t from = tree.mark();
    tree.must({"up"});
    tree.see("x_client status 1", from);
}

TEST_F(life, a_host_that_does_not_end_is_killed_within_the_time_limit) {
    tree.must({"up"});
    tree.see("work loop start");
    kill(tree.pid_of("bin/kze_agent"), SIGSTOP);
    const command_result result = tree.ctl({"down", "--timeout", "1"});
    EXPECT_EQ(result.status, timed_out);
    EXPECT_NE(result.err.find("bin/kze_agent"), std::string::npos) << result.err;
    expect_nothing_left(tree);
}

TEST_F(life, up_says_where_the_log_is_when_the_host_does_not_start) {
    tree.write("bin/kze_agent", "#!/bin/sh\necho no agent today\nexit 3\n");
    std::filesystem::permissions(tree.path("bin/kze_agent"), std::filesystem::perms::owner_all);
    const command_result result = tree.ctl({"up"});
    EXPECT_EQ(result.status, failed);
    EXPECT_NE(result.err.find("ended with status 3"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find(tree.path("var/log/kze_agent.out").string()), std::string::npos)
        << result.err;
    EXPECT_EQ(tree.read("var/log/kze_agent.out"), "no agent today\n");
}

}  // namespace
}  // namespace kze_test
