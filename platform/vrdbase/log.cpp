// The C interface of the log, and which thread writes to which file.
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/common/paths.h"
#include "platform/vrdbase/log_file.h"
#include "platform/vrdbase/log_text.h"
#include "vrdbase.h"

namespace {

constexpr int max_level = 4;
constexpr int max_files = 100;
constexpr int host_files = 5;
const char *const host_directory = "@/../var/log/host";

// All log files of the process. Safe from any thread. Files are never closed and the one registry
// is never destroyed, so that threads may log while the process ends. Lock order: the registry's,
// then the files', oldest first.
class log_registry {
  public:
    log_file *find_or_add(const std::string &directory, int files) {
        const std::lock_guard<std::mutex> hold(mutex);
        for (const auto &file : known_files) {
            if (file->directory() == directory) {
                return file.get();
            }
        }
        known_files.push_back(std::make_unique<log_file>(directory, files));
        return known_files.back().get();
    }

    void lock_all() {
        mutex.lock();
        for (const auto &file : known_files) {
            file->lock();
        }
    }

    void unlock_all() {
        for (const auto &file : known_files) {
            file->unlock();
        }
        mutex.unlock();
    }

  private:
    std::mutex mutex;
    std::vector<std::unique_ptr<log_file>> known_files;
};

log_registry &registry() {
    static log_registry *const instance = [] {
        auto *made = new log_registry;
        pthread_atfork([] { registry().lock_all(); }, [] { registry().unlock_all(); },
                       [] { registry().unlock_all(); });
        return made;
    }();
    return *instance;
}

// The directory in the one spelling that all threads compare. It is made here, if possible, since
// only what exists has links to resolve.
std::string one_spelling(const std::string &directory) {
    kze_paths::make_directories(directory, log_directory_mode);
    std::error_code error;
    const auto resolved = std::filesystem::canonical(directory, error);
    if (!error) {
        return resolved.string();
    }
    std::string plain = directory;
    while (plain.size() > 1 && plain.back() == '/') {
        plain.pop_back();
    }
    return plain;
}

// A directory that can't be told becomes one that can't be made, whose records go to standard
// error.
log_file &file_of(const char *directory, int files) {
    const std::string path = one_spelling(kze_paths::expand(directory));
    return *registry().find_or_add(path, std::clamp(files, 1, max_files));
}

log_file &host_file() {
    static log_file &file = file_of(host_directory, host_files);
    return file;
}

// The calling thread's file, null for the host's.
thread_local log_file *thread_file = nullptr;

void write_record(int level, const char *source_file, int line, const char *format,
                  va_list arguments) noexcept {
    const int saved_errno = errno;
    try {
        const char *slash = source_file == nullptr ? nullptr : strrchr(source_file, '/');
        const char *name = source_file == nullptr ? "-"
                           : slash == nullptr     ? source_file
                                                  : slash + 1;
        std::string text;
        kze_log_text::append_escaped(text, name);
        text += ":" + std::to_string(line) + " ";
        kze_log_text::append_escaped(text, kze_log_text::format(format, arguments));
        log_file &file = thread_file == nullptr ? host_file() : *thread_file;
        file.write(std::clamp(level, 0, max_level), text);
    } catch (const std::exception &) {
        // No memory for the record: it is lost.
    }
    errno = saved_errno;
}

}  // namespace

void autolog_init(const char *directory, int files) {
    const int saved_errno = errno;
    try {
        const bool host = directory == nullptr || *directory == '\0';
        thread_file = host ? nullptr : &file_of(directory, files);
    } catch (const std::exception &) {
        thread_file = nullptr;
    }
    errno = saved_errno;
}

void error_output(int level, const char *source_file, int line, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_record(level, source_file, line, format, arguments);
    va_end(arguments);
}

void kze_log_output(int level, const char *format, ...) {
    const int own_level = std::clamp(level, 0, max_level - 1) + 1;
    if (error_output_check(own_level) == 0) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    write_record(own_level, nullptr, 0, format, arguments);
    va_end(arguments);
}
