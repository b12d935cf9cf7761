#include "tests/fakes/latch.h"
#include "tests/unit/upgrade_test.h"

using fakes::at;
using fakes::file_call;
using fakes::let_pass;
using fakes::log_lines;
using fakes::open_timers;
using fakes::texts;
using fakes::what;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

constexpr char marker[] = "hlthreat_rule/debug_adv_threat.txt";
constexpr fakes::microseconds turn = 100000;

class kzemm_upgrade_test : public upgrade_test {
  protected:
    // Waits until the upgrade thread turns its loop; one that is stopped earlier never does.
    static bool await_loop() {
        return fakes::await_record(
            [](const fakes::record &each) { return each.kind == what::loop; });
    }

    static void set_switches(bool on) {
        config::ioc_switch() = on;
        config::ioa_switch() = on;
        config::md_switch() = on;
    }

    void tick() {
        cl_timerplus timer = {relay.get()};
        CUpgradeRelay::timer_upgrade_callback(&timer);
    }

    lines lines_of_empty_ioc() const {
        return {at(3, "upgrade ioc"), at(3, "upzipfiledir:" + rules() + ",iocfullflag:" + flag())};
    }
    lines lines_of_empty_ioa() const {
        return {at(3, "upgrade ioa"), at(3, "new tgz_name: " + rule("ioa_linux_en.tgz")),
                at(3, "no tgz exist")};
    }
    lines lines_of_empty_md(int last_result = 0, int retries = 0) const {
        return {at(3, "upgrade md, last result: " + std::to_string(last_result) +
                          ", retry times: " + std::to_string(retries)),
                at(3, "new tgz_name: " + rule("md_linux.tgz")), at(3, "no tgz exist")};
    }
    static lines lines_of_tick(const std::string &ioc, const std::string &ioa,
                               const std::string &md) {
        return {at(3, "start upgrade, ioc switch: " + ioc + ", ioa switch: " + ioa +
                          ", md switch: " + md)};
    }
};

}  // namespace

// ---- construction, init, uninit ----

TEST_F(kzemm_upgrade_test, a_new_relay_has_no_version_no_timer_and_no_thread) {
    EXPECT_STREQ(fields::ev(*relay).name, "");
    EXPECT_EQ(fields::ev(*relay).major, 0);
    EXPECT_EQ(fields::ev(*relay).minor, 0);
    EXPECT_EQ(fields::upgrade_timer(*relay), nullptr);
    EXPECT_EQ(fields::upgrade_thread(*relay), 0U);
    EXPECT_FALSE(fields::thread_running(*relay));
    EXPECT_FALSE(state::s_debug_adv_threat);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_upgrade_test, the_debug_marker_counts_at_construction_alone) {
    write_file(marker, "");
    EXPECT_FALSE(state::s_debug_adv_threat);
    set_switches(true);
    tick();
    EXPECT_FALSE(state::s_debug_adv_threat);
    relay = std::make_unique<CUpgradeRelay>();
    EXPECT_TRUE(state::s_debug_adv_threat);
}

TEST_F(kzemm_upgrade_test, a_debug_marker_that_goes_again_changes_nothing) {
    write_file(marker, "off");
    relay = std::make_unique<CUpgradeRelay>();
    std::filesystem::remove(in_tree(marker));
    relay = std::make_unique<CUpgradeRelay>();
    EXPECT_TRUE(state::s_debug_adv_threat);
}

TEST_F(kzemm_upgrade_test, a_directory_counts_as_the_debug_marker_and_a_dangling_link_does_not) {
    std::filesystem::create_symlink("nowhere", in_tree(marker));
    relay = std::make_unique<CUpgradeRelay>();
    EXPECT_FALSE(state::s_debug_adv_threat);
    std::filesystem::remove(in_tree(marker));
    std::filesystem::create_directory(in_tree(marker));
    relay = std::make_unique<CUpgradeRelay>();
    EXPECT_TRUE(state::s_debug_adv_threat);
}

TEST_F(kzemm_upgrade_test, the_destructor_stops_the_timer_that_is_left) {
    ASSERT_EQ(relay->start_upgrade_timer(), 0);
    forget();
    relay.reset();
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "stop upgrade timer.")));
    EXPECT_THAT(texts({what::timer}), ElementsAre("stop 1", "close 1"));
}

