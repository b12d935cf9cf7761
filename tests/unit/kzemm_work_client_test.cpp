#include <csignal>
#include <cstdio>
#include <thread>

#include "tests/unit/worker_test.h"

using fakes::at;
using fakes::engine_calls;
using fakes::engine_texts;
using fakes::let_pass;
using fakes::log_lines;
using fakes::open_timers;
using testing::AllOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr unsigned int watch_period_ms = 1000;
constexpr fakes::microseconds second = 1000000;

class kzemm_work_client_test : public worker_test {
  protected:
    using line = testing::Matcher<const fakes::record &>;

    static void engine_never_answers() { fakes::engine_always_returns("x_client_start", -1); }

    // The engine answers the attempt behind this number of refused ones.
    static void engine_refuses(size_t attempts) {
        fakes::engine_returns("x_client_start", std::vector<int>(attempts, 1));
    }

    static size_t attempts() { return engine_calls("x_client_start").size(); }

    // The waits before the attempts at try 1 to `tries`.
    static std::vector<fakes::microseconds> waits(int tries) {
        std::vector<fakes::microseconds> result;
        for (int each = 1; each <= tries; ++each) {
            result.push_back((1ULL << each) * second);
        }
        return result;
    }

    static void append(std::vector<fakes::microseconds> &to,
                       const std::vector<fakes::microseconds> &more) {
        to.insert(to.end(), more.begin(), more.end());
    }

    static void append_wait_lines(std::vector<line> &to, int tries) {
        for (int each = 1; each <= tries; ++each) {
            append_wait_line(to, each);
        }
    }

    static void append_wait_line(std::vector<line> &to, int tries) {
        to.push_back(at(3, "qd start try_times: " + std::to_string(tries) +
                               ", interval: " + std::to_string(1 << tries)));
    }

    // The lines of one command of the service tool.
    void append_service_lines(std::vector<line> &to, const std::string &operation,
                              bool works = true) const {
        const std::string command = in_tree("bin/vrd_services " + operation + " 10qd_agent");
        to.push_back(at(3, "qd-agent do cmd: " + command));
        to.push_back(at(3, "create process by cmd = " + command));
        if (!works) {
            to.push_back(at(2, "qd-agent do cmd failed"));
        }
        to.push_back(at(3, "qd-agent do opr success"));
    }

    // The lines of a whole start that ends in giving the engine up, with a working service tool.
    std::vector<line> lines_of_giving_up(int max) const {
        const std::string max_text = std::to_string(max);
        std::vector<line> result = {at(3, "qd_client_start, max_try_times: " + max_text)};
        append_wait_lines(result, max);
        result.push_back(at(2, "try times " + max_text + ", restart qd-agent"));
        append_service_lines(result, "restart");
        result.push_back(at(3, "restart qd-agent success, reset try times"));
        append_wait_lines(result, max + 1);
        result.push_back(
            at(2, "try times " + std::to_string(max + 1) + " over max, stop qd agent"));
        append_service_lines(result, "stop");
        return result;
    }

    // Puts the worker where the engine's going away leaves it, with its endpoint and the watch
    // armed.
    void go_offline_with_watch() {
        ASSERT_EQ(work.init_ipc(), 0);
        ASSERT_EQ(work.qd_client_start(), 0);
        ASSERT_EQ(work.start_qd_timer(), 0);
        fakes::engine_goes_offline();
        fakes::clear_journal();
        fakes::forget_engine_calls();
    }
};

using kzemm_work_client_death_test = kzemm_work_client_test;

}  // namespace

// ---- qd_client_start ----

TEST_F(kzemm_work_client_test, an_answer_at_once_neither_waits_nor_touches_the_service) {
    EXPECT_EQ(work.qd_client_start(), 0);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "qd_client_start, max_try_times: 10"),
                            at(3, "x_client start success"), at(3, "x_client status 1")));
    EXPECT_EQ(attempts(), 1U);
    EXPECT_THAT(fakes::sleeps(), IsEmpty());
    EXPECT_EQ(fakes::forks(), 0U);
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_ONLINE);
}

