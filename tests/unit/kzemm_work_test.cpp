#include <thread>

#include "tests/fakes/fake_gateway.h"
#include "tests/unit/worker_test.h"
#include "upgrade/kzemm_upgrade.h"

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

    using line = testing::Matcher<const fakes::record &>;

    // The lines of clean for a worker that never started.
    static std::vector<line> clean_lines() {
        return {at(3, "stop cfg timer"),      at(3, "stop switch timer"),
                at(3, "stop qd timer"),       at(3, "uinit CUpgradeRelay"),
                at(3, "uninit ipc"),          at(3, "uninit kzemm_task"),
                at(3, "x_client status 2"),   at(3, "uninit kzemm_config"),
                at(3, "uninit cfgc succeed"), at(3, "uninit kzemm_config"),
                at(3, "clean succeed")};
    }

    // The same with the lines of what each step releases.
    static std::vector<line> clean_lines_with(const std::vector<line> &of_upgrade,
                                              const std::vector<line> &of_task) {
        std::vector<line> result = clean_lines();
        result.insert(result.begin() + 6, of_task.begin(), of_task.end());
        result.insert(result.begin() + 4, of_upgrade.begin(), of_upgrade.end());
        return result;
    }

    static std::vector<line> lines_of_running_upgrade() {
        return {at(3, "upgrade uninit."), at(3, "kzemdlmgr upgrade thread exit."),
                at(3, "stop upgrade timer.")};
    }

    static std::vector<line> lines_of_running_task() {
        return {at(3, "task thread is stopped"), at(3, "kzemm_task uninitialized")};
    }

    // One mark for each step of start, in the order in which the marks came.
    static std::vector<std::string> steps_of_start() {
        const char *const marks[] = {
            "NewClient",
            "x_client_start",
            "create agt_rpt 0",
            "address agt_lkg 1 0",
            "address agt_rpdsp 0 0",
            "start",  // of the task thread
            "GetValue /mgr/base_collect /adv_threats",
            "x_client_subscribe_origin_data",
            "x_client_engine_control(6",
            "x_client_engine_control(17",
            "x_client_engine_subscribe_alarm",
            "x_client_register_coordinate_cb(2)",
            "x_client_engine_subscribe_credible",
            "on request",
            "on message",
            "upgrade init",
            "address agt_cfgc 1 2",
            "request 1004",
            "destroy address agt_cfgc",
            "kzemm_work start succeed",
        };
        std::vector<std::string> result;
        for (const std::string &each :
             worker_texts({fakes::what::log, fakes::what::engine, fakes::what::config,
                           fakes::what::ipc, fakes::what::thread})) {
            for (const std::string mark : marks) {
                if (mark == "start" ? each == mark : each.compare(0, mark.size(), mark) == 0) {
                    result.push_back(mark);
                }
            }
        }
        return result;
    }

    // The lines of start that its own steps write, without those of the switches and the
    // subscriptions between them.
    static std::vector<fakes::record> lines_of_steps() {
        std::vector<fakes::record> result;
        for (const fakes::record &each : worker_lines()) {
            if (each.file == "kzemm_work.cpp" || each.file == "kzemm_work_ipc.cpp" ||
                each.file == "kzemm_task.cpp" || each.file == "kzemm_upgrade.cpp" ||
                each.file == "kzemm_work_module_config.cpp") {
                result.push_back(each);
            }
        }
        return result;
    }

    static std::vector<line> expected_lines_of_steps() {
        return {at(3, "init kzemm_config"),
                at(3, "init kzemm_config succeed"),
                at(3, "init ipc"),
                at(3, "init ipc succeed"),
                at(3, "init kzemm_task"),
                at(3, "init kzemm_task"),  // of the queue itself
                at(3, "create task thread success"),
                at(3, "init kzemm_task success"),
                at(3, "init kzemm_task succeed"),
                at(3, "register ipc callback success"),
                at(3, "init CUpgradeRelay"),
                at(3, "upgrade init"),
                at(3, "request cfgc success"),
                at(3, "kzemm_work start succeed")};
    }

    // The lines of the steps before the one that failed, and its own.
    static std::vector<line> expected_lines_until(size_t steps, const std::vector<line> &failure) {
        std::vector<line> result = expected_lines_of_steps();
        result.resize(steps);
        result.insert(result.end(), failure.begin(), failure.end());
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

TEST_F(kzemm_work_test, start_takes_its_steps_in_order) {
    start();
    const std::vector<std::string> switches = {
        "GetValue /mgr/base_collect /adv_threats", "x_client_subscribe_origin_data",
        "x_client_engine_control(6", "x_client_engine_control(17"};
    std::vector<std::string> expected = {
        "NewClient",           "x_client_start",        "create agt_rpt 0",
        "address agt_lkg 1 0", "address agt_rpdsp 0 0", "start"};
    expected.insert(expected.end(), switches.begin(), switches.end());
    for (const char *const each :
         {"x_client_engine_subscribe_alarm", "x_client_register_coordinate_cb(2)",
          "x_client_engine_subscribe_credible", "on request", "on message", "upgrade init",
          "address agt_cfgc 1 2"}) {
        expected.emplace_back(each);
    }
    expected.insert(expected.end(), switches.begin(), switches.end());  // those of request_cfg
    expected.insert(expected.end(), 4, "request 1004");
    expected.emplace_back("destroy address agt_cfgc");
    expected.emplace_back("kzemm_work start succeed");
    EXPECT_EQ(steps_of_start(), expected);
}

TEST_F(kzemm_work_test, a_started_worker_holds_all_it_needs) {
    start();
    EXPECT_TRUE(fields::running(work));
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_ONLINE);
    EXPECT_EQ(fields::ipc(work), fakes::ipc_by_name("agt_rpt"));
    EXPECT_EQ(fields::lkg_addr(work), fakes::addr_by_name("agt_lkg"));
    EXPECT_EQ(fields::rpdsp_addr(work), fakes::addr_by_name("agt_rpdsp"));
    EXPECT_THAT(fakes::open_ipcs(), ElementsAre("agt_rpt"));
    EXPECT_THAT(fakes::open_addrs(), ElementsAre("agt_lkg", "agt_rpdsp"));
    ASSERT_NE(fields::task(work), nullptr);
    EXPECT_TRUE(kzemm_task_inspector::initialized(*fields::task(work)));
    EXPECT_TRUE(kzemm_task_inspector::running(*fields::task(work)));
    EXPECT_NE(fields::upgrade(work), nullptr);
    EXPECT_EQ(fakes::unjoined_kze_threads(), 1U);
    EXPECT_EQ(fakes::unjoined_threads(), 1U);
}

