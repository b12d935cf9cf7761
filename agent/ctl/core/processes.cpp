#include "agent/ctl/core/processes.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>

#include "agent/common/services.h"
#include "agent/common/tree.h"
#include "agent/ctl/core/failure.h"
#include "platform/common/descriptor.h"

namespace kze::ctl {
namespace {

/* What the agent consists of. Whatever else runs from below the tree is none of our business. */
bool is_of_agent(std::string_view program) {
    return program == "bin/kze_agent" || program == "bin/vrd_services" ||
           std::any_of(std::begin(agent_services), std::end(agent_services),
                       [&](const agent_service &service) { return program == service.program; });
}

std::string reason() {
    return std::strerror(errno);
}

std::string program_of(pid_t pid) {
    std::array<char, PATH_MAX> path;
    const std::string link = "/proc/" + std::to_string(pid) + "/exe";
    const ssize_t length = readlink(link.c_str(), path.data(), path.size());
    if (length <= 0) {
        return {};
    }
    std::string program(path.data(), static_cast<std::size_t>(length));
    static const std::string deleted = " (deleted)";
    if (program.size() > deleted.size() &&
        program.compare(program.size() - deleted.size(), deleted.size(), deleted) == 0) {
        program.resize(program.size() - deleted.size());
    }
    return program;
}

std::vector<char *> argument_pointers(const std::vector<std::string> &command) {
    std::vector<char *> pointers;
    pointers.reserve(command.size() + 1);
    for (const std::string &argument : command) {
        pointers.push_back(const_cast<char *>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

/*
 * Forks and runs the command with `out` as its standard output and error. Returns when the program
 * runs. Only async-signal-safe calls are made in the child.
 */
pid_t spawn(const std::vector<std::string> &command, int out, bool own_session) {
    const std::vector<char *> arguments = argument_pointers(command);
    const descriptor nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    std::array<int, 2> ends{};
    if (nothing.get() < 0 || ::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw failure(exit_failed, "can't start " + command[0] + ": " + reason());
    }
    const descriptor reader(ends[0]);
    const pid_t child = ::fork();
    if (child == 0) {
        if (own_session) {
            ::setsid();
        }
        ::dup2(nothing.get(), STDIN_FILENO);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(out, STDERR_FILENO);
        ::syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC);
        ::execv(arguments[0], arguments.data());
        const int error = errno;
        static_cast<void>(!::write(ends[1], &error, sizeof(error)));
        ::_exit(127);
    }
    const int fork_error = errno;
    ::close(ends[1]);
    if (child < 0) {
        throw failure(exit_failed, "can't start " + command[0] + ": " + std::strerror(fork_error));
    }
    int error = 0;
    ssize_t got = 0;
    do {
        got = ::read(reader.get(), &error, sizeof(error));
    } while (got < 0 && errno == EINTR);
    if (got == static_cast<ssize_t>(sizeof(error))) {
        ::waitpid(child, nullptr, 0);
        throw failure(exit_failed, "can't start " + command[0] + ": " + std::strerror(error));
    }
    return child;
}

int status_of(int wait_status) {
    return WIFSIGNALED(wait_status) ? 128 + WTERMSIG(wait_status) : WEXITSTATUS(wait_status);
}

std::string tail_of(int file) {
    constexpr off_t limit = 64 * 1024;
    const off_t size = ::lseek(file, 0, SEEK_END);
    if (size <= 0) {
        return {};
    }
    const off_t from = std::max<off_t>(0, size - limit);
    std::string text(static_cast<std::size_t>(size - from), '\0');
    const ssize_t got = ::pread(file, text.data(), text.size(), from);
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
}

}  // namespace

std::string tree_root() {
    const std::string path = tree_path("@/..");
    std::array<char, PATH_MAX> resolved;
    if (path.empty() || ::realpath(path.c_str(), resolved.data()) == nullptr) {
        throw failure(exit_failed, "no agent's tree at " + path + ": " + reason());
    }
    return resolved.data();
}

std::vector<tree_process> tree_processes() {
    const std::string prefix = tree_root() + "/";
    const std::unique_ptr<DIR, int (*)(DIR *)> proc(::opendir("/proc"), &::closedir);
    if (proc == nullptr) {
        throw failure(exit_failed, "can't read /proc: " + reason());
    }
    std::vector<tree_process> found;
    while (const dirent *entry = ::readdir(proc.get())) {
        const auto pid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        if (pid <= 0) {
            continue;
        }
        const std::string path = program_of(pid);
        if (path.compare(0, prefix.size(), prefix) == 0 &&
            is_of_agent(path.substr(prefix.size()))) {
            found.push_back({pid, path.substr(prefix.size())});
        }
    }
    std::sort(found.begin(), found.end(),
              [](const tree_process &a, const tree_process &b) { return a.pid < b.pid; });
    return found;
}

std::vector<tree_process> tree_processes(const std::string &program) {
    std::vector<tree_process> found = tree_processes();
    found.erase(std::remove_if(found.begin(), found.end(),
                               [&](const tree_process &p) { return p.program != program; }),
                found.end());
    return found;
}

bool wait_for_end(pid_t pid, const deadline &until) {
    const descriptor process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0U)));
    if (process.get() < 0) {
        return errno == ESRCH;
    }
    for (;;) {
        struct pollfd wanted = {process.get(), POLLIN, 0};
        if (::poll(&wanted, 1, until.left_ms(1000)) > 0) {
            return true;
        }
        if (until.passed()) {
            return false;
        }
    }
}

finished_command run_command(const std::vector<std::string> &command) {
    /* A file and not a pipe: what the command leaves running may keep it open. */
    const descriptor out(::memfd_create("output", MFD_CLOEXEC));
    if (out.get() < 0) {
        throw failure(exit_failed, "can't start " + command[0] + ": " + reason());
    }
    const pid_t child = spawn(command, out.get(), false);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            throw failure(exit_failed, "lost " + command[0] + ": " + reason());
        }
    }
    return {status_of(status), tail_of(out.get())};
}

pid_t start_daemon(const std::vector<std::string> &command, const std::string &output_file) {
    const descriptor out(
        ::open(output_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (out.get() < 0) {
        throw failure(exit_failed, "can't open " + output_file + ": " + reason());
    }
    return spawn(command, out.get(), true);
}

bool child_has_ended(pid_t child, std::string &text) {
    int status = 0;
    if (::waitpid(child, &status, WNOHANG) != child) {
        return false;
    }
    text = WIFSIGNALED(status) ? "ended by signal " + std::to_string(WTERMSIG(status))
                               : "ended with status " + std::to_string(WEXITSTATUS(status));
    return true;
}

}  // namespace kze::ctl
