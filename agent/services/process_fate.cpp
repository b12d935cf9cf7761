#include "agent/services/process_fate.h"

#include <poll.h>
#include <strings.h>
#include <sys/stat.h>
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

/* Of an open file, which is read once as long as it stays the same. */
std::optional<std::string> md5_of(int file, disposal_rules &rules) {
    struct stat info {};
    if (::fstat(file, &info) != 0) {
        return std::nullopt;
    }
    const executable_state state{info.st_dev,         info.st_ino,          info.st_size,
                                 info.st_mtim.tv_sec, info.st_mtim.tv_nsec, info.st_ctim.tv_sec,
                                 info.st_ctim.tv_nsec};
    const auto known = rules.known_md5.find(state);
    if (known != rules.known_md5.end()) {
        return known->second;
    }
    auto md5 = md5_of_descriptor(file);
    if (md5) {
        rules.known_md5[state] = *md5;
    }
    return md5;
}

std::optional<process_fate> check_content(const described_process &wanted, int directory,
                                          disposal_rules &rules) {
    const descriptor executable = open_executable(directory);
    const auto md5 = executable.valid() ? md5_of(executable.get(), rules) : std::nullopt;
    if (!md5) {
        return failed(dsp::DSP_ERROR_ENGRT_PROCESS_ENUM_INFO, "its executable can't be read");
    }
    if (::strcasecmp(md5->c_str(), wanted.md5.c_str()) != 0) {
        return process_fate{fate::another, dsp::DSP_ERROR_ENGRT_FILE_MD5,
                            "the MD5 of its executable is " + *md5};
    }
    return std::nullopt;
}

bool ends_within(int process, int milliseconds) {
    pollfd end{process, POLLIN, 0};
    return ::poll(&end, 1, milliseconds) == 1;
}

/*
 * What hinders that the process, of which both are held, is ended; nothing when it is the one
 * described. The executing directory is that of a thread which runs.
 */
std::optional<process_fate> check_identity(const described_process &wanted,
                                           std::uint64_t start_ticks, int executing,
                                           disposal_rules &rules) {
    bool escaped = false;
    const std::string bytes = read_executable_path(executing).bytes;
    if (auto protection = check_protection(wanted.pid, bytes, rules)) {
        return protection;
    }
    const auto another = [](const std::string &reason) {
        return process_fate{fate::another, dsp::DSP_ERROR_ENGRT_PROCESS_NOT_EXIST, reason};
    };
    if (start_ticks != wanted.create_time) {
        return another("the process of this id was created at " + std::to_string(start_ticks));
    }
    if (bytes.empty()) {
        return failed(dsp::DSP_ERROR_ENGRT_PROCESS_ENUM_INFO, "its executable can't be told");
    }
    if (const std::string path = text_of_bytes(bytes, escaped); path != wanted.path) {
        return another("the process of this id runs \"" + path + "\"");
    }
    return check_content(wanted, executing, rules);
}

/* The same, from the process's descriptor alone. */
std::optional<process_fate> check_live(const described_process &wanted, int process,
                                       disposal_rules &rules) {
    const descriptor directory = open_process(wanted.pid);
    if (!directory.valid() && errno != ENOENT) {
        return failed(dsp::DSP_ERROR_ENGRT_PROCESS_ENUM_INFO, "it can't be looked at");
    }
    const auto stat = directory.valid() ? read_process_stat(directory.get()) : std::nullopt;
    if (!stat || ends_within(process, 0)) {
        return gone("it has ended already");
    }
    if (stat->state != 'Z') {
        return check_identity(wanted, stat->start_ticks, directory.get(), rules);
    }
    const descriptor thread = open_running_thread(directory.get());
    return thread.valid() ? check_identity(wanted, stat->start_ticks, thread.get(), rules)
                          : gone("it has ended already");
}

/* Waits for as long as is left; then for as long as an ordinary end takes, while that is left. */
bool has_ended(int process, disposal_rules &rules) {
    const bool short_of_time = rules.wait_left <= shortest_wait;
    std::chrono::milliseconds &left = short_of_time ? rules.short_waits_left : rules.wait_left;
    const auto begun = std::chrono::steady_clock::now();
    const bool ended = ends_within(
        process,
        static_cast<int>(short_of_time ? std::min(left, shortest_wait).count() : left.count()));
    const auto waited = std::chrono::steady_clock::now() - begun;
    left -= std::min(left, std::chrono::duration_cast<std::chrono::milliseconds>(waited));
    return ended;
}

process_fate end_process(int process, disposal_rules &rules) {
    if (pidfd_send_signal(process, SIGKILL) != 0) {
        return errno == ESRCH ? gone("it has ended already")
                              : failed(dsp::DSP_ERROR_ENGRT_PROCESS_KILL, "it can't be ended");
    }
    if (!has_ended(process, rules)) {
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
    if (auto hindrance = check_live(wanted, process.get(), rules)) {
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
