#include "tests/unit/worker_test.h"

using fakes::at;
using fakes::log_lines;
using fakes::open_timers;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr fakes::microseconds turn_us = 100000;

class kzemm_work_test : public worker_test {
  protected:
    void SetUp() override {
        worker_test::SetUp();
        make_config_readable();
    }

    // The lines of clean for a worker whose configuration was made.
    static std::vector<testing::Matcher<const fakes::record &>> clean_lines() {
        return {at(3, "stop cfg timer"),      at(3, "stop switch timer"),
                at(3, "stop qd timer"),       at(3, "x_client status 2"),
                at(3, "uninit kzemm_config"), at(3, "uninit cfgc succeed"),
                at(3, "uninit kzemm_config"), at(3, "clean succeed")};
    }

    // One mark for each step of start, in the order in which the marks came.
    static std::vector<std::string> steps_of_start() {
        const char *const marks[] = {
            "NewClient",
            "x_client_start",
            "GetValue /mgr/base_collect /adv_threats",
            "x_client_subscribe_origin_data",
            "x_client_engine_control(6",
            "x_client_engine_control(17",
            "x_client_engine_subscribe_alarm",
            "x_client_register_coordinate_cb(2)",
            "kzemm_work start succeed",
        };
        std::vector<std::string> result;
        for (const std::string &each :
             fakes::texts({fakes::what::log, fakes::what::engine, fakes::what::config})) {
            for (const std::string mark : marks) {
                if (each.compare(0, mark.size(), mark) == 0) {
                    result.push_back(mark);
                }
            }
        }
        return result;
    }

    // Runs the loop of a started worker and stops it within its nth turn.
    void run_turns(unsigned int turns) {
        fakes::at_loop_turn(turns, [this] { work.stop(); });
        EXPECT_EQ(work.run(), 0);
    }
};

}  // namespace

TEST_F(kzemm_work_test, a_new_worker_holds_nothing) {
    EXPECT_FALSE(fields::running(work));
    EXPECT_EQ(fields::ipc(work), nullptr);
    EXPECT_EQ(fields::rpdsp_addr(work), nullptr);
    EXPECT_EQ(fields::lkg_addr(work), nullptr);
    EXPECT_EQ(fields::task(work), nullptr);
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_INIT);
    EXPECT_EQ(fields::cfg_timer(work), nullptr);
    EXPECT_EQ(fields::switch_timer(work), nullptr);
    EXPECT_EQ(fields::upgrade(work), nullptr);
    EXPECT_EQ(fields::qd_timer(work), nullptr);
    EXPECT_THAT(log_lines(), IsEmpty());
}

// ---- start ----

TEST_F(kzemm_work_test, start_makes_configuration_client_switches_and_subscriptions_in_order) {
    EXPECT_EQ(work.start(), 0);
    EXPECT_THAT(
        steps_of_start(),
        ElementsAre("NewClient", "x_client_start", "GetValue /mgr/base_collect /adv_threats",
                    "x_client_subscribe_origin_data", "x_client_engine_control(6",
                    "x_client_engine_control(17", "x_client_engine_subscribe_alarm",
                    "x_client_register_coordinate_cb(2)", "kzemm_work start succeed"));
    EXPECT_TRUE(fields::running(work));
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_ONLINE);
}

TEST_F(kzemm_work_test, start_logs_its_first_steps_and_its_end) {
    EXPECT_EQ(work.start(), 0);
    const std::vector<fakes::record> lines = log_lines();
    ASSERT_GT(lines.size(), 5U);
    EXPECT_THAT(lines.front(), at(3, "init kzemm_config"));
    EXPECT_THAT(lines, Contains(at(3, "init kzemm_config succeed")).Times(2));
    EXPECT_THAT(lines.back(), at(3, "kzemm_work start succeed"));
}

TEST_F(kzemm_work_test, start_does_not_arm_the_watch) {
    EXPECT_EQ(work.start(), 0);
    EXPECT_EQ(fields::qd_timer(work), nullptr);
    EXPECT_THAT(open_timers(), IsEmpty());
}

TEST_F(kzemm_work_test, a_second_start_only_warns) {
    EXPECT_EQ(work.start(), 0);
    fakes::clear_journal();
    EXPECT_EQ(work.start(), 0);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "kzemm_work already started")));
    EXPECT_THAT(fakes::texts({fakes::what::engine, fakes::what::config}), IsEmpty());
    EXPECT_TRUE(fields::running(work));
}

TEST_F(kzemm_work_test, a_configuration_that_cannot_be_made_fails_start_before_the_engine) {
    fakes::config_refuses_client();
    EXPECT_EQ(work.start(), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "init kzemm_config"), at(3, "init cfgc"),
                            at(1, "failed to create cfgc client"), at(1, "init cfgc failed"),
                            at(1, "kzemm_config init failed"), at(1, "init cfgc failed")));
    EXPECT_THAT(fakes::texts({fakes::what::engine, fakes::what::timer}), IsEmpty());
    EXPECT_FALSE(fields::running(work));
}