TEST_F(kzemm_work_test, start_logs_each_step) {
    start();
    EXPECT_THAT(lines_of_steps(), ElementsAreArray(expected_lines_of_steps()));
    EXPECT_THAT(worker_lines().front(), at(3, "init kzemm_config"));
    EXPECT_THAT(worker_lines().back(), at(3, "kzemm_work start succeed"));
}

TEST_F(kzemm_work_test, start_asks_for_the_modules_on_its_own_endpoint) {
    start();
    ASSERT_EQ(fakes::ipc_requests().size(), 4U);
    for (const fakes::ipc_request &each : fakes::ipc_requests()) {
        EXPECT_EQ(each.ipc, fields::ipc(work));
    }
}

TEST_F(kzemm_work_test, start_does_not_arm_the_watch) {
    start();
    EXPECT_EQ(fields::qd_timer(work), nullptr);
    EXPECT_THAT(open_timers(), IsEmpty());
}

TEST_F(kzemm_work_test, a_second_start_only_warns) {
    start();
    fakes::clear_journal();
    EXPECT_EQ(work.start(), 0);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "kzemm_work already started")));
    EXPECT_THAT(fakes::texts({fakes::what::engine, fakes::what::config, fakes::what::ipc,
                              fakes::what::thread}),
                IsEmpty());
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
    EXPECT_THAT(fakes::texts({fakes::what::ipc, fakes::what::thread}), IsEmpty());
}