TEST_F(kzemm_work_client_test, the_client_is_given_the_offline_callback_and_the_worker) {
    EXPECT_EQ(work.qd_client_start(), 0);
    const std::vector<fakes::engine_call> calls = engine_calls("x_client_start");
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_TRUE(fakes::is_callback(calls[0].callback, kzemm_work_inspector::qd_agent_offline_cb));
    EXPECT_EQ(calls[0].context, &work);
}

TEST_F(kzemm_work_client_test, the_first_wait_is_2_seconds) {
    engine_refuses(1);
    EXPECT_EQ(work.qd_client_start(), 0);
    EXPECT_THAT(fakes::sleeps(), ElementsAre(2 * second));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "qd_client_start, max_try_times: 10"),
                            at(3, "qd start try_times: 1, interval: 2"),
                            at(3, "x_client start success"), at(3, "x_client status 1")));
}

TEST_F(kzemm_work_client_test, any_result_but_0_is_a_failed_attempt) {
    fakes::engine_returns("x_client_start", {-1, 1, 42});
    EXPECT_EQ(work.qd_client_start(), 0);
    EXPECT_EQ(attempts(), 4U);
    EXPECT_EQ(fakes::sleeps(), waits(3));
}

TEST_F(kzemm_work_client_test, the_waits_double_and_the_last_try_still_needs_no_restart) {
    engine_refuses(10);
    EXPECT_EQ(work.qd_client_start(), 0);
    EXPECT_EQ(attempts(), 11U);
    EXPECT_EQ(fakes::sleeps(), waits(10));
    EXPECT_EQ(fakes::slept_us(), 2046 * second);
    EXPECT_EQ(fakes::forks(), 0U);
}

TEST_F(kzemm_work_client_test, an_engine_that_never_answers_costs_22_attempts_and_6320_seconds) {
    install_vrd_services();
    engine_never_answers();
    EXPECT_EQ(work.qd_client_start(), -1);
    EXPECT_EQ(attempts(), 22U);
    std::vector<fakes::microseconds> expected = waits(10);
    expected.push_back(180 * second);
    append(expected, waits(11));
    EXPECT_EQ(fakes::sleeps(), expected);
    EXPECT_EQ(fakes::slept_us(), 6320 * second);
    EXPECT_EQ(service_calls(), "restart 10qd_agent\nstop 10qd_agent\n");
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_INIT);
}

TEST_F(kzemm_work_client_test, giving_up_with_10_tries_logs_every_step) {
    install_vrd_services();
    engine_never_answers();
    EXPECT_EQ(work.qd_client_start(), -1);
    EXPECT_THAT(log_lines(), ElementsAreArray(lines_of_giving_up(10)));
}

TEST_F(kzemm_work_client_test, five_tries_restart_after_32_seconds_and_wait_64_at_most) {
    install_vrd_services();
    engine_never_answers();
    config::offline_retry_times() = 5;
    EXPECT_EQ(work.qd_client_start(), -1);
    EXPECT_EQ(attempts(), 12U);
    std::vector<fakes::microseconds> expected = waits(5);
    expected.push_back(180 * second);
    append(expected, waits(6));
    EXPECT_EQ(fakes::sleeps(), expected);
    EXPECT_THAT(log_lines(), ElementsAreArray(lines_of_giving_up(5)));
    EXPECT_EQ(service_calls(), "restart 10qd_agent\nstop 10qd_agent\n");
}

TEST_F(kzemm_work_client_test, the_order_of_attempts_waits_and_lines_is_fixed) {
    install_vrd_services();
    engine_never_answers();
    config::offline_retry_times() = 5;
    EXPECT_EQ(work.qd_client_start(), -1);
    const std::vector<std::string> order =
        fakes::texts({fakes::what::log, fakes::what::engine, fakes::what::sleep});
    EXPECT_THAT(std::vector<std::string>(order.begin(), order.begin() + 5),
                ElementsAre("qd_client_start, max_try_times: 5", "x_client_start",
                            "qd start try_times: 1, interval: 2", "2000000", "x_client_start"));
    // The restart: behind the attempt at try 5, and before the next wait.
    const auto restart = std::find(order.begin(), order.end(), "try times 5, restart qd-agent");
    ASSERT_NE(restart, order.end());
    EXPECT_THAT(std::vector<std::string>(restart - 2, restart + 9),
                ElementsAre("32000000", "x_client_start", "try times 5, restart qd-agent",
                            HasSubstr("qd-agent do cmd: "), HasSubstr("create process by cmd = "),
                            "qd-agent do opr success", "restart qd-agent success, reset try times",
                            "180000000", "qd start try_times: 1, interval: 2", "2000000",
                            "x_client_start"));
}

