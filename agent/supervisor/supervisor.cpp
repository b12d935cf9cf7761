#include "agent/supervisor/supervisor.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>

#include "agent/common/tree.h"
#include "vrdbase.h"

namespace kze::engine {
namespace {

using clock = std::chrono::steady_clock;

constexpr auto restart_wait = std::chrono::seconds(2);
constexpr auto leave_wait = std::chrono::seconds(5);

/* Runs in the forked child and does not return: only calls that are safe there. */
[[noreturn]] void become_program(const char *path, pid_t supervisor, int error_pipe) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() == supervisor) {
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::execl(path, path, static_cast<char *>(nullptr));
        const int error = errno;
        const ssize_t wrote = ::write(error_pipe, &error, sizeof(error));
        static_cast<void>(wrote);
    }
    ::_exit(127);
}

/* Starts the program; its process, or 0 with the reason in error. */
pid_t start_program(const std::string &path, std::string &error) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        error = std::string("no pipe: ") + std::strerror(errno);
        return 0;
    }
    const descriptor read_end(ends[0]);
    descriptor write_end(ends[1]);
    const pid_t supervisor = ::getpid();
    const pid_t program = ::fork();
    if (program == 0) {
        become_program(path.c_str(), supervisor, write_end.get());
    }
    if (program < 0) {
        error = std::string("no process: ") + std::strerror(errno);
        return 0;
    }
    write_end.reset();
    int reason = 0;
    /* The pipe closes unwritten when the program has replaced the child. */
    if (::read(read_end.get(), &reason, sizeof(reason)) != sizeof(reason)) {
        return program;
    }
    error = "can't start " + path + ": " + std::strerror(reason);
    ::waitpid(program, nullptr, 0);
    return 0;
}

/* Waits for one of the signals until the deadline; 0 when none came. */
int wait_for_signal(const sigset_t &signals, clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::nanoseconds>(deadline - clock::now());
        if (left.count() <= 0) {
            return 0;
        }
        const timespec time{static_cast<time_t>(left.count() / 1000000000),
                            static_cast<long>(left.count() % 1000000000)};
        const int signal = ::sigtimedwait(&signals, nullptr, &time);
        if (signal > 0) {
            return signal;
        }
    }
}

/* Keeps one program running. One thread. */
class program_keeper {
  public:
    program_keeper(const service &of, const sigset_t &signals)
        : name_(of.name), path_(tree_path(std::string("@/../") + of.program)), signals_(signals) {}

    bool start(std::string &error) {
        program_ = start_program(path_, error);
        if (program_ == 0) {
            kze_log(1, "%s: %s", name_, error.c_str());
            return false;
        }
        kze_log(3, "%s: started as process %d", name_, program_);
        return true;
    }

    /* Returns when the service is over. */
    void run() {
        while (program_ == 0 ? wait_and_restart() : wait_for_end()) {
        }
    }

  private:
    /* False when the supervisor is to leave. */
    bool wait_and_restart() {
        sigset_t stop = signals_;
        ::sigdelset(&stop, SIGCHLD);
        if (wait_for_signal(stop, clock::now() + restart_wait) != 0) {
            kze_log(3, "%s: told to stop", name_);
            return false;
        }
        std::string error;
        start(error);
        return true;
    }

    bool wait_for_end() {
        int signal = 0;
        while (::sigwait(&signals_, &signal) != 0) {
        }
        if (signal != SIGCHLD) {
            kze_log(3, "%s: told to stop", name_);
            end_program();
            return false;
        }
        return !reap() || !stay_down_;
    }

    /* Takes the ended program's status; false when it hasn't ended. */
    bool reap() {
        int status = 0;
        if (::waitpid(program_, &status, WNOHANG) != program_) {
            return false;
        }
        if (WIFEXITED(status)) {
            kze_log(2, "%s: process %d left with status %d", name_, program_, WEXITSTATUS(status));
        } else {
            kze_log(2, "%s: process %d ended by signal %d", name_, program_, WTERMSIG(status));
        }
        stay_down_ = WIFEXITED(status) && WEXITSTATUS(status) == exit_stay_down;
        program_ = 0;
        return true;
    }

    void end_program() {
        sigset_t ended;
        ::sigemptyset(&ended);
        ::sigaddset(&ended, SIGCHLD);
        ::kill(program_, SIGTERM);
        const auto deadline = clock::now() + leave_wait;
        while (!reap()) {
            if (wait_for_signal(ended, deadline) == 0) {
                kze_log(2, "%s: process %d doesn't leave, killed", name_, program_);
                ::kill(program_, SIGKILL);
                ::waitpid(program_, nullptr, 0);
                return;
            }
        }
    }

    const char *const name_;
    const std::string path_;
    const sigset_t signals_;
    pid_t program_ = 0; /* 0: not running */
    bool stay_down_ = false;
};

void report(descriptor &to, const std::string &text) {
    const ssize_t wrote = ::write(to.get(), text.data(), text.size());
    static_cast<void>(wrote);
    to.reset();
}

}  // namespace

int supervise(const service &of, int report_descriptor) {
    descriptor report_to(report_descriptor);
    ::fcntl(report_descriptor, F_SETFD, FD_CLOEXEC);
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGCHLD}) {
        ::sigaddset(&signals, signal);
    }
    ::sigprocmask(SIG_SETMASK, &signals, nullptr);
    auto lock = std::make_unique<supervisor_lock>(of);
    if (!lock->take()) {
        report(report_to, "another supervisor has taken the service");
        return 1;
    }
    program_keeper keeper(of, signals);
    std::string error;
    if (!keeper.start(error)) {
        lock.reset(); /* who reads the report is to find the service down */
        report(report_to, error);
        return 1;
    }
    report(report_to, supervisor_ready);
    keeper.run();
    kze_log(3, "%s: the supervisor leaves", of.name);
    return 0;
}

}  // namespace kze::engine