TEST_F(kzemm_work_test, an_endpoint_that_cannot_be_made_fails_start) {
    fakes::ipc_create_fails("agt_rpt");
    EXPECT_EQ(work.start(), -1);
    EXPECT_THAT(lines_of_steps(),
                ElementsAreArray(expected_lines_until(
                    3, {at(1, "create ipc agt_rpt failed"), at(1, "init ipc failed")})));
    EXPECT_FALSE(fields::running(work));
    EXPECT_EQ(fields::task(work), nullptr);
    EXPECT_EQ(fields::upgrade(work), nullptr);
    EXPECT_TRUE(config::initialized());  // left to clean, with the client
    EXPECT_THAT(fakes::engine_texts(), ElementsAre("x_client_start"));
}

TEST_F(kzemm_work_test, an_address_that_cannot_be_made_fails_start_and_the_endpoint_is_left) {
    fakes::addr_create_fails("agt_rpdsp");
    EXPECT_EQ(work.start(), -1);
    EXPECT_THAT(lines_of_steps(),
                ElementsAreArray(expected_lines_until(
                    3, {at(1, "create ipc address agt_rpdsp failed"), at(1, "init ipc failed")})));
    EXPECT_THAT(fakes::open_ipcs(), ElementsAre("agt_rpt"));
    EXPECT_THAT(fakes::open_addrs(), ElementsAre("agt_lkg"));
    EXPECT_EQ(fields::task(work), nullptr);
}

TEST_F(kzemm_work_test, a_task_queue_without_memory_fails_start) {
    fakes::at_record(fakes::what::log, "init kzemm_task", [] { fakes::fail_allocation(1); });
    EXPECT_EQ(work.start(), -1);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(lines_of_steps(),
                ElementsAreArray(expected_lines_until(
                    5, {at(1, "new kzemm_task failed"), at(1, "init task failed")})));
    EXPECT_EQ(fields::task(work), nullptr);
    EXPECT_THAT(controls(), IsEmpty());
}

TEST_F(kzemm_work_test, a_task_thread_that_cannot_be_started_fails_start_and_the_queue_is_left) {
    fakes::kze_thread_start_fails(11);
    EXPECT_EQ(work.start(), -1);
    EXPECT_THAT(lines_of_steps(),
                ElementsAreArray(expected_lines_until(
                    6, {at(1, "start task thread failed: 11"), at(1, "create task thread failed"),
                        at(1, "kzemm_task init failed"), at(1, "init task failed")})));
    ASSERT_NE(fields::task(work), nullptr);
    EXPECT_FALSE(kzemm_task_inspector::initialized(*fields::task(work)));
    EXPECT_FALSE(kzemm_task_inspector::running(*fields::task(work)));
    EXPECT_THAT(controls(), IsEmpty());
}

TEST_F(kzemm_work_test, a_refused_request_callback_fails_start_behind_the_subscriptions) {
    fakes::ipc_on_request_returns(-4);
    EXPECT_EQ(work.start(), -1);
    EXPECT_THAT(lines_of_steps(),
                ElementsAreArray(expected_lines_until(
                    9, {at(2, "register ipc_on_request failed, ret -4, error: the peer says no"),
                        at(1, "register ipc callback failed")})));
    EXPECT_EQ(fakes::engine_calls("x_client_register_coordinate_cb").size(), 3U);
    EXPECT_EQ(fields::upgrade(work), nullptr);
    EXPECT_FALSE(fields::running(work));
}

