#include "agent/services/process_fate.h"

#include <poll.h>
#include <strings.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <optional>

#include "agent/common/byte_text.h"
#include "agent/common/md5.h"
#include "agent/common/process_files.h"
#include "agent/common/services.h"
#include "new/kzerespdsppl_re.pb.h"

namespace kze::services {
namespace {

namespace dsp = kzerespdsppl_re;

constexpr std::size_t md5_digits = 32;
constexpr std::chrono::milliseconds shortest_wait{20};

/* The C library declares these without C linkage for C++ programs. */
int pidfd_open(std::uint64_t pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0));
}

int pidfd_send_signal(int process, int signal) {
    return static_cast<int>(::syscall(SYS_pidfd_send_signal, process, signal, nullptr, 0));
}

process_fate failed(int code, const std::string &what) {
    return {fate::failed, code, what + ": " + std::strerror(errno)};
}

process_fate gone(const char *reason) {
    return {fate::gone, dsp::DSP_ERROR_ENGRT_PROCESS_NOT_EXIST, reason};
}

/* What speaks against the description itself. */
std::optional<process_fate> check_description(const described_process &wanted) {
    const auto invalid = [](const char *reason) {
        return process_fate{fate::invalid, dsp::DSP_ERROR_AGENT_INVALID_PARAM, reason};
    };
    if (wanted.pid == 0 || wanted.pid > INT_MAX) {
        return invalid("there is no such process id");
    }
    if (wanted.create_time == 0 || wanted.path.empty() || wanted.md5.size() != md5_digits) {
        return invalid("creation time, path and MD5 don't stand all three in its description");
    }
    return std::nullopt;
}

bool is_of_agent(const std::string &path, const std::string &tree) {
    const auto runs = [&](const char *program) { return path == tree + "/" + program; };
    return runs("bin/kze_agent") || runs("bin/vrd_services") || runs("bin/kzectl") ||
           std::any_of(std::begin(agent_services), std::end(agent_services),
                       [&](const agent_service &service) { return runs(service.program); });
}

std::optional<process_fate> check_protection(std::uint64_t pid, const std::string &path,
                                             const disposal_rules &rules) {
    const auto refused = [](const char *reason) {
        return process_fate{fate::refused, dsp::DSP_ERROR_TRUST_INTERNALPROCESS, reason};
    };
    if (pid == 1) {
        return refused("it is the host's first process");
    }
    if (pid == static_cast<std::uint64_t>(::getpid()) || is_of_agent(path, rules.tree)) {
        return refused("it is one of the agent's own");
    }
    return std::nullopt;
}

std::optional<process_fate> check_content(const described_process &wanted, int directory) {
    const descriptor executable = open_executable(directory);
    const auto md5 = executable.valid() ? md5_of_descriptor(executable.get()) : std::nullopt;
    if (!md5) {
        return failed(dsp::DSP_ERROR_ENGRT_PROCESS_ENUM_INFO, "its executable can't be read");
    }
    if (::strcasecmp(md5->c_str(), wanted.md5.c_str()) != 0) {
        return process_fate{fate::another, dsp::DSP_ERROR_ENGRT_FILE_MD5,
                            "the MD5 of its executable is " + *md5};
    }
    return std::nullopt;
}

/* What hinders that the live process of the id is ended; nothing when it is the one described. */
std::optional<process_fate> check_live(const described_process &wanted,
                                       const disposal_rules &rules) {
    const descriptor directory = open_process(wanted.pid);
    if (!directory.valid() && errno != ENOENT) {
        return failed(dsp::DSP_ERROR_ENGRT_PROCESS_ENUM_INFO, "it can't be looked at");
    }
    const auto stat = directory.valid() ? read_process_stat(directory.get()) : std::nullopt;
    if (!stat || stat->state == 'Z' || stat->state == 'X') {
        return gone("it has ended already");
    }
    bool escaped = false;
    const std::string bytes = read_executable_path(directory.get()).bytes;
    if (auto protection = check_protection(wanted.pid, bytes, rules)) {
        return protection;
    }
    const auto another = [](const std::string &reason) {
        return process_fate{fate::another, dsp::DSP_ERROR_ENGRT_PROCESS_NOT_EXIST, reason};
    };
    if (stat->start_ticks != wanted.create_time) {
        return another("the process of this id was created at " +
                       std::to_string(stat->start_ticks));
    }
    if (const std::string path = text_of_bytes(bytes, escaped); path != wanted.path) {
        return another("the process of this id runs \"" + path + "\"");
    }
    return check_content(wanted, directory.get());
}

bool ends_within(int process, int milliseconds) {
    pollfd end{process, POLLIN, 0};
    return ::poll(&end, 1, milliseconds) == 1;
}

/* Waits for as long as is left, and never for less than an ordinary end takes. */
bool has_ended(int process, std::chrono::milliseconds &left) {
    const auto begun = std::chrono::steady_clock::now();
    const bool ended =
        ends_within(process, static_cast<int>(std::max(left, shortest_wait).count()));
    const auto waited = std::chrono::steady_clock::now() - begun;
    left -= std::min(left, std::chrono::duration_cast<std::chrono::milliseconds>(waited));
    return ended;
}

process_fate end_process(int process, disposal_rules &rules) {
    if (pidfd_send_signal(process, SIGKILL) != 0) {
        return errno == ESRCH ? gone("it has ended already")
                              : failed(dsp::DSP_ERROR_ENGRT_PROCESS_KILL, "it can't be ended");
    }
    if (!has_ended(process, rules.wait_left)) {
        return {fate::failed, dsp::DSP_ERROR_ENGRT_PROCESS_KILL,
                "it was told to end and is still there"};
    }
    return {fate::ended, dsp::DSP_ERROR_SUCCESS, ""};
}

}  // namespace

const char *fate_name(fate what) {
    switch (what) {
        case fate::ended:
            return "ended";
        case fate::reported:
            return "reported";
        case fate::gone:
            return "gone";
        case fate::another:
            return "another";
        case fate::refused:
            return "refused";
        case fate::invalid:
            return "invalid";
        case fate::failed:
            break;
    }
    return "failed";
}

process_fate dispose_of(const described_process &wanted, disposal_rules &rules) {
    if (auto problem = check_description(wanted)) {
        return *problem;
    }
    if (auto protection = check_protection(wanted.pid, "", rules)) {
        return *protection;
    }
    /* From here on the id means this process or, once that is gone, nothing that can be hit. */
    const descriptor process(pidfd_open(wanted.pid));
    if (!process.valid()) {
        /* The latter two are what the id of a thread gives. */
        return errno == ESRCH || errno == EINVAL || errno == ENOENT
                   ? gone("no process has this id")
                   : failed(dsp::DSP_ERROR_ENGRT_PROCESS_ENUM_INFO, "it can't be looked at");
    }
    if (auto hindrance = check_live(wanted, rules)) {
        /* What can't be read is often just on its way out. */
        return hindrance->what == fate::failed && ends_within(process.get(), 0)
                   ? gone("it has ended already")
                   : *hindrance;
    }
    if (!rules.kill) {
        return {fate::reported, dsp::DSP_ERROR_NOT_RUN, "only reporting is switched on"};
    }
    return end_process(process.get(), rules);
}

}  // namespace kze::services
