#include <dlfcn.h>
#include <malloc.h>
#include <uv.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>

#include "tests/support/ev_ipc_test.h"
#include "tests/support/process_state.h"

namespace kze_test {
namespace {

using std::chrono::milliseconds;

// What keeps the calling thread between the library's look at its timers and the look of libuv.
thread_local milliseconds busy_before_uv_run{0};

void *nothing(void *) {
    return nullptr;
}

void count_in_user(cl_timerplus *timer) {
    ++*static_cast<int *>(timer->user);
}

}  // namespace

// Takes the place of libuv's function for the library, and calls it.
extern "C" __attribute__((visibility("default"))) int uv_run(uv_loop_t *loop, uv_run_mode mode) {
    static const auto real = reinterpret_cast<decltype(&uv_run)>(dlsym(RTLD_NEXT, "uv_run"));
    be_busy(busy_before_uv_run);
    return real(loop, mode);
}

namespace {

class loops : public ev_ipc {};

TEST_F(loops, a_turn_waits_until_something_is_due) {
    run_isolated([] {
        int fired = 0;
        const auto begin = std::chrono::steady_clock::now();
        cl_timerplus *const timer = cl_timerplus_start(30, 0, 0, count_in_user, &fired);
        EXPECT_EQ(cl_event_loop_once(), 0);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(30));
        EXPECT_EQ(fired, 1);
        cl_timerplus_close(timer);
    });
}

TEST_F(loops, a_turn_doesnt_miss_a_timer_that_falls_due_as_it_begins_to_wait) {
    counter done;
    counter ready;
    std::thread rescuer([&] {
        EXPECT_TRUE(ready.reaches(1));
        if (!done.reaches(1)) {
            ADD_FAILURE() << "the loop waits for ever";
            cl_timerplus_close(cl_timerplus_start(
                0, 0, 0, [](cl_timerplus *) {}, nullptr));
        }
    });
    run_isolated([&] {
        ready.add();
        int fired = 0;
        cl_timerplus *const timer = cl_timerplus_start(20, 0, 0, count_in_user, &fired);
        busy_before_uv_run = milliseconds(40);
        EXPECT_EQ(cl_event_loop_once(), 0);
        busy_before_uv_run = milliseconds(0);
        done.add();
        EXPECT_EQ(fired, 1);
        cl_timerplus_close(timer);
    });
    rescuer.join();
}

TEST_F(loops, a_turn_of_a_loop_that_doesnt_wait_returns_with_nothing_done) {
    run_isolated([] {
        int fired = 0;
        EXPECT_EQ(cl_ev_loop_nowait(1), 0);
        cl_timerplus *const timer = cl_timerplus_start(60000, 0, 0, count_in_user, &fired);
        EXPECT_EQ(cl_event_loop_once(), 0);
        EXPECT_EQ(fired, 0);
        cl_timerplus_close(timer);
    });
}

TEST_F(loops, waiting_can_be_switched_on_again) {
    run_isolated([] {
        int fired = 0;
        EXPECT_EQ(cl_ev_loop_nowait(1), 0);
        cl_timerplus *const timer = cl_timerplus_start(10, 0, 0, count_in_user, &fired);
        EXPECT_EQ(cl_event_loop_once(), 0);
        EXPECT_EQ(cl_ev_loop_nowait(0), 0);
        EXPECT_EQ(cl_event_loop_once(), 0);
        EXPECT_EQ(fired, 1);
        cl_timerplus_close(timer);
    });
}

TEST_F(loops, a_turn_within_a_turn_is_refused) {
    run_isolated([] {
        static int inner;
        inner = 0;
        cl_timerplus *const timer = cl_timerplus_start(
            0, 0, 0, [](cl_timerplus *) { inner = cl_event_loop_once(); }, nullptr);
        EXPECT_EQ(cl_event_loop_once(), 0);
        EXPECT_EQ(inner, -1);
        cl_timerplus_close(timer);
    });
}

TEST_F(loops, a_thread_without_loop_cannot_turn_one) {
    loop_thread other;
    std::thread([] { EXPECT_EQ(cl_event_loop_once(), -1); }).join();
}

TEST_F(loops, a_plain_thread_gets_a_loop_by_saying_how_it_shall_wait) {
    std::thread([] {
        ASSERT_EQ(cl_ev_loop_nowait(0), 0);
        int fired = 0;
        cl_timerplus *const timer = cl_timerplus_start(5, 0, 0, count_in_user, &fired);
        EXPECT_EQ(cl_event_loop_once(), 0);
        EXPECT_EQ(fired, 1);
        cl_timerplus_close(timer);
    }).join();
}

TEST_F(loops, a_plain_threads_own_loop_serves_nobody_else) {
    counter ready;
    counter leave;
    std::thread owner([&] {
        EXPECT_EQ(cl_ev_loop_nowait(1), 0);
        ready.add();
        EXPECT_TRUE(leave.reaches(1));
    });
    EXPECT_TRUE(ready.reaches(1));
    EXPECT_EQ(cl_timerplus_start(1, 0, 1, count_in_user, nullptr), nullptr);
    leave.add();
    owner.join();
}

TEST_F(loops, the_id_is_stored_before_the_routine_runs) {
    struct seen_by_routine {
        pthread_t id;
        bool matches;
    };
    for (int i = 0; i < 200; ++i) {
        seen_by_routine seen{};
        ASSERT_EQ(cl_ev_create_isolated_thread(
                      &seen.id, nullptr,
                      [](void *argument) -> void * {
                          auto *const mine = static_cast<seen_by_routine *>(argument);
                          mine->matches = pthread_equal(mine->id, pthread_self()) != 0;
                          return argument;
                      },
                      &seen),
                  0);
        void *result = nullptr;
        ASSERT_EQ(pthread_join(seen.id, &result), 0);
        EXPECT_EQ(result, &seen);
        EXPECT_TRUE(seen.matches);
    }
}

TEST_F(loops, a_thread_that_cannot_be_made_gives_a_code_and_leaves_the_id) {
    pthread_t id = pthread_self();
    EXPECT_EQ(cl_ev_create_isolated_thread(&id, nullptr, nullptr, nullptr), EINVAL);
    EXPECT_EQ(cl_ev_create_isolated_thread(nullptr, nullptr, nothing, nullptr), EINVAL);
    pthread_attr_t huge;
    pthread_attr_init(&huge);
    ASSERT_EQ(pthread_attr_setstacksize(&huge, std::size_t{1} << 46), 0);
    EXPECT_NE(cl_ev_create_isolated_thread(&id, &huge, nothing, nullptr), 0);
    pthread_attr_destroy(&huge);
    EXPECT_TRUE(pthread_equal(id, pthread_self()));
    // Nothing of the attempt serves as a loop.
    EXPECT_EQ(cl_timerplus_start(1, 0, 1, count_in_user, nullptr), nullptr);
}

TEST_F(loops, attributes_are_taken) {
    constexpr std::size_t wanted = std::size_t{64} << 20;  // more than a thread gets otherwise
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, wanted), 0);
    pthread_t id{};
    std::size_t stack = 0;
    ASSERT_EQ(cl_ev_create_isolated_thread(
                  &id, &attributes,
                  [](void *argument) -> void * {
                      pthread_attr_t own;
                      pthread_getattr_np(pthread_self(), &own);
                      pthread_attr_getstacksize(&own, static_cast<std::size_t *>(argument));
                      pthread_attr_destroy(&own);
                      return nullptr;
                  },
                  &stack),
              0);
    pthread_join(id, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_GE(stack, wanted);
}