TEST_F(kzemm_work_client_test, an_answer_after_the_restart_is_a_success) {
    install_vrd_services();
    config::offline_retry_times() = 5;
    engine_refuses(6);
    EXPECT_EQ(work.qd_client_start(), 0);
    std::vector<fakes::microseconds> expected = waits(5);
    expected.push_back(180 * second);
    expected.push_back(2 * second);
    EXPECT_EQ(fakes::sleeps(), expected);
    EXPECT_EQ(service_calls(), "restart 10qd_agent\n");
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_ONLINE);
}

TEST_F(kzemm_work_client_test, an_answer_at_the_very_last_attempt_is_a_success) {
    install_vrd_services();
    config::offline_retry_times() = 5;
    engine_refuses(11);
    EXPECT_EQ(work.qd_client_start(), 0);
    EXPECT_EQ(attempts(), 12U);
    EXPECT_EQ(service_calls(), "restart 10qd_agent\n");
}

TEST_F(kzemm_work_client_test, the_next_outage_has_a_fresh_budget_and_its_own_restart) {
    install_vrd_services();
    config::offline_retry_times() = 5;
    engine_refuses(6);
    EXPECT_EQ(work.qd_client_start(), 0);
    engine_refuses(6);
    EXPECT_EQ(work.qd_client_start(), 0);
    EXPECT_EQ(service_calls(), "restart 10qd_agent\nrestart 10qd_agent\n");
    EXPECT_EQ(attempts(), 14U);
}

TEST_F(kzemm_work_client_test, a_failing_restart_leads_to_one_more_wait_and_the_stop) {
    install_vrd_services(1);
    engine_never_answers();
    EXPECT_EQ(work.qd_client_start(), -1);
    EXPECT_EQ(attempts(), 12U);
    EXPECT_EQ(fakes::sleeps(), waits(11));  // 2 to 2048 seconds
    EXPECT_EQ(service_calls(), "restart 10qd_agent\nstop 10qd_agent\n");

    std::vector<line> expected = {at(3, "qd_client_start, max_try_times: 10")};
    append_wait_lines(expected, 10);
    expected.push_back(at(2, "try times 10, restart qd-agent"));
    append_service_lines(expected, "restart", false);
    append_wait_line(expected, 11);
    expected.push_back(at(2, "try times 11 over max, stop qd agent"));
    append_service_lines(expected, "stop", false);
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
}

TEST_F(kzemm_work_client_test, an_answer_after_the_failing_restart_is_a_success) {
    install_vrd_services(1);
    config::offline_retry_times() = 5;
    engine_refuses(6);
    EXPECT_EQ(work.qd_client_start(), 0);
    EXPECT_EQ(fakes::sleeps(), waits(6));
    EXPECT_EQ(service_calls(), "restart 10qd_agent\n");
}

TEST_F(kzemm_work_client_test, without_the_service_tool_the_restart_fails) {
    engine_never_answers();
    config::offline_retry_times() = 5;
    EXPECT_EQ(work.qd_client_start(), -1);
    EXPECT_EQ(fakes::sleeps(), waits(6));
    EXPECT_EQ(fakes::forks(), 2U);
}

TEST_F(kzemm_work_client_test, when_no_process_can_be_made_the_restart_fails) {
    install_vrd_services();
    engine_never_answers();
    config::offline_retry_times() = 5;
    fakes::fork_fails(EAGAIN);
    EXPECT_EQ(work.qd_client_start(), -1);
    EXPECT_EQ(fakes::sleeps(), waits(6));
    EXPECT_EQ(service_calls(), "");
}

