#include "platform/vrdbase/log_file.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <exception>
#include <system_error>
#include <utility>

#include "platform/common/descriptor.h"
#include "platform/common/paths.h"

namespace {

constexpr size_t max_file_size = 10UL * 1024 * 1024;
constexpr std::chrono::seconds retry_interval(1);
const char *const pattern = "%Y-%m-%d %H:%M:%S.%f %l %t %v";

std::string file_path(const std::string &directory) {
    const std::string name = directory.substr(directory.rfind('/') + 1);
    return directory + "/" + (name.empty() ? "log" : name) + ".log";
}

spdlog::details::log_msg message(int level, const std::string &text) {
    static const spdlog::level::level_enum levels[] = {spdlog::level::critical, spdlog::level::err,
                                                       spdlog::level::warn, spdlog::level::info,
                                                       spdlog::level::debug};
    spdlog::details::log_msg record({}, levels[level], text);
    // The library keeps a thread's id, which is the parent's in a forked child.
    record.thread_id = static_cast<size_t>(gettid());
    return record;
}

// Makes the directory and the file where missing, and ends the half line that a crash or a full
// disk left in it.
void prepare(const std::string &directory, const std::string &path) {
    const int error = kze_paths::make_directories(directory, log_directory_mode);
    if (error != 0) {
        throw std::system_error(error, std::generic_category());
    }
    const kze::descriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    struct stat status {};
    if (!file.valid() || fstat(file.get(), &status) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
    char last = '\n';
    if (status.st_size > 0 && pread(file.get(), &last, 1, status.st_size - 1) == 1 &&
        last != '\n' && ::write(file.get(), "\n", 1) != 1) {
        throw std::system_error(errno, std::generic_category());
    }
}

// Keeps SIGPIPE from the calling thread during a write, whatever the program does with it. One that
// waited already stays.
class without_broken_pipe {
  public:
    without_broken_pipe() {
        sigset_t waiting;
        sigemptyset(&signal);
        sigaddset(&signal, SIGPIPE);
        sigpending(&waiting);
        waited = sigismember(&waiting, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &signal, &before);
    }
    ~without_broken_pipe() {
        const struct timespec at_once {};
        while (!waited && sigtimedwait(&signal, nullptr, &at_once) < 0 && errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    without_broken_pipe(const without_broken_pipe &) = delete;
    without_broken_pipe &operator=(const without_broken_pipe &) = delete;

  private:
    sigset_t signal{};
    sigset_t before{};
    bool waited;
};

// Gives up what can't be written at once: the reader may be gone, or have stopped reading. A pipe
// that is ready takes PIPE_BUF bytes without waiting. False when not all was written.
bool write_to_standard_error(const char *line, size_t size) {
    const without_broken_pipe guard;
    while (size > 0) {
        struct pollfd ready {};
        ready.fd = STDERR_FILENO;
        ready.events = POLLOUT;
        if (poll(&ready, 1, 0) != 1 || (ready.revents & POLLOUT) == 0) {
            return false;
        }
        const ssize_t written = ::write(STDERR_FILENO, line, std::min<size_t>(size, PIPE_BUF));
        if (written <= 0) {
            return false;
        }
        line += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

}  // namespace

log_file::log_file(std::string directory, int files)
    : own_directory(std::move(directory)),
      path(file_path(own_directory)),
      file_count(files),
      formatter(pattern) {}

void log_file::write(int level, const std::string &text) noexcept {
    const std::lock_guard<std::mutex> hold(mutex);
    try {
        if (ready()) {
            put(level, text);
            return;
        }
    } catch (const std::exception &) {
        file_sink.reset();
        next_try = std::chrono::steady_clock::now() + retry_interval;
    }
    put_to_standard_error(level, text);
}

bool log_file::ready() {
    if (file_sink != nullptr) {
        return true;
    }
    if (std::chrono::steady_clock::now() < next_try) {
        return false;
    }
    open();
    return true;
}

void log_file::open() {
    spdlog::file_event_handlers events;
    events.before_open = [this](const std::string &) { prepare(own_directory, path); };
    // The sink counts the files besides the current one.
    auto sink = std::make_unique<spdlog::sinks::rotating_file_sink_st>(
        path, max_file_size, static_cast<size_t>(file_count - 1), false, events);
    sink->set_pattern(pattern);
    file_sink = std::move(sink);
    if (missed != 0) {
        put(2, "-:0 " + std::to_string(missed) + " records went to standard error" +
                   (lost == 0 ? "" : ", " + std::to_string(lost) + " of them are lost"));
        missed = 0;
        lost = 0;
    }
}

void log_file::put(int level, const std::string &text) {
    file_sink->log(message(level, text));
    file_sink->flush();
}

void log_file::put_to_standard_error(int level, const std::string &text) {
    ++missed;
    try {
        spdlog::memory_buf_t line;
        formatter.format(message(level, text), line);
        if (write_to_standard_error(line.data(), line.size())) {
            return;
        }
    } catch (const std::exception &) {
        // No memory for the line: it is lost as well.
    }
    ++lost;
}