TEST_F(kzemm_upgrade_test, init_makes_one_thread_whatever_its_calls) {
    fakes::relay_threads_are_idle();
    EXPECT_EQ(relay->init(), 0);
    const pthread_t thread = fields::upgrade_thread(*relay);
    EXPECT_NE(thread, 0U);
    EXPECT_EQ(relay->init(), 0);
    EXPECT_EQ(fields::upgrade_thread(*relay), thread);
    EXPECT_EQ(fakes::unjoined_threads(), 1U);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "upgrade init"), at(3, "upgrade init"),
                                         at(2, "upgrade_thread is already running")));
    EXPECT_EQ(relay->uninit(), 0);
}

TEST_F(kzemm_upgrade_test, a_thread_that_cannot_start_fails_init) {
    fakes::isolated_threads_fail(11);
    EXPECT_EQ(relay->init(), -1);
    EXPECT_EQ(fields::upgrade_thread(*relay), 0U);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "upgrade init"),
                                         at(1, "cl_ev_create_isolated_thread failed, ret: 11")));
}

TEST_F(kzemm_upgrade_test, uninit_without_a_thread_is_refused) {
    EXPECT_EQ(relay->uninit(), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "upgrade uninit."), at(2, "thread is not running.")));
}

TEST_F(kzemm_upgrade_test, a_second_uninit_is_refused_and_a_relay_can_start_anew) {
    fakes::relay_threads_are_idle();
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(relay->init(), 0);
        EXPECT_EQ(relay->uninit(), 0);
        EXPECT_EQ(fields::upgrade_thread(*relay), 0U);
        EXPECT_EQ(relay->uninit(), -1);
    }
}

TEST_F(kzemm_upgrade_test, a_whole_life_logs_and_ends_in_order) {
    // The thread that turns the loop sleeps in virtual time alone, so that the timer would soon be
    // due while the worker is on its way to the end: the first turn waits until it is there.
    fakes::latch stopped;
    fakes::at_loop_turn(1, [&] { EXPECT_TRUE(stopped.wait()); });
    fakes::on_pthread_join([&] { stopped.open(); });
    ASSERT_EQ(relay->init(), 0);
    ASSERT_TRUE(await_loop());
    EXPECT_EQ(relay->uninit(), 0);
    EXPECT_EQ(fields::upgrade_timer(*relay), nullptr);
    EXPECT_EQ(fields::upgrade_thread(*relay), 0U);
    EXPECT_FALSE(fields::thread_running(*relay));

    names worker;
    names upgrade;
    for (const fakes::record &each :
         fakes::journal({what::log, what::log_directory, what::timer, what::loop})) {
        const bool own = pthread_equal(each.thread, pthread_self()) != 0;
        (own ? worker : upgrade).push_back(each.text);
    }
    EXPECT_THAT(worker,
                ElementsAre("upgrade init", "upgrade uninit.", "kzemdlmgr upgrade thread exit."));
    EXPECT_THAT(
        upgrade,
        ElementsAre(in_tree("bin/../var/log/agent/kzemdlmgr/upgrade"), "start upgrade timer.",
                    "start 1 120000/120000", "start upgrade timer(120000) success.",
                    "upgrade thread loop start", "nowait 1", "upgrade thread loop stop",
                    "stop upgrade timer.", "stop 1", "close 1"));
    for (const fakes::record &each : log_lines()) {
        EXPECT_EQ(each.level, 3) << each.text;
    }
    EXPECT_EQ(fakes::journal({what::log_directory})[0].level, 5);
}

TEST_F(kzemm_upgrade_test, a_timer_that_cannot_start_ends_the_thread_and_init_succeeded) {
    fakes::fail_timer_start(1);
    EXPECT_EQ(relay->init(), 0);
    ASSERT_TRUE(fakes::await_log(3, "stop upgrade timer."));
    EXPECT_EQ(relay->uninit(), 0);
    lines upgrade = {at(3, "start upgrade timer."), at(2, "start upgrade timer failed."),
                     at(1, "start upgrade timer failed, go to exit"),
                     at(3, "upgrade thread loop stop"), at(3, "stop upgrade timer.")};
    std::vector<fakes::record> of_thread;
    for (const fakes::record &each : log_lines()) {
        if (pthread_equal(each.thread, pthread_self()) == 0) {
            of_thread.push_back(each);
        }
    }
    EXPECT_THAT(of_thread, ElementsAreArray(upgrade));
    EXPECT_EQ(fakes::count(what::loop), 0U);
}