TEST_F(kzemm_work_test, an_engine_that_is_given_up_fails_start_with_nothing_undone) {
    install_vrd_services();
    fakes::engine_always_returns("x_client_start", -1);
    EXPECT_EQ(work.start(), -1);
    EXPECT_THAT(log_lines().back(), at(1, "start qd client failed"));
    EXPECT_FALSE(fields::running(work));
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_INIT);
    EXPECT_TRUE(config::initialized());  // left to clean
    EXPECT_EQ(fakes::engine_calls().size(), 22U);
    EXPECT_THAT(log_lines(), Not(Contains(at(3, StartsWith("ssh:")))));
}

TEST_F(kzemm_work_test, a_failed_set_of_the_switches_does_not_count) {
    make_config_unreadable();
    fakes::fail_timer_start(1);
    EXPECT_EQ(work.start(), 0);
    EXPECT_TRUE(fields::running(work));
    EXPECT_THAT(log_lines(), Contains(at(2, "start cfgc timer failed, use default")));
    EXPECT_THAT(controls(), IsEmpty());
    EXPECT_EQ(fakes::engine_calls("x_client_engine_subscribe_alarm").size(), 1U);
}

TEST_F(kzemm_work_test, a_failed_subscription_does_not_count) {
    fakes::engine_always_returns("x_client_engine_subscribe_alarm", -1);
    fakes::engine_always_returns("x_client_register_coordinate_cb", -1);
    EXPECT_EQ(work.start(), 0);
    EXPECT_TRUE(fields::running(work));
}

TEST_F(kzemm_work_test, missing_settings_do_not_fail_start) {
    EXPECT_EQ(work.start(), 0);
    EXPECT_THAT(log_lines(), Contains(at(2, "load ini failed, use default")));
}

TEST_F(kzemm_work_test, start_takes_the_tries_from_the_settings_file) {
    write_file("config/kzemdlmgr.ini", "[basic]\noffline_retry_times = 7\n");
    EXPECT_EQ(work.start(), 0);
    EXPECT_THAT(log_lines(), Contains(at(3, "qd_client_start, max_try_times: 7")));
}

// ---- run and stop ----

TEST_F(kzemm_work_test, run_arms_the_watch_and_then_begins_the_loop) {
    fields::running(work) = true;
    run_turns(1);
    EXPECT_THAT(fakes::texts({fakes::what::log, fakes::what::timer, fakes::what::loop}),
                ElementsAre("start 1 1000/1000", "start qd timer success", "work loop start",
                            "nowait 1", "kzemm_work stopped succeed", "work loop stop"));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "start qd timer success"), at(3, "work loop start"),
                            at(3, "kzemm_work stopped succeed"), at(3, "work loop stop")));
    work.stop_qd_timer();
}

TEST_F(kzemm_work_test, each_turn_is_followed_by_a_pause_of_100_ms) {
    fields::running(work) = true;
    run_turns(7);
    EXPECT_EQ(fakes::sleeps(), std::vector<fakes::microseconds>(7, turn_us));
    work.stop_qd_timer();
}

TEST_F(kzemm_work_test, a_worker_that_is_not_running_makes_no_turn) {
    bool turned = false;
    fakes::at_loop_turn(1, [&] { turned = true; });
    EXPECT_EQ(work.run(), 0);
    EXPECT_FALSE(turned);
    EXPECT_THAT(fakes::sleeps(), IsEmpty());
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "start qd timer success"), at(3, "work loop start"),
                                         at(3, "work loop stop")));
    work.stop_qd_timer();
}

TEST_F(kzemm_work_test, stop_during_the_pause_ends_the_loop_without_another_turn) {
    fields::running(work) = true;
    fakes::at_sleep(3, [this] { work.stop(); });
    EXPECT_EQ(work.run(), 0);
    EXPECT_EQ(fakes::sleeps().size(), 3U);
    work.stop_qd_timer();
}

TEST_F(kzemm_work_test, the_loop_runs_without_a_watch_that_cannot_be_armed) {
    fields::running(work) = true;
    fakes::fail_timer_start(1);
    run_turns(2);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(2, "start qd timer failed"), at(3, "work loop start"),
                            at(3, "kzemm_work stopped succeed"), at(3, "work loop stop")));
    EXPECT_EQ(fakes::sleeps().size(), 2U);
}

TEST_F(kzemm_work_test, the_timers_fire_within_the_loop) {
    EXPECT_EQ(work.start(), 0);
    fakes::engine_goes_offline();
    fakes::clear_journal();
    run_turns(11);  // the watch looks in the eleventh turn, one second after the first
    EXPECT_EQ(fakes::now_us(), 11 * turn_us);
    EXPECT_THAT(log_lines(), Contains(at(3, "x_clinet is offline, start restart client")));
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_ONLINE);
    work.stop_qd_timer();
}