TEST_F(kzemm_work_client_test, a_signal_during_the_wait_for_the_restart_does_not_end_it) {
    install_vrd_services();
    engine_never_answers();
    config::offline_retry_times() = 5;
    fakes::waitpid_interrupted(3);
    EXPECT_EQ(work.qd_client_start(), -1);
    EXPECT_EQ(fakes::interruptions_left(), 0U);
    EXPECT_THAT(fakes::sleeps(), testing::Contains(180 * second));
}

TEST_F(kzemm_work_client_test, the_upper_limit_of_the_wait_in_the_settings_is_not_consulted) {
    install_vrd_services();
    engine_never_answers();
    config::qd_start_max_interval() = 180;
    EXPECT_EQ(work.qd_client_start(), -1);
    EXPECT_EQ(fakes::slept_us(), 6320 * second);
}

TEST_F(kzemm_work_client_test, a_failed_start_leaves_the_status_as_it_was) {
    config::offline_retry_times() = 5;
    engine_never_answers();
    for (const auto status : {X_CLIENT_INIT, X_CLIENT_ONLINE, X_CLIENT_OFFLINE}) {
        work.set_x_client_status(status);
        EXPECT_EQ(work.qd_client_start(), -1);
        EXPECT_EQ(fields::x_client_status(work), status);
    }
}

TEST_F(kzemm_work_client_test, the_function_is_fetched_afresh_for_each_attempt) {
    engine_never_answers();
    fakes::at_sleep(2, [] {  // from now on the table holds a function that answers
        fakes::symbols exported = fakes::engine_symbols();
        const x_client_start_fn answers = [](const qd_client_callbacks *, void *) { return 0; };
        exported["x_client_start"] = reinterpret_cast<void *>(answers);
        fakes::add_library(fakes::engine_library, exported);
        kzemm_loader::get_instance().uninit();
        EXPECT_EQ(kzemm_loader::get_instance().init(), 0);
    });
    EXPECT_EQ(work.qd_client_start(), 0);
    EXPECT_EQ(attempts(), 2U);
}

TEST_F(kzemm_work_client_test, eleven_tries_work_as_long_as_no_wait_passes_2048_seconds) {
    engine_refuses(11);
    config::offline_retry_times() = 11;
    EXPECT_EQ(work.qd_client_start(), 0);
    EXPECT_EQ(fakes::sleeps(), waits(11));
}

// ---- a wait of 4096 seconds does not fit 32 bits of microseconds ----

TEST_F(kzemm_work_client_death_test, eleven_tries_abort_behind_the_restart) {
    install_vrd_services();
    engine_never_answers();
    config::offline_retry_times() = 11;
    fakes::on_engine_call("x_client_start", [](const fakes::engine_call &) {
        fprintf(stderr, "attempt %zu.\n", attempts());
    });
    EXPECT_EXIT(work.qd_client_start(), testing::KilledBySignal(SIGABRT),
                AllOf(HasSubstr("attempt 23."), Not(HasSubstr("attempt 24."))));
    EXPECT_EQ(service_calls(), "restart 10qd_agent\n");
}

TEST_F(kzemm_work_client_death_test, eleven_tries_abort_behind_a_failing_restart) {
    install_vrd_services(1);
    engine_never_answers();
    config::offline_retry_times() = 11;
    fakes::on_engine_call("x_client_start", [](const fakes::engine_call &) {
        fprintf(stderr, "attempt %zu.\n", attempts());
    });
    EXPECT_EXIT(work.qd_client_start(), testing::KilledBySignal(SIGABRT),
                AllOf(HasSubstr("attempt 12."), Not(HasSubstr("attempt 13."))));
    EXPECT_EQ(service_calls(), "restart 10qd_agent\n");
}

TEST_F(kzemm_work_client_death_test, thirty_tries_abort_before_any_restart) {
    install_vrd_services();
    engine_never_answers();
    config::offline_retry_times() = 30;
    EXPECT_EXIT(work.qd_client_start(), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EQ(service_calls(), "");
}

// ---- qd_client_stop, the status, the offline callback ----

TEST_F(kzemm_work_client_test, stop_sets_the_status_before_it_stops_the_client) {
    EXPECT_EQ(work.qd_client_stop(), 0);
    EXPECT_THAT(fakes::texts({fakes::what::log, fakes::what::engine}),
                ElementsAre("x_client status 2", "x_client_stop"));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "x_client status 2")));
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_OFFLINE);
}

