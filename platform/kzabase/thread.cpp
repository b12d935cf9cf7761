#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <new>
#include <thread>

#include "kzabase.h"

namespace {

// A new thread readily preempts the one that made it. This long it stands back, so that its creator
// has noted what it made, and that it is running, by the time the routine looks.
constexpr std::chrono::milliseconds head_start{10};

struct start {
    void *(*routine)(void *);
    void *argument;
};

void *run(void *to_run) {
    const start what = *std::unique_ptr<start>(static_cast<start *>(to_run));
    std::this_thread::sleep_for(head_start);
    return what.routine(what.argument);
}

}  // namespace

int kze_thread_start(kze_thread_t *out, void *(*routine)(void *), void *argument) {
    if (out == nullptr || routine == nullptr)
        return EINVAL;
    std::unique_ptr<start> to_run(new (std::nothrow) start{routine, argument});
    if (to_run == nullptr)
        return ENOMEM;
    pthread_t thread{};
    const int error = pthread_create(&thread, nullptr, run, to_run.get());
    if (error == 0) {
        static_cast<void>(to_run.release());  // the new thread's
        *out = thread;
    }
    return error;
}

int kze_thread_join(kze_thread_t *thread, void **result) {
    if (thread == nullptr || *thread == 0)
        return EINVAL;
    void *ended_with = nullptr;
    const int error = pthread_join(*thread, &ended_with);
    if (error != 0)
        return error;
    *thread = 0;
    if (result != nullptr)
        *result = ended_with;
    return 0;
}

void kze_thread_exit(void *result) {
    pthread_exit(result);
}
