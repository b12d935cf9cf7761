#include "agent/ctl/views/engine_view.h"

#include <algorithm>
#include <string>
#include <vector>

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

std::string times_text(const json &from) {
    const int times = from.value("times", 0);
    return times == 0 ? ", until cleared" : ", " + std::to_string(times) + " more times";
}

std::string answer_text(const json &answer) {
    std::string text = answer.value("never", false)
                           ? std::string("no answer")
                           : "code " + std::to_string(answer.value("code", 0));
    const auto add = [&](const char *key, const std::string &before, const std::string &behind) {
        if (answer.contains(key)) {
            text += ", " + before + answer[key].dump() + behind;
        }
    };
    add("value", "value ", "");
    if (answer.value("unwritten", false)) {
        text += ", out-parameter left unwritten";
    }
    if (const int delay = answer.value("delay_ms", 0); delay != 0) {
        text += ", after " + std::to_string(delay) + " ms";
    }
    add("callback_delay_ms", "callback after ", " ms");
    if (answer.value("callback_never", false)) {
        text += ", callback never";
    }
    add("callback_type", "callback about type ", "");
    add("for_type", "for type ", " only");
    return text + times_text(answer);
}

std::string rise_text(const json &rise) {
    if (rise.value("never", false)) {
        return "never" + times_text(rise);
    }
    std::string text = "after " + std::to_string(rise.value("after_ms", 0)) + " ms";
    if (rise.contains("to")) {
        text += ", to " + rise["to"].get<std::string>();
    }
    return text + times_text(rise);
}

std::string name_of_text(const json &text) {
    const std::string part = text.at("part").get<std::string>();
    return text.at("name").get<std::string>() + (part.empty() ? "" : "/" + part);
}

/* Bytes, MD5 and time, as of a text or a pack. */
std::vector<table::cell> marks_of(const json &of) {
    return {{std::to_string(of.at("bytes").get<std::uint64_t>()) + " bytes"},
            {of.at("md5").get<std::string>(), look::faint},
            {human_time(of.at("time_us").get<std::int64_t>())}};
}

void print_packs(const json &packs, const output &out) {
    table rows;
    for (const auto &[type, pack] : packs.items()) {
        std::vector<table::cell> row = {{type, look::strong},
                                        {"version " + pack.value("version", std::string())},
                                        {std::to_string(pack.value("rules", 0)) + " rules, " +
                                         std::to_string(pack.value("rules_held", 0)) + " held"}};
        for (table::cell &mark : marks_of(pack)) {
            row.push_back(std::move(mark));
        }
        row.push_back({printable(pack.value("file", std::string()))});
        rows.add(std::move(row));
    }
    rows.print(out, 2);
}

/* The file's version, and what became of the engine's. */
std::string load_versions(const json &load) {
    std::string text;
    if (load.contains("version")) {
        text = "version " + load.value("version", std::string()) + ", ";
    }
    text += "engine " + load.value("before", std::string("without one"));
    return text + (load.contains("after") ? " to " + load.value("after", std::string()) : "");
}

void print_loads(const json &loads, const output &out) {
    table rows;
    for (const json &load : loads) {
        const bool answered = load.at("answered").get<bool>();
        rows.add({{human_time(load.at("time_us").get<std::int64_t>())},
                  {"type " + load.at("type").dump()},
                  {answered ? "code " + load.at("code").dump() : "no answer"},
                  {load_versions(load)},
                  {printable(load.at("file").get<std::string>())}});
    }
    rows.print(out, 2);
}

std::string drive_order_text(const json &order) {
    if (!order.value("answered", true)) {
        return "no answer";
    }
    if (const int code = order.value("code", 0); code != 0) {
        return "code " + std::to_string(code);
    }
    return order.at("result").is_null() ? "result unwritten" : "result " + order["result"].dump();
}

/* The switch's name, or its number where it has none. */
std::string switch_name(const json &order) {
    switch (const int number = order.value("switch", -1); number) {
        case 0:
            return "drive";
        case 1:
            return "collect";
        default:
            return std::to_string(number);
    }
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

void print_rules(const json &status, const output &out) {
    const json &packs = member(status, "packs");
    out.line(out.paint(look::strong, "Loaded rule files"));
    if (packs.empty()) {
        out.line("  none");
    }
    print_packs(packs, out);
    if (const json &loads = member(status, "loads"); !loads.empty()) {
        out.line(out.paint(look::strong, "Last loads"));
        print_loads(loads, out);
    }
    table versions;
    for (const auto &[type, version] : member(status, "versions").items()) {
        versions.add({{type, look::strong}, {version.get<std::string>()}});
    }
    out.line(out.paint(look::strong, "Reported versions"));
    versions.print(out, 2);
    out.line(out.paint(look::strong, "Rule texts"));
    const json &texts = member(status, "rules");
    if (texts.empty()) {
        out.line("  none");
    }
    table rows;
    for (const json &text : texts) {
        std::vector<table::cell> row = {{std::to_string(text.at("type").get<int>())},
                                        {name_of_text(text), look::strong}};
        for (table::cell &mark : marks_of(text)) {
            row.push_back(std::move(mark));
        }
        row.push_back({printable(text.at("first_line").get<std::string>())});
        rows.add(std::move(row));
    }
    rows.print(out, 2);
}

void print_rule_texts(const json &texts, const output &out) {
    for (const json &text : texts) {
        table head;
        std::vector<table::cell> row = {{name_of_text(text), look::strong}};
        for (table::cell &mark : marks_of(text)) {
            row.push_back(std::move(mark));
        }
        row.push_back({"from " + printable(text.at("source").get<std::string>())});
        head.add(std::move(row));
        head.print(out);
        const std::string whole = text.at("text").get<std::string>();
        for (std::size_t at = 0; at < whole.size();) {
            const std::size_t end = std::min(whole.find('\n', at), whole.size());
            out.line("  " + printable(std::string_view(whole).substr(at, end - at)));
            at = end + 1;
        }
        if (text.at("cut").get<bool>()) {
            out.line(out.paint(look::warning, "  ... what follows isn't shown"));
        }
    }
}

void print_drive(const json &status, const output &out) {
    const json &drive = member(status, "drive");
    table states;
    for (const char *name : {"drive", "collect"}) {
        states.add({{name, look::strong}, {drive.at(name).dump()}});
    }
    states.print(out);
    out.line(out.paint(look::strong, "Last orders"));
    const json &orders = member(status, "drive_orders");
    if (orders.empty()) {
        out.line("  none");
    }
    table rows;
    for (const json &order : orders) {
        rows.add({{human_time(order.at("time_us").get<std::int64_t>())},
                  {switch_name(order) + " to " + order.at("value").dump()},
                  {drive_order_text(order)}});
    }
    rows.print(out, 2);
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
    const json &rises = member(status, "rises");
    if (!rises.empty()) {
        out.line(out.paint(look::strong, "Set rises of versions"));
        table set;
        for (const auto &[type, rise] : rises.items()) {
            set.add({{type}, {rise_text(rise), look::warning}});
        }
        set.print(out, 2);
    }
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