TEST_F(kzemm_work_client_test, a_refused_stop_is_a_warning) {
    fakes::engine_returns("x_client_stop", {3});
    EXPECT_EQ(work.qd_client_stop(), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "x_client status 2"), at(2, "x_client stop failed")));
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_OFFLINE);
}

TEST_F(kzemm_work_client_test, each_status_is_stored_and_logged) {
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_INIT);
    work.set_x_client_status(X_CLIENT_ONLINE);
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_ONLINE);
    work.set_x_client_status(X_CLIENT_OFFLINE);
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_OFFLINE);
    work.set_x_client_status(X_CLIENT_INIT);
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_INIT);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "x_client status 1"), at(3, "x_client status 2"),
                                         at(3, "x_client status 0")));
}

TEST_F(kzemm_work_client_test, the_offline_callback_only_stores_the_status) {
    EXPECT_EQ(work.qd_client_start(), 0);
    EXPECT_EQ(work.start_qd_timer(), 0);
    fakes::clear_journal();
    std::thread client_thread(fakes::engine_goes_offline);
    client_thread.join();
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "qd-agent is offline"), at(3, "x_client status 2")));
    EXPECT_THAT(fakes::texts({fakes::what::engine, fakes::what::timer}), IsEmpty());
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_OFFLINE);
    work.stop_qd_timer();
}

// ---- the watch ----

TEST_F(kzemm_work_client_test, the_watch_is_armed_with_one_second) {
    EXPECT_EQ(work.start_qd_timer(), 0);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "start qd timer success")));
    ASSERT_EQ(open_timers().size(), 1U);
    const fakes::timer_view timer = open_timers()[0];
    EXPECT_EQ(timer.handle, fields::qd_timer(work));
    EXPECT_EQ(timer.first_ms, watch_period_ms);
    EXPECT_EQ(timer.flags, 0U);
    EXPECT_EQ(timer.period_ms, watch_period_ms);
    EXPECT_EQ(timer.callback, &kzemm_work_inspector::check_qd_status_cb);
    EXPECT_EQ(timer.user, &work);
    work.stop_qd_timer();
}

TEST_F(kzemm_work_client_test, a_watch_that_cannot_be_armed_is_a_warning) {
    fakes::fail_timer_start(1);
    EXPECT_EQ(work.start_qd_timer(), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "start qd timer failed")));
    EXPECT_EQ(fields::qd_timer(work), nullptr);
}

TEST_F(kzemm_work_client_test, stop_qd_timer_logs_with_and_without_a_timer) {
    work.stop_qd_timer();
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "stop qd timer")));
    EXPECT_EQ(work.start_qd_timer(), 0);
    fakes::clear_journal();
    work.stop_qd_timer();
    EXPECT_THAT(fakes::texts({fakes::what::timer, fakes::what::log}),
                ElementsAre("stop 1", "close 1", "stop qd timer"));
    EXPECT_EQ(fields::qd_timer(work), nullptr);
}

TEST_F(kzemm_work_client_test, a_look_at_a_client_that_never_started_does_nothing) {
    work.check_qd_status();
    EXPECT_THAT(fakes::texts({fakes::what::log, fakes::what::engine, fakes::what::timer}),
                IsEmpty());
}

TEST_F(kzemm_work_client_test, a_look_at_an_online_client_does_nothing) {
    EXPECT_EQ(work.qd_client_start(), 0);
    EXPECT_EQ(work.start_qd_timer(), 0);
    fakes::clear_journal();
    for (int look = 0; look < 5; ++look) {
        let_pass(watch_period_ms);
    }
    EXPECT_THAT(fakes::texts({fakes::what::log, fakes::what::engine, fakes::what::timer}),
                IsEmpty());
    EXPECT_NE(fields::qd_timer(work), nullptr);
    work.stop_qd_timer();
}

