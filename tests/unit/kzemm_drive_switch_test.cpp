// The drive switches: what an answer of central configuration leads to, and the thread that changes
// them.

#include "plugin/kzemm_drive_switch.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "kzautil.h"
#include "tests/fakes/faults.h"
#include "tests/unit/drive_switch_test.h"

using fakes::at;
using fakes::log_lines;
using fakes::open_timers;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

using namespace drive_switch;

using kzemm_drive_switch_test = drive_switch_test;

// ---- the answer ----

TEST_F(kzemm_drive_switch_test, an_answer_that_did_not_come_changes_nothing) {
    for (const int result : {-1, -110, 4}) {
        fakes::clear_journal();
        on_base_drive_cfg_response(result, 1004, nullptr, 0, nullptr);
        EXPECT_THAT(log_lines(), ElementsAre(at(1, "get conf from cfg failed, res = " +
                                                       std::to_string(result))));
    }
    EXPECT_THAT(fakes::engine_texts(), IsEmpty());
}

TEST_F(kzemm_drive_switch_test, an_answer_that_is_no_message_changes_nothing) {
    on_base_drive_cfg_response(0, 1004, "no message", 10, nullptr);
    on_base_drive_cfg_response(0, 1004, nullptr, 0, nullptr);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "xmsg unpack failed"), at(1, "xmsg unpack failed")));
    EXPECT_EQ(fakes::dumped_messages(), 0U);
    EXPECT_THAT(fakes::engine_texts(), IsEmpty());
}

TEST_F(kzemm_drive_switch_test, an_answer_without_a_field_changes_nothing) {
    answer({{"collect_enable", "1"}});
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "get cfg msg [enable] failed.")));
    fakes::clear_journal();
    answer({{"enable", "1"}});
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "get cfg msg [collect_enable] failed.")));
    fakes::clear_journal();
    answer({});
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "get cfg msg [enable] failed.")));
    EXPECT_EQ(fakes::dumped_messages(), 3U);
    EXPECT_THAT(fakes::engine_texts(), IsEmpty());
}

TEST_F(kzemm_drive_switch_test, two_illegal_values_change_nothing) {
    for (const auto &[enable, collect] : fakes::message_fields{
             {"x", "y"}, {"", ""}, {"2", "-1"}, {" 1", " 0"}, {"true", "false"}}) {
        fakes::clear_journal();
        respond(enable, collect);
        EXPECT_THAT(log_lines(), ElementsAre(values_line(enable, collect), at(1, "illegal value")));
        EXPECT_EQ(fakes::open_messages(), 0);
    }
    EXPECT_THAT(fakes::engine_texts(), IsEmpty());
}

TEST_F(kzemm_drive_switch_test, an_illegal_answer_leaves_a_retry_alone) {
    constexpr drive_switch_ctx any = {};
    EXPECT_EQ(start_drive_switch_retry_job(&any), 0);
    respond("x", "y");
    answer({{"enable", "1"}});
    on_base_drive_cfg_response(-1, 1004, nullptr, 0, nullptr);
    expect_retry_armed();
}

TEST_F(kzemm_drive_switch_test, one_legal_value_lets_an_illegal_one_through_as_a_number) {
    set_states(1, 0);
    respond_and_finish("x", "1");
    EXPECT_THAT(orders(), ElementsAre("0, 0")) << "x is 0";
    fakes::forget_engine_calls();
    set_states(0, 1);
    respond_and_finish("1", "y");
    EXPECT_THAT(orders(), ElementsAre("0, 1", "1, 0")) << "y is 0";
    EXPECT_THAT(log_lines(), Not(Contains(at(1, "illegal value"))));
}

TEST_F(kzemm_drive_switch_test, values_are_decimal_numbers_to_their_first_other_character) {
    set_states(0, 0);
    respond_and_finish("12abc", "-7");
    EXPECT_THAT(orders(), ElementsAre("0, 12", "1, -7"));
    fakes::forget_engine_calls();
    respond_and_finish("010", "0x10");
    EXPECT_THAT(orders(), ElementsAre("0, 10"));
}

