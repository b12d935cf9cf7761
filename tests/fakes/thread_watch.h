/*
 * The agent's threads and locks: the real ones, each call of the linked objects written to the
 * journal ("start", "join", "lock", "unlock", "wait", "signal", "broadcast", and "mutex init",
 * "mutex destroy", "cond init", "cond destroy"), with faults.
 *
 * A new thread is held until the thread that started it gives a mutex back: a creator that sets
 * something under a lock right behind the start has always done so before the new thread looks.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_THREAD_WATCH_H
#define KZEMDLMGR_TESTS_FAKES_THREAD_WATCH_H

#include <functional>

namespace fakes {

// The threads of kze_thread_start that were not joined yet.
unsigned int unjoined_kze_threads();
// kze_thread_start gives this code and starts nothing; 0: works again.
void kze_thread_start_fails(int code);
// New threads are not held any more, and the hook runs on the thread that starts one, before
// kze_thread_start returns.
void on_kze_thread_start(std::function<void()> hook);
// Runs on the thread that calls kze_thread_join, before it waits.
void on_kze_thread_join(std::function<void()> hook);
// How many mutexes the calling thread holds.
int held_mutexes();

void reset_thread_watch();

}  // namespace fakes

#endif
