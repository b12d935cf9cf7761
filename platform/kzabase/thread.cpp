#include <pthread.h>

#include <cerrno>
#include <memory>
#include <new>

#include "kzabase.h"
#include "platform/kzabase/creator_turn.h"

namespace {

struct thread_start {
    void *(*routine)(void *);
    void *argument;
    creator_turn *turn;
};

void *run(void *start) {
    const thread_start what = *std::unique_ptr<thread_start>(static_cast<thread_start *>(start));
    what.turn->wait();
    return what.routine(what.argument);
}

}  // namespace

int kze_thread_start(kze_thread_t *out, void *(*routine)(void *), void *argument) {
    if (out == nullptr || routine == nullptr) {
        return EINVAL;
    }
    std::unique_ptr<thread_start> start(new (std::nothrow)
                                            thread_start{routine, argument, nullptr});
    if (start == nullptr) {
        return ENOMEM;
    }
    int error = creator_turn::begin(&start->turn);
    if (error != 0) {
        return error;
    }
    pthread_t thread{};
    error = pthread_create(&thread, nullptr, run, start.get());
    if (error != 0) {
        creator_turn::end();
        start->turn->leave();
        return error;
    }
    static_cast<void>(start.release());  // the new thread's
    *out = thread;
    creator_turn::thread_is_made();
    return 0;
}

int kze_thread_join(kze_thread_t *thread, void **result) {
    if (thread == nullptr || *thread == 0) {
        return EINVAL;
    }
    creator_turn::end();
    void *ended_with = nullptr;
    const int error = pthread_join(*thread, &ended_with);
    if (error != 0) {
        return error;
    }
    *thread = 0;
    if (result != nullptr) {
        *result = ended_with;
    }
    return 0;
}

void kze_thread_exit(void *result) {
    creator_turn::end();
    pthread_exit(result);
}
