#include <pthread.h>

#include <cerrno>
#include <new>

#include "kzabase.h"
#include "platform/kzabase/creator_turn.h"

namespace {

pthread_mutex_t *mutex_of(kze_mutex_t mutex) {
    return static_cast<pthread_mutex_t *>(mutex);
}

pthread_cond_t *cond_of(kze_cond_t cond) {
    return static_cast<pthread_cond_t *>(cond);
}

}  // namespace

kze_mutex_t kze_mutex_init(void) {
    auto *mutex = new (std::nothrow) pthread_mutex_t;
    if (mutex == nullptr) {
        return nullptr;
    }
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    return mutex;
}

int kze_mutex_lock(kze_mutex_t mutex) {
    return mutex == nullptr ? EINVAL : pthread_mutex_lock(mutex_of(mutex));
}

int kze_mutex_unlock(kze_mutex_t mutex) {
    if (mutex == nullptr) {
        return EINVAL;
    }
    const int error = pthread_mutex_unlock(mutex_of(mutex));
    creator_turn::end();
    return error;
}

void kze_mutex_destroy(kze_mutex_t mutex) {
    if (mutex == nullptr) {
        return;
    }
    pthread_mutex_destroy(mutex_of(mutex));
    delete mutex_of(mutex);
}

kze_cond_t kze_cond_init(void) {
    auto *cond = new (std::nothrow) pthread_cond_t;
    if (cond != nullptr) {
        pthread_cond_init(cond, nullptr);
    }
    return cond;
}

int kze_cond_wait(kze_cond_t cond, kze_mutex_t mutex) {
    if (cond == nullptr || mutex == nullptr) {
        return EINVAL;
    }
    creator_turn::end();
    return pthread_cond_wait(cond_of(cond), mutex_of(mutex));
}

int kze_cond_signal(kze_cond_t cond) {
    if (cond == nullptr) {
        return EINVAL;
    }
    creator_turn::end();
    return pthread_cond_signal(cond_of(cond));
}

int kze_cond_broadcast(kze_cond_t cond) {
    if (cond == nullptr) {
        return EINVAL;
    }
    creator_turn::end();
    return pthread_cond_broadcast(cond_of(cond));
}

void kze_cond_destroy(kze_cond_t cond) {
    if (cond == nullptr) {
        return;
    }
    pthread_cond_destroy(cond_of(cond));
    delete cond_of(cond);
}

void kze_atomic32_set(volatile int *value, int to) {
    __atomic_store_n(value, to, __ATOMIC_SEQ_CST);
}

int kze_atomic32_add_and_fetch(volatile int *value, int delta) {
    return __atomic_add_fetch(value, delta, __ATOMIC_SEQ_CST);
}
