// The two timers beside the drive switches: the retry of an order, and the wait for a thread that
// runs.

#include "plugin/kzemm_drive_switch.h"

#include <cerrno>

#include "tests/fakes/faults.h"
#include "tests/unit/drive_switch_test.h"

using fakes::at;
using fakes::log_lines;
using fakes::open_timers;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

namespace {

using namespace drive_switch;

using kzemm_drive_switch_timers_test = drive_switch_test;

// ---- the retry job ----

TEST_F(kzemm_drive_switch_timers_test,
       a_drive_order_to_be_tried_again_arms_the_retry_and_ends_the_thread) {
    set_states(0, 0);
    fakes::set_engine_drive_result(-2);
    respond_and_finish("1", "1");
    EXPECT_THAT(orders(), ElementsAre("0, 1")) << "the collect order is not given";
    EXPECT_THAT(log_lines(), ElementsAreArray(change_lines("1", "1", 0, 0, true, true) +
                                              lines{begin_line(), drive_line(1, -2),
                                                    at(2, "change drive switch failed, need retry"),
                                                    end_line()}));
    expect_retry_armed();

    fakes::clear_journal();
    fire();
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "[retry job] begin 3 retry set drive switch"),
                            at(2, "[retry job]set drive switch retry has got the max times:3"),
                            stop_line()));
    EXPECT_THAT(orders(), SizeIs(1)) << "no second order";
    EXPECT_THAT(fakes::made_threads(), SizeIs(1));
    EXPECT_THAT(open_timers(), IsEmpty());
}

TEST_F(kzemm_drive_switch_timers_test, a_drive_to_be_switched_off_again_arms_the_retry_too) {
    fakes::set_engine_drive_result(-2);
    EXPECT_THAT(thread_log({true, 0, true, 1}),
                ElementsAre(begin_line(), drive_line(0, -2),
                            at(2, "change drive switch failed, need retry"), end_line()));
    expect_retry_armed();
}

TEST_F(kzemm_drive_switch_timers_test, a_collect_order_to_be_tried_again_arms_the_retry) {
    fakes::engine_drive_results({0, -2});
    EXPECT_THAT(thread_log({true, 1, true, 0}),
                ElementsAre(begin_line(), drive_line(1, 0), at(3, "change drive switch success"),
                            collect_line(0, -2),
                            at(2, "change drive collect switch failed, need retry"), end_line()));
    expect_retry_armed();
}

TEST_F(kzemm_drive_switch_timers_test, a_retry_that_cannot_be_armed_by_the_thread_is_told_of) {
    fakes::set_engine_drive_result(-2);
    fakes::fail_timer_start(1);
    EXPECT_THAT(thread_log({true, 1, true, 0}),
                ElementsAre(begin_line(), drive_line(1, -2),
                            at(2, "change drive switch failed, need retry"),
                            at(1, "set collect engine timer failed"), end_line()));
}

TEST_F(kzemm_drive_switch_timers_test, a_thread_that_cannot_start_arms_the_retry_that_gives_up) {
    set_states(0, 0);
    fakes::pthread_create_fails(EAGAIN);
    respond("1", "1");
    EXPECT_THAT(log_lines(), ElementsAreArray(change_lines("1", "1", 0, 0, true, true) +
                                              lines{at(1, "failed to create thread")}));
    expect_retry_armed();
    fakes::pthread_create_fails(0);

    fakes::clear_journal();
    fakes::let_pass(retry_ms - 1);
    EXPECT_THAT(log_lines(), IsEmpty());
    fakes::let_pass(1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "[retry job] begin 3 retry set drive switch"),
                            at(2, "[retry job]set drive switch retry has got the max times:3"),
                            stop_line()));
    EXPECT_THAT(fakes::texts({fakes::what::timer}), ElementsAre("stop 1", "close 1"));
    EXPECT_EQ(fakes::thread_tries(), 1U) << "no second attempt";
}

