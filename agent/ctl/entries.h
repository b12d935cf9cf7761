/* What the commands about kept entries have in common: the gateway's records, what was published on
 * the bus, linkage replies and disposal orders. Each has a number, and a later one a higher. */
#ifndef KZE_AGENT_CTL_ENTRIES_H
#define KZE_AGENT_CTL_ENTRIES_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/ctl/command_line.h"
#include "agent/ctl/deadline.h"

namespace kze::ctl {

/* Between two looks for new entries. */
constexpr int entry_look_period_ms = 100;

/* What a reader gave. Throws failure with the reader's problem where it gave nothing. */
template <typename found, typename reader>
found must_read(std::optional<found> result, const reader &from) {
    if (!result) {
        throw failure(exit_failed, from.problem());
    }
    return std::move(*result);
}

/* ---- list, tail ---- */

/* Which entries are listed: the oldest above `after`, or the newest when it is below 0. */
struct list_range {
    std::int64_t after = -1;
    unsigned int limit = std::numeric_limits<unsigned int>::max();
};

/* The entries in a table with these heads, or as an array of that name; `row_of` and `json_of` give
 * one of them. */
template <typename entry, typename row_function, typename json_function>
exit_status print_list(const std::vector<entry> &entries, const std::string &name,
                       std::initializer_list<const char *> heads, const row_function &row_of,
                       const json_function &json_of, const output &out) {
    if (out.json()) {
        auto all = nlohmann::json::array();
        for (const entry &each : entries) {
            all.push_back(json_of(each));
        }
        out.done("", {{name, all}});
        return exit_done;
    }
    table rows;
    rows.add_heads(heads);
    for (const entry &each : entries) {
        rows.add(row_of(each));
    }
    rows.print(out);
    return exit_done;
}

/* ---- wait ---- */

/* What `find` gives when it finds something, at the latest when the time is up. */
template <typename find_function>
auto find_in_time(double seconds, const find_function &find) {
    const deadline until(seconds);
    for (;;) {
        auto found = find();
        if (found || until.passed()) {
            return found;
        }
        until.pause_ms(entry_look_period_ms);
    }
}

/* The first entry above `after` that is wanted, nothing when there is none yet. `next_above` gives
 * a few above a number at a time. `after` is moved to the last one that was looked at. */
template <typename list_function, typename test>
auto first_wanted(std::int64_t &after, const list_function &next_above, const test &is_wanted)
    -> std::optional<typename decltype(next_above(after))::value_type> {
    for (auto found = next_above(after); !found.empty(); found = next_above(after)) {
        for (auto &each : found) {
            after = each.id;
            if (is_wanted(each)) {
                return std::move(each);
            }
        }
    }
    return std::nullopt;
}

/* ---- the command line; `entries` is their name in the help ---- */

template <typename number>
CLI::Option *add_after(CLI::App *command, number &after, const std::string &entries) {
    /* A negative number in an unsigned one is greater than this. */
    constexpr auto greatest = static_cast<number>(std::numeric_limits<std::int64_t>::max());
    return command->add_option("--after", after, "Only " + entries + " with a number above this")
        ->check(CLI::Range(number{0}, greatest).description(""));
}

/* The same for a command that waits. */
template <typename number>
void add_after_for_wait(CLI::App *command, number &after, const std::string &entries) {
    CLI::Option *option = add_after(command, after, entries)->capture_default_str();
    option->description(option->get_description() + "; 0 takes one that is already there");
}

template <typename number>
void add_limit(CLI::App *command, number &limit) {
    command->add_option("--limit", limit, "At most so many: the newest, or with --after the oldest")
        ->check(CLI::Range(number{1}, std::numeric_limits<number>::max()).description(""));
}

template <typename number>
void add_tail_options(CLI::App *command, number &lines, bool &follow) {
    command->add_option("-n,--lines", lines, "How many")->capture_default_str();
    command->add_flag("-f,--follow", follow, "Go on with what comes, until Ctrl-C");
}

/* Adds "mark" to a group; `newest` gives the newest entry's number, 0 when there is none. */
template <typename newest_function>
void add_mark(CLI::App &group, command_line &line, const std::string &entry,
              const newest_function &newest) {
    CLI::App *command =
        add_command(group, "mark", "Prints the newest " + entry + "'s number, for \"wait --after\"",
                    "kzectl " + group.get_name() + " mark");
    on_chosen(command, line, [&line, newest] {
        const nlohmann::json id = newest();
        line.out.done(id.dump(), {{"id", id}});
        return exit_done;
    });
}

}  // namespace kze::ctl

#endif