TEST_F(kzemm_work_client_test, an_offline_client_is_brought_back_at_the_next_tick) {
    init_config();
    go_offline_with_watch();
    let_pass(watch_period_ms - 1);
    EXPECT_THAT(engine_texts(), IsEmpty());
    let_pass(1);
    EXPECT_EQ(attempts(), 1U);
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_ONLINE);
    EXPECT_NE(fields::qd_timer(work), nullptr);
}

TEST_F(kzemm_work_client_test, the_way_back_has_a_fixed_order) {
    init_config();
    config::report_switch() = true;
    fakes::config_set("/mgr/base_collect", "/collect_act_time", "300");
    go_offline_with_watch();
    let_pass(watch_period_ms);

    std::vector<testing::Matcher<const std::string &>> expected = {
        "x_clinet is offline, start restart client",
        "stop 1",
        "close 1",
        "stop qd timer",
        "qd_client_start, max_try_times: 10",
        "x_client_start",
        "x_client start success",
        "x_client status 1",
        "start 2 1000/1000",
        "start qd timer success",
        "ssh:1",
        testing::StartsWith("collect: 1"),
        testing::StartsWith("set engine switch, on[2], off[1]. "),
    };
    const auto expect_all_off = [&] {
        for (const int type : {6, 1, 2, 13, 3, 14, 8, 15, 12, 17}) {
            expected.push_back(control(type, 1));
        }
        expected.emplace_back("set engine switch success");
    };
    expect_all_off();
    for (const char *const each : {
             "x_client_engine_subscribe_alarm",
             "qd subscribe alarm ret: 0",
             "x_client_register_coordinate_cb(3)",
             "qd register hunting coordinate cb ret: 0",
             "x_client_register_coordinate_cb(1)",
             "qd register linakge coordinate cb ret: 0",
             "x_client_register_coordinate_cb(2)",
             "qd register append coordinate cb ret: 0",
             "x_client_engine_subscribe_credible",
             "qd register engine credible cb ret: 0",
             "get collect report cycle : 300 succeed",
             "x_client_subscribe_origin_data(300)",
             "qd subscribe origin data success, cycle: 300",
             // request_cfg, for which the switches can't be read
             "address agt_cfgc 1 2",
         }) {
        expected.emplace_back(each);
    }
    expected.push_back(testing::StartsWith("cfgc GetValue failed"));
    for (const char *const each : {
             "get from cfgc failed: switch[/adv_threats] module[/mgr/base_collect]",
             "get cfgc failed",
             "get cfgc switch failed, start retry",
             "start 3 5000/5000",
             "get collect report cycle : 300 succeed",
             "x_client_subscribe_origin_data(300)",
             "qd subscribe origin data success, cycle: 300",
             "ssh:1",
         }) {
        expected.emplace_back(each);
    }
    expected.push_back(testing::StartsWith("collect: 1"));
    expected.push_back(testing::StartsWith("set engine switch, on[2], off[1]. "));
    expect_all_off();
    expected.insert(expected.end(), 4, testing::StartsWith("request 1004, "));
    expected.emplace_back("request cfgc success");
    expected.emplace_back("destroy address agt_cfgc");
    expected.push_back(fakes::bus_text(0, "bus need init first."));
    EXPECT_THAT(fakes::texts({fakes::what::log, fakes::what::bus_log, fakes::what::engine,
                              fakes::what::timer, fakes::what::ipc}),
                ElementsAreArray(expected));
}

TEST_F(kzemm_work_client_test, the_offline_line_has_level_3) {
    init_config();
    go_offline_with_watch();
    let_pass(watch_period_ms);
    EXPECT_THAT(log_lines().front(), at(3, "x_clinet is offline, start restart client"));
}

TEST_F(kzemm_work_client_test, the_switches_are_sent_as_they_stand_and_again_as_they_are_read) {
    init_config();
    make_config_readable("true");
    go_offline_with_watch();
    let_pass(watch_period_ms);
    const std::vector<std::string> sent = controls();
    ASSERT_EQ(sent.size(), 20U);
    EXPECT_EQ(sent[0], control(6, 1));
    EXPECT_EQ(sent[10], control(6, 2));

    // The read lies between the two.
    const auto order = fakes::texts({fakes::what::engine, fakes::what::config});
    const auto read =
        std::find(order.begin(), order.end(), "GetValue /mgr/base_collect /adv_threats");
    EXPECT_LT(std::find(order.begin(), order.end(), control(17, 1)), read);
    EXPECT_LT(read, std::find(order.begin(), order.end(), control(6, 2)));
}