TEST_F(kzemm_work_test, a_refused_message_callback_fails_start) {
    fakes::ipc_msg_recv_returns(5);
    EXPECT_EQ(work.start(), -1);
    EXPECT_THAT(lines_of_steps(),
                ElementsAreArray(expected_lines_until(
                    9, {at(2, "register on_ipc_recv failed, ret 5, error: the peer says no"),
                        at(1, "register ipc callback failed")})));
    EXPECT_EQ(fields::upgrade(work), nullptr);
}

TEST_F(kzemm_work_test, an_upgrade_relay_without_memory_fails_start) {
    fakes::at_record(fakes::what::log, "init CUpgradeRelay", [] { fakes::fail_allocation(1); });
    EXPECT_EQ(work.start(), -1);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(lines_of_steps(),
                ElementsAreArray(expected_lines_until(
                    11, {at(1, "new CUpgradeRelay failed"), at(1, "init upgrade failed")})));
    EXPECT_EQ(fields::upgrade(work), nullptr);
    EXPECT_THAT(fakes::ipc_requests(), IsEmpty());
    EXPECT_FALSE(fields::running(work));
}

TEST_F(kzemm_work_test, an_upgrade_thread_that_cannot_be_made_fails_start_and_the_relay_is_left) {
    fakes::isolated_threads_fail(11);
    EXPECT_EQ(work.start(), -1);
    EXPECT_THAT(lines_of_steps(), ElementsAreArray(expected_lines_until(
                                      12, {at(1, "cl_ev_create_isolated_thread failed, ret: 11"),
                                           at(1, "init upgrade failed")})));
    EXPECT_NE(fields::upgrade(work), nullptr);
    EXPECT_THAT(fakes::ipc_requests(), IsEmpty());
    EXPECT_FALSE(fields::running(work));
}

TEST_F(kzemm_work_test, a_configuration_service_without_an_address_does_not_fail_start) {
    fakes::addr_create_fails("agt_cfgc");
    start();
    auto expected = expected_lines_of_steps();
    expected[12] = at(1, "vrd addr create failed");
    EXPECT_THAT(lines_of_steps(), ElementsAreArray(expected));
    EXPECT_TRUE(fields::running(work));
    EXPECT_EQ(controls().size(), 10U) << "only those before the subscriptions";
}

TEST_F(kzemm_work_test, a_failed_set_of_the_switches_does_not_count) {
    make_config_unreadable();
    fakes::addr_create_fails("agt_cfgc");  // or they would be set a second time
    fakes::fail_timer_start(1);
    start();
    EXPECT_TRUE(fields::running(work));
    EXPECT_THAT(log_lines(), Contains(at(2, "start cfgc timer failed, use default")));
    EXPECT_THAT(controls(), IsEmpty());
    EXPECT_EQ(fakes::engine_calls("x_client_engine_subscribe_alarm").size(), 1U);
}

TEST_F(kzemm_work_test, a_failed_subscription_does_not_count) {
    fakes::engine_always_returns("x_client_engine_subscribe_alarm", -1);
    fakes::engine_always_returns("x_client_register_coordinate_cb", -1);
    fakes::engine_always_returns("x_client_engine_subscribe_credible", -1);
    start();
    EXPECT_TRUE(fields::running(work));
}

TEST_F(kzemm_work_test, missing_settings_do_not_fail_start) {
    start();
    EXPECT_THAT(log_lines(), Contains(at(2, "load ini failed, use default")));
}

TEST_F(kzemm_work_test, start_takes_the_tries_from_the_settings_file) {
    write_file("config/kzemdlmgr.ini", "[basic]\noffline_retry_times = 7\n");
    start();
    EXPECT_THAT(log_lines(), Contains(at(3, "qd_client_start, max_try_times: 7")));
}

// ---- run and stop ----

