// What follows the end of a try: four tries at most, each the same as the first, and the release of
// what belonged to the request.

#include <atomic>

#include "tests/unit/credible_event.h"

using fakes::at;
using fakes::log_lines;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

std::atomic<void *> s_watched{nullptr};
std::atomic<bool> s_freed{false};

}  // namespace

// The linker leads the calls of the linked objects here.
extern "C" void __real_free(void *memory);
extern "C" void __wrap_free(void *memory);

void __wrap_free(void *memory) {
    if (memory != nullptr && memory == s_watched) {
        s_watched = nullptr;  // the address may come back as that of other memory
        s_freed = true;
    }
    __real_free(memory);
}

namespace {

class kzemm_dispose_reply_test : public dispose_test {
  protected:
    // Makes the request; the journal then begins with its first reply.
    void SetUp() override {
        dispose_test::SetUp();
        ASSERT_TRUE(dispose(credible::event_of_one_process(1)));
        ASSERT_THAT(fakes::ipc_requests(), SizeIs(1));
        first = fakes::ipc_requests()[0];
        const auto context = static_cast<auto_dispose_ipc_ctx *>(first.context);
        s_freed = false;
        s_watched = context->data;
        fakes::watch_release(context);
        fakes::clear_journal();
    }

    void TearDown() override {
        s_watched = nullptr;
        dispose_test::TearDown();
    }

    static void expect_released() {
        EXPECT_TRUE(s_freed);
        EXPECT_TRUE(fakes::watched_was_released());
    }

    static void expect_kept() {
        EXPECT_FALSE(s_freed);
        EXPECT_FALSE(fakes::watched_was_released());
    }

    // The line of the nth retry.
    testing::Matcher<const fakes::record &> again(int retry) const {
        return at(3, "send auto dispose task to rpdsp " + std::to_string(retry) +
                         " time, data len: " + std::to_string(first.data.size()));
    }

    static testing::Matcher<const fakes::record &> succeeded(int retries) {
        return at(3, "auto dispose task to rpdsp success, retry time: " + std::to_string(retries));
    }

