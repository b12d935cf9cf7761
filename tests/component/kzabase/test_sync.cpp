// Mutexes, conditions and atomics.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <thread>
#include <vector>

#include "kzabase.h"
#include "tests/support/sanitizers.h"

namespace {

class Sync : public ::testing::Test {
  protected:
    ~Sync() override {
        kze_cond_destroy(cond_);
        kze_mutex_destroy(mutex_);
    }

    kze_mutex_t mutex_ = kze_mutex_init();
    kze_cond_t cond_ = kze_cond_init();
};

}  // namespace

TEST_F(Sync, mutex_keeps_threads_apart) {
    constexpr int rounds = 20000;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                EXPECT_EQ(kze_mutex_lock(mutex_), 0);
                ++counter;
                EXPECT_EQ(kze_mutex_unlock(mutex_), 0);
            }
        });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(counter, 4L * rounds);
}

TEST_F(Sync, mutex_may_be_taken_again_by_its_owner_and_needs_as_many_unlocks) {
    if (kze_test::thread_sanitizer)
        GTEST_SKIP() << "the sanitizer itself reports this misuse";
    ASSERT_EQ(kze_mutex_lock(mutex_), 0);
    ASSERT_EQ(kze_mutex_lock(mutex_), 0);
    int from_elsewhere = 0;
    EXPECT_EQ(kze_mutex_unlock(mutex_), 0);
    std::thread([&] { from_elsewhere = kze_mutex_unlock(mutex_); }).join();
    EXPECT_EQ(from_elsewhere, EPERM);
    EXPECT_EQ(kze_mutex_unlock(mutex_), 0);
    EXPECT_EQ(kze_mutex_unlock(mutex_), EPERM);
}

TEST_F(Sync, condition_hands_over_what_was_stored_before_the_signal) {
    int value = 0;
    std::thread reader([&] {
        kze_mutex_lock(mutex_);
        while (value == 0)
            EXPECT_EQ(kze_cond_wait(cond_, mutex_), 0);
        // The mutex is the waiting thread's again.
        EXPECT_EQ(kze_mutex_unlock(mutex_), 0);
    });
    kze_mutex_lock(mutex_);
    value = 7;
    EXPECT_EQ(kze_cond_signal(cond_), 0);
    kze_mutex_unlock(mutex_);
    reader.join();
}

TEST_F(Sync, condition_gives_the_mutex_back_while_it_waits_and_broadcast_wakes_all) {
    constexpr int waiters = 5;
    int waiting = 0;
    bool go = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < waiters; ++i)
        threads.emplace_back([&] {
            kze_mutex_lock(mutex_);
            ++waiting;
            while (!go)
                kze_cond_wait(cond_, mutex_);
            kze_mutex_unlock(mutex_);
        });
    // Each counts itself and goes on to wait under one hold of the mutex: whoever
    // sees all of them counted, with the mutex in hand, knows them waiting.
    for (bool all = false; !all;) {
        kze_mutex_lock(mutex_);
        all = waiting == waiters;
        go = all;
        if (all) {
            EXPECT_EQ(kze_cond_broadcast(cond_), 0);
        }
        kze_mutex_unlock(mutex_);
        std::this_thread::yield();
    }
    for (auto &thread : threads)
        thread.join();
}

TEST_F(Sync, signal_wakes_a_waiting_thread) {
    bool waiting = false;
    bool go = false;
    std::thread waiter([&] {
        kze_mutex_lock(mutex_);
        waiting = true;
        while (!go)
            kze_cond_wait(cond_, mutex_);
        kze_mutex_unlock(mutex_);
    });
    for (bool ready = false; !ready;) {
        kze_mutex_lock(mutex_);
        ready = waiting;
        go = ready;
        if (ready) {
            EXPECT_EQ(kze_cond_signal(cond_), 0);
        }
        kze_mutex_unlock(mutex_);
        std::this_thread::yield();
    }
    waiter.join();
}

TEST_F(Sync, condition_refuses_to_wait_with_a_mutex_that_isnt_held) {
    if (kze_test::thread_sanitizer)
        GTEST_SKIP() << "the sanitizer itself reports this misuse";
    EXPECT_EQ(kze_cond_wait(cond_, mutex_), EPERM);
}

TEST_F(Sync, signal_without_a_waiter_is_fine_and_is_forgotten) {
    EXPECT_EQ(kze_cond_signal(cond_), 0);
    EXPECT_EQ(kze_cond_broadcast(cond_), 0);
}

TEST_F(Sync, null_handles_are_refused_and_may_be_destroyed) {
    EXPECT_EQ(kze_mutex_lock(nullptr), EINVAL);
    EXPECT_EQ(kze_mutex_unlock(nullptr), EINVAL);
    EXPECT_EQ(kze_cond_wait(nullptr, mutex_), EINVAL);
    EXPECT_EQ(kze_cond_wait(cond_, nullptr), EINVAL);
    EXPECT_EQ(kze_cond_signal(nullptr), EINVAL);
    EXPECT_EQ(kze_cond_broadcast(nullptr), EINVAL);
    kze_mutex_destroy(nullptr);
    kze_cond_destroy(nullptr);
}

TEST(Atomic, add_gives_the_new_value_and_takes_negative_steps) {
    volatile int value = 5;
    EXPECT_EQ(kze_atomic32_add_and_fetch(&value, 3), 8);
    EXPECT_EQ(kze_atomic32_add_and_fetch(&value, -8), 0);
    EXPECT_EQ(kze_atomic32_add_and_fetch(&value, 0), 0);
}

TEST(Atomic, add_wraps_around) {
    volatile int value = INT_MAX;
    EXPECT_EQ(kze_atomic32_add_and_fetch(&value, 1), INT_MIN);
}

TEST(Atomic, set_stores) {
    volatile int value = 5;
    kze_atomic32_set(&value, -7);
    EXPECT_EQ(value, -7);
}

TEST(Atomic, adds_of_several_threads_are_all_counted) {
    constexpr int rounds = 1000000;
    volatile int value = 0;
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (++ready; ready < 4;)
                std::this_thread::yield();
            for (int round = 0; round < rounds; ++round)
                kze_atomic32_add_and_fetch(&value, 1);
        });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(value, 4 * rounds);
}

TEST(Atomic, set_publishes_what_was_written_before_it) {
    int data = 0;
    volatile int ready = 0;
    std::thread reader([&] {
        while (kze_atomic32_add_and_fetch(&ready, 0) == 0)
            std::this_thread::yield();
        EXPECT_EQ(data, 42);
    });
    data = 42;
    kze_atomic32_set(&ready, 1);
    reader.join();
}
