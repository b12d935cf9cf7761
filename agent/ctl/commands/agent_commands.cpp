/* kzectl up, down, reload and log-level: the agent as a whole. */

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

#include "agent/common/tree.h"
#include "agent/ctl/commands/command_line.h"
#include "agent/ctl/core/ask.h"
#include "agent/ctl/core/host_status.h"
#include "agent/ctl/core/log_files.h"
#include "agent/ctl/core/processes.h"
#include "agent/ctl/core/services.h"
#include "agent/ctl/core/tree_lock.h"
#include "agent/ctl/core/worker_start.h"
#include "kzautil.h"
#include "platform/common/descriptor.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

namespace fs = std::filesystem;

constexpr char host_program[] = "bin/kze_agent";
constexpr int look_period_ms = 50;

/* ---- up ---- */

struct up_options {
    bool fresh = false;
    bool no_engine = false;
    double timeout = 30;
};

std::string running_programs(const std::vector<tree_process> &processes) {
    std::string text;
    for (const tree_process &process : processes) {
        text += (text.empty() ? "" : ", ") + process.program + " (process " +
                std::to_string(process.pid) + ")";
    }
    return text;
}

void empty_directory(const std::string &path) {
    std::error_code error;
    fs::remove_all(path, error);
    if (error) {
        throw failure(exit_failed, "can't empty " + path + ": " + error.message());
    }
}

/* What earlier runs left: logs, journal, sockets. Configuration stays. */
void make_fresh() {
    const std::vector<tree_process> running = tree_processes();
    if (!running.empty()) {
        throw failure(exit_failed, "this tree is in use by " + running_programs(running) +
                                       "; stop it with \"kzectl down\" first");
    }
    empty_directory(tree_root() + "/var");
    empty_directory(tree_root() + "/run");
}

void make_directories() {
    for (const char *path : {"@/../var/log", "@/../var/lib", "@/../run"}) {
        const std::string directory = tree_path(path);
        if (kze_dirutils_mkdir(directory.c_str(), 0700) != 0) {
            throw failure(exit_failed, "can't make " + directory);
        }
    }
}

/* Waits until the host answers and has called the plug-ins' init. */
host_status wait_for_host(pid_t child, const deadline &until) {
    for (;;) {
        std::string ended;
        if (child_has_ended(child, ended)) {
            throw failure(exit_failed, "the host " + ended + "; see " + log_path("host") + " and " +
                                           log_path("output"));
        }
        if (const auto answer = ask_if_running(host_endpoint, {{"op", "status"}},
                                               until.left_seconds(ask_seconds))) {
            host_status status = read_host_status(*answer);
            if (status.ready) {
                return status;
            }
        }
        if (until.passed()) {
            throw failure(exit_timed_out, "the host, process " + std::to_string(child) +
                                              ", isn't ready in time and goes on starting; see " +
                                              log_path("host") +
                                              ", or end it with \"kzectl down\"");
        }
        until.pause_ms(look_period_ms);
    }
}

/* A host that runs without one of its plug-ins is up, but that's not what was asked for. */
void must_be_complete(const host_status &host) {
    const std::string failed = failed_plugins(host);
    if (!failed.empty()) {
        throw failure(exit_failed, "the host runs, process " + std::to_string(host.pid) +
                                       ", but without " + failed + "; see " + log_path("host"));
    }
}

std::string host_text(const host_status &host) {
    return ", process " + std::to_string(host.pid) + ", " + std::to_string(host.plugins.size()) +
           " plug-in" + (host.plugins.size() == 1 ? "" : "s") + " initialised";
}

void start_services(const up_options &options, const deadline &until) {
    for (const agent_service &service : agent_services) {
        if (!options.no_engine || &service != find_service(engine_service_name)) {
            order_service("start", service, until);
        }
    }
}

exit_status up(const up_options &options, const output &out) {
    const deadline until(options.timeout);
    const tree_lock lock(until);
    if (options.fresh) {
        make_fresh();
    }
    make_directories();
    start_services(options, until);
    if (const auto answer =
            ask_if_running(host_endpoint, {{"op", "status"}}, until.left_seconds(ask_seconds))) {
        const host_status running = read_host_status(*answer);
        must_be_complete(running);
        out.done("The agent is already up" + host_text(running), {{"pid", running.pid}});
        return exit_done;
    }
    const off_t mark = mark_worker_start();
    const pid_t child = start_daemon({tree_path("@/kze_agent")}, log_path("output"));
    const host_status host = wait_for_host(child, until);
    must_be_complete(host);
    const worker_state worker = wait_for_worker(host, mark);
    out.done("The agent is up" + host_text(host) + worker_note(worker),
             {{"pid", host.pid}, {"worker", worker_state_name(worker)}});
    return exit_done;
}

/* ---- down ---- */

/* Signals a process only if it still is the one that was found. */
void signal_process(const tree_process &process, int number) {
    const descriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, process.pid, 0U)));
    if (!handle.valid()) {
        return;
    }
    for (const tree_process &now : tree_processes(process.program)) {
        if (now.pid == process.pid) {
            ::syscall(SYS_pidfd_send_signal, handle.get(), number, nullptr, 0U);
        }
    }
}

/* Returns whether all have ended by themselves. */
bool wait_for_all(const std::vector<tree_process> &processes, const deadline &until) {
    bool all = true;
    for (const tree_process &process : processes) {
        all = wait_for_end(process.pid, until) && all;
    }
    return all;
}

