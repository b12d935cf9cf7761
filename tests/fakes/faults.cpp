#include "tests/fakes/faults.h"

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "kzabase.h"
#include "kzautil.h"

namespace {

struct allocation_fault {
    unsigned int left = 0;
    bool throwing = false;
    bool happened = false;
};

thread_local allocation_fault s_allocation;
thread_local unsigned int s_uncounted = 0;
std::atomic<const void *> s_watched{nullptr};
std::atomic<bool> s_released{false};
std::atomic<int> s_compress_code{0};
std::atomic<bool> s_bound_fails{false};
std::atomic<unsigned int> s_forks{0};
std::atomic<int> s_fork_error{0};
std::atomic<unsigned int> s_interruptions{0};
std::atomic<int> s_wait_error{0};
std::atomic<bool> s_load_fails{false};
std::atomic<bool> s_load_of_empty_fails{false};
std::atomic<int> s_save_code{0};
std::mutex s_hook_mutex;
std::function<void()> s_save_hook;  // runs without the mutex
std::atomic<int> s_cnapp{0};

bool allocation_must_fail(bool throwing = false) {
    if (s_allocation.left == 0 || s_allocation.throwing != throwing || s_uncounted != 0) {
        return false;
    }
    --s_allocation.left;
    s_allocation.happened = s_allocation.left == 0;
    return s_allocation.happened;
}

void note_release(const void *object) {
    if (object != nullptr && object == s_watched) {
        s_watched = nullptr;
        s_released = true;
    }
}

}  // namespace

namespace fakes {

void fail_allocation(unsigned int nth) {
    s_allocation = {nth, false, false};
}

void fail_throwing_new(unsigned int nth) {
    s_allocation = {nth, true, false};
}

void let_allocations_work() {
    s_allocation.left = 0;
}

bool allocation_failed() {
    return s_allocation.happened;
}

own_memory::own_memory() {
    ++s_uncounted;
}

own_memory::~own_memory() {
    --s_uncounted;
}

void watch_release(const void *object) {
    s_released = false;
    s_watched = object;
}

bool watched_was_released() {
    return s_released;
}

void left_behind_by_design(void *object) {
    static auto *const s_left = new std::vector<void *>;
    s_left->push_back(object);
}

void compress_fails(int code) {
    s_compress_code = code;
}

void compress_bound_fails() {
    s_bound_fails = true;
}

unsigned int forks() {
    return s_forks;
}

void fork_fails(int error) {
    s_fork_error = error;
}

void waitpid_interrupted(unsigned int times) {
    s_interruptions = times;
}

unsigned int interruptions_left() {
    return s_interruptions;
}

void waitpid_fails(int error) {
    s_wait_error = error;
}

void ini_load_fails() {
    s_load_fails = true;
}

void ini_load_of_empty_fails() {
    s_load_of_empty_fails = true;
}

void ini_save_fails(int code) {
    s_save_code = code;
}

void on_ini_save(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(s_hook_mutex);
    s_save_hook = std::move(hook);
}

void set_cnapp_agent(int answer) {
    s_cnapp = answer;
}

void reset_faults() {
    on_ini_save(nullptr);
    s_allocation = allocation_fault();
    s_watched = nullptr;
    s_released = false;
    s_compress_code = 0;
    s_bound_fails = false;
    s_forks = 0;
    s_fork_error = 0;
    s_interruptions = 0;
    s_wait_error = 0;
    s_load_fails = false;
    s_load_of_empty_fails = false;
    s_save_code = 0;
    s_cnapp = 0;
}

}  // namespace fakes

int IsCNAPPAgent(void) {
    return s_cnapp;
}

