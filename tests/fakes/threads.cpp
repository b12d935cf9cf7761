#include "tests/fakes/threads.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace {

struct state {
    int create_code = 0;
    int kill_code = 0;
    bool create_waits = false;
    unsigned int tries = 0;
    std::vector<fakes::made_thread> made;
    std::vector<pthread_t> detached;
    std::vector<fakes::thread_probe> probes;
};

std::mutex s_mutex;
std::condition_variable s_changed;
state s_state;
unsigned int s_running = 0;

struct thread_start {
    void *(*routine)(void *);
    void *argument;
};

// Its destructor runs also when the routine leaves by pthread_exit.
struct end_of_thread {
    end_of_thread() = default;
    ~end_of_thread() {
        const std::lock_guard<std::mutex> lock(s_mutex);
        --s_running;
        s_changed.notify_all();
    }
    end_of_thread(const end_of_thread &) = delete;
    end_of_thread &operator=(const end_of_thread &) = delete;
};

void *run(void *argument) {
    const end_of_thread told;
    thread_start start = {};
    {
        const std::unique_ptr<thread_start> owned(static_cast<thread_start *>(argument));
        start = *owned;
    }
    return start.routine(start.argument);
}

bool await_end(std::unique_lock<std::mutex> &lock, int deadline_seconds) {
    return s_changed.wait_for(lock, std::chrono::seconds(deadline_seconds),
                              [] { return s_running == 0; });
}

}  // namespace

namespace fakes {

void pthread_create_fails(int code) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.create_code = code;
}

void pthread_create_waits_for_the_end(bool on) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.create_waits = on;
}

void pthread_kill_fails(int code) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.kill_code = code;
}

unsigned int thread_tries() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.tries;
}

std::vector<made_thread> made_threads() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.made;
}

std::vector<pthread_t> detached_threads() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.detached;
}

std::vector<thread_probe> thread_probes() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.probes;
}

bool await_end_of_threads(int deadline_seconds) {
    std::unique_lock<std::mutex> lock(s_mutex);
    return await_end(lock, deadline_seconds);
}

void reset_threads() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state = state();
}

}  // namespace fakes

extern "C" {

int __real_pthread_create(pthread_t *id_out, const pthread_attr_t *attributes,
                          void *(*routine)(void *), void *argument);
int __wrap_pthread_create(pthread_t *id_out, const pthread_attr_t *attributes,
                          void *(*routine)(void *), void *argument);
int __real_pthread_detach(pthread_t thread);
int __wrap_pthread_detach(pthread_t thread);
int __real_pthread_kill(pthread_t thread, int signal);
int __wrap_pthread_kill(pthread_t thread, int signal);

int __wrap_pthread_create(pthread_t *id_out, const pthread_attr_t *attributes,
                          void *(*routine)(void *), void *argument) {
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        ++s_state.tries;
        if (s_state.create_code != 0) {
            return s_state.create_code;
        }
        ++s_running;
    }
    auto start = std::make_unique<thread_start>(thread_start{routine, argument});
    const int code = __real_pthread_create(id_out, attributes, run, start.get());
    std::unique_lock<std::mutex> lock(s_mutex);
    if (code != 0) {
        --s_running;
        return code;
    }
    (void)start.release();  // the thread's now
    s_state.made.push_back({*id_out, attributes == nullptr});
    if (s_state.create_waits) {
        await_end(lock, 20);
    }
    return 0;
}

int __wrap_pthread_detach(pthread_t thread) {
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_state.detached.push_back(thread);
    }
    return __real_pthread_detach(thread);
}

int __wrap_pthread_kill(pthread_t thread, int signal) {
    int code = 0;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_state.probes.push_back({thread, signal});
        code = s_state.kill_code;
    }
    return code != 0 ? code : __real_pthread_kill(thread, signal);
}

}  // extern "C"