TEST_F(kzemm_drive_switch_test, wanted_as_it_is_starts_no_thread) {
    set_states(1, 1);
    respond("1", "1");
    EXPECT_THAT(log_lines(), ElementsAre(values_line("1", "1"), stop_line(), states_line(1, 1),
                                         at(3, "do not need change")));
    EXPECT_EQ(fakes::thread_tries(), 0U);
    EXPECT_EQ(fakes::dumped_messages(), 1U);
    EXPECT_EQ(fakes::open_messages(), 0);
    EXPECT_THAT(fakes::engine_texts(),
                ElementsAre("x_client_get_drive_state", "x_client_get_collect_state"));
}

TEST_F(kzemm_drive_switch_test, unreadable_states_are_nothing_to_do) {
    fakes::engine_returns("x_client_get_drive_state", {-9});
    respond("1", "1");
    EXPECT_THAT(log_lines(), ElementsAre(values_line("1", "1"), stop_line(),
                                         at(1, "get drive state faile, ret = -9")));
    EXPECT_THAT(fakes::engine_texts(), ElementsAre("x_client_get_drive_state"));
    fakes::clear_journal();
    fakes::engine_returns("x_client_get_collect_state", {4});
    respond("1", "1");
    EXPECT_THAT(log_lines(), ElementsAre(values_line("1", "1"), stop_line(),
                                         at(1, "get collect state faile, ret = 4")));
    EXPECT_EQ(fakes::thread_tries(), 0U);
    EXPECT_THAT(open_timers(), IsEmpty());
}

// ---- check_drive_switch_change ----

TEST_F(kzemm_drive_switch_test, each_wish_is_compared_with_each_state) {
    for (const int enable : {0, 1, 2, -1}) {
        for (const int collect_enable : {0, 1, 2, -1}) {
            for (const int drive : {0, 1, 2, -1}) {
                for (const int collect : {0, 1, 2, -1}) {
                    const bool change_drive = drive != (enable == 0 ? 0 : 1);
                    const bool change_collect = collect != (collect_enable == 0 ? 0 : 1);
                    const bool work = change_drive || (drive == 1 && change_collect);
                    SCOPED_TRACE(testing::Message() << "wanted " << enable << collect_enable
                                                    << ", states " << drive << collect);
                    set_states(drive, collect);
                    fakes::clear_journal();
                    const drive_cfg cfg = {enable, collect_enable};
                    drive_switch_ctx ctx = {!change_drive, 77, !change_collect, 77};
                    EXPECT_EQ(check_drive_switch_change(&cfg, &ctx), work ? 0 : -1);
                    EXPECT_EQ(ctx.change_drive, change_drive);
                    EXPECT_EQ(ctx.drive_enable, enable);
                    EXPECT_EQ(ctx.change_collect, change_collect);
                    EXPECT_EQ(ctx.collect_enable, collect_enable);
                    lines expected;
                    expected.push_back(states_line(drive, collect));
                    if (change_drive) {
                        expected.push_back(at(3, "drive switch need change"));
                    }
                    if (change_collect) {
                        expected.push_back(at(3, "drive collect switch need change"));
                    }
                    expected.push_back(at(3, work ? "need change" : "do not need change"));
                    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
                }
            }
        }
    }
}

TEST_F(kzemm_drive_switch_test, a_collect_switch_alone_is_not_touched_while_the_drive_is_off) {
    set_states(0, 0);
    respond("0", "1");
    EXPECT_THAT(log_lines(), ElementsAre(values_line("0", "1"), stop_line(), states_line(0, 0),
                                         at(3, "drive collect switch need change"),
                                         at(3, "do not need change")));
    EXPECT_EQ(fakes::thread_tries(), 0U);
}

// ---- the thread ----

