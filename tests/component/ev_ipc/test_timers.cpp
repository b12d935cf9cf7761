#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/support/ev_ipc_test.h"
#include "tests/support/process_state.h"

namespace kze_test {
namespace {

using clock_type = std::chrono::steady_clock;
using std::chrono::milliseconds;

void call_user(cl_timerplus *timer) {
    (*static_cast<const std::function<void(cl_timerplus *)> *>(timer->user))(timer);
}

// A timer whose callback is a function object that must outlive it.
cl_timerplus *start_timer(unsigned int first_ms, unsigned int period_ms,
                          const std::function<void(cl_timerplus *)> &body) {
    return cl_timerplus_start(first_ms, 0, period_ms, call_user,
                              const_cast<std::function<void(cl_timerplus *)> *>(&body));
}

void stop_and_close(cl_timerplus *timer) {
    cl_timerplus_stop(timer);
    cl_timerplus_close(timer);
}

class timers : public ev_ipc {};

TEST_F(timers, fires_periodically_and_never_early) {
    run_isolated([] {
        std::vector<clock_type::time_point> fired;
        const std::function<void(cl_timerplus *)> body = [&](cl_timerplus *) {
            fired.push_back(clock_type::now());
        };
        const auto begin = clock_type::now();
        cl_timerplus *const timer = start_timer(30, 20, body);
        ASSERT_NE(timer, nullptr);
        EXPECT_TRUE(turn_until([&] { return fired.size() == 3; }));
        EXPECT_GE(fired[0] - begin, milliseconds(30));
        EXPECT_GE(fired[1] - begin, milliseconds(50));
        EXPECT_GE(fired[2] - begin, milliseconds(70));
        stop_and_close(timer);
    });
}

TEST_F(timers, a_period_of_0_fires_once) {
    run_isolated([] {
        int fired = 0;
        int later = 0;
        const std::function<void(cl_timerplus *)> body = [&](cl_timerplus *) { ++fired; };
        const std::function<void(cl_timerplus *)> other = [&](cl_timerplus *) { ++later; };
        cl_timerplus *const timer = start_timer(1, 0, body);
        cl_timerplus *const second = start_timer(5, 5, other);
        EXPECT_TRUE(turn_until([&] { return later == 5; }));
        EXPECT_EQ(fired, 1);
        stop_and_close(timer);
        stop_and_close(second);
    });
}

TEST_F(timers, the_record_begins_with_what_the_caller_gave) {
    run_isolated([] {
        static void *seen;
        seen = nullptr;
        int mine = 0;
        cl_timerplus *const timer = cl_timerplus_start(
            0, 0, 0, [](cl_timerplus *fired) { seen = *reinterpret_cast<void **>(fired); }, &mine);
        EXPECT_EQ(timer->user, &mine);
        EXPECT_EQ(cl_event_loop_once(), 0);
        EXPECT_EQ(seen, &mine);
        stop_and_close(timer);
    });
}

TEST_F(timers, is_closed_from_its_own_callback) {
    run_isolated([] {
        int fired = 0;
        int later = 0;
        const std::function<void(cl_timerplus *)> body = [&](cl_timerplus *timer) {
            ++fired;
            stop_and_close(timer);
        };
        const std::function<void(cl_timerplus *)> other = [&](cl_timerplus *) { ++later; };
        start_timer(1, 1, body);
        cl_timerplus *const second = start_timer(2, 2, other);
        EXPECT_TRUE(turn_until([&] { return later == 10; }));
        EXPECT_EQ(fired, 1);
        stop_and_close(second);
    });
}

TEST_F(timers, a_due_timer_that_another_ones_callback_closes_doesnt_fire) {
    run_isolated([] {
        int fired = 0;
        cl_timerplus *pair[2] = {};
        const std::function<void(cl_timerplus *)> body = [&](cl_timerplus *timer) {
            ++fired;
            stop_and_close(pair[timer == pair[0] ? 1 : 0]);
        };
        pair[0] = start_timer(0, 0, body);
        pair[1] = start_timer(0, 0, body);
        EXPECT_EQ(cl_event_loop_once(), 0);
        EXPECT_EQ(fired, 1);
        cl_ev_loop_nowait(1);
        EXPECT_EQ(cl_event_loop_once(), 0);
        EXPECT_EQ(fired, 1);
        stop_and_close(pair[0]);
        stop_and_close(pair[1]);
    });
}

TEST_F(timers, another_thread_that_stops_a_timer_waits_for_its_running_callback) {
    loop_thread loop;
    for (int round = 0; round < 20; ++round) {
        counter entered;
        std::atomic<bool> inside{false};
        const std::function<void(cl_timerplus *)> body = [&](cl_timerplus *) {
            inside = true;
            entered.add();
            be_busy(milliseconds(2));
            inside = false;
        };
        cl_timerplus *timer = nullptr;
        loop.call([&] { timer = start_timer(0, 1, body); });
        ASSERT_TRUE(entered.reaches(1));
        cl_timerplus_stop(timer);
        EXPECT_FALSE(inside);
        const int at_stop = entered.value();
        loop.call([] {});
        EXPECT_EQ(entered.value(), at_stop);
        cl_timerplus_close(timer);
    }
}

TEST_F(timers, a_timer_stopped_by_another_thread_never_fires_again) {
    loop_thread loop;
    std::atomic<int> fired{0};
    const std::function<void(cl_timerplus *)> body = [&](cl_timerplus *) { ++fired; };
    cl_timerplus *timer = nullptr;
    loop.call([&] { timer = start_timer(0, 1, body); });
    ASSERT_TRUE(eventually([&] { return fired >= 3; }));
    cl_timerplus_stop(timer);
    const int at_stop = fired;
    for (int i = 0; i < 20; ++i) {
        loop.call([] {});
    }
    EXPECT_EQ(fired, at_stop);
    cl_timerplus_close(timer);
}

TEST_F(timers, of_several_loops_fire_each_on_its_own_thread) {
    loop_thread loops[3];
    counter fired[3];
    std::function<void(cl_timerplus *)> bodies[3];
    cl_timerplus *started[3] = {};
    for (std::size_t i = 0; i < 3; ++i) {
        bodies[i] = [&, i](cl_timerplus *) {
            EXPECT_TRUE(pthread_equal(pthread_self(), loops[i].id()));
            fired[i].add();
        };
        loops[i].call([&] { started[i] = start_timer(1, 1, bodies[i]); });
    }
    for (auto &count : fired) {
        EXPECT_TRUE(count.reaches(5));
    }
    for (cl_timerplus *timer : started) {
        stop_and_close(timer);
    }
}

TEST_F(timers, of_an_ended_loop_never_fire_and_can_be_stopped_and_closed) {
    std::atomic<int> fired{0};
    const std::function<void(cl_timerplus *)> body = [&](cl_timerplus *) { ++fired; };
    cl_timerplus *timer = nullptr;
    run_isolated([&] { timer = start_timer(0, 1, body); });
    ASSERT_NE(timer, nullptr);
    loop_thread other;
    other.call([] {});
    EXPECT_EQ(fired, 0);
    cl_timerplus_stop(timer);
    EXPECT_EQ(timer->user, &body);
    cl_timerplus_stop(timer);
    cl_timerplus_close(timer);
}

TEST_F(timers, of_a_thread_without_loop_fire_on_the_oldest_living_isolated_thread) {
    std::atomic<pthread_t> where{};
    counter fired;
    const std::function<void(cl_timerplus *)> body = [&](cl_timerplus *) {
        where = pthread_self();
        fired.add();
    };
    loop_thread oldest;
    loop_thread next;
    cl_timerplus *timer = start_timer(1, 0, body);
    ASSERT_NE(timer, nullptr);
    ASSERT_TRUE(fired.reaches(1));
    EXPECT_TRUE(pthread_equal(where, oldest.id()));
    stop_and_close(timer);

    oldest.stop();
    timer = start_timer(1, 0, body);
    ASSERT_TRUE(fired.reaches(2));
    EXPECT_TRUE(pthread_equal(where, next.id()));
    stop_and_close(timer);
}

TEST_F(timers, of_a_thread_without_loop_wake_the_loop_that_waits) {
    counter fired;
    const std::function<void(cl_timerplus *)> body = [&](cl_timerplus *) { fired.add(); };
    std::atomic<bool> done{false};
    pthread_t id{};
    const std::function<void()> turn = [&] {
        while (!done) {
            cl_event_loop_once();
        }
    };
    ASSERT_EQ(cl_ev_create_isolated_thread(
                  &id, nullptr,
                  [](void *argument) -> void * {
                      (*static_cast<const std::function<void()> *>(argument))();
                      return nullptr;
                  },
                  const_cast<std::function<void()> *>(&turn)),
              0);
    cl_timerplus *const timer = start_timer(10, 0, body);
    EXPECT_TRUE(fired.reaches(1));
    done = true;
    cl_timerplus *const last = start_timer(0, 0, body);
    pthread_join(id, nullptr);
    stop_and_close(timer);
    stop_and_close(last);
}

TEST_F(timers, need_a_loop_a_callback_and_no_flags) {
    const cl_timerplus_cb callback = [](cl_timerplus *) {};
    EXPECT_EQ(cl_timerplus_start(1, 0, 1, callback, nullptr), nullptr);
    loop_thread loop;
    EXPECT_EQ(cl_timerplus_start(1, 0, 1, nullptr, nullptr), nullptr);
    EXPECT_EQ(cl_timerplus_start(1, 1, 1, callback, nullptr), nullptr);
    cl_timerplus *const timer = cl_timerplus_start(1000, 0, 1000, callback, nullptr);
    EXPECT_NE(timer, nullptr);
    stop_and_close(timer);
}

TEST_F(timers, a_period_shorter_than_the_turn_fires_once_a_turn_and_makes_up_for_nothing) {
    run_isolated([] {
        cl_ev_loop_nowait(1);
        int fired = 0;
        const std::function<void(cl_timerplus *)> body = [&](cl_timerplus *) { ++fired; };
        cl_timerplus *const timer = start_timer(2, 2, body);
        for (int turn = 1; turn <= 5; ++turn) {
            be_busy(milliseconds(20));
            EXPECT_EQ(cl_event_loop_once(), 0);
            EXPECT_EQ(fired, turn);
        }
        stop_and_close(timer);
    });
}

TEST_F(timers, a_callback_that_takes_longer_than_its_period_fires_a_period_after_its_end) {
    run_isolated([] {
        std::vector<clock_type::time_point> begun;
        clock_type::time_point first_end;
        const std::function<void(cl_timerplus *)> body = [&](cl_timerplus *) {
            begun.push_back(clock_type::now());
            if (begun.size() == 1) {
                be_busy(milliseconds(50));
                first_end = clock_type::now();
            }
        };
        cl_timerplus *const timer = start_timer(0, 20, body);
        EXPECT_TRUE(turn_until([&] { return begun.size() == 2; }));
        EXPECT_GE(begun[1] - first_end, milliseconds(20));
        stop_and_close(timer);
    });
}

TEST_F(timers, that_arm_themselves_anew_at_once_dont_starve_the_loop) {
    run_isolated([] {
        cl_ev_loop_nowait(1);
        int fired = 0;
        std::vector<cl_timerplus *> started;
        std::function<void(cl_timerplus *)> body;
        body = [&](cl_timerplus *) {
            ++fired;
            started.push_back(start_timer(0, 0, body));
        };
        started.push_back(start_timer(0, 0, body));
        for (int turn = 1; turn <= 5; ++turn) {
            EXPECT_EQ(cl_event_loop_once(), 0);
            EXPECT_EQ(fired, turn);
        }
        for (cl_timerplus *timer : started) {
            stop_and_close(timer);
        }
    });
}

TEST_F(timers, due_together_fire_in_the_order_of_their_times) {
    run_isolated([] {
        cl_ev_loop_nowait(1);
        std::vector<int> order;
        std::function<void(cl_timerplus *)> bodies[3];
        cl_timerplus *started[3] = {};
        for (int i = 0; i < 3; ++i) {
            const auto at = static_cast<std::size_t>(i);
            bodies[at] = [&order, i](cl_timerplus *) { order.push_back(i); };
            started[at] = start_timer(static_cast<unsigned int>(200 - 100 * i), 0, bodies[at]);
        }
        be_busy(milliseconds(250));
        EXPECT_EQ(cl_event_loop_once(), 0);
        EXPECT_EQ(order, (std::vector<int>{2, 1, 0}));
        for (cl_timerplus *timer : started) {
            stop_and_close(timer);
        }
    });
}

TEST_F(timers, that_throw_are_logged_and_the_loop_and_the_timer_go_on) {
    run_isolated([&] {
        struct thrower {
            static void fire(cl_timerplus *timer) {
                if (++*static_cast<int *>(timer->user) == 1) {
                    throw std::runtime_error("of a user");
                }
                throw 1;
            }
        };
        int fired = 0;
        cl_timerplus *const timer = cl_timerplus_start(0, 0, 1, thrower::fire, &fired);
        EXPECT_TRUE(turn_until([&] { return fired == 3; }));
        cl_timerplus_close(timer);
        EXPECT_EQ(cl_ev_loop_nowait(1), 0);
        EXPECT_EQ(cl_event_loop_once(), 0);
        EXPECT_EQ(fired, 3);
    });
    EXPECT_TRUE(logs("a timer's callback threw an exception: of a user"));
    EXPECT_TRUE(logs("a timer's callback threw an exception of an unknown kind"));
}

TEST_F(timers, that_throw_dont_keep_another_thread_from_stopping_them) {
    loop_thread loop;
    counter fired;
    cl_timerplus *timer = nullptr;
    loop.call([&] {
        timer = cl_timerplus_start(
            0, 0, 0,
            [](cl_timerplus *self) {
                static_cast<counter *>(self->user)->add();
                throw std::bad_alloc();
            },
            &fired);
    });
    ASSERT_TRUE(fired.reaches(1));
    cl_timerplus_close(timer);
    EXPECT_TRUE(logs("a timer's callback threw an exception: std::bad_alloc"));
}

TEST_F(timers, null_and_stale_handles_are_ignored) {
    run_isolated([] {
        cl_ev_loop_nowait(1);
        cl_timerplus_stop(nullptr);
        cl_timerplus_close(nullptr);
        int fired = 0;
        const std::function<void(cl_timerplus *)> body = [&](cl_timerplus *) { ++fired; };
        cl_timerplus *const stale = start_timer(0, 0, body);
        stop_and_close(stale);
        // The value isn't given out again at once, so that the second close hits nobody else.
        std::vector<cl_timerplus *> others;
        for (int i = 0; i < 100; ++i) {
            others.push_back(start_timer(0, 0, body));
            EXPECT_NE(others.back(), stale);
        }
        stop_and_close(stale);
        EXPECT_EQ(cl_event_loop_once(), 0);
        EXPECT_EQ(fired, 100);
        for (cl_timerplus *timer : others) {
            stop_and_close(timer);
        }
    });
}

TEST_F(timers, two_threads_may_stop_and_close_the_same_timer_while_it_fires) {
    loop_thread loop;
    for (int i = 0; i < 200; ++i) {
        std::atomic<int> fired{0};
        const std::function<void(cl_timerplus *)> body = [&](cl_timerplus *timer) {
            if (++fired == 3) {
                stop_and_close(timer);
            }
        };
        cl_timerplus *timer = nullptr;
        loop.call([&] { timer = start_timer(0, 1, body); });
        std::thread one([&] { stop_and_close(timer); });
        std::thread two([&] { stop_and_close(timer); });
        one.join();
        two.join();
        EXPECT_LE(fired, 3);
    }
}

TEST_F(timers, many_threads_arm_and_close_on_one_loop) {
    loop_thread loop;
    std::atomic<int> fired{0};
    const std::function<void(cl_timerplus *)> body = [&](cl_timerplus *) { ++fired; };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (unsigned int round = 0; round < 200; ++round) {
                cl_timerplus *const timer = start_timer(round % 3, 1, body);
                ASSERT_NE(timer, nullptr);
                if (round % 2 == 0) {
                    cl_timerplus_stop(timer);
                }
                cl_timerplus_close(timer);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    const int at_end = fired;
    loop.call([] {});
    EXPECT_EQ(fired, at_end);
}

}  // namespace
}  // namespace kze_test
