/*
 * Time that moves only when a test says so or a thread sleeps, the event loops and their timers,
 * and isolated threads.
 *
 * A timer is on the loop of the thread that armed it; a thread that is no isolated one and has not
 * called cl_ev_loop_nowait arms on the loop of the oldest living isolated thread, if there is one.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_VIRTUAL_TIME_H
#define KZEMDLMGR_TESTS_FAKES_VIRTUAL_TIME_H

#include <functional>
#include <vector>

#include "vrdcl_ev.h"

namespace fakes {

using microseconds = unsigned long long;

microseconds now_us();
// Moves the clock; what is due then runs in the next cl_event_loop_once.
void advance(unsigned int ms);
// Moves the clock and turns the calling thread's loop once.
void let_pass(unsigned int ms);
// Each usleep so far, in order, and their sum.
std::vector<microseconds> sleeps();
microseconds slept_us();

// Call a hook at the nth usleep (after it) or loop turn (before it) from now; 1 is the next one.
// The hook runs on the thread that sleeps or turns. One of each at a time.
void at_sleep(unsigned int nth, std::function<void()> hook);
void at_loop_turn(unsigned int nth, std::function<void()> hook);

struct timer_view {
    cl_timerplus *handle;
    unsigned int first_ms;
    unsigned int flags;
    unsigned int period_ms;
    cl_timerplus_cb callback;
    void *user;
    bool armed;  // false: stopped and not closed yet
};

// The timers that are not closed yet, oldest first.
std::vector<timer_view> open_timers();
// Makes the nth cl_timerplus_start from now give null; 1 is the next one. What it was given for its
// user is watched from then on (watch_release).
void fail_timer_start(unsigned int nth);

// How cl_ev_create_isolated_thread works from now on: with a thread (the default), by running the
// routine to its end before it returns, or by failing with a code.
void isolated_threads_are_real();
void isolated_threads_run_inline();
void isolated_threads_fail(int code);
// The threads that get an argument, which those of upgrade relays do, are there to be joined and
// run nothing, for the tests that are not about the relay; false: they run.
void relay_threads_are_idle(bool idle = true);
// The threads that were created and not joined yet.
unsigned int unjoined_threads();

// pthread_join gives this code, with errno set to it, and joins all the same; 0: works again.
void pthread_join_fails(int code);
// Runs on the thread that calls pthread_join on an isolated thread, before it waits.
void on_pthread_join(std::function<void()> hook);

void reset_virtual_time();

}  // namespace fakes

#endif
