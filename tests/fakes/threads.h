/*
 * Threads made with pthread_create by the objects that are linked into the test: what becomes of
 * making, probing and letting go of them. Everything works until a test says otherwise.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_THREADS_H
#define KZEMDLMGR_TESTS_FAKES_THREADS_H

#include <pthread.h>

#include <vector>

namespace fakes {

// pthread_create gives this code and makes no thread; 0: works again.
void pthread_create_fails(int code);
// pthread_create returns when the thread that it made has ended.
void pthread_create_waits_for_the_end(bool on);
// pthread_kill gives this code and looks at nothing; 0: works again.
void pthread_kill_fails(int code);

struct made_thread {
    pthread_t id;
    bool default_attributes;
};
// Also calls that failed count as tries; in order.
unsigned int thread_tries();
std::vector<made_thread> made_threads();
std::vector<pthread_t> detached_threads();

struct thread_probe {
    pthread_t id;
    int signal;
};
// Each pthread_kill, in order.
std::vector<thread_probe> thread_probes();

// Waits until all threads that were made have ended. False after the deadline.
bool await_end_of_threads(int deadline_seconds = 20);

// Forgets what was recorded and asked for, not the threads that still run.
void reset_threads();

}  // namespace fakes

#endif