// The linker leads the calls of the linked objects here (--wrap), and __real_ to the function
// itself. The mangled names are those of new that throws, of new and new[] with std::nothrow, and
// of delete without and with the size, and of delete[].
extern "C" {

void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size);
void *__real_calloc(size_t number, size_t size);
void *__wrap_calloc(size_t number, size_t size);
void *__real__Znwm(size_t size);
void *__wrap__Znwm(size_t size);
void *__real__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &tag);
void *__wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &tag);
void *__real__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t &tag);
void *__wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t &tag);
void __real__ZdlPv(void *object);
void __wrap__ZdlPv(void *object);
void __real__ZdlPvm(void *object, size_t size);
void __wrap__ZdlPvm(void *object, size_t size);
void __real__ZdaPv(void *object);
void __wrap__ZdaPv(void *object);
int __real_compress(Bytef *out, uLongf *out_size, const Bytef *in, uLong in_size);
int __wrap_compress(Bytef *out, uLongf *out_size, const Bytef *in, uLong in_size);
uLong __real_compressBound(uLong size);
uLong __wrap_compressBound(uLong size);
pid_t __real_fork(void);
pid_t __wrap_fork(void);
pid_t __real_waitpid(pid_t pid, int *status, int options);
pid_t __wrap_waitpid(pid_t pid, int *status, int options);
void *__real_kze_ini_file_load(const char *path);
void *__wrap_kze_ini_file_load(const char *path);
int __real_kze_ini_file_save(void *ini, const char *path, int flags);
int __wrap_kze_ini_file_save(void *ini, const char *path, int flags);

void *__wrap_malloc(size_t size) {
    return allocation_must_fail() ? nullptr : __real_malloc(size);
}

// An optimising compiler makes one of a malloc and the memset behind it.
void *__wrap_calloc(size_t number, size_t size) {
    return allocation_must_fail() ? nullptr : __real_calloc(number, size);
}

void *__wrap__Znwm(size_t size) {
    if (allocation_must_fail(true)) {
        throw std::bad_alloc();
    }
    return __real__Znwm(size);
}

void *__wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &tag) {
    return allocation_must_fail() ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}

void *__wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t &tag) {
    return allocation_must_fail() ? nullptr : __real__ZnamRKSt9nothrow_t(size, tag);
}

void __wrap__ZdlPv(void *object) {
    note_release(object);
    __real__ZdlPv(object);
}

void __wrap__ZdlPvm(void *object, size_t size) {
    note_release(object);
    __real__ZdlPvm(object, size);
}

void __wrap__ZdaPv(void *object) {
    note_release(object);
    __real__ZdaPv(object);
}

int __wrap_compress(Bytef *out, uLongf *out_size, const Bytef *in, uLong in_size) {
    if (const int code = s_compress_code; code != 0) {
        fakes::watch_release(out);
        return code;
    }
    return __real_compress(out, out_size, in, in_size);
}

uLong __wrap_compressBound(uLong size) {
    return s_bound_fails ? 0 : __real_compressBound(size);
}

pid_t __wrap_fork(void) {
    ++s_forks;
    if (const int error = s_fork_error) {
        errno = error;
        return -1;
    }
    return __real_fork();
}

pid_t __wrap_waitpid(pid_t pid, int *status, int options) {
    if (s_interruptions != 0) {
        --s_interruptions;
        errno = EINTR;
        return -1;
    }
    const pid_t result = __real_waitpid(pid, status, options);
    if (const int error = s_wait_error) {
        errno = error;
        return -1;
    }
    return result;
}

void *__wrap_kze_ini_file_load(const char *path) {
    const bool fails = path == nullptr ? s_load_of_empty_fails : s_load_fails;
    return fails ? nullptr : __real_kze_ini_file_load(path);
}

int __wrap_kze_ini_file_save(void *ini, const char *path, int flags) {
    std::function<void()> hook;
    {
        const std::lock_guard<std::mutex> lock(s_hook_mutex);
        hook = s_save_hook;
    }
    if (hook) {
        hook();
    }
    const int code = s_save_code;
    return code != 0 ? code : __real_kze_ini_file_save(ini, path, flags);
}

}  // extern "C"
