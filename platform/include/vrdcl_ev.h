/* libvrdcl_ev.so: one event loop for each thread that has one, and its timers. */
#ifndef KZEMDLMGR_PLATFORM_INCLUDE_VRDCL_EV_H
#define KZEMDLMGR_PLATFORM_INCLUDE_VRDCL_EV_H

#include <pthread.h>

#define VRDCL_EV_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Which threads have a loop: those made by cl_ev_create_isolated_thread(), and those that called
 * cl_ev_loop_nowait(). A loop only turns inside cl_event_loop_once(), called by its own thread; it
 * ends with its thread.
 *
 * A child made by fork() must not turn its parent's loops. Their end is without effect in it.
 *
 * A thread without a loop uses the loop of the oldest living isolated thread: its timers are armed
 * there and their callbacks run there. All times are by the monotonic clock.
 */

/*
 * Creates a joinable thread with a loop of its own, an "isolated thread", that runs
 * routine(argument). `attributes` may be null. 0, or an error number (errno.h); *id_out is then
 * untouched.
 *
 * *id_out is written before the routine's first instruction: the routine, and whatever it starts,
 * sees it. The loop counts as living from then on, until the routine returns or the thread
 * leaves it by pthread_exit(), which callbacks must not call. What still waits on the loop is then
 * ended by the thread itself, before it can be joined: its timers never fire again, its IPC
 * endpoints complete their pending requests.
 */
VRDCL_EV_API int cl_ev_create_isolated_thread(pthread_t *id_out, const pthread_attr_t *attributes,
                                              void *(*routine)(void *), void *argument);

/*
 * Says whether cl_event_loop_once() on the calling thread returns at once when nothing is due (`on`
 * not 0) or waits (0, how a loop begins). A thread that has no loop gets one with this call, which
 * ends with the thread and never serves other threads. 0, or -1 when no loop can be made.
 */
VRDCL_EV_API int cl_ev_loop_nowait(int on);

/*
 * Turns the calling thread's loop once: runs what is due, each due timer once, and returns. A timer
 * armed by a timer's callback waits for the next turn, even if it is due at once. When nothing is
 * due it waits until something is, unless cl_ev_loop_nowait(1) was called; work that another thread
 * hands to this loop also ends the wait. 0, or -1 when the thread has no loop or is inside this
 * function already.
 */
VRDCL_EV_API int cl_event_loop_once(void);

/* A timer. The library's own record begins with this word: what cl_timerplus_start() was given. */
typedef struct cl_timerplus {
    void *user;
} cl_timerplus;

/* Runs on the thread whose loop the timer is on. It may stop and close `timer`, but not use it
 * after that. */
typedef void (*cl_timerplus_cb)(cl_timerplus *timer);

/*
 * Arms a timer: `callback` runs `first_ms` milliseconds from now (0: at the loop's next turn) and
 * then every `period_ms` milliseconds until it is stopped; a period of 0 means just once. It never
 * runs early, and at most once for each turn of the loop: periods that were missed meanwhile are
 * not made up. `flags` must be 0. `user` stays the caller's.
 *
 * The timer is the caller's until cl_timerplus_close(). Null when `callback` is null, flags are
 * given, no loop is there or there is no memory. Any thread.
 */
VRDCL_EV_API cl_timerplus *cl_timerplus_start(unsigned int first_ms, unsigned int flags,
                                              unsigned int period_ms, cl_timerplus_cb callback,
                                              void *user);

/*
 * Disarms a timer for good. Any thread, also from its own callback. On return the callback isn't
 * running and will not run again, except that a callback which stops its own timer goes on; another
 * thread waits for a callback that is just running, so it must not hold what that callback waits
 * for. Null, and a timer stopped before or whose loop has ended, are allowed.
 */
VRDCL_EV_API void cl_timerplus_stop(cl_timerplus *timer);

/*
 * Stops a timer and releases it; the handle is not to be used again. Any thread, also from its own
 * callback. Null is allowed, and a second close of a handle is ignored for as long as it has not
 * been given out anew, which is put off for the next 256 timers closed.
 */
VRDCL_EV_API void cl_timerplus_close(cl_timerplus *timer);

#ifdef __cplusplus
}
#endif

#endif