TEST_F(kzemm_upgrade_test, a_thread_without_a_relay_only_sets_up_its_log) {
    pthread_t thread = 0;
    void *result = nullptr;
    ASSERT_EQ(pthread_create(&thread, nullptr, upgrade_thread_func, nullptr), 0);
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_THAT(texts({what::log_directory}),
                ElementsAre(in_tree("bin/../var/log/agent/kzemdlmgr/upgrade")));
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_EQ(fakes::count(what::timer), 0U);
    ASSERT_NE(result, nullptr);
    EXPECT_STREQ(static_cast<const char *>(result), "1");
}

TEST_F(kzemm_upgrade_test, the_log_directory_may_be_longer_than_the_other_paths) {
    const std::string home = "/" + std::string(4000, 'h');
    setenv("KZE_AGENT_HOME", home.c_str(), 1);
    pthread_t thread = 0;
    ASSERT_EQ(pthread_create(&thread, nullptr, upgrade_thread_func, nullptr), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    EXPECT_THAT(texts({what::log_directory}),
                ElementsAre(home + "/../var/log/agent/kzemdlmgr/upgrade"));
}

TEST_F(kzemm_upgrade_test, uninit_waits_for_the_running_pass) {
    fakes::set_engine_version(ENGINE_IOC, "1.0");
    drop_ioc("ioc_full_2.0");
    config::ioc_switch() = true;
    config::upgrade_check_interval() = 1000;  // longer than the pass: no second one comes between
    fakes::engine_returns("x_client_engine_update", {0});

    // The engine never rises. The worker goes into uninit while the pass asks for the fifth time.
    int asked = 0;
    fakes::on_engine_call("x_client_engine_query_version_str", [&](const fakes::engine_call &) {
        if (++asked == 6) {
            EXPECT_TRUE(fakes::await_log(3, "upgrade uninit."));
        }
    });
    ASSERT_EQ(relay->init(), 0);
    ASSERT_TRUE(await_loop());
    fakes::advance(config::upgrade_check_interval() * 1000);
    ASSERT_TRUE(fakes::await_log(3, "retry get ioc ver 4 times"));
    EXPECT_EQ(relay->uninit(), 0);
    EXPECT_THAT(log_lines(), testing::Contains(at(3, "retry get ioc ver 59 times")));
    EXPECT_THAT(log_lines(), testing::Contains(at(2, "update ioc rule failed !")));
    EXPECT_EQ(updates(), 1U);
    EXPECT_TRUE(has_rule("ioc_full_2.0.tgz"));
}

// ---- the loop ----

TEST_F(kzemm_upgrade_test, the_loop_turns_ten_times_a_second_until_it_is_stopped) {
    fakes::at_loop_turn(3, [this] {
        EXPECT_TRUE(fields::thread_running(*relay));
        relay->stop_thread();
    });
    relay->upgrade_thread_loop();
    EXPECT_THAT(fakes::sleeps(), ElementsAre(turn, turn, turn));
    EXPECT_THAT(texts({what::loop}), ElementsAre("nowait 1"));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "upgrade thread loop start")));
    EXPECT_FALSE(fields::thread_running(*relay));
}

// The worker may be stopped before its upgrade thread has come so far.
TEST_F(kzemm_upgrade_test, a_loop_that_is_stopped_before_it_begins_does_not_turn) {
    relay->stop_thread();
    fakes::at_loop_turn(5, [this] { relay->stop_thread(); });
    relay->upgrade_thread_loop();
    EXPECT_THAT(fakes::sleeps(), IsEmpty());
}

TEST_F(kzemm_upgrade_test, uninit_right_behind_init_ends) {
    for (int round = 0; round < 200; ++round) {
        ASSERT_EQ(relay->init(), 0);
        ASSERT_EQ(relay->uninit(), 0);
    }
    EXPECT_EQ(fields::upgrade_timer(*relay), nullptr);
}

TEST_F(kzemm_upgrade_test, the_first_tick_comes_a_whole_period_after_the_start) {
    config::upgrade_check_interval() = 7;
    ASSERT_EQ(relay->start_upgrade_timer(), 0);
    forget();
    let_pass(6999);
    EXPECT_THAT(log_lines(), IsEmpty());
    let_pass(1);
    EXPECT_THAT(log_lines(), ElementsAreArray(lines_of_tick("0", "0", "0")));
    let_pass(7000);
    EXPECT_EQ(log_lines().size(), 2U);
    relay->stop_upgrade_timer();
}

