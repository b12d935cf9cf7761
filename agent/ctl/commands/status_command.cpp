/* kzectl status: the whole agent in one table. */

#include <CLI/CLI.hpp>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/common/services.h"
#include "agent/common/tree.h"
#include "agent/ctl/commands/command_line.h"
#include "agent/ctl/core/ask.h"
#include "agent/ctl/core/host_status.h"
#include "agent/ctl/core/processes.h"
#include "agent/ctl/views/engine_view.h"
#include "agent/gateway/gateway.h"
#include "agent/gateway/journal.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

constexpr unsigned int status_seconds = 3;

/* A program's answer, or why there is none. */
struct program_state {
    std::optional<json> answer;
    std::string problem;
    exit_status status = exit_done; /* of a status command that is about this program alone */
};

program_state look_at(const std::string &endpoint) {
    try {
        std::optional<json> answer = ask_if_running(endpoint, {{"op", "status"}}, status_seconds);
        if (!answer) {
            return {std::nullopt, "not running", exit_not_running};
        }
        return {std::move(answer), "", exit_done};
    } catch (const failure &failed) {
        return {std::nullopt, failed.what(), failed.status()};
    }
}

struct gateway_state {
    std::map<std::string, std::int64_t> counts;
    std::string problem;
};

gateway_state look_at_gateway() {
    record_reader journal(tree_path(GATEWAY_JOURNAL_PATH), gateway::journal_form);
    auto counts = journal.numbers(gateway::counters_table);
    if (!counts || journal.absent()) {
        return {{}, journal.absent() ? "no records yet" : journal.problem()};
    }
    return {std::move(*counts), ""};
}

std::int64_t count_of(const gateway_state &gateway, const char *name) {
    const auto found = gateway.counts.find(name);
    return found == gateway.counts.end() ? 0 : found->second;
}

std::string gateway_text(const gateway_state &gateway) {
    if (!gateway.problem.empty()) {
        return gateway.problem;
    }
    std::string text =
        std::to_string(count_of(gateway, GATEWAY_COUNT_ACCEPTED)) + " records, " +
        human_size(static_cast<std::uint64_t>(count_of(gateway, GATEWAY_COUNT_STORED_BYTES)));
    for (const char *name :
         {GATEWAY_COUNT_REFUSED_INVALID, GATEWAY_COUNT_REFUSED_FULL, GATEWAY_COUNT_LOST}) {
        text += ", " + std::to_string(count_of(gateway, name)) + " " + name;
    }
    return text;
}

bool has_losses(const gateway_state &gateway) {
    return count_of(gateway, GATEWAY_COUNT_REFUSED_INVALID) != 0 ||
           count_of(gateway, GATEWAY_COUNT_REFUSED_FULL) != 0 ||
           count_of(gateway, GATEWAY_COUNT_LOST) != 0;
}

void add_host(table &rows, const program_state &host) {
    if (!host.answer) {
        rows.add({{"Host", look::strong}, {host.problem, look::bad}});
        return;
    }
    const host_status status = read_host_status(*host.answer);
    rows.add(
        {{"Host", look::strong},
         {status.ready ? "running" : "starting", status.ready ? look::good : look::warning},
         {"process " + std::to_string(status.pid) + ", for " + human_duration(status.uptime_s) +
          ", log level " + std::to_string(status.log_level)}});
    for (const host_plugin &plugin : status.plugins) {
        rows.add(
            {{"Plug-in", look::strong},
             {plugin.state, plugin.initialised ? look::good : look::bad},
             {plugin.name + (plugin.problem.empty() ? "" : ": " + printable(plugin.problem))}});
    }
}

std::string client_text(const json &engine) {
    const std::size_t clients = engine.value("clients", json::array()).size();
    return clients == 0 ? "no client"
                        : std::to_string(clients) + (clients == 1 ? " client" : " clients");
}

std::string versions_text(const json &engine) {
    std::string text;
    const json versions = engine.value("versions", json::object());
    for (const auto &[type, version] : versions.items()) {
        text += ", " + type + " " + (version.is_string() ? version.get<std::string>() : "?");
    }
    return text;
}

void add_engine(table &rows, const program_state &engine) {
    if (!engine.answer) {
        rows.add({{"Engine", look::strong}, {engine.problem, look::bad}});
        return;
    }
    const json &status = *engine.answer;
    const bool silent = status.value("silent", false);
    rows.add({{"Engine", look::strong},
              {silent ? "silent" : "running", silent ? look::warning : look::good},
              {"process " + std::to_string(status.value("pid", 0)) + ", for " +
               human_duration(status.value("uptime_s", 0)) + ", " + client_text(status) +
               versions_text(status)}});
}

/* The services but the engine, which has a row of its own. */
std::vector<const agent_service *> other_services() {
    std::vector<const agent_service *> others;
    for (const agent_service &service : agent_services) {
        if (&service != find_service(engine_service_name)) {
            others.push_back(&service);
        }
    }
    return others;
}

void add_service(table &rows, const agent_service &service, const program_state &state) {
    if (!state.answer) {
        rows.add({{service.title, look::strong}, {state.problem, look::bad}});
        return;
    }
    const std::string summary = state.answer->value("summary", std::string());
    rows.add({{service.title, look::strong},
              {"running", look::good},
              {"process " + std::to_string(state.answer->value("pid", 0)) + ", for " +
               human_duration(state.answer->value("uptime_s", 0)) +
               (summary.empty() ? "" : ", " + printable(summary))}});
}

json state_json(const program_state &state) {
    json value = state.answer ? *state.answer : json({{"error", state.problem}});
    value.erase("ok");
    value["running"] = state.answer.has_value();
    return value;
}

exit_status show_status(const output &out) {
    const program_state host = look_at(host_endpoint);
    const program_state engine = look_at(engine_endpoint);
    std::map<std::string, program_state> services;
    for (const agent_service *service : other_services()) {
        services[service->endpoint] = look_at(service->endpoint);
    }
    const gateway_state gateway = look_at_gateway();
    const exit_status status = host.status != exit_done ? host.status : engine.status;
    if (out.json()) {
        json service_states = json::object();
        for (const auto &[endpoint, state] : services) {
            service_states[endpoint] = state_json(state);
        }
        out.json_line({{"ok", status == exit_done},
                       {"tree", tree_root()},
                       {"version", KZE_VERSION},
                       {"host", state_json(host)},
                       {"engine", state_json(engine)},
                       {"services", service_states},
                       {"gateway", gateway.counts}});
        return status;
    }
    table rows;
    rows.add({{"Agent", look::strong}, {KZE_VERSION}, {tree_root()}});
    add_host(rows, host);
    add_engine(rows, engine);
    for (const agent_service *service : other_services()) {
        add_service(rows, *service, services[service->endpoint]);
    }
    rows.add(
        {{"Gateway", look::strong},
         {gateway.problem.empty() ? "written" : "-", has_losses(gateway) ? look::bad : look::good},
         {gateway_text(gateway)}});
    rows.print(out);
    if (engine.answer) {
        out.line(out.paint(look::strong, "Capabilities"));
        print_capabilities(*engine.answer, out, 2);
    }
    return status;
}

}  // namespace

void add_status_command(CLI::App &app, command_line &line) {
    CLI::App *command = add_command(
        app, "status", "Shows host, plug-ins, engine, services, gateway and capabilities",
        "kzectl status",
        "The exit status is 3 when the host or the engine isn't running, 4 when it runs but "
        "doesn't "
        "answer; the host's counts first.");
    on_chosen(command, line, [&line] { return show_status(line.out); });
}

}  // namespace kze::ctl