TEST_F(kzemm_drive_switch_timers_test, a_thread_without_memory_arms_the_retry) {
    set_states(0, 0);
    fakes::fail_allocation(1);
    respond("1", "1");
    EXPECT_TRUE(fakes::allocation_failed());
    lines expected = change_lines("1", "1", 0, 0, true, true);
    expected.back() = at(1, "malloc failed.");
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    expect_retry_armed();
}

TEST_F(kzemm_drive_switch_timers_test, a_wish_is_dropped_when_neither_thread_nor_retry_can_start) {
    set_states(0, 0);
    fakes::pthread_create_fails(EAGAIN);
    fakes::fail_timer_start(1);
    respond("1", "1");
    EXPECT_THAT(log_lines(), ElementsAreArray(change_lines("1", "1", 0, 0, true, true) +
                                              lines{at(1, "failed to create thread"),
                                                    at(1, "set collect engine timer failed"),
                                                    at(1, "set retry job failed.")}));
    EXPECT_THAT(open_timers(), IsEmpty());
    EXPECT_EQ(fakes::open_messages(), 0);
}

TEST_F(kzemm_drive_switch_timers_test, an_armed_retry_is_not_armed_again) {
    constexpr drive_switch_ctx first = {true, 1, false, 0};
    constexpr drive_switch_ctx second = {false, 0, true, 1};
    EXPECT_EQ(start_drive_switch_retry_job(&first), 0);
    expect_retry_armed();
    cl_timerplus *const handle = open_timers()[0].handle;
    EXPECT_EQ(start_drive_switch_retry_job(&second), 0);
    ASSERT_THAT(open_timers(), SizeIs(1));
    EXPECT_EQ(open_timers()[0].handle, handle);
    EXPECT_THAT(fakes::texts({fakes::what::timer}), ElementsAre("start 1 20000/20000"));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_drive_switch_timers_test,
       a_retry_that_cannot_be_armed_gives_minus_1_and_can_be_later) {
    constexpr drive_switch_ctx any = {};
    fakes::fail_timer_start(1);
    EXPECT_EQ(start_drive_switch_retry_job(&any), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "set collect engine timer failed")));
    EXPECT_EQ(start_drive_switch_retry_job(&any), 0);
    expect_retry_armed();
}

TEST_F(kzemm_drive_switch_timers_test, a_new_answer_drops_an_old_retry) {
    constexpr drive_switch_ctx any = {true, 1, true, 1};
    EXPECT_EQ(start_drive_switch_retry_job(&any), 0);
    set_states(1, 1);
    fakes::clear_journal();
    respond("1", "1");
    EXPECT_THAT(fakes::texts({fakes::what::timer}), ElementsAre("stop 1", "close 1"));
    EXPECT_THAT(open_timers(), IsEmpty());
}

TEST_F(kzemm_drive_switch_timers_test, a_thread_that_needs_no_retry_drops_an_armed_one) {
    constexpr drive_switch_ctx any = {true, 1, true, 1};
    EXPECT_EQ(start_drive_switch_retry_job(&any), 0);
    EXPECT_EQ(start_and_finish({true, 1, false, 0}), 0);
    EXPECT_THAT(open_timers(), IsEmpty());
}

TEST_F(kzemm_drive_switch_timers_test,
       the_retry_gives_up_at_its_first_firing_while_level_3_is_not_written) {
    constexpr drive_switch_ctx any = {true, 1, true, 1};
    EXPECT_EQ(start_drive_switch_retry_job(&any), 0);
    fakes::set_log_level(2);
    fire();
    EXPECT_THAT(log_lines(),
                ElementsAre(at(2, "[retry job]set drive switch retry has got the max times:3")));
    EXPECT_THAT(open_timers(), IsEmpty());
    EXPECT_EQ(fakes::thread_tries(), 0U);
}

