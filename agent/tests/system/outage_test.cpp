/* The engine goes away in all the ways it can, and comes back. */
#include <csignal>

#include "agent/tests/system/agent_tree.h"

namespace kze_test {
namespace {

class outage : public system_test {
  protected:
    void bring_up() const {
        tree.switch_on();
        tree.must({"up"});
        tree.see("work loop start");
        tree.wait_record("origin", 0);
    }

    /* The plug-in has noticed and mended the outage that began at the mark. The offline callback
     * runs on a thread of the client, which logs to the host's log. */
    void expect_mended(std::int64_t from) const {
        const std::int64_t noticed =
            tree.see("x_clinet is offline, start restart client", from, "worker", 40);
        tree.see("qd-agent is offline", 0, "host", 1);
        std::int64_t next = tree.see("x_client status 1", noticed, "worker", 60);
        next = tree.see("set engine switch success", next);
        for (const char *registered :
             {"qd subscribe alarm ret: 0", "qd register hunting coordinate cb ret: 0",
              "qd register linakge coordinate cb ret: 0", "qd register append coordinate cb ret: 0",
              "qd register engine credible cb ret: 0", "qd subscribe origin data success"}) {
            next = tree.see(registered, next);
        }
    }

    void expect_working() const {
        EXPECT_EQ(tree.capabilities_on().size(), 6U);
        const std::int64_t from = tree.newest_record();
        tree.write("var/pushed", "after the outage");
        tree.must({"engine", "push", "alarm", tree.path("var/pushed").string()});
        EXPECT_NE(tree.wait_record("alarm", from, "after the outage"), 0);
    }
};

TEST_F(outage, an_engine_that_died_is_noticed_and_everything_is_sent_anew) {
    bring_up();
    const std::int64_t from = tree.mark();
    const std::int64_t records = tree.newest_record();
    const pid_t engine = tree.pid_of("qd_agent/bin/qd_agent");
    tree.must({"engine", "die"});
    expect_mended(from);
    EXPECT_NE(tree.pid_of("qd_agent/bin/qd_agent"), engine);
    EXPECT_NE(tree.wait_record("origin", records), 0);
    expect_working();
}

TEST_F(outage, a_killed_engine_is_the_same_as_one_that_died) {
    bring_up();
    const std::int64_t from = tree.mark();
    kill(tree.pid_of("qd_agent/bin/qd_agent"), SIGKILL);
    expect_mended(from);
    expect_working();
}

TEST_F(outage, a_silent_engine_counts_as_gone_until_it_answers_again) {
    bring_up();
    const std::int64_t from = tree.mark();
    tree.must({"engine", "silent"});
    tree.see("x_clinet is offline, start restart client", from, "worker", 40);
    tree.must({"engine", "clear"});
    expect_mended(from);
    expect_working();
}

TEST_F(outage, a_stopped_engine_is_missed_until_it_is_started) {
    bring_up();
    std::int64_t from = tree.mark();
    tree.must({"engine", "stop"});
    from = tree.see("x_clinet is offline, start restart client", from);
    for (const char *wait :
         {"qd start try_times: 1, interval: 2", "qd start try_times: 2, interval: 4"}) {
        from = tree.see(wait, from);
    }
    tree.must({"engine", "start"});
    tree.see("x_client status 1", from);
    tree.see("qd subscribe origin data success", from);
    expect_working();
}

TEST_F(outage, an_engine_that_is_not_there_at_the_start_is_waited_for) {
    tree.switch_on();
    EXPECT_EQ(tree.ask({"up", "--no-engine"}).value("worker", ""), "waiting");
    EXPECT_EQ(tree.ctl({"status"}).status, not_running);
    std::int64_t from = tree.see("qd start try_times: 1, interval: 2");
    EXPECT_FALSE(tree.has_logged("kzemm_work start succeed"));
    tree.must({"engine", "start"});
    from = tree.see("x_client status 1", from);
    tree.see("kzemm_work start succeed", from);
    EXPECT_NE(tree.wait_record("origin", 0), 0);
    expect_working();
}

TEST_F(outage, an_engine_that_refuses_the_client_is_asked_again) {
    tree.must({"engine", "answer", "x_client_start", "--code", "-5", "--times", "2"});
    bring_up();
    EXPECT_TRUE(tree.has_logged("qd start try_times: 2, interval: 4"));
    EXPECT_FALSE(tree.has_logged("qd start try_times: 3"));
    expect_working();
}

TEST_F(outage, the_hosts_own_service_goes_on_while_the_plug_in_waits) {
    bring_up();
    const std::int64_t from = tree.mark();
    tree.must({"engine", "die", "--stay-down"});
    tree.see("qd start try_times: 1, interval: 2", from);
    EXPECT_EQ(tree.ask({"log-level"}).value("level", -1), 3);
    tree.see("qd start try_times: 2, interval: 4", from);
    tree.must({"engine", "start"});
    tree.see("x_client status 1", from);
}

TEST_F(outage, down_is_bounded_while_the_plug_in_waits_for_the_engine) {
    bring_up();
    const std::int64_t from = tree.mark();
    tree.must({"engine", "die", "--stay-down"});
    tree.see("qd start try_times: 3, interval: 8", from);
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(tree.ctl({"down", "--timeout", "1"}).status, timed_out);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(7));
    expect_nothing_left(tree);
}

}  // namespace
}  // namespace kze_test
