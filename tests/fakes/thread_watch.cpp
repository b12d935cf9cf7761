#include "tests/fakes/thread_watch.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <utility>

#include "kzabase.h"
#include "tests/fakes/journal.h"
#include "tests/fakes/latch.h"

namespace {

struct watch_state {
    unsigned int unjoined = 0;
    int start_code = 0;
    std::function<void()> start_hook;
    std::function<void()> join_hook;
};

std::mutex s_mutex;
watch_state s_state;

thread_local int s_held = 0;
// What holds the thread that this one started last.
thread_local std::shared_ptr<fakes::latch> s_gate;

struct held_start {
    void *(*routine)(void *);
    void *argument;
    std::shared_ptr<fakes::latch> gate;
};

void *run_when_released(void *argument) {
    const std::unique_ptr<held_start> start(static_cast<held_start *>(argument));
    EXPECT_TRUE(start->gate->wait()) << "the creator of a thread gave no mutex back";
    return start->routine(start->argument);
}

void note(const char *text) {
    fakes::note(fakes::what::thread, text);
}

}  // namespace

namespace fakes {

unsigned int unjoined_kze_threads() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.unjoined;
}

void kze_thread_start_fails(int code) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.start_code = code;
}

void on_kze_thread_start(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.start_hook = std::move(hook);
}

void on_kze_thread_join(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.join_hook = std::move(hook);
}

int held_mutexes() {
    return s_held;
}

void reset_thread_watch() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state = watch_state();
}

}  // namespace fakes

// The linker leads the calls of the linked objects here (--wrap), and __real_ to the function.
extern "C" {

int __real_kze_thread_start(kze_thread_t *out, void *(*routine)(void *), void *argument);
int __wrap_kze_thread_start(kze_thread_t *out, void *(*routine)(void *), void *argument);
int __real_kze_thread_join(kze_thread_t *thread, void **result);
int __wrap_kze_thread_join(kze_thread_t *thread, void **result);
kze_mutex_t __real_kze_mutex_init(void);
kze_mutex_t __wrap_kze_mutex_init(void);
int __real_kze_mutex_lock(kze_mutex_t mutex);
int __wrap_kze_mutex_lock(kze_mutex_t mutex);
int __real_kze_mutex_unlock(kze_mutex_t mutex);
int __wrap_kze_mutex_unlock(kze_mutex_t mutex);
void __real_kze_mutex_destroy(kze_mutex_t mutex);
void __wrap_kze_mutex_destroy(kze_mutex_t mutex);
kze_cond_t __real_kze_cond_init(void);
kze_cond_t __wrap_kze_cond_init(void);
int __real_kze_cond_wait(kze_cond_t cond, kze_mutex_t mutex);
int __wrap_kze_cond_wait(kze_cond_t cond, kze_mutex_t mutex);
int __real_kze_cond_signal(kze_cond_t cond);
int __wrap_kze_cond_signal(kze_cond_t cond);
int __real_kze_cond_broadcast(kze_cond_t cond);
int __wrap_kze_cond_broadcast(kze_cond_t cond);
void __real_kze_cond_destroy(kze_cond_t cond);
void __wrap_kze_cond_destroy(kze_cond_t cond);

int __wrap_kze_thread_start(kze_thread_t *out, void *(*routine)(void *), void *argument) {
    note("start");
    std::function<void()> hook;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        if (s_state.start_code != 0) {
            return s_state.start_code;
        }
        ++s_state.unjoined;
        hook = s_state.start_hook;
    }
    s_gate = std::make_shared<fakes::latch>();
    auto start = std::make_unique<held_start>(held_start{routine, argument, s_gate});
    const int code = __real_kze_thread_start(out, run_when_released, start.get());
    EXPECT_EQ(code, 0);
    static_cast<void>(start.release());  // the thread's
    if (hook) {
        s_gate->open();
        hook();
    }
    return code;
}

int __wrap_kze_thread_join(kze_thread_t *thread, void **result) {
    note("join");
    std::function<void()> hook;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        hook = s_state.join_hook;
    }
    if (hook) {
        hook();
    }
    const int code = __real_kze_thread_join(thread, result);
    EXPECT_EQ(code, 0);
    const std::lock_guard<std::mutex> lock(s_mutex);
    --s_state.unjoined;
    return code;
}

kze_mutex_t __wrap_kze_mutex_init(void) {
    note("mutex init");
    return __real_kze_mutex_init();
}

int __wrap_kze_mutex_lock(kze_mutex_t mutex) {
    const int code = __real_kze_mutex_lock(mutex);
    note("lock");
    ++s_held;
    return code;
}

int __wrap_kze_mutex_unlock(kze_mutex_t mutex) {
    note("unlock");
    --s_held;
    const int code = __real_kze_mutex_unlock(mutex);
    if (s_gate != nullptr) {
        s_gate->open();
        s_gate = nullptr;
    }
    return code;
}

void __wrap_kze_mutex_destroy(kze_mutex_t mutex) {
    note("mutex destroy");
    __real_kze_mutex_destroy(mutex);
}

kze_cond_t __wrap_kze_cond_init(void) {
    note("cond init");
    return __real_kze_cond_init();
}

int __wrap_kze_cond_wait(kze_cond_t cond, kze_mutex_t mutex) {
    note("wait");
    return __real_kze_cond_wait(cond, mutex);
}

int __wrap_kze_cond_signal(kze_cond_t cond) {
    note("signal");
    return __real_kze_cond_signal(cond);
}

int __wrap_kze_cond_broadcast(kze_cond_t cond) {
    note("broadcast");
    return __real_kze_cond_broadcast(cond);
}

void __wrap_kze_cond_destroy(kze_cond_t cond) {
    note("cond destroy");
    __real_kze_cond_destroy(cond);
}

}  // extern "C"
