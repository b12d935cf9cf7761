/* vrd_services: starts, stops and restarts the agent's services. */
#include <sys/prctl.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "agent/common/standard_descriptors.h"
#include "agent/supervisor/service_control.h"
#include "agent/supervisor/supervisor.h"
#include "vrdbase.h"

namespace {

using kze::engine::service;

constexpr int exit_failed = 1;
constexpr int exit_usage = 2;

const char *state_name(kze::engine::service_state state) {
    switch (state) {
        case kze::engine::service_state::running:
            return "running";
        case kze::engine::service_state::waiting:
            return "waiting";
        case kze::engine::service_state::down:
            return "down";
        case kze::engine::service_state::unknown:
            break;
    }
    return "unknown";
}

int show_status(const service &of, bool as_json) {
    const kze::engine::service_status status = kze::engine::look_at_service(of);
    const char *state = state_name(status.state);
    if (as_json) {
        const nlohmann::ordered_json out = {{"service", of.name},
                                            {"state", state},
                                            {"supervisor_pid", status.supervisor},
                                            {"pid", status.program}};
        std::printf("%s\n", out.dump().c_str());
    } else if (status.program != 0) {
        std::printf("%s is %s, process %d\n", of.name, state, status.program);
    } else {
        std::printf("%s is %s\n", of.name, state);
    }
    return status.state == kze::engine::service_state::running ? 0 : exit_failed;
}

int finish(const service &of, const char *what, const std::string &error) {
    if (error.empty()) {
        return 0;
    }
    std::fprintf(stderr, "vrd_services: %s %s failed: %s\n", what, of.name, error.c_str());
    return exit_failed;
}

int run(int count, char **arguments) {
    CLI::App app{"Starts, stops and restarts the agent's services.", "vrd_services"};
    app.require_subcommand(1);
    app.footer("Services: " + kze::engine::service_names() +
               "\nExit status: 0 done, 1 failed (status: the service isn't running), 2 usage.");
    std::string name;
    bool as_json = false;
    const auto add = [&](const char *command, const char *text) {
        CLI::App *sub = app.add_subcommand(command, text);
        sub->add_option("service", name, "The service's name")->required();
        return sub;
    };
    const CLI::App *start = add("start", "Starts a service, and again whenever it dies");
    const CLI::App *stop = add("stop", "Ends a service; none of its processes is left");
    const CLI::App *restart = add("restart", "Stops and starts it, and waits until it answers");
    CLI::App *status = add("status", "Tells whether a service runs");
    status->add_flag("--json", as_json, "As a JSON object");
    CLI::App *supervise = add("supervise", "");
    supervise->group("");
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : exit_usage;
    }
    const service *of = kze::find_service(name);
    if (of == nullptr) {
        std::fprintf(stderr, "vrd_services: no service \"%s\"; there are: %s\n", name.c_str(),
                     kze::engine::service_names().c_str());
        return exit_usage;
    }
    if (supervise->parsed()) {
        ::prctl(PR_SET_NAME, "vrd_services"); /* the kernel took the name from /proc/self/exe */
        autolog_init("@/../var/log/vrd_services/supervisor", 2);
        return kze::engine::supervise(*of, 3);
    }
    autolog_init("@/../var/log/vrd_services/command", 2);
    if (start->parsed()) {
        return finish(*of, "start", kze::engine::start_service(*of));
    }
    if (stop->parsed()) {
        return finish(*of, "stop", kze::engine::stop_service(*of));
    }
    if (restart->parsed()) {
        return finish(*of, "restart", kze::engine::restart_service(*of));
    }
    return show_status(*of, as_json);
}

}  // namespace

int main(int count, char **arguments) {
    if (!kze::fill_standard_descriptors()) {
        return exit_failed;
    }
    try {
        return run(count, arguments);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "vrd_services: %s\n", error.what());
        return exit_failed;
    }
}
