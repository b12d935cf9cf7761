#include "tests/fakes/file_faults.h"

#include <dirent.h>

#include <cerrno>
#include <map>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "kzautil.h"
#include "plugin/kzemm_fileoperate.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/journal.h"

namespace {

using fakes::file_call;

struct fault {
    file_call kind;
    int code;
    std::string part;
};

struct file_state {
    std::vector<fault> faults;
    std::function<void(file_call, bool)> hook;
    std::function<int(const std::string &)> command_function;
    std::optional<int> random;
    bool quiet = false;
};

std::mutex s_mutex;  // guards the state; no hook runs under it
file_state s_state;

// Records a call and runs it, or gives the code of the fault that fits.
template <typename operation>
int run(file_call kind, const char *name, const char *path, const char *target,
        const operation &real) {
    std::function<void(file_call, bool)> hook;
    std::optional<int> code;
    {
        const fakes::own_memory uncounted;
        const std::string text = path;
        std::unique_lock<std::mutex> lock(s_mutex);
        hook = s_state.hook;
        const bool quiet = s_state.quiet;
        for (const fault &each : s_state.faults) {
            if (each.kind == kind && text.find(each.part) != std::string::npos) {
                code = each.code;
            }
        }
        lock.unlock();
        if (!quiet) {
            const std::string more = target == nullptr ? "" : std::string(" to ") + target;
            fakes::note(fakes::what::file, name + (" " + text) + more);
        }
    }
    if (hook) {
        hook(kind, false);
    }
    const int result = code ? *code : real();
    if (hook) {
        const int error = errno;
        hook(kind, true);
        errno = error;
    }
    return result;
}

}  // namespace

namespace fakes {

void file_call_fails(file_call kind, int code, const std::string &part) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.faults.push_back({kind, code, part});
}

void on_file_call(std::function<void(file_call, bool)> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.hook = std::move(hook);
}

void instead_of_commands(std::function<int(const std::string &)> function) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.command_function = std::move(function);
}

void set_rand_by_time(int number) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.random = number;
}

void keep_file_calls_quiet() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.quiet = true;
}

void reset_file_faults() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state = file_state();
}

}  // namespace fakes

// The linker leads the calls of the linked objects here (--wrap); the mangled name is that of
// create_process.
extern "C" {

int __real_kze_path_del_file_u(const char *path);
int __wrap_kze_path_del_file_u(const char *path);
int __real_kze_file_rename(const char *from, const char *to);
int __wrap_kze_file_rename(const char *from, const char *to);
int __real_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to);
int __real_kze_file_copy(const char *from, const char *to);
int __wrap_kze_file_copy(const char *from, const char *to);
int __real_kze_dirutils_mkdir(const char *path, unsigned int mode);
int __wrap_kze_dirutils_mkdir(const char *path, unsigned int mode);
DIR *__real_opendir(const char *path);
DIR *__wrap_opendir(const char *path);
int __real__Z14create_processPKc(const char *command);
int __wrap__Z14create_processPKc(const char *command);
int __real_kze_rand_by_time(void);
int __wrap_kze_rand_by_time(void);

int __wrap_kze_path_del_file_u(const char *path) {
    return run(file_call::remove, "delete", path, nullptr,
               [&] { return __real_kze_path_del_file_u(path); });
}

int __wrap_kze_file_rename(const char *from, const char *to) {
    return run(file_call::move, "move", from, to, [&] { return __real_kze_file_rename(from, to); });
}

int __wrap_rename(const char *from, const char *to) {
    const int code = run(file_call::rename, "rename", from, to,
                         [&] { return __real_rename(from, to) == 0 ? 0 : errno; });
    errno = code;
    return code == 0 ? 0 : -1;
}

int __wrap_kze_file_copy(const char *from, const char *to) {
    return run(file_call::copy, "copy", from, to, [&] { return __real_kze_file_copy(from, to); });
}

int __wrap_kze_dirutils_mkdir(const char *path, unsigned int mode) {
    return run(file_call::make_directory, "mkdir", path, nullptr,
               [&] { return __real_kze_dirutils_mkdir(path, mode); });
}

DIR *__wrap_opendir(const char *path) {
    DIR *opened = nullptr;
    const int code = run(file_call::open_directory, "opendir", path, nullptr, [&] {
        opened = __real_opendir(path);
        return opened == nullptr ? errno : 0;
    });
    errno = code;
    return opened;
}

int __wrap__Z14create_processPKc(const char *command) {
    return run(file_call::run_command, "run", command, nullptr, [&] {
        std::function<int(const std::string &)> function;
        {
            const std::lock_guard<std::mutex> lock(s_mutex);
            function = s_state.command_function;
        }
        return function ? function(command) : __real__Z14create_processPKc(command);
    });
}

int __wrap_kze_rand_by_time(void) {
    std::optional<int> number;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        number = s_state.random;
    }
    return number ? *number : __real_kze_rand_by_time();
}

}  // extern "C"