TEST_F(kzemm_drive_switch_test, the_drive_goes_on_first_and_then_the_collect_switch) {
    set_states(0, 0);
    respond_and_finish("1", "1");
    EXPECT_THAT(orders(), ElementsAre("0, 1", "1, 1"));
    EXPECT_THAT(
        log_lines(),
        ElementsAreArray(change_lines("1", "1", 0, 0, true, true) +
                         lines{begin_line(), drive_line(1, 0), at(3, "change drive switch success"),
                               collect_line(1, 0), at(3, "change drive collect switch success"),
                               end_line(), stop_line()}));
    EXPECT_THAT(open_timers(), IsEmpty());
}

TEST_F(kzemm_drive_switch_test, a_drive_that_goes_off_leaves_the_collect_switch_alone) {
    set_states(1, 0);
    respond_and_finish("0", "1");
    EXPECT_THAT(orders(), ElementsAre("0, 0"));
    EXPECT_THAT(log_lines(), ElementsAreArray(change_lines("0", "1", 1, 0, true, true) +
                                              lines{begin_line(), drive_line(0, 0),
                                                    at(3, "change drive switch success"),
                                                    end_line(), stop_line()}));
}

TEST_F(kzemm_drive_switch_test, a_drive_that_is_right_is_not_ordered) {
    set_states(1, 1);
    respond_and_finish("1", "0");
    EXPECT_THAT(orders(), ElementsAre("1, 0"));
    EXPECT_THAT(log_lines(), ElementsAreArray(change_lines("1", "0", 1, 1, false, true) +
                                              lines{begin_line(), collect_line(0, 0),
                                                    at(3, "change drive collect switch success"),
                                                    end_line(), stop_line()}));
}

TEST_F(kzemm_drive_switch_test, a_collect_switch_that_is_right_is_not_ordered) {
    set_states(0, 1);
    respond_and_finish("1", "1");
    EXPECT_THAT(orders(), ElementsAre("0, 1"));
}

TEST_F(kzemm_drive_switch_test, the_orders_are_given_on_a_thread_of_their_own_that_is_let_go) {
    set_states(0, 0);
    respond_and_finish("1", "1");
    ASSERT_THAT(fakes::made_threads(), SizeIs(1));
    const fakes::made_thread made = fakes::made_threads()[0];
    EXPECT_TRUE(made.default_attributes);
    EXPECT_THAT(fakes::detached_threads(), ElementsAre(made.id));
    for (const fakes::engine_call &each : fakes::engine_calls(set_drive_switch)) {
        EXPECT_TRUE(pthread_equal(each.thread, made.id) != 0);
    }
    for (const char *const query : {"x_client_get_drive_state", "x_client_get_collect_state"}) {
        EXPECT_TRUE(pthread_equal(fakes::engine_calls(query)[0].thread, pthread_self()) != 0);
    }
}

TEST_F(kzemm_drive_switch_test, the_thread_logs_to_a_directory_of_its_own) {
    set_states(0, 0);
    const time_t before = time(nullptr);
    respond_and_finish("1", "0");
    const time_t after = time(nullptr);
    char path[4096] = {};
    kze_dirutils_path_transform("@/../var/log/agent/kzemdlmgr/setdriveswitch", path, sizeof(path));
    const std::vector<fakes::record> records =
        fakes::journal({fakes::what::log_directory, fakes::what::log});
    size_t initialised = 0;
    while (records[initialised].kind != fakes::what::log_directory) {
        ++initialised;
    }
    EXPECT_THAT(records[initialised], at(5, std::string(path)));
    EXPECT_THAT(records[initialised + 1], begin_line()) << "the first line there";
    for (const char *const text : {"begin set drive switch at ", "end set drive switch at "}) {
        for (const fakes::record &each : records) {
            if (each.text.rfind(text, 0) == 0) {
                const time_t told = strtol(each.text.c_str() + strlen(text), nullptr, 10);
                EXPECT_LE(before, told);
                EXPECT_LE(told, after);
                EXPECT_FALSE(pthread_equal(each.thread, pthread_self()) != 0);
            }
        }
    }
}

