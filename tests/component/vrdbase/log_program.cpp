// A program that logs, for what a test can only see from outside of a process. Its argument names
// what it does; its exit status is 0 when that went well.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "vrdbase.h"

namespace {

constexpr std::chrono::seconds deadline(20);

int log_one_record() {
    kze_log(1, "a record of the host");
    return 0;
}

int print_level() {
    printf("%d\n", error_output_level());
    return 0;
}

// Threads that log until the process ends.
class Loggers {
  public:
    explicit Loggers(int count) {
        for (int i = 0; i < count; ++i)
            std::thread([this, i] {
                autolog_init(i % 2 == 0 ? "@/../var/log/even" : "@/../var/log/odd", 2);
                while (true) {
                    kze_log(1, "logger %d", i);
                    ++records_;
                }
            }).detach();
    }

    bool wait_for_more() const {
        const long before = records_;
        const auto end = std::chrono::steady_clock::now() + deadline;
        while (records_ < before + 100)
            if (std::chrono::steady_clock::now() > end)
                return false;
        return true;
    }

  private:
    std::atomic<long> records_{0};
};

struct LogsWhenDestroyed {
    ~LogsWhenDestroyed() { kze_log(1, "destroyed at exit"); }
};

int end_while_threads_log() {
    static LogsWhenDestroyed at_exit;
    static auto *const loggers = new Loggers(4);
    return loggers->wait_for_more() ? 0 : 1;
}

bool ends_well(pid_t child) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > end) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return false;
        }
        std::this_thread::yield();
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

int fork_while_threads_log() {
    static auto *const loggers = new Loggers(3);
    autolog_init("@/../var/log/even", 2);
    for (int i = 0; i < 30; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            kze_log(1, "record of child %d", i);
            _exit(0);
        }
        if (child < 0 || !ends_well(child))
            return 1;
        kze_log(1, "parent after child %d", i);
    }
    return loggers->wait_for_more() ? 0 : 1;
}

void limit_files_to(rlim_t bytes) {
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
}

// Writes past the file's size, as past the end of a disk, then lifts the limit and writes until the
// file takes records again.
bool fill_the_disk_and_make_room(const std::string &file) {
    const auto limit =
        std::filesystem::exists(file) ? std::filesystem::file_size(file) + 500 : 1000;
    limit_files_to(limit);
    for (int i = 0; i < 100; ++i)
        kze_log(1, "while full %d", i);
    limit_files_to(RLIM_INFINITY);
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (std::filesystem::file_size(file) <= limit) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        kze_log(1, "trying");
        // No more than the reader of standard error takes: what it can't take is lost.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    kze_log(1, "room again");
    return true;
}

int fill_the_disk_twice() {
    signal(SIGXFSZ, SIG_IGN);
    const std::string directory = std::string(getenv("KZE_AGENT_HOME")) + "/../var/log/full";
    autolog_init(directory.c_str(), 2);
    const std::string file = directory + "/full.log";
    return fill_the_disk_and_make_room(file) && fill_the_disk_and_make_room(file) ? 0 : 1;
}

// Standard error becomes a pipe that nobody reads from, or whose reader has gone, while the log
// can't be written.
int write_to_a_dead_pipe(bool reader_gone) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return 1;
    signal(SIGPIPE, SIG_DFL);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    if (reader_gone)
        close(ends[0]);
    const std::string text(1000, 'x');
    for (int i = 0; i < 200; ++i)
        kze_log(1, "%s", text.c_str());
    sigset_t waiting;
    sigpending(&waiting);
    return sigismember(&waiting, SIGPIPE);
}

int go_back_to_the_host() {
    autolog_init("@/../var/log/other", 2);
    autolog_init(nullptr, 2);
    kze_log(1, "after null");
    autolog_init("@/../var/log/other", 2);
    autolog_init("", 2);
    kze_log(1, "after empty");
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "one")
        return log_one_record();
    if (what == "level")
        return print_level();
    if (what == "exit")
        return end_while_threads_log();
    if (what == "fork")
        return fork_while_threads_log();
    if (what == "full")
        return fill_the_disk_twice();
    if (what == "reader_gone" || what == "reader_stalled")
        return write_to_a_dead_pipe(what == "reader_gone");
    if (what == "back")
        return go_back_to_the_host();
    return 2;
}