// The counter stands at 0 while no job is armed, so that the steps behind its limit can be seen.
TEST_F(kzemm_drive_switch_timers_test, the_counter_of_the_retry_grows_with_its_log_line) {
    for (const char *const first : {"[retry job] begin 0 retry set drive switch",
                                    "[retry job] begin 1 retry set drive switch"}) {
        fakes::clear_journal();
        with_the_thread_behind([] { set_drive_switch_retry_cb(nullptr); });
        EXPECT_THAT(log_lines(), ElementsAre(at(3, first), at(3, "begin set drive switch thread"),
                                             begin_line(), end_line(), stop_line()));
    }
    fakes::clear_journal();
    set_drive_switch_retry_cb(nullptr);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "[retry job] begin 2 retry set drive switch"),
                            at(2, "[retry job]set drive switch retry has got the max times:3"),
                            stop_line()));
    EXPECT_THAT(fakes::made_threads(), SizeIs(2));
    EXPECT_THAT(orders(), IsEmpty()) << "without a job the record is empty";
}

TEST_F(kzemm_drive_switch_timers_test,
       the_counter_of_the_retry_stands_still_while_its_line_is_not_written) {
    fakes::set_log_level(2);
    for (int i = 0; i < 6; ++i) {
        with_the_thread_behind([] { set_drive_switch_retry_cb(nullptr); });
    }
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_THAT(fakes::made_threads(), SizeIs(6));
}

TEST_F(kzemm_drive_switch_timers_test, a_retry_whose_thread_cannot_start_is_told_of) {
    fakes::pthread_create_fails(EAGAIN);
    set_drive_switch_retry_cb(nullptr);
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(3, "[retry job] begin 0 retry set drive switch"),
                    at(3, "begin set drive switch thread"), at(1, "failed to create thread"),
                    at(1, MatchesRegex(R"(\[retry job\] [0-9]+ retry failed)"))));
}

TEST_F(kzemm_drive_switch_timers_test, stopping_the_retry_says_so_with_and_without_one) {
    stop_drive_switch_retry_job();
    EXPECT_THAT(log_lines(), ElementsAre(stop_line()));
    constexpr drive_switch_ctx any = {};
    EXPECT_EQ(start_drive_switch_retry_job(&any), 0);
    fakes::clear_journal();
    stop_drive_switch_retry_job();
    stop_drive_switch_retry_job();
    EXPECT_THAT(fakes::texts({fakes::what::timer}), ElementsAre("stop 1", "close 1"));
    EXPECT_THAT(log_lines(), ElementsAre(stop_line(), stop_line()));
}

// ---- the wait for a running thread ----

TEST_F(kzemm_drive_switch_timers_test,
       an_answer_while_a_thread_runs_waits_3_seconds_and_is_dropped) {
    set_states(0, 0);
    while_a_thread_runs([] {
        fakes::clear_journal();
        respond("1", "1");
        EXPECT_THAT(log_lines(), ElementsAre(values_line("1", "1"), stop_line(), stop_line()));
        EXPECT_THAT(fakes::engine_texts(), IsEmpty());
        ASSERT_THAT(fakes::thread_probes(), SizeIs(1));
        EXPECT_EQ(fakes::thread_probes()[0].id, fakes::made_threads()[0].id);
        EXPECT_EQ(fakes::thread_probes()[0].signal, 0);
        expect_wait_armed();
        EXPECT_EQ(fakes::open_messages(), 0);
    });
    fakes::clear_journal();
    fakes::let_pass(wait_ms - 1);
    EXPECT_THAT(log_lines(), IsEmpty());
    fakes::let_pass(1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "update timer has got the max time:10"), stop_line()));
    EXPECT_THAT(fakes::texts({fakes::what::timer}), ElementsAre("stop 1", "close 1"));
    EXPECT_THAT(fakes::engine_texts(), IsEmpty());
    EXPECT_THAT(fakes::made_threads(), SizeIs(1));
}

TEST_F(kzemm_drive_switch_timers_test,
       the_wait_ends_at_its_first_firing_while_the_thread_still_runs) {
    while_a_thread_runs([] {
        respond("1", "1");
        fakes::clear_journal();
        fakes::let_pass(wait_ms);
        EXPECT_THAT(log_lines(),
                    ElementsAre(at(3, "update timer has got the max time:10"), stop_line()));
        EXPECT_THAT(fakes::thread_probes(), SizeIs(1)) << "that of the answer";
    });
}

