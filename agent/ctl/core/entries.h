/* What the commands about kept entries have in common: the gateway's records, what was published on
 * the bus, linkage replies and disposal orders. Each has a number, and a later one a higher. */
#ifndef KZE_AGENT_CTL_CORE_ENTRIES_H
#define KZE_AGENT_CTL_CORE_ENTRIES_H

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/common/record_file.h"
#include "agent/ctl/commands/command_line.h"
#include "agent/ctl/core/deadline.h"

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

/* Records are read so many at a time. */
constexpr unsigned int entry_batch = 256;

/* ---- list ---- */

/* Which entries are listed: the oldest above `after`, or the newest when it is below 0. */
struct list_range {
    std::int64_t after = -1;
    unsigned int limit = std::numeric_limits<unsigned int>::max();
};

inline std::vector<kept_record> read_range(record_reader &from, const list_range &range,
                                           int kind = 0) {
    return must_read(range.after < 0 ? from.newest(range.limit, kind)
                                     : from.list(range.after, range.limit, kind),
                     from);
}

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

/* The first entry above `after` that is wanted, nothing when there is none yet. `after` is moved to
 * the last one that was looked at. */
template <typename test>
std::optional<kept_record> first_wanted(record_reader &from, std::int64_t &after, int kind,
                                        const test &is_wanted) {
    for (;;) {
        auto found = must_read(from.list(after, entry_batch, kind), from);
        if (found.empty()) {
            return std::nullopt;
        }
        for (kept_record &each : found) {
            after = each.id;
            if (is_wanted(each)) {
                return std::move(each);
            }
        }
    }
}

/* ---- tail ---- */

struct tail_options {
    unsigned int lines = 10;
    bool follow = false;
};

/* Where entries went that were dropped before they were read: numbers above `before` and below
 * `next`. */
using gap_function = std::function<void(std::int64_t before, std::int64_t next)>;

/* Prints the newest entries of a kind, all kinds for 0; then, to follow, those that come, for
 * ever. */
template <typename print_function>
exit_status tail_entries(record_reader &from, const tail_options &options, int kind,
                         const print_function &print, const gap_function &tell_of_gap = nullptr) {
    std::int64_t after = must_read(from.newest_id(), from);
    for (const kept_record &each : must_read(from.newest(options.lines, kind), from)) {
        print(each);
        after = std::max(after, each.id);
    }
    while (options.follow) {
        const std::int64_t before = after;
        const auto found = must_read(from.next(after, entry_batch), from);
        if (tell_of_gap && !found.empty()) {
            tell_of_gap(before, found.front().id);
        }
        for (const kept_record &each : found) {
            if (kind == 0 || each.kind == kind) {
                print(each);
            }
        }
        if (found.size() < entry_batch) {
            deadline(1).pause_ms(entry_look_period_ms);
        }
    }
    return exit_done;
}

/* ---- the command line; `entries` is their name in the help ---- */

inline CLI::Option *add_after(CLI::App *command, std::int64_t &after, const std::string &entries) {
    return command->add_option("--after", after, "Only " + entries + " with a number above this")
        ->check(
            CLI::Range(std::int64_t{0}, std::numeric_limits<std::int64_t>::max()).description(""));
}

/* The same for a command that waits. */
inline void add_after_for_wait(CLI::App *command, std::int64_t &after, const std::string &entries) {
    CLI::Option *option = add_after(command, after, entries)->capture_default_str();
    option->description(option->get_description() + "; 0 takes one that is already there");
}

inline void add_limit(CLI::App *command, unsigned int &limit) {
    command->add_option("--limit", limit, "At most so many: the newest, or with --after the oldest")
        ->check(CLI::Range(1U, std::numeric_limits<unsigned int>::max()).description(""));
}

inline void add_tail_options(CLI::App *command, tail_options &options) {
    command->add_option("-n,--lines", options.lines, "How many")->capture_default_str();
    command->add_flag("-f,--follow", options.follow, "Go on with what comes, until Ctrl-C");
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