TEST_F(kzemm_work_test, run_arms_the_watch_says_hello_and_then_begins_the_loop) {
    start();
    fakes::clear_journal();
    std::vector<std::string> before_hello;
    fakes::on_gateway_send([&] {
        before_hello = worker_texts({fakes::what::timer, fakes::what::loop});
    });
    run_turns(1);
    EXPECT_THAT(before_hello, ElementsAre("start 1 1000/1000"));
    EXPECT_THAT(worker_texts({fakes::what::timer, fakes::what::loop}),
                ElementsAre("start 1 1000/1000", "nowait 1"));
    EXPECT_THAT(worker_lines(),
                ElementsAre(at(3, "start qd timer success"), at(3, "agent id:4711"),
                            at(3, StartsWith("custom ioa ret json encode:")),
                            at(3, StartsWith("custom ioa hello msg:")),
                            at(3, "send data to thtgw success"), at(3, "work loop start"),
                            at(3, "kzemm_work stopped succeed"), at(3, "work loop stop")));
    ASSERT_EQ(fakes::gateway_sends().size(), 1U);
    EXPECT_EQ(fakes::gateway_sends()[0].type, 9);
}

TEST_F(kzemm_work_test, the_loop_mode_is_set_behind_the_line_of_its_start) {
    start();
    fakes::clear_journal();
    run_turns(1);
    const auto texts = worker_texts({fakes::what::log, fakes::what::loop});
    const auto nowait = std::find(texts.begin(), texts.end(), "nowait 1");
    ASSERT_NE(nowait, texts.end());
    EXPECT_EQ(*(nowait - 1), "work loop start");
}

TEST_F(kzemm_work_test, a_hello_that_cannot_be_sent_does_not_keep_the_loop_back) {
    start();
    fakes::gateway_returns(-1);
    fakes::clear_journal();
    run_turns(2);
    EXPECT_THAT(worker_lines(), Contains(at(1, "send custom ioa hello failed")));
    EXPECT_THAT(worker_lines(), Contains(at(3, "work loop start")));
    EXPECT_EQ(fakes::sleeps().size(), 2U);
}

TEST_F(kzemm_work_test, each_turn_is_followed_by_a_pause_of_100_ms) {
    start();
    run_turns(7);
    EXPECT_EQ(fakes::sleeps(), std::vector<fakes::microseconds>(7, turn_us));
}

TEST_F(kzemm_work_test, a_worker_that_is_not_running_makes_no_turn) {
    start();
    work.stop();
    fakes::clear_journal();
    bool turned = false;
    fakes::at_loop_turn(1, [&] { turned = true; });
    EXPECT_EQ(work.run(), 0);
    EXPECT_FALSE(turned);
    EXPECT_THAT(fakes::sleeps(), IsEmpty());
    const std::vector<fakes::record> lines = worker_lines();
    ASSERT_EQ(lines.size(), 7U);
    EXPECT_THAT(lines[5], at(3, "work loop start"));
    EXPECT_THAT(lines[6], at(3, "work loop stop"));
}

// From a thread of its own, as the host's, at whatever the start does.
TEST_F(kzemm_work_test, a_stop_at_any_step_of_the_start_takes_effect_when_that_has_ended) {
    const pthread_t worker = pthread_self();
    const auto start_and_run = [&](size_t stop_at) {
        kzemm_work_inspector stopped;
        size_t step = 0;
        fakes::on_record([&] {
            if (pthread_equal(pthread_self(), worker) != 0 && ++step == stop_at) {
                std::thread([&stopped] { stopped.stop(); }).join();
            }
        });
        EXPECT_EQ(stopped.start(), 0);
        fakes::on_record(nullptr);
        if (stop_at != 0) {
            bool turned = false;
            fakes::at_loop_turn(1, [&] { turned = true; });
            EXPECT_EQ(stopped.run(), 0);
            EXPECT_FALSE(turned);
            EXPECT_THAT(worker_texts({fakes::what::log}),
                        testing::IsSupersetOf(
                            {"kzemm_work start succeed", "work loop start", "work loop stop"}));
        }
        EXPECT_TRUE(await_waiting_task_thread());
        stopped.clean();
        fakes::clear_journal();
        return step;
    };
    const size_t steps = start_and_run(0);
    EXPECT_GT(steps, 50U);
    for (size_t step = 1; step <= steps; ++step) {
        SCOPED_TRACE(step);
        start_and_run(step);
    }
}