TEST_F(kzemm_drive_switch_timers_test,
       the_wait_ends_at_its_first_firing_while_level_3_is_not_written) {
    while_a_thread_runs([] { respond("1", "1"); });
    fakes::clear_journal();
    fakes::set_log_level(2);
    fakes::let_pass(wait_ms);
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_THAT(open_timers(), IsEmpty());
    EXPECT_THAT(fakes::engine_texts(), IsEmpty());
}

TEST_F(kzemm_drive_switch_timers_test,
       a_second_answer_while_a_thread_runs_stops_the_wait_and_arms_it_anew) {
    while_a_thread_runs([] {
        respond("1", "1");
        fakes::advance(wait_ms - 1);
        fakes::clear_journal();
        respond("1", "0");
        EXPECT_THAT(fakes::texts({fakes::what::timer}),
                    ElementsAre("stop 1", "close 1", "start 2 3000/3000"));
        EXPECT_THAT(log_lines(), ElementsAre(values_line("1", "0"), stop_line(), stop_line()));
        expect_wait_armed();
    });
    fakes::clear_journal();
    fakes::let_pass(1);
    EXPECT_THAT(log_lines(), IsEmpty());
    fakes::let_pass(wait_ms - 1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "update timer has got the max time:10"), stop_line()));
}

TEST_F(kzemm_drive_switch_timers_test, an_answer_behind_the_thread_is_handled_beside_the_wait) {
    set_states(0, 0);
    while_a_thread_runs([] { respond("1", "1"); });
    respond_and_finish("1", "0");
    EXPECT_THAT(orders(), ElementsAre("0, 1"));
    expect_wait_armed();
    fakes::clear_journal();
    fakes::let_pass(wait_ms);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "update timer has got the max time:10"), stop_line()));
    EXPECT_THAT(orders(), SizeIs(1));
}

TEST_F(kzemm_drive_switch_timers_test, a_wait_that_cannot_be_armed_is_told_of) {
    while_a_thread_runs([] {
        fakes::clear_journal();
        fakes::fail_timer_start(1);
        respond("1", "1");
        EXPECT_THAT(log_lines(), ElementsAre(values_line("1", "1"), stop_line(), stop_line(),
                                             at(1, "cl_timerplus_start failed.")));
        EXPECT_THAT(open_timers(), IsEmpty());
    });
}

TEST_F(kzemm_drive_switch_timers_test,
       a_thread_that_ends_before_its_start_returns_leaves_a_stale_identifier) {
    set_states(0, 0);
    leave_a_stale_identifier();
    fakes::pthread_kill_fails(ESRCH);
    respond("1", "1");
    EXPECT_THAT(log_lines(), ElementsAre(values_line("1", "1"), stop_line(),
                                         at(1, "pthread_kill error:" + std::to_string(ESRCH))));
    EXPECT_THAT(fakes::engine_texts(), IsEmpty()) << "the wish is dropped";
    EXPECT_THAT(open_timers(), IsEmpty());
    EXPECT_EQ(fakes::open_messages(), 0);
}

// The counter stands at 0 while no wait is armed, so that the steps behind its limit can be seen.
TEST_F(kzemm_drive_switch_timers_test, the_wait_looks_ten_times_for_the_end_of_the_thread) {
    while_a_thread_runs([] {
        for (int i = 0; i < 10; ++i) {
            fakes::clear_journal();
            drive_update_timer_cb(nullptr);
            EXPECT_THAT(log_lines(), ElementsAre(at(3, "set dirve switch thread is running")));
        }
        fakes::clear_journal();
        drive_update_timer_cb(nullptr);
        EXPECT_THAT(log_lines(),
                    ElementsAre(at(3, "update timer has got the max time:10"), stop_line()));
        EXPECT_THAT(fakes::thread_probes(), SizeIs(10));
    });
}