// ---- the timer ----

TEST_F(kzemm_upgrade_test, the_timer_has_the_configured_period_and_the_relay) {
    config::upgrade_check_interval() = 7;
    EXPECT_EQ(relay->start_upgrade_timer(), 0);
    ASSERT_EQ(open_timers().size(), 1U);
    const fakes::timer_view timer = open_timers()[0];
    EXPECT_EQ(timer.handle, fields::upgrade_timer(*relay));
    EXPECT_EQ(timer.first_ms, 7000U);
    EXPECT_EQ(timer.flags, 0U);
    EXPECT_EQ(timer.period_ms, 7000U);
    EXPECT_EQ(timer.callback, CUpgradeRelay::timer_upgrade_callback);
    EXPECT_EQ(timer.user, relay.get());
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "start upgrade timer."),
                                         at(3, "start upgrade timer(7000) success.")));
    relay->clear();
}

TEST_F(kzemm_upgrade_test, a_period_above_the_signed_range_is_logged_as_it_is) {
    config::upgrade_check_interval() = 4294967;
    EXPECT_EQ(relay->start_upgrade_timer(), 0);
    EXPECT_EQ(open_timers()[0].period_ms, 4294967000U);
    EXPECT_THAT(log_lines(), testing::Contains(at(3, "start upgrade timer(4294967000) success.")));
    relay->clear();
}

TEST_F(kzemm_upgrade_test, a_second_start_keeps_the_timer) {
    ASSERT_EQ(relay->start_upgrade_timer(), 0);
    forget();
    EXPECT_EQ(relay->start_upgrade_timer(), 0);
    EXPECT_EQ(open_timers().size(), 1U);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "start upgrade timer."), at(3, "upgrade timer already start.")));
    relay->clear();
}

TEST_F(kzemm_upgrade_test, a_timer_that_fails_can_be_started_later) {
    fakes::fail_timer_start(1);
    EXPECT_EQ(relay->start_upgrade_timer(), -1);
    EXPECT_EQ(fields::upgrade_timer(*relay), nullptr);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "start upgrade timer."), at(2, "start upgrade timer failed.")));
    EXPECT_EQ(relay->start_upgrade_timer(), 0);
    relay->clear();
}

TEST_F(kzemm_upgrade_test, each_stop_is_logged_and_the_first_one_closes_the_timer) {
    ASSERT_EQ(relay->start_upgrade_timer(), 0);
    forget();
    relay->clear();
    EXPECT_EQ(fields::upgrade_timer(*relay), nullptr);
    relay->stop_upgrade_timer();
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "stop upgrade timer."), at(3, "stop upgrade timer.")));
    EXPECT_THAT(texts({what::timer}), ElementsAre("stop 1", "close 1"));
}

// ---- the schedule of one tick ----

TEST_F(kzemm_upgrade_test, a_tick_without_a_timer_or_a_relay_does_nothing) {
    CUpgradeRelay::timer_upgrade_callback(nullptr);
    cl_timerplus timer = {nullptr};
    CUpgradeRelay::timer_upgrade_callback(&timer);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "timer is null"), at(2, "no userdata input")));
}

TEST_F(kzemm_upgrade_test, a_tick_with_all_switches_off_logs_one_line_and_touches_no_file) {
    drop_ioc("ioc_full_1.0");
    drop_pack("ioa_linux_en.tgz", "linux_kzedbd.cfg");
    drop_pack("md_linux.tgz", "linux_kzemsi.ptn");
    tick();
    EXPECT_THAT(log_lines(), ElementsAreArray(lines_of_tick("0", "0", "0")));
    EXPECT_THAT(texts({what::file, what::engine}), IsEmpty());
    EXPECT_THAT(entries(), ElementsAre("ioa_linux_en.tgz", "ioc_full_1.0.tgz", "md_linux.tgz"));
}