TEST_F(kzemm_work_test, stop_during_the_pause_ends_the_loop_without_another_turn) {
    start();
    fakes::at_sleep(3, [this] { work.stop(); });
    EXPECT_EQ(work.run(), 0);
    EXPECT_EQ(fakes::sleeps().size(), 3U);
}

TEST_F(kzemm_work_test, the_loop_runs_without_a_watch_that_cannot_be_armed) {
    start();
    fakes::clear_journal();
    fakes::fail_timer_start(1);
    run_turns(2);
    const std::vector<fakes::record> lines = worker_lines();
    ASSERT_EQ(lines.size(), 8U);
    EXPECT_THAT(lines[0], at(2, "start qd timer failed"));
    EXPECT_THAT(lines[5], at(3, "work loop start"));
    EXPECT_EQ(fields::qd_timer(work), nullptr);
    EXPECT_EQ(fakes::sleeps().size(), 2U);
}

TEST_F(kzemm_work_test, the_timers_fire_within_the_loop) {
    start();
    fakes::engine_goes_offline();
    fakes::clear_journal();
    run_turns(11);  // the watch looks in the eleventh turn, one second after the first
    EXPECT_EQ(fakes::now_us(), 11 * turn_us);
    EXPECT_THAT(log_lines(), Contains(at(3, "x_clinet is offline, start restart client")));
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_ONLINE);
}

TEST_F(kzemm_work_test, an_offline_report_before_the_loop_is_handled_by_the_first_look) {
    start();
    fakes::engine_goes_offline();
    fakes::clear_journal();
    run_turns(10);
    EXPECT_THAT(log_lines(), Not(Contains(at(3, "x_clinet is offline, start restart client"))));
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_OFFLINE);
}

TEST_F(kzemm_work_test, an_engine_that_stays_away_ends_the_loop) {
    install_vrd_services();
    start();
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
    start();
    EXPECT_EQ(work.start_qd_timer(), 0);
    fakes::clear_journal();
    work.stop();
    EXPECT_FALSE(fields::running(work));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "kzemm_work stopped succeed")));
    EXPECT_THAT(fakes::texts({fakes::what::engine, fakes::what::timer, fakes::what::sleep}),
                IsEmpty());
    EXPECT_NE(fields::qd_timer(work), nullptr);
}

// ---- clean ----