TEST_F(kzemm_drive_switch_timers_test, the_wait_counts_also_while_level_3_is_not_written) {
    while_a_thread_runs([] {
        fakes::set_log_level(2);
        for (int i = 0; i < 12; ++i) {
            drive_update_timer_cb(nullptr);
        }
        EXPECT_THAT(fakes::thread_probes(), SizeIs(10));
        fakes::set_log_level(4);
    });
}

TEST_F(kzemm_drive_switch_timers_test, a_wait_with_a_stale_identifier_goes_on) {
    leave_a_stale_identifier();
    fakes::pthread_kill_fails(ESRCH);
    drive_update_timer_cb(nullptr);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "pthread_kill error:" + std::to_string(ESRCH))));
    EXPECT_THAT(fakes::engine_texts(), IsEmpty());
}

TEST_F(kzemm_drive_switch_timers_test, a_wait_without_a_thread_starts_one_and_ends) {
    set_states(1, 1);
    with_the_thread_behind([] {
        drive_update_timer_cb(nullptr);
        EXPECT_THAT(log_lines(),
                    ElementsAre(states_line(1, 1), at(3, "drive switch need change"),
                                at(3, "drive collect switch need change"), at(3, "need change"),
                                at(3, "begin set drive switch thread"), stop_line()));
    });
    EXPECT_THAT(orders(), ElementsAre("0, 0")) << "without a held wish both are wanted off";
}

TEST_F(kzemm_drive_switch_timers_test, a_wait_with_nothing_to_change_ends) {
    set_states(0, 0);
    drive_update_timer_cb(nullptr);
    EXPECT_THAT(log_lines(),
                ElementsAre(states_line(0, 0), at(3, "do not need change"), stop_line()));
    EXPECT_EQ(fakes::thread_tries(), 0U);
}

TEST_F(kzemm_drive_switch_timers_test, a_wait_whose_thread_cannot_start_arms_the_retry_and_ends) {
    set_states(1, 0);
    fakes::pthread_create_fails(EAGAIN);
    drive_update_timer_cb(nullptr);
    EXPECT_THAT(log_lines(),
                ElementsAre(states_line(1, 0), at(3, "drive switch need change"),
                            at(3, "need change"), at(3, "begin set drive switch thread"),
                            at(1, "failed to create thread"), stop_line()));
    expect_retry_armed();
}

TEST_F(kzemm_drive_switch_timers_test, a_wait_that_can_start_nothing_says_so_and_ends) {
    set_states(1, 0);
    fakes::pthread_create_fails(EAGAIN);
    fakes::fail_timer_start(1);
    drive_update_timer_cb(nullptr);
    EXPECT_THAT(
        log_lines(),
        ElementsAre(states_line(1, 0), at(3, "drive switch need change"), at(3, "need change"),
                    at(3, "begin set drive switch thread"), at(1, "failed to create thread"),
                    at(1, "set collect engine timer failed"), at(1, "set retry job failed."),
                    stop_line()));
}

TEST_F(kzemm_drive_switch_timers_test, stopping_the_wait_says_the_same_as_stopping_the_retry) {
    stop_drive_update_timer();
    EXPECT_THAT(log_lines(), ElementsAre(stop_line()));
    EXPECT_THAT(fakes::texts({fakes::what::timer}), IsEmpty());
}

// ---- no lock ----

// The thread that creates a drive thread stores its identifier while that clears it, and an answer
// stops the retry that the thread arms. Whichever comes first, at most one timer is left.
TEST_F(kzemm_drive_switch_timers_test, an_answer_may_come_at_any_moment_of_a_thread) {
    set_states(0, 0);
    fakes::set_engine_drive_result(-2);
    for (size_t round = 1; round <= 20; ++round) {
        fakes::forget_engine_calls();
        fakes::pthread_kill_fails(ESRCH);
        respond("1", "1");
        respond("0", "0");
        EXPECT_TRUE(fakes::await_end_of_threads());
        EXPECT_THAT(orders(), ElementsAre("0, 1"));
        EXPECT_LE(open_timers().size(), 1U);
        stop_drive_switch_retry_job();
        while_a_thread_runs([] {});  // clears the identifier, which may be a stale one
    }
}

}  // namespace