TEST_F(loops, a_thread_that_leaves_by_pthread_exit_ends_its_loop) {
    pthread_t id{};
    ASSERT_EQ(cl_ev_create_isolated_thread(
                  &id, nullptr,
                  [](void *) -> void * {
                      cl_timerplus_start(0, 0, 1, count_in_user, nullptr);
                      pthread_exit(nullptr);
                  },
                  nullptr),
              0);
    ASSERT_EQ(pthread_join(id, nullptr), 0);
    EXPECT_EQ(cl_timerplus_start(1, 0, 1, count_in_user, nullptr), nullptr);
}

// One cycle: a thread with a timer that fires, one that is closed by its creator after the thread's
// end, and one that its creator arms from outside.
void live_a_short_life() {
    static std::atomic<int> fired;
    fired = 0;
    const cl_timerplus_cb count = [](cl_timerplus *) { ++fired; };
    cl_timerplus *left_over = nullptr;
    pthread_t id{};
    ASSERT_EQ(cl_ev_create_isolated_thread(
                  &id, nullptr,
                  [](void *argument) -> void * {
                      const cl_timerplus_cb callback = [](cl_timerplus *) { ++fired; };
                      cl_timerplus *const own = cl_timerplus_start(0, 0, 1, callback, nullptr);
                      *static_cast<cl_timerplus **>(argument) =
                          cl_timerplus_start(60000, 0, 60000, callback, nullptr);
                      while (fired < 1) {
                          cl_event_loop_once();
                      }
                      cl_timerplus_stop(own);
                      cl_timerplus_close(own);
                      return nullptr;
                  },
                  &left_over),
              0);
    cl_timerplus *const outside = cl_timerplus_start(0, 0, 1, count, nullptr);
    ASSERT_EQ(pthread_join(id, nullptr), 0);
    cl_timerplus_stop(outside);
    cl_timerplus_close(outside);
    cl_timerplus_stop(left_over);
    cl_timerplus_close(left_over);
    EXPECT_GE(fired, 1);
}

TEST_F(loops, a_thousand_threads_with_timers_leave_nothing) {
    // The records of the last 256 closed timers are kept on purpose; these fill that up.
    for (int i = 0; i < 200; ++i) {
        live_a_short_life();
    }
    const std::size_t descriptors = descriptor_count();
    const std::size_t memory = mallinfo2().uordblks;
    for (int i = 0; i < 1000; ++i) {
        live_a_short_life();
    }
    EXPECT_EQ(descriptor_count(), descriptors);
    const std::size_t memory_after = mallinfo2().uordblks;
    EXPECT_LE(memory_after, memory + 32 * 1024);
}

}  // namespace
}  // namespace kze_test
