/* libkzabase.so: threads, locks, atomics and the agent's kind. */
#ifndef KZEMDLMGR_PLATFORM_INCLUDE_KZABASE_H
#define KZEMDLMGR_PLATFORM_INCLUDE_KZABASE_H

#define KZABASE_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Results are 0 for success and an error number (errno.h) for failure unless a comment says
 * otherwise; a null handle gives EINVAL. All functions may be called from any thread.
 */

typedef void *kze_mutex_t;
typedef void *kze_cond_t;
typedef unsigned long kze_thread_t; /* 0: no thread */

/* A mutex that its owner may take again; each lock needs its unlock. Null without memory. The
 * caller owns it, until kze_mutex_destroy(). */
KZABASE_API kze_mutex_t kze_mutex_init(void);

/* Takes the mutex; waits while another thread has it. */
KZABASE_API int kze_mutex_lock(kze_mutex_t mutex);

/* Gives the mutex back. EPERM when the calling thread hasn't got it. */
KZABASE_API int kze_mutex_unlock(kze_mutex_t mutex);

/* Releases a mutex that nobody holds; null is allowed. */
KZABASE_API void kze_mutex_destroy(kze_mutex_t mutex);

/* A condition. Null without memory. The caller owns it, until kze_cond_destroy(). */
KZABASE_API kze_cond_t kze_cond_init(void);

/* Gives `mutex`, taken once by the caller, back, waits, and takes it again before it returns. It
 * may return without a signal. EPERM when the calling thread hasn't got the mutex. */
KZABASE_API int kze_cond_wait(kze_cond_t cond, kze_mutex_t mutex);

/* Wakes one waiting thread, if there is one. */
KZABASE_API int kze_cond_signal(kze_cond_t cond);

/* Wakes all waiting threads. */
KZABASE_API int kze_cond_broadcast(kze_cond_t cond);

/* Releases a condition on which nobody waits; null is allowed. */
KZABASE_API void kze_cond_destroy(kze_cond_t cond);

/*
 * Starts a joinable thread that runs routine(argument). *out is its handle, on failure untouched.
 * Every thread started must be joined. EAGAIN or ENOMEM when there is no room for another one.
 *
 * The caller has the first turn: the routine begins when the calling thread has gone on, that is,
 * at its next kze_mutex_unlock, kze_cond_wait, kze_cond_signal, kze_cond_broadcast,
 * kze_thread_start, kze_thread_join or kze_thread_exit with valid arguments, or at its end. What
 * the caller writes until then, the routine finds, however busy the machine is. A caller that does
 * none of these is waited for about a second; the new thread counts it by being woken twenty times
 * after the start, so that it doesn't pass while the process is stopped or gets no processor.
 */
KZABASE_API int kze_thread_start(kze_thread_t *out, void *(*routine)(void *), void *argument);

/*
 * Waits for the end of *thread and sets *thread to 0. *result, unless `result` is null, is what the
 * routine returned or gave to kze_thread_exit(). On failure both are untouched: EINVAL for a handle
 * of 0, EDEADLK for the calling thread itself.
 */
KZABASE_API int kze_thread_join(kze_thread_t *thread, void **result);

/* Ends the calling thread, as if its routine had returned `result`: objects on its stack are
 * destroyed. Does not return. */
KZABASE_API void kze_thread_exit(void *result);

/* Stores `to`, sequentially consistent. `value` isn't null. */
KZABASE_API void kze_atomic32_set(volatile int *value, int to);

/* Adds `delta` (wrapping), sequentially consistent, and returns the new value. `value` isn't
 * null. */
KZABASE_API int kze_atomic32_add_and_fetch(volatile int *value, int delta);

/* Non-zero when this agent is of the CNAPP kind: "@/../config/agent.ini", section "agent", key
 * "kind" holds "cnapp", in whatever case. The file is read at each call. */
KZABASE_API int IsCNAPPAgent(void);

#ifdef __cplusplus
}
#endif

#endif
