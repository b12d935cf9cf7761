// Threads.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <thread>

#include "kzabase.h"
#include "tests/support/process_state.h"
#include "tests/support/sanitizers.h"

namespace {

// Ends with an assertion that no thread was left.
class Thread : public ::testing::Test {
  protected:
    Thread() {
        // A sanitizer starts its own thread along with the first one of the program.
        std::thread([] {}).join();
        before_ = kze_test::thread_count();
    }

    ~Thread() override { EXPECT_TRUE(kze_test::threads_become(before_)); }

  private:
    std::size_t before_ = 0;
};

void *increment(void *argument) {
    ++*static_cast<int *>(argument);
    return argument;
}

struct SetsWhenDestroyed {
    explicit SetsWhenDestroyed(int *to) : to_(to) {}
    ~SetsWhenDestroyed() { *to_ = 1; }
    int *to_;
};

void exit_deep_inside(void *argument) {
    const SetsWhenDestroyed destroyed(static_cast<int *>(argument));
    kze_thread_exit(argument);
}

void *exit_early(void *argument) {
    exit_deep_inside(argument);
    return nullptr;
}

void *join_itself(void *argument) {
    kze_thread_t self = pthread_self();
    *static_cast<int *>(argument) = kze_thread_join(&self, nullptr);
    return nullptr;
}

}  // namespace

TEST_F(Thread, runs_its_routine_and_gives_its_result) {
    int value = 1;
    kze_thread_t thread = 0;
    ASSERT_EQ(kze_thread_start(&thread, increment, &value), 0);
    EXPECT_NE(thread, 0UL);
    void *result = nullptr;
    EXPECT_EQ(kze_thread_join(&thread, &result), 0);
    EXPECT_EQ(result, &value);
    EXPECT_EQ(value, 2);
}

TEST_F(Thread, is_no_thread_any_more_once_joined) {
    int value = 1;
    kze_thread_t thread = 0;
    ASSERT_EQ(kze_thread_start(&thread, increment, &value), 0);
    EXPECT_EQ(kze_thread_join(&thread, nullptr), 0);
    EXPECT_EQ(thread, 0UL);
    void *result = &value;
    EXPECT_EQ(kze_thread_join(&thread, &result), EINVAL);
    EXPECT_EQ(result, &value);
}

TEST_F(Thread, that_exits_early_destroys_its_stack_and_gives_the_result) {
    int value = 0;
    kze_thread_t thread = 0;
    ASSERT_EQ(kze_thread_start(&thread, exit_early, &value), 0);
    void *result = nullptr;
    EXPECT_EQ(kze_thread_join(&thread, &result), 0);
    EXPECT_EQ(result, &value);
    EXPECT_EQ(value, 1);
}

TEST_F(Thread, cant_join_itself) {
    if (kze_test::thread_sanitizer)
        GTEST_SKIP() << "the sanitizer itself reports this misuse";
    int error = 0;
    kze_thread_t thread = 0;
    ASSERT_EQ(kze_thread_start(&thread, join_itself, &error), 0);
    EXPECT_EQ(kze_thread_join(&thread, nullptr), 0);
    EXPECT_EQ(error, EDEADLK);
}

TEST_F(Thread, that_the_system_refuses_leaves_the_handle_untouched) {
    pthread_attr_t attributes;
    pthread_getattr_default_np(&attributes);
    size_t usual = 0;
    pthread_attr_getstacksize(&attributes, &usual);
    // More stack than there are addresses.
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, size_t{1} << 60U), 0);
    ASSERT_EQ(pthread_setattr_default_np(&attributes), 0);
    kze_thread_t thread = 5;
    EXPECT_EQ(kze_thread_start(&thread, increment, nullptr), EAGAIN);
    EXPECT_EQ(thread, 5UL);
    pthread_attr_setstacksize(&attributes, usual);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);

    int value = 1;
    ASSERT_EQ(kze_thread_start(&thread, increment, &value), 0);
    EXPECT_EQ(kze_thread_join(&thread, nullptr), 0);
    EXPECT_EQ(value, 2);
}

TEST_F(Thread, functions_refuse_null) {
    kze_thread_t thread = 5;
    EXPECT_EQ(kze_thread_start(nullptr, increment, nullptr), EINVAL);
    EXPECT_EQ(kze_thread_start(&thread, nullptr, nullptr), EINVAL);
    EXPECT_EQ(thread, 5UL);
    EXPECT_EQ(kze_thread_join(nullptr, nullptr), EINVAL);
}