TEST_F(kzemm_drive_switch_test, a_failed_drive_order_is_final_and_the_collect_order_follows) {
    for (const int result : {-1, -2, 7}) {
        fakes::forget_engine_calls();
        fakes::engine_returns(set_drive_switch, {result});
        EXPECT_THAT(thread_log({true, 1, true, 1}),
                    ElementsAre(begin_line(), drive_line(1, 0),
                                at(2, "set drive switch failed, not need retry, ret = " +
                                          std::to_string(result)),
                                collect_line(1, 0), at(3, "change drive collect switch success"),
                                end_line(), stop_line()));
        EXPECT_THAT(orders(), ElementsAre("0, 1", "1, 1"));
        EXPECT_THAT(open_timers(), IsEmpty());
    }
}

TEST_F(kzemm_drive_switch_test, a_failed_order_to_switch_the_drive_off_ends_the_work) {
    fakes::engine_returns(set_drive_switch, {3});
    EXPECT_THAT(thread_log({true, 0, true, 1}),
                ElementsAre(begin_line(), drive_line(0, 0),
                            at(2, "set drive switch failed, not need retry, ret = 3"), end_line(),
                            stop_line()));
    EXPECT_THAT(orders(), ElementsAre("0, 0"));
}

TEST_F(kzemm_drive_switch_test, a_failed_order_is_not_tried_again_whatever_its_further_code) {
    fakes::engine_returns(set_drive_switch, {-1, -1});
    fakes::set_engine_drive_result(-2);
    EXPECT_THAT(
        thread_log({true, 1, true, 1}),
        ElementsAre(begin_line(), drive_line(1, -2),
                    at(2, "set drive switch failed, not need retry, ret = -1"), collect_line(1, -2),
                    at(2, "set drive switch failed, not need retry, ret = -1"), end_line(),
                    stop_line()));
    EXPECT_THAT(open_timers(), IsEmpty());
}

TEST_F(kzemm_drive_switch_test, 0_and_minus_1_are_success) {
    for (const int ret : {0, -1}) {
        fakes::set_engine_drive_result(ret);
        EXPECT_THAT(
            thread_log({true, 1, true, 1}),
            ElementsAre(begin_line(), drive_line(1, ret), at(3, "change drive switch success"),
                        collect_line(1, ret), at(3, "change drive collect switch success"),
                        end_line(), stop_line()));
    }
}

TEST_F(kzemm_drive_switch_test, any_other_code_is_a_final_failure) {
    for (const int ret : {1, 5, -3, INT_MIN, INT_MAX}) {
        fakes::set_engine_drive_result(ret);
        EXPECT_THAT(
            thread_log({true, 1, true, 0}),
            ElementsAre(begin_line(), drive_line(1, ret),
                        at(2, "change drive switch failed, not need retry"), collect_line(0, ret),
                        at(2, "change drive collect switch failed, not need retry"), end_line(),
                        stop_line()));
        EXPECT_THAT(open_timers(), IsEmpty());
    }
}

TEST_F(kzemm_drive_switch_test, a_final_failure_to_switch_the_drive_off_ends_the_work) {
    fakes::set_engine_drive_result(5);
    EXPECT_THAT(
        thread_log({true, 0, true, 1}),
        ElementsAre(begin_line(), drive_line(0, 5),
                    at(2, "change drive switch failed, not need retry"), end_line(), stop_line()));
    EXPECT_THAT(orders(), ElementsAre("0, 0"));
}

TEST_F(kzemm_drive_switch_test, an_unchanged_drive_that_is_wanted_off_does_not_end_the_work) {
    EXPECT_THAT(thread_log({false, 0, true, 1}),
                ElementsAre(begin_line(), collect_line(1, 0),
                            at(3, "change drive collect switch success"), end_line(), stop_line()));
}