TEST_F(kzemm_upgrade_test, a_tick_takes_the_engines_in_the_order_ioc_ioa_md) {
    set_switches(true);
    tick();
    lines expected = lines_of_tick("1", "1", "1");
    append(expected, lines_of_empty_ioc());
    append(expected, lines_of_empty_ioa());
    append(expected, lines_of_empty_md());
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(texts({what::engine}), IsEmpty());
    EXPECT_THAT(texts({what::file}),
                ElementsAre("opendir " + rules(), "opendir " + rules(), "opendir " + rules()));
}

TEST_F(kzemm_upgrade_test, a_rule_directory_that_is_not_there_is_an_empty_one) {
    std::filesystem::remove(in_tree("hlthreat_rule"));
    set_switches(true);
    tick();
    lines expected = lines_of_tick("1", "1", "1");
    append(expected, lines_of_empty_ioc());
    append(expected, lines_of_empty_ioa());
    append(expected, lines_of_empty_md());
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_FALSE(exists("hlthreat_rule"));
}

TEST_F(kzemm_upgrade_test, each_engine_runs_by_its_own_switch) {
    config::ioc_switch() = true;
    tick();
    lines expected = lines_of_tick("1", "0", "0");
    append(expected, lines_of_empty_ioc());
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));

    set_switches(false);
    config::ioa_switch() = true;
    forget();
    tick();
    expected = lines_of_tick("0", "1", "0");
    append(expected, lines_of_empty_ioa());
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));

    set_switches(false);
    config::md_switch() = true;
    forget();
    tick();
    expected = lines_of_tick("0", "0", "1");
    append(expected, lines_of_empty_md());
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
}

TEST_F(kzemm_upgrade_test, the_failure_of_one_engine_never_keeps_the_next_from_running) {
    set_switches(true);
    fakes::engine_always_returns("x_client_engine_query_version_str", 9);
    drop_ioc("ioc_full_1.0");
    write_rule("ioa_linux_en.tgz", "no archive");
    write_rule("md_linux.tgz", "no archive");
    tick();
    names results;
    for (const fakes::record &each : log_lines()) {
        if (each.text.rfind("update ", 0) == 0 || each.text.rfind("upgrade ", 0) == 0) {
            results.push_back(std::to_string(each.level) + " " + each.text);
        }
    }
    EXPECT_THAT(results, ElementsAre("3 upgrade ioc", "2 update ioc rule failed !", "3 upgrade ioa",
                                     "2 update ioa rule failed !",
                                     "3 upgrade md, last result: 0, retry times: 0",
                                     "2 update md rule failed !"));
}

TEST_F(kzemm_upgrade_test, a_pending_md_update_leaves_the_directory_alone) {
    config::md_switch() = true;
    drop_pack("md_linux.tgz", "linux_kzemsi.ptn");
    state::s_md_last_result = -16;
    state::s_md_retry_times = 3;
    tick();
    lines expected = lines_of_tick("0", "0", "1");
    expected.push_back(at(3, "upgrade md, last result: -16, retry times: 3"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(texts({what::file, what::engine}), IsEmpty());
    EXPECT_EQ(state::s_md_last_result, -16);
    EXPECT_TRUE(has_rule("md_linux.tgz"));
}

TEST_F(kzemm_upgrade_test, any_other_last_result_lets_md_run) {
    config::md_switch() = true;
    for (const int result : {0, -1, -5, 7, -15, -17, 16}) {
        state::s_md_last_result = result;
        state::s_md_retry_times = 2;
        forget();
        tick();
        lines expected = lines_of_tick("0", "0", "1");
        append(expected, lines_of_empty_md(result, 2));
        EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    }
}

TEST_F(kzemm_upgrade_test, a_switch_counts_as_it_is_at_the_tick) {
    ASSERT_EQ(relay->start_upgrade_timer(), 0);
    let_pass(120000);
    set_switches(true);
    forget();
    let_pass(120000);
    EXPECT_THAT(log_lines(), testing::Contains(lines_of_tick("1", "1", "1")[0]));
    set_switches(false);
    forget();
    let_pass(120000);
    EXPECT_THAT(log_lines(), ElementsAreArray(lines_of_tick("0", "0", "0")));
    relay->clear();
}

// The tick looks at the switches once, before the first engine has its turn.
TEST_F(kzemm_upgrade_test, a_switch_that_changes_during_a_tick_counts_on_the_next) {
    set_switches(true);
    fakes::on_file_call([](file_call, bool) { set_switches(false); });
    tick();
    EXPECT_EQ(fakes::count(what::file), 3U);
}
