#include "agent/supervisor/service_control.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "agent/common/control.h"
#include "agent/common/tree.h"
#include "agent/supervisor/supervisor.h"

namespace kze::engine {
namespace {

using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int report_wait_ms = 10000;
/* The supervisor gives the program five seconds before it kills it. */
constexpr int leave_wait_ms = 8000;
constexpr int killed_wait_ms = 2000;
constexpr auto answer_wait = std::chrono::seconds(10);
constexpr int report_descriptor = 3;

constexpr char lock_unreadable[] = "the lock file in the tree's run/ can't be used";

std::string with_reason(const std::string &what) {
    return what + ": " + std::strerror(errno);
}

/* Everything of the caller that would survive the exec goes: descriptors, signals, directory. */
void leave_caller(int report_to) {
    ::setsid();
    if (::chdir("/") != 0) {
        ::_exit(127);
    }
    ::umask(077);
    /* Above the numbers that are filled below, which may be free. */
    const int null = ::fcntl(::open("/dev/null", O_RDWR), F_DUPFD, 10);
    if (null < 0 || ::dup2(report_to, report_descriptor) < 0) {
        ::_exit(127);
    }
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::dup2(null, standard) < 0) {
            ::_exit(127);
        }
    }
    ::close_range(report_descriptor + 1, UINT_MAX, 0);
    for (int signal = 1; signal < NSIG; ++signal) {
        ::signal(signal, SIG_DFL);
    }
}

/* Starts this program again as the supervisor; its report comes through the descriptor. */
std::string launch_supervisor(const service &of, descriptor &report) {
    int ends[2];
    /* Moved above the numbers that the child puts its own descriptors on. */
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        return with_reason("no pipe");
    }
    report.reset(ends[0]);
    const descriptor low_end(ends[1]);
    const descriptor write_end(::fcntl(low_end.get(), F_DUPFD_CLOEXEC, 10));
    if (write_end.get() < 0) {
        return with_reason("no descriptor");
    }
    const pid_t child = ::fork();
    if (child < 0) {
        return with_reason("no process");
    }
    if (child == 0) {
        leave_caller(write_end.get());
        ::execl("/proc/self/exe", "vrd_services", "supervise", of.name,
                static_cast<char *>(nullptr));
        ::_exit(127);
    }
    return {};
}

std::string read_report(const descriptor &report) {
    const auto deadline = clock::now() + milliseconds(report_wait_ms);
    std::string text;
    for (;;) {
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - clock::now()).count();
        pollfd wait{report.get(), POLLIN, 0};
        if (left <= 0 || (::poll(&wait, 1, static_cast<int>(left)) < 0 && errno != EINTR)) {
            return "the supervisor says nothing";
        }
        if (wait.revents == 0) {
            continue;
        }
        char part[256];
        const ssize_t got = ::read(report.get(), part, sizeof(part));
        if (got <= 0) {
            return text.empty() ? "the supervisor did not start" : text;
        }
        text.append(part, static_cast<std::size_t>(got));
    }
}

/* A handle of a process that is not mixed up with a later one of the same number. */
descriptor open_process(pid_t process) {
    return descriptor(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
}

void send_signal(const descriptor &process, int signal) {
    ::syscall(SYS_pidfd_send_signal, process.get(), signal, nullptr, 0);
}

/* Whether the process has ended within the time. */
bool wait_for_end(const descriptor &process, int time_ms) {
    if (process.get() < 0) {
        return true;
    }
    const auto deadline = clock::now() + milliseconds(time_ms);
    for (;;) {
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - clock::now()).count();
        pollfd wait{process.get(), POLLIN, 0};
        const int ready = ::poll(&wait, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready > 0) {
            return true;
        }
        if (ready == 0) {
            return false;
        }
    }
}

/* A handle of the supervisor's program, with none when it has no program. */
descriptor open_program_of(pid_t supervisor) {
    const pid_t program = child_of(supervisor);
    if (program == 0) {
        return descriptor();
    }
    descriptor handle = open_process(program);
    /* Asked with the handle in hand: what has this parent now is the process that it names. */
    if (parent_of(program) != supervisor) {
        handle.reset();
    }
    return handle;
}

std::string start_locked(const service &of) {
    const pid_t holder = supervisor_lock(of).holder();
    if (holder != 0) {
        return holder < 0 ? lock_unreadable : std::string();
    }
    /* The supervisor's directory is another one, and the program lies in another folder. */
    const std::string home = tree_path("@");
    char *absolute = ::realpath(home.c_str(), nullptr);
    if (absolute == nullptr) {
        return with_reason("no directory " + home);
    }
    ::setenv("KZE_AGENT_HOME", absolute, 1);
    std::free(absolute);
    descriptor report;
    std::string error = launch_supervisor(of, report);
    if (error.empty()) {
        error = read_report(report);
    }
    return error == supervisor_ready ? std::string() : error;
}

std::string stop_locked(const service &of) {
    const supervisor_lock lock(of);
    const pid_t holder = lock.holder();
    if (holder <= 0) {
        return holder < 0 ? lock_unreadable : std::string();
    }
    const descriptor supervisor = open_process(holder);
    /* Asked with the handle in hand: who holds the lock now is the process that it names. */
    if (supervisor.get() < 0 || lock.holder() != holder) {
        return lock.holder() == 0 ? std::string() : with_reason("no handle of the supervisor");
    }
    send_signal(supervisor, SIGTERM);
    if (wait_for_end(supervisor, leave_wait_ms)) {
        return {};
    }
    /* The program follows by itself when its supervisor is killed. */
    const descriptor program = open_program_of(holder);
    send_signal(supervisor, SIGKILL);
    if (!wait_for_end(supervisor, killed_wait_ms) || !wait_for_end(program, killed_wait_ms)) {
        return "the processes do not end";
    }
    return {};
}

std::string wait_for_answer(const service &of) {
    const auto deadline = clock::now() + answer_wait;
    std::string last = "no answer";
    while (clock::now() < deadline) {
        const control_result result = control_call(of.endpoint, {{"op", "status"}}, 1);
        const pid_t program = look_at_service(of).program;
        if (result.answer && program != 0 && result.answer->value("pid", 0) == program) {
            return {};
        }
        last =
            result.answer ? "another process answers as " + std::string(of.endpoint) : result.error;
        std::this_thread::sleep_for(milliseconds(50));
    }
    return "started, but it does not answer: " + last;
}

}  // namespace

std::string start_service(const service &of) {
    const command_lock lock(of);
    return lock.held() ? start_locked(of) : "another command on the service doesn't end";
}

std::string stop_service(const service &of) {
    const command_lock lock(of);
    return lock.held() ? stop_locked(of) : "another command on the service doesn't end";
}

std::string restart_service(const service &of) {
    const command_lock lock(of);
    if (!lock.held()) {
        return "another command on the service doesn't end";
    }
    std::string error = stop_locked(of);
    if (error.empty()) {
        error = start_locked(of);
    }
    return error.empty() ? wait_for_answer(of) : error;
}

service_status look_at_service(const service &of) {
    service_status status;
    const pid_t holder = supervisor_lock(of).holder();
    if (holder < 0) {
        return status;
    }
    status.supervisor = holder;
    status.program = holder == 0 ? 0 : child_of(holder);
    status.state = holder == 0           ? service_state::down
                   : status.program == 0 ? service_state::waiting
                                         : service_state::running;
    return status;
}

}  // namespace kze::engine