TEST_F(kzemm_drive_switch_test, a_failed_collect_order_is_final) {
    fakes::engine_returns(set_drive_switch, {6});
    EXPECT_THAT(thread_log({false, 1, true, 0}),
                ElementsAre(begin_line(), collect_line(0, 0),
                            at(2, "set drive switch failed, not need retry, ret = 6"), end_line(),
                            stop_line()));
}

TEST_F(kzemm_drive_switch_test, one_further_code_serves_both_orders) {
    fakes::engine_drive_results({5, std::nullopt});
    EXPECT_THAT(thread_log({true, 1, true, 1}),
                ElementsAre(begin_line(), drive_line(1, 5),
                            at(2, "change drive switch failed, not need retry"), collect_line(1, 5),
                            at(2, "change drive collect switch failed, not need retry"), end_line(),
                            stop_line()));
    fakes::engine_drive_results({-1, std::nullopt});
    EXPECT_THAT(thread_log({true, 1, true, 1}),
                ElementsAre(begin_line(), drive_line(1, -1), at(3, "change drive switch success"),
                            collect_line(1, -1), at(3, "change drive collect switch success"),
                            end_line(), stop_line()));
}

TEST_F(kzemm_drive_switch_test, a_further_code_left_by_a_failed_order_serves_the_next) {
    fakes::engine_returns(set_drive_switch, {9, 0});
    fakes::engine_drive_results({-2, std::nullopt});
    EXPECT_THAT(
        thread_log({true, 1, true, 1}),
        ElementsAre(begin_line(), drive_line(1, -2),
                    at(2, "set drive switch failed, not need retry, ret = 9"), collect_line(1, -2),
                    at(2, "change drive collect switch failed, need retry"), end_line()));
    expect_retry_armed();
}

TEST_F(kzemm_drive_switch_test, a_further_code_that_is_never_written_is_0) {
    fakes::engine_drive_results({std::nullopt, std::nullopt});
    EXPECT_THAT(thread_log({true, 1, true, 1}),
                ElementsAre(begin_line(), drive_line(1, 0), at(3, "change drive switch success"),
                            collect_line(1, 0), at(3, "change drive collect switch success"),
                            end_line(), stop_line()));
}

TEST_F(kzemm_drive_switch_test, a_thread_that_cannot_get_memory_is_not_started) {
    constexpr drive_switch_ctx any = {true, 1, true, 1};
    fakes::fail_allocation(1);
    EXPECT_EQ(start_set_drive_switch_thread(&any), -1);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "malloc failed.")));
    EXPECT_EQ(fakes::thread_tries(), 0U);
}

TEST_F(kzemm_drive_switch_test, a_thread_that_cannot_start_gives_the_code_of_the_library) {
    constexpr drive_switch_ctx any = {true, 1, true, 1};
    fakes::pthread_create_fails(EAGAIN);
    EXPECT_EQ(start_set_drive_switch_thread(&any), EAGAIN);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "begin set drive switch thread"),
                                         at(1, "failed to create thread")));
    EXPECT_THAT(fakes::detached_threads(), IsEmpty());
    set_states(1, 1);
    respond("1", "1");
    EXPECT_THAT(fakes::thread_probes(), IsEmpty()) << "there is no thread";
}

TEST_F(kzemm_drive_switch_test, the_thread_has_a_copy_of_its_record) {
    with_the_thread_behind([] {
        drive_switch_ctx ctx = {true, 1, true, 0};
        EXPECT_EQ(start_set_drive_switch_thread(&ctx), 0);
        ctx = {true, 55, false, 55};
    });
    EXPECT_THAT(orders(), ElementsAre("0, 1", "1, 0"));
}

TEST_F(kzemm_drive_switch_test, an_ended_thread_is_not_probed) {
    set_states(0, 0);
    for (int i = 0; i < 3; ++i) {
        respond_and_finish("1", "1");
    }
    EXPECT_THAT(fakes::thread_probes(), IsEmpty());
    EXPECT_THAT(fakes::made_threads(), SizeIs(3));
}

}  // namespace
