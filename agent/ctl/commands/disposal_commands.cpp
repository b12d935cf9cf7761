/* kzectl disposal: the orders that the disposal service got, and what became of each process. */

#include <CLI/CLI.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agent/common/json_text.h"
#include "agent/common/tree.h"
#include "agent/ctl/commands/command_line.h"
#include "agent/ctl/core/entries.h"
#include "agent/services/disposal_settings.h"
#include "agent/services/record_forms.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

record_reader open_orders() {
    return record_reader(tree_path(services::disposal_path), services::disposal_orders);
}

/* Whether it is one as the service keeps it, as far as it is read here. */
bool is_order(const json &order) {
    try {
        order.value("done", false);
        order.value("code", 0);
        order.value("msg", "");
        order.value("agent_id", "");
        for (const json &task : order.at("tasks").get_ref<const json::array_t &>()) {
            task.value("task_id", "");
            task.value("alert_id", "");
            for (const json &process : task.at("processes").get_ref<const json::array_t &>()) {
                process.at("pid").get<std::uint64_t>();
                process.at("create_time").get<std::uint64_t>();
                for (const char *const text : {"fate", "reason", "md5", "path"}) {
                    process.value(text, "");
                }
            }
        }
    } catch (const json::exception &) {
        return false;
    }
    return true;
}

/* The order with its number and its time. */
json order_json(const kept_record &record) {
    std::string problem = "it is no order";
    std::optional<json> order = parse_json(record.data, problem);
    if (!order || !is_order(*order)) {
        throw failure(exit_failed,
                      "disposal order " + std::to_string(record.id) + " can't be read: " + problem);
    }
    (*order)["id"] = record.id;
    (*order)["received_us"] = record.time_us;
    return *order;
}

/* "2 ended, 1 gone" */
std::string fates_text(const json &order) {
    std::map<std::string, int> counts;
    for (const json &task : order["tasks"]) {
        for (const json &process : task["processes"]) {
            ++counts[process.value("fate", "unknown")];
        }
    }
    std::string text;
    for (const auto &[fate, count] : counts) {
        text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + printable(fate);
    }
    return text.empty() ? "no process" : text;
}

/* What was answered; an order that is not done was begun by a service that ended meanwhile, or is
 * in hand now. */
std::string answer_text(const json &order) {
    return order.value("done", false) ? "code " + std::to_string(order.value("code", 0)) + ", " +
                                            printable(order.value("msg", ""))
                                      : std::string("begun, and no end is known");
}

look look_of_fate(const std::string &fate) {
    return fate == "ended" ? look::good : fate == "reported" ? look::accent : look::warning;
}

/* ---- list, show ---- */

std::vector<table::cell> order_row(const kept_record &record) {
    const json order = order_json(record);
    return {{std::to_string(record.id), look::strong},
            {human_time(record.time_us), look::faint},
            {std::to_string(order["tasks"].size())},
            {fates_text(order)},
            {answer_text(order)}};
}

exit_status list(const list_range &range, const output &out) {
    record_reader orders = open_orders();
    return print_list(read_range(orders, range), "orders",
                      {"ID", "TIME", "TASKS", "PROCESSES", "ANSWER"}, order_row, order_json, out);
}

void print_processes(const json &task, const output &out) {
    table rows;
    rows.add_heads({"PID", "CREATED", "FATE", "REASON", "MD5", "PATH"});
    for (const json &process : task["processes"]) {
        const std::string fate = process.value("fate", "unknown");
        const std::string reason = printable(process.value("reason", ""));
        rows.add({{process["pid"].dump()},
                  {process["create_time"].dump(), look::faint},
                  {printable(fate), look_of_fate(fate)},
                  {reason.empty() ? "-" : reason},
                  {printable(process.value("md5", "")), look::faint},
                  {printable(process.value("path", ""))}});
    }
    rows.print(out, 2);
}

void print_order(const json &order, const output &out) {
    table head;
    head.add({{"Order", look::faint}, {order["id"].dump(), look::strong}});
    head.add({{"Taken", look::faint}, {human_time(order["received_us"])}});
    head.add({{"Agent", look::faint}, {printable(order.value("agent_id", ""))}});
    if (order.contains("kill")) {
        head.add({{"Mode", look::faint}, {order["kill"] == true ? "kill" : "report"}});
    }
    head.add({{"Processes", look::faint}, {fates_text(order)}});
    head.add({{"Answer", look::faint}, {answer_text(order)}});
    head.print(out);
    for (const json &task : order["tasks"]) {
        out.line("");
        out.line("Task " + printable(task.value("task_id", "")) + " of alert " +
                 printable(task.value("alert_id", "")) +
                 (task.contains("failure") ? ": failed" : ""));
        print_processes(task, out);
    }
}

