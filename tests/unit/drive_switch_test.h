/*
 * The fixture for the drive switches: answers of central configuration, threads that only go on
 * when a test lets them, and the log lines that the tests expect again and again.
 */
#ifndef KZEMDLMGR_TESTS_UNIT_DRIVE_SWITCH_TEST_H
#define KZEMDLMGR_TESTS_UNIT_DRIVE_SWITCH_TEST_H

#include <gmock/gmock.h>

#include <climits>
#include <string>
#include <vector>

#include "plugin/kzemm_drive_switch.h"
#include "tests/fakes/fake_engine.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/latch.h"
#include "tests/fakes/message_faults.h"
#include "tests/fakes/plugin_test.h"
#include "tests/fakes/threads.h"
#include "tests/fakes/virtual_time.h"

namespace drive_switch {

using line = testing::Matcher<const fakes::record &>;
using lines = std::vector<line>;

constexpr char set_drive_switch[] = "x_client_set_drive_switch";
constexpr unsigned int retry_ms = 20000;
constexpr unsigned int wait_ms = 3000;

inline line stop_line() {
    return fakes::at(3, "stop set drive switch retry timer");
}

inline lines operator+(lines first, const lines &second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

class drive_switch_test : public plugin_test {
  protected:
    void SetUp() override {
        plugin_test::SetUp();
        load_libraries();
    }

    // Brings the state that lives as long as the process back to what it is at its beginning.
    void TearDown() override {
        fakes::on_engine_call(set_drive_switch, nullptr);
        fakes::on_autolog_init(nullptr);
        EXPECT_TRUE(fakes::await_end_of_threads());
        fakes::reset_threads();
        stop_drive_switch_retry_job();
        constexpr drive_switch_ctx nothing = {};
        start_drive_switch_retry_job(&nothing);
        stop_drive_switch_retry_job();
        while_a_thread_runs([] { respond("0", "0"); });
        stop_drive_update_timer();
        plugin_test::TearDown();
    }

    static void answer(const fakes::message_fields &values) {
        const std::string body = fakes::packed_message("answer", values);
        on_base_drive_cfg_response(0, 1004, body.data(), static_cast<unsigned int>(body.size()),
                                   nullptr);
    }

    static void respond(const std::string &enable, const std::string &collect_enable) {
        answer({{"enable", enable}, {"collect_enable", collect_enable}});
    }

    // Does something that may start a drive thread, which only begins when that is done, and waits
    // for the thread's end.
    template <typename action>
    static void with_the_thread_behind(const action &does) {
        fakes::latch done;
        fakes::on_autolog_init([&done] { done.wait(); });
        does();
        done.open();
        EXPECT_TRUE(fakes::await_end_of_threads());
        fakes::on_autolog_init(nullptr);
    }

    static void respond_and_finish(const std::string &enable, const std::string &collect_enable) {
        with_the_thread_behind([&] { respond(enable, collect_enable); });
    }

    // Does something while a drive thread, which has nothing to change, stands at its beginning.
    template <typename action>
    static void while_a_thread_runs(const action &does) {
        with_the_thread_behind([&] {
            constexpr drive_switch_ctx nothing = {};
            EXPECT_EQ(start_set_drive_switch_thread(&nothing), 0);
            does();
        });
    }

    static int start_and_finish(const drive_switch_ctx &ctx) {
        int result = INT_MIN;
        with_the_thread_behind([&] { result = start_set_drive_switch_thread(&ctx); });
        return result;
    }

    // Leaves the identifier of a thread behind that has ended.
    static void leave_a_stale_identifier() {
        constexpr drive_switch_ctx nothing = {};
        fakes::pthread_create_waits_for_the_end(true);
        EXPECT_EQ(start_set_drive_switch_thread(&nothing), 0);
        fakes::pthread_create_waits_for_the_end(false);
        fakes::clear_journal();
    }

    static void set_states(int drive, int collect) {
        fakes::set_engine_drive_state(drive);
        fakes::set_engine_collect_state(collect);
    }

    // The orders that were given, as "0, 1": which switch, and its value.
    static std::vector<std::string> orders() {
        std::vector<std::string> result;
        for (const fakes::engine_call &each : fakes::engine_calls(set_drive_switch)) {
            const size_t begin = each.text.find('(') + 1;
            result.push_back(each.text.substr(begin, each.text.size() - begin - 1));
        }
        return result;
    }

    static line values_line(const std::string &enable, const std::string &collect_enable) {
        return fakes::at(4, "drive_enable:" + enable + ",drive_collect_enable:" + collect_enable);
    }

    static line states_line(int drive, int collect) {
        return fakes::at(4, "current_drive_state:" + std::to_string(drive) +
                                ",current_collect_state:" + std::to_string(collect));
    }

    // The lines from an answer to the beginning of the thread.
    static lines change_lines(const std::string &enable, const std::string &collect_enable,
                              int drive, int collect, bool change_drive, bool change_collect) {
        lines result = {values_line(enable, collect_enable), stop_line(),
                        states_line(drive, collect)};
        if (change_drive) {
            result.push_back(fakes::at(3, "drive switch need change"));
        }
        if (change_collect) {
            result.push_back(fakes::at(3, "drive collect switch need change"));
        }
        return result +
               lines{fakes::at(3, "need change"), fakes::at(3, "begin set drive switch thread")};
    }

    static line begin_line() {
        return fakes::at(3, testing::MatchesRegex("begin set drive switch at [0-9]+"));
    }
    static line end_line() {
        return fakes::at(3, testing::MatchesRegex("end set drive switch at [0-9]+"));
    }

    static line drive_line(int value, int ret) {
        return fakes::at(
            3, "change drive switch:" + std::to_string(value) + ", ret:" + std::to_string(ret));
    }

    static line collect_line(int value, int ret) {
        return fakes::at(3, "change drive collect switch:" + std::to_string(value) +
                                ", ret:" + std::to_string(ret));
    }

    // The log of one thread with this record, without the line of whoever started it.
    static std::vector<fakes::record> thread_log(const drive_switch_ctx &ctx) {
        fakes::clear_journal();
        EXPECT_EQ(start_and_finish(ctx), 0);
        std::vector<fakes::record> result = fakes::log_lines();
        EXPECT_THAT(result.front(), fakes::at(3, "begin set drive switch thread"));
        result.erase(result.begin());
        return result;
    }

    static void expect_retry_armed() {
        ASSERT_THAT(fakes::open_timers(), testing::SizeIs(1));
        const fakes::timer_view timer = fakes::open_timers()[0];
        EXPECT_EQ(timer.first_ms, retry_ms);
        EXPECT_EQ(timer.period_ms, retry_ms);
        EXPECT_EQ(timer.flags, 0U);
        EXPECT_EQ(timer.callback, set_drive_switch_retry_cb);
        EXPECT_EQ(timer.user, nullptr);
        EXPECT_TRUE(timer.armed);
    }

    static void expect_wait_armed() {
        ASSERT_THAT(fakes::open_timers(), testing::SizeIs(1));
        const fakes::timer_view timer = fakes::open_timers()[0];
        EXPECT_EQ(timer.first_ms, wait_ms);
        EXPECT_EQ(timer.period_ms, wait_ms);
        EXPECT_EQ(timer.flags, 0U);
        EXPECT_EQ(timer.callback, drive_update_timer_cb);
        EXPECT_EQ(timer.user, nullptr);
        EXPECT_TRUE(timer.armed);
    }

    // Calls the callback of the only timer, as its loop would.
    static void fire() {
        ASSERT_THAT(fakes::open_timers(), testing::SizeIs(1));
        fakes::open_timers()[0].callback(fakes::open_timers()[0].handle);
    }
};

}  // namespace drive_switch

#endif
