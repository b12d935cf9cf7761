#include "tests/fakes/virtual_time.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "tests/fakes/faults.h"
#include "tests/fakes/journal.h"

namespace {

using fakes::microseconds;

struct fake_timer : cl_timerplus {
    unsigned int number;
    unsigned int first_ms;
    unsigned int flags;
    unsigned int period_ms;
    cl_timerplus_cb callback;
    unsigned int loop;  // the number of the thread that turns it
    bool armed;
    microseconds due;
};

struct countdown {
    unsigned int left = 0;
    std::function<void()> hook;
};

struct time_state {
    microseconds now = 0;
    std::vector<microseconds> sleeps;
    countdown sleep_hook;
    countdown turn_hook;
    std::map<cl_timerplus *, std::unique_ptr<fake_timer>> timers;
    unsigned int last_timer = 0;
    unsigned int timer_starts_to_failure = 0;
    std::set<unsigned int> own_loops;            // threads that called cl_ev_loop_nowait
    std::vector<unsigned int> isolated_threads;  // alive, oldest first
    bool run_inline = false;
    bool idle_relays = false;
    int create_code = 0;
    std::vector<pthread_t> unjoined;
    int join_code = 0;
    std::function<void()> join_hook;
};

std::mutex s_mutex;  // guards the state; no hook and no callback runs under it
time_state s_state;

// A number that, unlike a thread's id, is not used again.
unsigned int this_thread() {
    static std::atomic<unsigned int> s_last{0};
    thread_local unsigned int s_number = 0;
    if (s_number == 0) {
        s_number = ++s_last;
    }
    return s_number;
}

// The hook of a countdown that has come to its end, else none.
std::function<void()> tick(countdown &counter) {
    if (counter.left == 0 || --counter.left != 0) {
        return nullptr;
    }
    return std::move(counter.hook);
}

void run(const std::function<void()> &hook) {
    if (hook) {
        hook();
    }
}

fake_timer *find_open(cl_timerplus *timer, const char *function) {
    const auto found = s_state.timers.find(timer);
    if (found == s_state.timers.end()) {
        ADD_FAILURE() << function << " on a timer that is not open";
        return nullptr;
    }
    return found->second.get();
}

unsigned int loop_for_this_thread() {
    const unsigned int self = this_thread();
    const auto &isolated = s_state.isolated_threads;
    const bool has_loop = s_state.own_loops.count(self) != 0 ||
                          std::find(isolated.begin(), isolated.end(), self) != isolated.end();
    return has_loop || isolated.empty() ? self : isolated.front();
}

// The calling thread's timers that are due, the earliest first; each is set to its next time.
std::vector<cl_timerplus *> take_due_timers() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    const unsigned int self = this_thread();
    std::map<std::pair<microseconds, unsigned int>, cl_timerplus *> due;  // by time, then by age
    for (const auto &[handle, timer] : s_state.timers) {
        if (timer->armed && timer->loop == self && timer->due <= s_state.now) {
            due[{timer->due, timer->number}] = handle;
            timer->due = s_state.now + microseconds{timer->period_ms} * 1000;
        }
    }
    std::vector<cl_timerplus *> result;
    result.reserve(due.size());
    for (const auto &each : due) {
        result.push_back(each.second);
    }
    return result;
}

cl_timerplus_cb still_armed(cl_timerplus *timer) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    const auto found = s_state.timers.find(timer);
    if (found == s_state.timers.end() || !found->second->armed) {
        return nullptr;
    }
    found->second->armed = found->second->period_ms != 0;
    return found->second->callback;
}

struct thread_start {
    void *(*routine)(void *);
    void *argument;
    std::mutex held;  // by the creator until the id is written
};

void *run_isolated(void *argument) {
    const std::unique_ptr<thread_start> start(static_cast<thread_start *>(argument));
    unsigned int self = 0;
    {
        const std::lock_guard<std::mutex> wait_for_creator(start->held);
        const std::lock_guard<std::mutex> lock(s_mutex);
        self = this_thread();
        s_state.isolated_threads.push_back(self);
    }
    void *const result = start->routine(start->argument);
    const std::lock_guard<std::mutex> lock(s_mutex);
    auto &isolated = s_state.isolated_threads;
    isolated.erase(std::remove(isolated.begin(), isolated.end(), self), isolated.end());
    return result;
}

void *do_nothing(void *) {
    return nullptr;
}

}  // namespace

extern "C" int __real_pthread_join(pthread_t thread, void **result);
extern "C" int __wrap_pthread_join(pthread_t thread, void **result);
extern "C" int __wrap_usleep(useconds_t duration);

namespace fakes {

microseconds now_us() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.now;
}

void advance(unsigned int ms) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.now += microseconds{ms} * 1000;
}

void let_pass(unsigned int ms) {
    advance(ms);
    cl_event_loop_once();
}

std::vector<microseconds> sleeps() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.sleeps;
}

microseconds slept_us() {
    microseconds sum = 0;
    for (const microseconds each : sleeps()) {
        sum += each;
    }
    return sum;
}

void at_sleep(unsigned int nth, std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.sleep_hook = {nth, std::move(hook)};
}

void at_loop_turn(unsigned int nth, std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.turn_hook = {nth, std::move(hook)};
}