TEST_F(kzemm_work_test, clean_releases_in_its_order) {
    make_config_unreadable();
    start();
    EXPECT_EQ(work.retry_switch_engine({ENGINE_MD}), 0);
    fakes::left_behind_by_design(fields::switch_timer(work)->user);
    EXPECT_EQ(work.start_qd_timer(), 0);
    fakes::clear_journal();
    work.clean();
    EXPECT_THAT(worker_texts({fakes::what::log, fakes::what::timer, fakes::what::engine,
                              fakes::what::config, fakes::what::ipc, fakes::what::thread}),
                ElementsAre("stop 1", "close 1", "stop cfg timer",     // the configuration's
                            "stop 2", "close 2", "stop switch timer",  // the retry's
                            "stop 3", "close 3", "stop qd timer",      // the watch
                            "uinit CUpgradeRelay", "upgrade uninit.",
                            "kzemdlmgr upgrade thread exit.", "stop upgrade timer.",  //
                            "uninit ipc", "destroy agt_rpt", "destroy address agt_rpdsp",
                            "destroy address agt_lkg",  //
                            "uninit kzemm_task", "lock", "broadcast", "unlock", "join",
                            "task thread is stopped", "kzemm_task uninitialized", "cond destroy",
                            "mutex destroy",  //
                            "x_client status 2", "x_client_stop", "uninit kzemm_config",
                            "DeleteClient", "DllDestroyObject", "uninit cfgc succeed",
                            "uninit kzemm_config", "clean succeed"));
    EXPECT_THAT(worker_lines(), ElementsAreArray(clean_lines_with(lines_of_running_upgrade(),
                                                                  lines_of_running_task())));
    EXPECT_EQ(fields::cfg_timer(work), nullptr);
    EXPECT_EQ(fields::switch_timer(work), nullptr);
    EXPECT_EQ(fields::qd_timer(work), nullptr);
    EXPECT_EQ(fields::upgrade(work), nullptr);
    EXPECT_EQ(fields::ipc(work), nullptr);
    EXPECT_EQ(fields::rpdsp_addr(work), nullptr);
    EXPECT_EQ(fields::lkg_addr(work), nullptr);
    EXPECT_EQ(fields::task(work), nullptr);
    EXPECT_EQ(fakes::unjoined_kze_threads(), 0U);
    EXPECT_EQ(fakes::unjoined_threads(), 0U);
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

TEST_F(kzemm_work_test, clean_after_a_start_without_endpoint_stops_client_and_configuration) {
    fakes::ipc_create_fails("agt_rpt");
    EXPECT_EQ(work.start(), -1);
    fakes::clear_journal();
    work.clean();
    EXPECT_THAT(log_lines(), ElementsAreArray(clean_lines()));
    EXPECT_THAT(fakes::texts({fakes::what::engine, fakes::what::ipc}),
                ElementsAre("x_client_stop"));
    EXPECT_FALSE(config::initialized());
}

TEST_F(kzemm_work_test, clean_releases_the_endpoint_of_a_start_that_failed_at_an_address) {
    fakes::addr_create_fails("agt_lkg");
    EXPECT_EQ(work.start(), -1);
    fakes::clear_journal();
    work.clean();
    EXPECT_THAT(log_lines(), ElementsAreArray(clean_lines()));
    EXPECT_THAT(fakes::texts({fakes::what::ipc}), ElementsAre("destroy agt_rpt"));
}

TEST_F(kzemm_work_test, clean_releases_a_queue_whose_thread_could_not_be_started) {
    fakes::kze_thread_start_fails(11);
    EXPECT_EQ(work.start(), -1);
    fakes::clear_journal();
    work.clean();
    EXPECT_THAT(log_lines(),
                ElementsAreArray(clean_lines_with({}, {at(2, "task thread is not initialized")})));
    EXPECT_EQ(fields::task(work), nullptr);
}

TEST_F(kzemm_work_test, clean_releases_a_relay_whose_thread_could_not_be_made) {
    fakes::isolated_threads_fail(11);
    EXPECT_EQ(work.start(), -1);
    ASSERT_TRUE(await_waiting_task_thread());
    fakes::clear_journal();
    work.clean();
    EXPECT_THAT(worker_lines(), ElementsAreArray(clean_lines_with(
                                    {at(3, "upgrade uninit."), at(2, "thread is not running."),
                                     at(3, "stop upgrade timer.")},
                                    lines_of_running_task())));
    EXPECT_EQ(fields::upgrade(work), nullptr);
}

TEST_F(kzemm_work_test, clean_goes_on_when_the_client_cannot_be_stopped) {
    fakes::engine_returns("x_client_stop", {-1});
    work.clean();
    auto expected = clean_lines();
    expected.insert(expected.begin() + 7, at(2, "x_client stop failed"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
}

TEST_F(kzemm_work_test, clean_twice_releases_once) {
    start();
    work.clean();
    fakes::clear_journal();
    work.clean();
    EXPECT_THAT(log_lines(), ElementsAreArray(clean_lines()));
    EXPECT_THAT(fakes::texts({fakes::what::config, fakes::what::timer, fakes::what::ipc,
                              fakes::what::thread}),
                IsEmpty());
}