exit_status show(std::int64_t id, const output &out) {
    record_reader orders = open_orders();
    const auto found = must_read(orders.show(id), orders);
    if (found.empty()) {
        throw failure(exit_not_there, "there is no disposal order " + std::to_string(id));
    }
    const json order = order_json(found.front());
    if (out.json()) {
        out.done("", order);
    } else {
        print_order(order, out);
    }
    return exit_done;
}

/* ---- wait, mark, mode ---- */

struct wait_options {
    std::int64_t after = 0;
    std::uint64_t pid = 0;
    std::string fate;
    double timeout = 30;
};

/* Done, and with such a process. */
bool is_wanted(const wait_options &options, const json &order) {
    if (!order.value("done", false)) {
        return false;
    }
    if (options.pid == 0 && options.fate.empty()) {
        return true;
    }
    for (const json &task : order["tasks"]) {
        for (const json &process : task["processes"]) {
            if ((options.pid == 0 || process["pid"] == options.pid) &&
                (options.fate.empty() || process.value("fate", "") == options.fate)) {
                return true;
            }
        }
    }
    return false;
}

exit_status wait(const wait_options &options, const output &out) {
    record_reader orders = open_orders();
    const auto found = find_in_time(options.timeout, [&] {
        std::int64_t after = options.after; /* each time, for an order in hand gets done */
        return first_wanted(orders, after, 0, [&](const kept_record &record) {
            return is_wanted(options, order_json(record));
        });
    });
    if (!found) {
        throw failure(exit_timed_out, "no such disposal order came in time");
    }
    out.done(std::to_string(found->id), order_json(*found));
    return exit_done;
}

std::int64_t newest_id() {
    record_reader orders = open_orders();
    return must_read(orders.newest_id(), orders);
}

exit_status mode(const std::string &wanted, const output &out) {
    std::string problem;
    if (!wanted.empty() && !services::set_disposal_kills(wanted == "kill", problem)) {
        throw failure(exit_failed, problem);
    }
    const std::optional<bool> kill = services::disposal_kills(problem);
    if (!kill) {
        throw failure(exit_failed, problem);
    }
    out.done(*kill ? "Processes are ended" : "Processes are only reported", {{"kill", *kill}});
    return exit_done;
}

/* ---- the command line ---- */

void add_list(CLI::App &to, command_line &line) {
    auto range = std::make_shared<list_range>();
    CLI::App *command =
        add_command(to, "list", "Lists the orders, oldest first", "kzectl disposal list --limit 5");
    add_after(command, range->after, "orders");
    add_limit(command, range->limit);
    on_chosen(command, line, [&line, range] { return list(*range, line.out); });
}

void add_show(CLI::App &to, command_line &line) {
    auto id = std::make_shared<std::int64_t>(0);
    CLI::App *command =
        add_command(to, "show", "Shows an order, its tasks and what became of each process",
                    "kzectl disposal show 3");
    command->add_option("ID", *id, "The order's number")->required();
    on_chosen(command, line, [&line, id] { return show(*id, line.out); });
}

void add_wait(CLI::App &to, command_line &line) {
    auto options = std::make_shared<wait_options>();
    CLI::App *command = add_command(
        to, "wait", "Waits for an order that is done and prints its number",
        "last=$(kzectl disposal mark) && kzectl engine credible --scene web --pid 4711 && "
        "kzectl disposal wait --after $last --pid 4711 --fate ended --timeout 10");
    add_after(command, options->after, "orders");
    command->add_option("--pid", options->pid, "Only an order with this process");
    command
        ->add_option("--fate", options->fate,
                     "Only one in which a process, or that one, met this fate: ended, reported, "
                     "gone, another, refused, invalid or failed")
        ->check(
            CLI::IsMember({"ended", "reported", "gone", "another", "refused", "invalid", "failed"})
                .description(""));
    add_seconds(command, "--timeout", options->timeout, "How long to wait");
    on_chosen(command, line, [&line, options] { return wait(*options, line.out); });
}

void add_mode(CLI::App &to, command_line &line) {
    auto wanted = std::make_shared<std::string>();
    CLI::App *command = add_command(
        to, "mode", "Tells or changes what is done with processes, from the next order on",
        "kzectl disposal mode kill");
    command->add_option("MODE", *wanted, "kill: they are ended; report: they are only reported")
        ->check(CLI::IsMember({"kill", "report"}).description(""));
    on_chosen(command, line, [&line, wanted] { return mode(*wanted, line.out); });
}

}  // namespace

void add_disposal_commands(CLI::App &app, command_line &line) {
    CLI::App *group = add_command(
        app, "disposal", "Shows the orders that the disposal service got, and what became of them",
        "kzectl disposal list");
    group->require_subcommand(1);
    add_list(*group, line);
    add_show(*group, line);
    add_wait(*group, line);
    add_mark(*group, line, "order", newest_id);
    add_mode(*group, line);
}

}  // namespace kze::ctl
