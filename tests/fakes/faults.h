/*
 * Faults of what lies below the plug-in: memory, processes, compression, ini files. Everything
 * works until a test says otherwise. The wrappers see the calls of the objects that are linked into
 * the test itself, not those within shared libraries.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_FAULTS_H
#define KZEMDLMGR_TESTS_FAKES_FAULTS_H

#include <cstddef>
#include <functional>

namespace fakes {

// Makes the nth malloc, calloc or new (std::nothrow) of the calling thread from now give null; 1 is
// the next one. One failure at a time. Where others come before it, at_record (journal.h) tells
// when to begin to count.
void fail_allocation(unsigned int nth);
// The same for the new that throws: it throws std::bad_alloc. The test's own allocations count, and
// those of fakes outside own_memory.
void fail_throwing_new(unsigned int nth);
// No failure is waited for any more.
void let_allocations_work();
// Whether the failure asked for has happened.
bool allocation_failed();

// While there is one, what its thread allocates doesn't count: for what the fakes write down.
class own_memory {
  public:
    own_memory();
    ~own_memory();
    own_memory(const own_memory &) = delete;
    own_memory &operator=(const own_memory &) = delete;
};

// Follows one object until operator delete gets it.
void watch_release(const void *object);
bool watched_was_released();
// Keeps an object reachable that the plug-in leaves behind by design, so that the leak checker of
// the sanitizers tells only of others.
void left_behind_by_design(void *object);

// compress gives this code, and the buffer that it was given is watched from then on
// (watch_release); 0: works again.
void compress_fails(int code);
// compressBound gives 0.
void compress_bound_fails();

// How often fork was called.
unsigned int forks();
// fork gives -1 with this errno.
void fork_fails(int error);
// The next calls of waitpid give -1 with EINTR; how many of them are left.
void waitpid_interrupted(unsigned int times);
unsigned int interruptions_left();
// waitpid gives -1 with this errno. The child is waited for all the same.
void waitpid_fails(int error);

// kze_ini_file_load of a path gives null; null_path: that of an empty document.
void ini_load_fails();
void ini_load_of_empty_fails();
// kze_ini_file_save gives this code and writes nothing.
void ini_save_fails(int code);
// Runs within each kze_ini_file_save, before it saves; null: nothing runs.
void on_ini_save(std::function<void()> hook);

// What IsCNAPPAgent answers; 0 to begin with.
void set_cnapp_agent(int answer);

void reset_faults();

}  // namespace fakes

#endif