TEST_F(kzemm_work_test, an_offline_report_before_the_loop_is_handled_by_the_first_look) {
    EXPECT_EQ(work.start(), 0);
    fakes::engine_goes_offline();
    fakes::clear_journal();
    run_turns(10);
    EXPECT_THAT(log_lines(), Not(Contains(at(3, "x_clinet is offline, start restart client"))));
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_OFFLINE);
    work.stop_qd_timer();
}

TEST_F(kzemm_work_test, an_engine_that_stays_away_ends_the_loop) {
    install_vrd_services();
    EXPECT_EQ(work.start(), 0);
    fakes::engine_goes_offline();
    fakes::engine_always_returns("x_client_start", -1);
    EXPECT_EQ(work.run(), 0);
    const std::vector<fakes::record> lines = log_lines();
    EXPECT_THAT(std::vector<fakes::record>(lines.end() - 3, lines.end()),
                ElementsAre(at(1, "start qd client failed"), at(3, "kzemm_work stopped succeed"),
                            at(3, "work loop stop")));
    EXPECT_EQ(fields::qd_timer(work), nullptr);
}

TEST_F(kzemm_work_test, stop_only_clears_the_flag) {
    EXPECT_EQ(work.start(), 0);
    EXPECT_EQ(work.start_qd_timer(), 0);
    fakes::clear_journal();
    work.stop();
    EXPECT_FALSE(fields::running(work));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "kzemm_work stopped succeed")));
    EXPECT_THAT(fakes::texts({fakes::what::engine, fakes::what::timer, fakes::what::sleep}),
                IsEmpty());
    EXPECT_NE(fields::qd_timer(work), nullptr);
    work.stop_qd_timer();
}

// ---- clean ----

TEST_F(kzemm_work_test, clean_releases_in_its_order) {
    make_config_unreadable();
    EXPECT_EQ(work.start(), 0);
    EXPECT_EQ(work.retry_switch_engine({ENGINE_MD}), 0);
    fakes::left_behind_by_design(fields::switch_timer(work)->user);
    EXPECT_EQ(work.start_qd_timer(), 0);
    fakes::clear_journal();
    work.clean();
    EXPECT_THAT(fakes::texts({fakes::what::log, fakes::what::timer, fakes::what::engine,
                              fakes::what::config}),
                ElementsAre("stop 1", "close 1", "stop cfg timer",     // the configuration's
                            "stop 2", "close 2", "stop switch timer",  // the retry's
                            "stop 3", "close 3", "stop qd timer",      // the watch
                            "x_client status 2", "x_client_stop", "uninit kzemm_config",
                            "DeleteClient", "DllDestroyObject", "uninit cfgc succeed",
                            "uninit kzemm_config", "clean succeed"));
    EXPECT_THAT(log_lines(), ElementsAreArray(clean_lines()));
    EXPECT_EQ(fields::cfg_timer(work), nullptr);
    EXPECT_EQ(fields::switch_timer(work), nullptr);
    EXPECT_EQ(fields::qd_timer(work), nullptr);
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_OFFLINE);
    EXPECT_FALSE(config::initialized());
    EXPECT_EQ(fakes::open_handles(fakes::config_library), 0U);
}

TEST_F(kzemm_work_test, clean_of_a_worker_that_never_started_passes_over_what_is_not_there) {
    work.clean();
    EXPECT_THAT(log_lines(), ElementsAreArray(clean_lines()));
    EXPECT_THAT(fakes::texts({fakes::what::engine, fakes::what::timer, fakes::what::config}),
                ElementsAre("x_client_stop"));
}

TEST_F(kzemm_work_test, clean_after_a_start_without_configuration_still_stops_the_client) {
    fakes::library_missing(fakes::config_library);
    EXPECT_EQ(work.start(), -1);
    fakes::clear_journal();
    work.clean();
    EXPECT_THAT(log_lines(), ElementsAreArray(clean_lines()));
    EXPECT_THAT(fakes::texts({fakes::what::engine}), ElementsAre("x_client_stop"));
}

TEST_F(kzemm_work_test, clean_after_a_start_without_engine_releases_the_configuration) {
    install_vrd_services();
    fakes::engine_always_returns("x_client_start", -1);
    EXPECT_EQ(work.start(), -1);
    fakes::clear_journal();
    work.clean();
    EXPECT_THAT(log_lines(), ElementsAreArray(clean_lines()));
    EXPECT_EQ(fakes::config_open().clients, 0U);
    EXPECT_FALSE(config::initialized());
}

TEST_F(kzemm_work_test, clean_goes_on_when_the_client_cannot_be_stopped) {
    fakes::engine_returns("x_client_stop", {-1});
    work.clean();
    auto expected = clean_lines();
    expected.insert(expected.begin() + 4, at(2, "x_client stop failed"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
}

TEST_F(kzemm_work_test, clean_twice_releases_once) {
    EXPECT_EQ(work.start(), 0);
    work.clean();
    fakes::clear_journal();
    work.clean();
    EXPECT_THAT(log_lines(), ElementsAreArray(clean_lines()));
    EXPECT_THAT(fakes::texts({fakes::what::config, fakes::what::timer}), IsEmpty());
}