TEST_F(kzemm_work_client_test, the_modules_are_asked_for_again_on_the_worker_s_endpoint) {
    init_config();
    go_offline_with_watch();
    let_pass(watch_period_ms);
    ASSERT_EQ(fakes::ipc_requests().size(), 4U);
    for (const fakes::ipc_request &each : fakes::ipc_requests()) {
        EXPECT_EQ(each.ipc, fields::ipc(work));
        EXPECT_EQ(each.cmd, 1004U);
    }
}

TEST_F(kzemm_work_client_test, without_an_address_of_the_service_no_module_is_asked_for) {
    init_config();
    go_offline_with_watch();
    fakes::addr_create_fails("agt_cfgc");
    let_pass(watch_period_ms);
    EXPECT_THAT(log_lines().back(), at(1, "vrd addr create failed"));
    EXPECT_EQ(controls().size(), 10U);
    EXPECT_THAT(fakes::ipc_requests(), IsEmpty());
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_ONLINE);
    EXPECT_NE(fields::qd_timer(work), nullptr);
}

TEST_F(kzemm_work_client_test, no_look_happens_while_the_restart_waits) {
    init_config();
    go_offline_with_watch();
    engine_refuses(3);
    let_pass(watch_period_ms);
    EXPECT_EQ(attempts(), 4U);
    EXPECT_THAT(fakes::sleeps(), ElementsAre(2 * second, 4 * second, 8 * second));
    // The new watch looks a second after it was armed, and only once for the time that passed.
    fakes::clear_journal();
    let_pass(0);
    EXPECT_THAT(fakes::texts({fakes::what::log}), IsEmpty());
}

TEST_F(kzemm_work_client_test, each_outage_is_handled_anew) {
    init_config();
    go_offline_with_watch();
    let_pass(watch_period_ms);
    fakes::engine_goes_offline();
    let_pass(watch_period_ms);
    EXPECT_EQ(attempts(), 2U);
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_ONLINE);
}

TEST_F(kzemm_work_client_test, an_engine_that_stays_away_ends_the_worker) {
    install_vrd_services();
    config::offline_retry_times() = 5;
    go_offline_with_watch();
    fields::running(work) = true;
    engine_never_answers();
    let_pass(watch_period_ms);

    std::vector<line> expected = {at(3, "x_clinet is offline, start restart client"),
                                  at(3, "stop qd timer")};
    const std::vector<line> giving_up = lines_of_giving_up(5);
    expected.insert(expected.end(), giving_up.begin(), giving_up.end());
    expected.push_back(at(1, "start qd client failed"));
    expected.push_back(at(3, "kzemm_work stopped succeed"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_FALSE(fields::running(work));
    EXPECT_EQ(fields::qd_timer(work), nullptr);
    EXPECT_EQ(fields::x_client_status(work), X_CLIENT_OFFLINE);
    EXPECT_THAT(controls(), IsEmpty());
    EXPECT_EQ(engine_calls().size(), attempts());  // and no other call
}

TEST_F(kzemm_work_client_test, a_watch_that_cannot_be_armed_again_keeps_nothing_back) {
    init_config();
    go_offline_with_watch();
    fakes::fail_timer_start(1);
    let_pass(watch_period_ms);
    EXPECT_THAT(log_lines(), testing::Contains(at(2, "start qd timer failed")));
    EXPECT_EQ(fields::qd_timer(work), nullptr);
    EXPECT_EQ(controls().size(), 20U);
    EXPECT_EQ(engine_calls("x_client_engine_subscribe_alarm").size(), 1U);
    EXPECT_EQ(engine_calls("x_client_subscribe_origin_data").size(), 2U);
    EXPECT_EQ(fakes::ipc_requests().size(), 4U);
}