/* Asks, and where nobody answers signals, the host to end. */
void tell_host_to_stop() {
    constexpr unsigned int stop_seconds = 2;
    bool answered = false;
    try {
        answered = ask_if_running(host_endpoint, {{"op", "stop"}}, stop_seconds).has_value();
    } catch (const failure &) {
        answered = false; /* a host that can't be asked is ended all the same */
    }
    if (!answered) {
        for (const tree_process &process : tree_processes(host_program)) {
            signal_process(process, SIGTERM);
        }
    }
}

/* Ends what is there by SIGKILL and returns its description. */
std::string kill_processes(const std::vector<tree_process> &processes) {
    for (const tree_process &process : processes) {
        signal_process(process, SIGKILL);
    }
    constexpr double kill_seconds = 5;
    if (!wait_for_all(processes, deadline(kill_seconds))) {
        throw failure(exit_failed, "can't end " + running_programs(tree_processes()));
    }
    return running_programs(processes);
}

void stop_services() {
    for (auto service = std::rbegin(agent_services); service != std::rend(agent_services);
         ++service) {
        try {
            order_service("stop", *service, deadline(ask_seconds));
        } catch (const failure &) {
            /* What is left is killed by the caller. */
        }
    }
}

/* Those of programs that died; nobody is left who listens. */
void remove_sockets() {
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator(tree_path("@/../run"), ignored)) {
        if (entry.is_socket(ignored)) {
            fs::remove(entry.path(), ignored);
        }
    }
}

exit_status down(double timeout, const output &out) {
    const tree_lock lock{deadline(timeout)};
    std::string forced;
    const bool anything = !tree_processes().empty();
    const std::vector<tree_process> hosts = tree_processes(host_program);
    if (!hosts.empty()) {
        tell_host_to_stop();
        if (!wait_for_all(hosts, deadline(timeout))) {
            forced = kill_processes(tree_processes(host_program));
        }
    }
    if (!tree_processes().empty()) {
        stop_services();
    }
    if (const std::vector<tree_process> left = tree_processes(); !left.empty()) {
        forced += (forced.empty() ? "" : ", ") + kill_processes(left);
    }
    remove_sockets();
    if (!forced.empty()) {
        throw failure(exit_timed_out,
                      "the agent is down, but these did not end by themselves and "
                      "were killed: " +
                          forced);
    }
    out.done(anything ? "The agent is down, no process is left" : "The agent was not up");
    return exit_done;
}

/* ---- reload, log-level ---- */

exit_status reload(double timeout, const output &out) {
    const deadline until(timeout);
    const tree_lock lock(until);
    const off_t mark = mark_worker_start();
    const host_status host =
        read_host_status(ask(host_endpoint, {{"op", "reload"}}, until.left_seconds(day_seconds)));
    must_be_complete(host);
    const worker_state worker = wait_for_worker(host, mark);
    out.done("The plug-ins are stopped and started again" + worker_note(worker),
             {{"pid", host.pid}, {"worker", worker_state_name(worker)}});
    return exit_done;
}

exit_status log_level(const std::optional<int> &level, const output &out) {
    if (!level) {
        const json answer = ask(host_endpoint, {{"op", "status"}});
        const int now = read_host_status(answer).log_level;
        out.done(std::to_string(now), {{"level", now}});
        return exit_done;
    }
    ask(host_endpoint, {{"op", "log-level"}, {"level", *level}});
    out.done("The log level is " + std::to_string(*level), {{"level", *level}});
    return exit_done;
}

void add_up(CLI::App &app, command_line &line) {
    auto options = std::make_shared<up_options>();
    CLI::App *command = add_command(
        app, "up", "Starts the services and the host, and waits for them", "kzectl up --fresh");
    command->add_flag("--fresh", options->fresh,
                      "Begin without logs and journal of earlier runs; configuration stays");
    command->add_flag("--no-engine", options->no_engine, "Leave the engine out");
    add_seconds(command, "--timeout", options->timeout, "How long to wait");
    on_chosen(command, line, [&line, options] { return up(*options, line.out); });
}

void add_down(CLI::App &app, command_line &line) {
    auto timeout = std::make_shared<double>(20);
    CLI::App *command =
        add_command(app, "down", "Stops the host and the services; no process is left",
                    "kzectl down --timeout 5",
                    "What does not end by itself is killed; the exit status is then 4.");
    add_seconds(command, "--timeout", *timeout, "How long the host has to end by itself");
    on_chosen(command, line, [&line, timeout] { return down(*timeout, line.out); });
}

void add_reload(CLI::App &app, command_line &line) {
    auto timeout = std::make_shared<double>(60);
    CLI::App *command =
        add_command(app, "reload", "Stops the host's plug-ins and starts them again",
                    "kzectl reload", "They read their configuration anew.");
    add_seconds(command, "--timeout", *timeout, "How long to wait");
    on_chosen(command, line, [&line, timeout] { return reload(*timeout, line.out); });
}

void add_log_level(CLI::App &app, command_line &line) {
    auto level = std::make_shared<std::optional<int>>();
    CLI::App *command = add_command(
        app, "log-level", "Tells or changes what the host and its plug-ins log",
        "kzectl log-level 4",
        "0 fatal, 1 and errors, 2 and warnings, 3 and progress, 4 and everything else.");
    command->add_option("LEVEL", *level, "The new level")->check(CLI::Range(0, 4).description(""));
    on_chosen(command, line, [&line, level] { return log_level(*level, line.out); });
}

}  // namespace

void add_agent_commands(CLI::App &app, command_line &line) {
    add_up(app, line);
    add_down(app, line);
    add_reload(app, line);
    add_log_level(app, line);
}

}  // namespace kze::ctl
