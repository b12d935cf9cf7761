/* kzectl disposal: the orders that the disposal service got, and what became of each process. */

#include <CLI/CLI.hpp>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agent/common/json_text.h"
#include "agent/common/tree.h"
#include "agent/ctl/command_line.h"
#include "agent/ctl/deadline.h"
#include "agent/services/disposal_settings.h"
#include "agent/services/record_reader.h"

namespace kze::ctl {
namespace {

using nlohmann::json;
using services::kept_record;
using services::record_reader;

constexpr int look_period_ms = 100;
constexpr unsigned int batch = 64;

record_reader open_orders() {
    return record_reader(tree_path(services::disposal_orders.path), services::disposal_orders);
}

template <typename found>
found need(std::optional<found> result, const record_reader &orders) {
    if (!result) {
        throw failure(exit_failed, orders.problem());
    }
    return std::move(*result);
}

/* The order with its number and its time. */
json order_json(const kept_record &record) {
    std::string problem;
    std::optional<json> order = parse_json(record.data, problem);
    if (!order || !order->is_object()) {
        throw failure(exit_failed,
                      "disposal order " + std::to_string(record.id) + " can't be read: " + problem);
    }
    (*order)["id"] = record.id;
    (*order)["received_us"] = record.received_us;
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

struct list_options {
    std::int64_t after = -1;
    unsigned int limit = std::numeric_limits<unsigned int>::max();
};

exit_status list(const list_options &options, const output &out) {
    record_reader orders = open_orders();
    const auto found = need(options.after < 0 ? orders.newest(options.limit)
                                              : orders.list(options.after, options.limit),
                            orders);
    json all = json::array();
    for (const kept_record &record : found) {
        all.push_back(order_json(record));
    }
    if (out.json()) {
        out.done("", {{"orders", all}});
        return exit_done;
    }
    table rows;
    rows.add({{"ID", look::strong},
              {"TIME", look::strong},
              {"TASKS", look::strong},
              {"PROCESSES", look::strong},
              {"ANSWER", look::strong}});
    for (const json &order : all) {
        rows.add({{order["id"].dump(), look::strong},
                  {human_time(order["received_us"]), look::faint},
                  {std::to_string(order["tasks"].size())},
                  {fates_text(order)},
                  {answer_text(order)}});
    }
    rows.print(out);
    return exit_done;
}

void print_processes(const json &task, const output &out) {
    table rows;
    rows.add({{"PID", look::strong},
              {"CREATED", look::strong},
              {"FATE", look::strong},
              {"REASON", look::strong},
              {"MD5", look::strong},
              {"PATH", look::strong}});
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
    const auto found = need(orders.show(id), orders);
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

bool is_wanted(const wait_options &options, const json &order) {
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

/* The first order behind the mark that is done and wanted; one in hand is looked at again. */
std::optional<json> find_wanted(const wait_options &options, record_reader &orders) {
    std::int64_t after = options.after;
    for (;;) {
        const auto found = need(orders.list(after, batch), orders);
        for (const kept_record &record : found) {
            after = record.id;
            json order = order_json(record);
            if (order.value("done", false) && is_wanted(options, order)) {
                return order;
            }
        }
        if (found.empty()) {
            return std::nullopt;
        }
    }
}

exit_status wait(const wait_options &options, const output &out) {
    record_reader orders = open_orders();
    const deadline until(options.timeout);
    for (;;) {
        if (const auto order = find_wanted(options, orders)) {
            out.done((*order)["id"].dump(), *order);
            return exit_done;
        }
        if (until.passed()) {
            throw failure(exit_timed_out, "no such disposal order came in time");
        }
        until.pause_ms(look_period_ms);
    }
}

exit_status mark(const output &out) {
    record_reader orders = open_orders();
    const std::int64_t id = need(orders.newest_id(), orders);
    out.done(std::to_string(id), {{"id", id}});
    return exit_done;
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

void add_after(CLI::App *command, std::int64_t &after) {
    command->add_option("--after", after, "Only orders with a number above this")
        ->check(CLI::Range(std::int64_t{0}, INT64_MAX).description(""));
}

void add_list(CLI::App &to, command_line &line) {
    auto options = std::make_shared<list_options>();
    CLI::App *command =
        add_command(to, "list", "Lists the orders, oldest first", "kzectl disposal list --limit 5");
    add_after(command, options->after);
    command
        ->add_option("--limit", options->limit,
                     "At most so many: the newest, or with --after the oldest")
        ->check(CLI::Range(1U, UINT32_MAX).description(""));
    on_chosen(command, line, [&line, options] { return list(*options, line.out); });
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
    add_after(command, options->after);
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
    CLI::App *mark_command =
        add_command(*group, "mark", "Prints the newest order's number, for \"wait --after\"",
                    "kzectl disposal mark");
    on_chosen(mark_command, line, [&line] { return mark(line.out); });
    add_mode(*group, line);
}

}  // namespace kze::ctl
