/* kze_agent: the agent's host. */
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "agent/common/standard_descriptors.h"
#include "agent/host/host.h"
#include "agent/host/instance_lock.h"
#include "agent/host/malloc_policy.h"
#include "vrdbase.h"

namespace {

enum exit_code {
    EXIT_STOPPED = 0,
    EXIT_NOT_STARTED = 1,
    EXIT_COMMAND_LINE = 2,
    EXIT_RUNNING_ALREADY = 3,
};

constexpr char description[] =
    "kze_agent, the agent's host: loads the plug-ins that config/agent.ini lists and runs until\n"
    "SIGTERM, SIGINT or \"kzectl down\". SIGHUP makes it read config/log.ini again.";

constexpr char footer[] =
    "Exit codes:\n"
    "  0  it ran and was told to stop, whatever became of its plug-ins\n"
    "  1  it could not start: no lock, no signals or no control endpoint; the reason is printed\n"
    "     or in var/log/host\n"
    "  2  the command line is wrong\n"
    "  3  a host runs in this tree already\n\n"
    "The tree is the one that the program lies in; KZE_AGENT_HOME overrides it with the directory\n"
    "that stands for its bin/.";

void ignore(int /* signal */) {}

/* A peer that closes its end must not end the host. Handled, not ignored: what a plug-in starts
 * would inherit that. */
void survive_broken_pipes() {
    struct sigaction action {};
    action.sa_handler = ignore;
    action.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &action, nullptr);
}

int run() {
    kze::host::instance_lock lock;
    switch (lock.take()) {
        case kze::host::instance_lock::result::taken:
            break;
        case kze::host::instance_lock::result::held_by_another:
            std::fprintf(stderr, "kze_agent: %s\n", lock.problem().c_str());
            return EXIT_RUNNING_ALREADY;
        case kze::host::instance_lock::result::failed:
            std::fprintf(stderr, "kze_agent: %s\n", lock.problem().c_str());
            return EXIT_NOT_STARTED;
    }
    autolog_init("@/../var/log/host", 5);
    kze::host::host host;
    return host.run() ? EXIT_STOPPED : EXIT_NOT_STARTED;
}

}  // namespace

int main(int argc, char **argv) {
    if (!kze::fill_standard_descriptors()) {
        return EXIT_NOT_STARTED;
    }
    kze::keep_freed_memory();
    if (!kze::host::host::block_signals()) {
        std::fprintf(stderr, "kze_agent: the signals can't be blocked\n");
        return EXIT_NOT_STARTED;
    }
    survive_broken_pipes();
    try {
        CLI::App app(description);
        app.footer(footer);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError &error) {
            return app.exit(error) == 0 ? EXIT_STOPPED : EXIT_COMMAND_LINE;
        }
        return run();
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "kze_agent: %s\n", failure.what());
        return EXIT_NOT_STARTED;
    }
}