    const testing::Matcher<const fakes::record &> failed =
        at(2, "auto dispose task to rpdsp failed, err: the peer says no");
    fakes::ipc_request first;
};

TEST_F(kzemm_dispose_reply_test, holds_what_the_request_needs_until_its_reply) {
    const auto context = static_cast<const auto_dispose_ipc_ctx *>(first.context);
    EXPECT_EQ(context->ipc, ipc);
    EXPECT_EQ(context->addr, addr);
    EXPECT_EQ(context->len, first.data.size());
    EXPECT_EQ(std::string(context->data, context->len), first.data);
    EXPECT_EQ(context->retry, 0U);
    expect_kept();
    fakes::ipc_answer(first, "");
    expect_released();
}

TEST_F(kzemm_dispose_reply_test, ends_with_a_reply_whatever_it_says) {
    fakes::ipc_answer(first, std::string("no\0request", 10));
    EXPECT_THAT(log_lines(), ElementsAre(succeeded(0)));
    EXPECT_THAT(fakes::ipc_requests(), SizeIs(1));
    expect_released();
}

TEST_F(kzemm_dispose_reply_test, ends_with_a_positive_status_as_with_0) {
    on_auto_dispose_cb(7, 99, nullptr, 5, first.context);
    EXPECT_THAT(log_lines(), ElementsAre(succeeded(0)));
    EXPECT_THAT(fakes::ipc_requests(), SizeIs(1));
    expect_released();
}

TEST_F(kzemm_dispose_reply_test, tries_again_from_the_reply_with_the_same_values) {
    fakes::ipc_fail(first, -5);
    expect_kept();
    EXPECT_THAT(log_lines(), ElementsAre(failed, again(1)));
    ASSERT_THAT(fakes::ipc_requests(), SizeIs(2));
    const fakes::ipc_request second = fakes::ipc_requests()[1];
    EXPECT_EQ(second.ipc, first.ipc);
    EXPECT_EQ(second.addr, first.addr);
    EXPECT_EQ(second.cmd, 10001U);
    EXPECT_TRUE(second.data == first.data) << "the frame, and the tasks in it, are the same";
    EXPECT_EQ(second.callback, first.callback);
    EXPECT_EQ(second.context, first.context);
    EXPECT_EQ(second.time_limit, 15U);
    fakes::ipc_answer(second, "");
    expect_released();
}

TEST_F(kzemm_dispose_reply_test, logs_each_retry_after_its_request) {
    fakes::ipc_fail(first, -5);
    EXPECT_THAT(fakes::texts({fakes::what::log, fakes::what::ipc}),
                ElementsAre("auto dispose task to rpdsp failed, err: the peer says no",
                            "request 10001, " + std::to_string(first.data.size()),
                            "send auto dispose task to rpdsp 1 time, data len: " +
                                std::to_string(first.data.size())));
    fakes::ipc_answer(fakes::ipc_requests()[1], "");
}

TEST_F(kzemm_dispose_reply_test, logs_two_retries_when_the_third_try_succeeds) {
    fakes::ipc_fail(first, -5);
    fakes::ipc_fail(fakes::ipc_requests()[1], -1);
    expect_kept();
    fakes::ipc_answer(fakes::ipc_requests()[2], "");
    EXPECT_THAT(log_lines(), ElementsAre(failed, again(1), failed, again(2), succeeded(2)));
    EXPECT_THAT(fakes::ipc_requests(), SizeIs(3));
    expect_released();
}

TEST_F(kzemm_dispose_reply_test, succeeds_at_the_fourth_try) {
    for (size_t i = 0; i < 3; ++i) {
        fakes::ipc_fail(fakes::ipc_requests()[i], -5);
    }
    expect_kept();
    fakes::ipc_answer(fakes::ipc_requests()[3], "");
    EXPECT_THAT(log_lines().back(), succeeded(3));
    EXPECT_THAT(fakes::ipc_requests(), SizeIs(4));
    expect_released();
}

TEST_F(kzemm_dispose_reply_test, gives_up_after_four_equal_tries) {
    for (size_t i = 0; i < 4; ++i) {
        ASSERT_THAT(fakes::ipc_requests(), SizeIs(i + 1));
        EXPECT_TRUE(fakes::ipc_requests()[i].data == first.data);
        EXPECT_EQ(fakes::ipc_requests()[i].context, first.context);
        expect_kept();
        fakes::ipc_fail(fakes::ipc_requests()[i], -5);
    }
    expect_released();
    EXPECT_THAT(fakes::ipc_requests(), SizeIs(4));
    EXPECT_THAT(fakes::gateway_sends(), SizeIs(1)) << "the mark is not taken back";
    EXPECT_THAT(log_lines(),
                ElementsAre(failed, again(1), failed, again(2), failed, again(3), failed,
                            at(2, "auto dispose task to rpdsp failed by 3 times, stop retry")));
}

TEST_F(kzemm_dispose_reply_test, keeps_the_context_when_a_retry_is_refused_by_the_ipc_layer) {
    fakes::ipc_make_request_returns(-1);
    fakes::ipc_fail(first, -5);
    EXPECT_THAT(log_lines(), ElementsAre(failed, again(1)));
    expect_kept();
    ASSERT_THAT(fakes::ipc_requests(), SizeIs(2));
    fakes::ipc_answer(fakes::ipc_requests()[1], "");
    expect_released();
}

TEST_F(kzemm_dispose_reply_test, needs_no_switch_for_a_retry) {
    set_switches(false, false);
    fakes::ipc_fail(first, -5);
    ASSERT_THAT(fakes::ipc_requests(), SizeIs(2));
    fakes::ipc_answer(fakes::ipc_requests()[1], "");
    expect_released();
}

TEST_F(kzemm_dispose_reply_test, keeps_two_requests_in_flight_apart) {
    ASSERT_TRUE(dispose(credible::event_of_one_process(2)));
    ASSERT_THAT(fakes::ipc_requests(), SizeIs(2));
    const fakes::ipc_request other = fakes::ipc_requests()[1];
    EXPECT_NE(other.context, first.context);
    EXPECT_NE(credible::tasks_of(wire::payload(other.data)),
              credible::tasks_of(wire::payload(first.data)));
    for (int i = 0; i < 3; ++i) {
        fakes::ipc_fail(other, -5);
    }
    fakes::ipc_fail(first, -5);
    EXPECT_THAT(log_lines().back(), again(1)) << "each counts its own tries";
    fakes::ipc_answer(first, "");
    expect_released();
    fakes::ipc_answer(other, "");
    EXPECT_THAT(log_lines().back(), succeeded(3));
}

}  // namespace
