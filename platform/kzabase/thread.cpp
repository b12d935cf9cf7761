#include <pthread.h>

#include <cerrno>

#include "kzabase.h"

int kze_thread_start(kze_thread_t *out, void *(*routine)(void *), void *argument) {
    if (out == nullptr || routine == nullptr)
        return EINVAL;
    pthread_t thread{};
    const int error = pthread_create(&thread, nullptr, routine, argument);
    if (error == 0)
        *out = thread;
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