std::vector<timer_view> open_timers() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    std::map<unsigned int, timer_view> by_number;
    for (const auto &[handle, timer] : s_state.timers) {
        by_number[timer->number] = {handle,           timer->first_ms, timer->flags,
                                    timer->period_ms, timer->callback, timer->user,
                                    timer->armed};
    }
    std::vector<timer_view> result;
    result.reserve(by_number.size());
    for (const auto &each : by_number) {
        result.push_back(each.second);
    }
    return result;
}

void fail_timer_start(unsigned int nth) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.timer_starts_to_failure = nth;
}

void isolated_threads_are_real() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.run_inline = false;
    s_state.create_code = 0;
}

void isolated_threads_run_inline() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.run_inline = true;
    s_state.create_code = 0;
}

void isolated_threads_fail(int code) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.create_code = code;
}

void relay_threads_are_idle(bool idle) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.idle_relays = idle;
}

unsigned int unjoined_threads() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return static_cast<unsigned int>(s_state.unjoined.size());
}

void pthread_join_fails(int code) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.join_code = code;
}

void on_pthread_join(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.join_hook = std::move(hook);
}

void reset_virtual_time() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state = time_state();
}

}  // namespace fakes

int __wrap_usleep(useconds_t duration) {
    std::function<void()> hook;
    bool others_wait = false;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_state.now += duration;
        s_state.sleeps.push_back(duration);
        hook = tick(s_state.sleep_hook);
        others_wait = !s_state.isolated_threads.empty();
    }
    fakes::note(fakes::what::sleep, std::to_string(duration));
    run(hook);
    if (others_wait) {
        sched_yield();  // a loop that never really sleeps lets the test's thread go on
    }
    return 0;
}

int __wrap_pthread_join(pthread_t thread, void **result) {
    std::function<void()> hook;
    int code = 0;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        auto &unjoined = s_state.unjoined;
        const auto found = std::find(unjoined.begin(), unjoined.end(), thread);
        if (found != unjoined.end()) {
            unjoined.erase(found);
            hook = s_state.join_hook;
            code = s_state.join_code;
        }
    }
    run(hook);
    const int real_code = __real_pthread_join(thread, result);
    if (code != 0) {
        errno = code;
        return code;
    }
    return real_code;
}

int cl_ev_create_isolated_thread(pthread_t *id_out, const pthread_attr_t *attributes,
                                 void *(*routine)(void *), void *argument) {
    bool run_inline = false;
    bool idle = false;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        if (s_state.create_code != 0) {
            return s_state.create_code;
        }
        run_inline = s_state.run_inline;
        idle = s_state.idle_relays && argument != nullptr;
    }
    EXPECT_EQ(attributes, nullptr);
    pthread_t id = 0;
    int code = 0;
    if (run_inline || idle) {
        code = pthread_create(&id, nullptr, do_nothing, nullptr);  // something to join
        *id_out = id;
        if (!idle) {
            routine(argument);
        }
    } else {
        auto start = new thread_start{routine, argument, {}};
        const std::lock_guard<std::mutex> hold(start->held);
        code = pthread_create(&id, attributes, run_isolated, start);
        *id_out = id;
    }
    EXPECT_EQ(code, 0);
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.unjoined.push_back(id);
    return 0;
}

int cl_ev_loop_nowait(int on) {
    fakes::note(fakes::what::loop, "nowait " + std::to_string(on));
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.own_loops.insert(this_thread());
    return 0;
}

int cl_event_loop_once(void) {
    std::function<void()> hook;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        hook = tick(s_state.turn_hook);
    }
    run(hook);

    for (cl_timerplus *const timer : take_due_timers()) {
        // One that an earlier callback of this turn stopped or closed doesn't run any more.
        if (const cl_timerplus_cb callback = still_armed(timer)) {
            callback(timer);
        }
    }
    return 0;
}

cl_timerplus *cl_timerplus_start(unsigned int first_ms, unsigned int flags, unsigned int period_ms,
                                 cl_timerplus_cb callback, void *user) {
    auto timer = std::make_unique<fake_timer>();
    cl_timerplus *handle = timer.get();
    const std::lock_guard<std::mutex> lock(s_mutex);
    if (s_state.timer_starts_to_failure != 0 && --s_state.timer_starts_to_failure == 0) {
        fakes::note(fakes::what::timer, "start fails");
        fakes::watch_release(user);
        return nullptr;
    }
    timer->user = user;
    timer->number = ++s_state.last_timer;
    timer->first_ms = first_ms;
    timer->flags = flags;
    timer->period_ms = period_ms;
    timer->callback = callback;
    timer->loop = loop_for_this_thread();
    timer->armed = true;
    timer->due = s_state.now + microseconds{first_ms} * 1000;
    fakes::note(fakes::what::timer, "start " + std::to_string(timer->number) + " " +
                                        std::to_string(first_ms) + "/" + std::to_string(period_ms));
    s_state.timers[handle] = std::move(timer);
    return handle;
}

void cl_timerplus_stop(cl_timerplus *timer) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    if (fake_timer *const found = find_open(timer, "cl_timerplus_stop")) {
        found->armed = false;
        fakes::note(fakes::what::timer, "stop " + std::to_string(found->number));
    }
}

// The record is freed at once, so that a later use is seen here or by the address sanitizer.
void cl_timerplus_close(cl_timerplus *timer) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    if (fake_timer *const found = find_open(timer, "cl_timerplus_close")) {
        EXPECT_FALSE(found->armed) << "a timer is stopped before it is closed";
        fakes::note(fakes::what::timer, "close " + std::to_string(found->number));
        s_state.timers.erase(timer);
    }
}
