#include "agent/ctl/engine_view.h"

#include <array>
#include <string>

namespace kze::ctl {
namespace {

using nlohmann::json;

const json &member(const json &object, const char *name) {
    static const json nothing = json::object();
    const auto found = object.find(name);
    return found == object.end() ? nothing : *found;
}

std::string joined(const json &texts) {
    std::string all;
    for (const json &text : texts) {
        all += (all.empty() ? "" : ", ") + text.get<std::string>();
    }
    return all;
}

std::string answer_text(const json &answer) {
    std::string text = answer.value("never", false)
                           ? std::string("no answer")
                           : "code " + std::to_string(answer.value("code", 0));
    if (answer.contains("value")) {
        text += ", value " + answer["value"].dump();
    }
    if (const int delay = answer.value("delay_ms", 0); delay != 0) {
        text += ", after " + std::to_string(delay) + " ms";
    }
    const int times = answer.value("times", 0);
    return text + (times == 0 ? ", until cleared" : ", " + std::to_string(times) + " more times");
}

void print_clients(const json &clients, const output &out) {
    if (clients.empty()) {
        out.line("  no client is connected");
        return;
    }
    table rows;
    for (const json &client : clients) {
        const int cycle = client.value("origin_cycle_s", 0);
        rows.add({{"client " + std::to_string(client.value("id", 0)), look::strong},
                  {client.value("name", std::string()) + ", process " +
                   std::to_string(client.value("pid", 0))},
                  {joined(member(client, "subscriptions")) +
                   (cycle == 0 ? "" : " every " + std::to_string(cycle) + " s")},
                  {std::to_string(client.value("events_sent", 0)) + " sent, " +
                       std::to_string(client.value("events_dropped", 0)) + " dropped",
                   client.value("events_dropped", 0) == 0 ? look::faint : look::warning}});
    }
    rows.print(out, 2);
}

}  // namespace

void print_capabilities(const json &status, const output &out, std::size_t indent) {
    constexpr std::size_t columns = 3;
    table rows;
    std::vector<table::cell> row;
    for (const auto &[name, value] : member(status, "capabilities").items()) {
        const bool on = value.is_boolean() && value.get<bool>();
        row.push_back({name});
        row.push_back({on ? "on" : "off", on ? look::good : look::faint});
        if (row.size() == 2 * columns) {
            rows.add(std::move(row));
            row.clear();
        }
    }
    if (!row.empty()) {
        rows.add(std::move(row));
    }
    rows.print(out, indent);
}

void print_engine(const json &status, const output &out) {
    const bool silent = status.value("silent", false);
    out.line(out.paint(look::strong, "Engine") + "  " +
             (silent ? out.paint(look::warning, "silent") : out.paint(look::good, "running")) +
             ", process " + std::to_string(status.value("pid", 0)) + ", for " +
             human_duration(status.value("uptime_s", 0)));
    out.line(out.paint(look::strong, "Clients"));
    print_clients(member(status, "clients"), out);
    out.line(out.paint(look::strong, "Capabilities"));
    print_capabilities(status, out, 2);
    table rows;
    for (const auto &[type, version] : member(status, "versions").items()) {
        rows.add({{type}, {version.is_string() ? version.get<std::string>() : version.dump()}});
    }
    out.line(out.paint(look::strong, "Versions"));
    rows.print(out, 2);
    const json &answers = member(status, "answers");
    if (!answers.empty()) {
        out.line(out.paint(look::strong, "Set answers"));
        table set;
        for (const auto &[call, answer] : answers.items()) {
            set.add({{call}, {answer_text(answer), look::warning}});
        }
        set.print(out, 2);
    }
}

}  // namespace kze::ctl
