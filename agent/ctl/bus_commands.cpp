/* kzectl bus: what was published on the message bus, as its tap keeps it. */

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/common/tree.h"
#include "agent/ctl/command_line.h"
#include "agent/ctl/entries.h"
#include "agent/message_bus/events.h"
#include "agent/message_bus/tap.h"
#include "agent/message_bus/tap_reader.h"

namespace kze::ctl {
namespace {

using bus::publication;
using bus::tap_reader;
using nlohmann::json;

constexpr std::size_t without_limit = std::numeric_limits<std::size_t>::max();
/* Of the data in a row for people. */
constexpr std::size_t shown_at_most = 160;

tap_reader open_tap() {
    return tap_reader(tree_path(bus::tap_path));
}

/* The data whole, as far as the tap has it. */
json publication_json(const publication &each) {
    return {{"id", each.number},
            {"published_us", each.published_us},
            {"event", each.event_id},
            {"name", bus::event_name(each.event_id)},
            {"size", each.size},
            {"cut", each.data.size() < each.size},
            {"text", is_utf8(each.data)},
            {"content", is_utf8(each.data) ? each.data : printable(each.data)}};
}

std::vector<table::cell> publication_row(const publication &each) {
    const std::string shown = each.data.substr(0, shown_at_most);
    return {{std::to_string(each.number)},
            {human_time(each.published_us), look::faint},
            {std::to_string(each.event_id) + " " + bus::event_name(each.event_id), look::accent},
            {human_size(each.size)},
            {printable(shown) + (shown.size() < each.size ? " ..." : "")}};
}

/* ---- which publications ---- */

struct choice {
    std::string event;
    std::string contains;
};

/* Empty for all events. */
std::optional<std::uint32_t> event_of(const choice &chosen) {
    if (chosen.event.empty()) {
        return std::nullopt;
    }
    for (const std::uint32_t id : {bus::event_origin, bus::event_offline}) {
        if (chosen.event == bus::event_name(id) || chosen.event == std::to_string(id)) {
            return id;
        }
    }
    throw failure(exit_usage,
                  "no event \"" + printable(chosen.event) + "\"; give origin or offline");
}

std::vector<publication> chosen_of(std::vector<publication> found, const choice &chosen) {
    const auto event = event_of(chosen);
    found.erase(std::remove_if(found.begin(), found.end(),
                               [&](const publication &each) {
                                   return (event && each.event_id != *event) ||
                                          each.data.find(chosen.contains) == std::string::npos;
                               }),
                found.end());
    return found;
}

void add_event(CLI::App *command, choice &chosen) {
    command->add_option("--event", chosen.event, "Only this event: origin, offline, or its number")
        ->type_name("EVENT");
}

/* ---- list ---- */

struct list_options {
    choice chosen;
    std::uint64_t after = 0;
    std::size_t limit = without_limit;
};

exit_status list(const list_options &options, const output &out) {
    tap_reader tap = open_tap();
    auto found = chosen_of(must_read(tap.list(options.after, without_limit), tap), options.chosen);
    if (found.size() > options.limit) {
        const auto surplus = static_cast<std::ptrdiff_t>(found.size() - options.limit);
        if (options.after == 0) {
            found.erase(found.begin(), found.begin() + surplus);
        } else {
            found.erase(found.end() - surplus, found.end());
        }
    }
    return print_list(found, "publications", {"ID", "TIME", "EVENT", "SIZE", "DATA"},
                      publication_row, publication_json, out);
}

/* ---- tail ---- */

struct tail_options {
    choice chosen;
    std::size_t lines = 10;
    bool follow = false;
};

void print_entry(const publication &each, const output &out) {
    if (out.json()) {
        out.json_line(publication_json(each));
    } else {
        print_row(publication_row(each), out);
    }
}

/* Says where the ring has overtaken its reader. */
void tell_of_gap(std::uint64_t after, const std::vector<publication> &found, const output &out) {
    if (!found.empty() && after != 0 && found.front().number > after + 1 && !out.json()) {
        const std::uint64_t lost = found.front().number - after - 1;
        out.line(out.paint(look::warning, std::to_string(lost) + " publications were overwritten"));
    }
}

/* What is behind `after`, which it moves; from the beginning where the tap was begun anew. */
std::vector<publication> new_publications(tap_reader &tap, std::uint64_t &after) {
    auto found = must_read(tap.list(after, without_limit), tap);
    if (found.empty() && must_read(tap.newest_number(), tap) < after) {
        after = 0;
        found = must_read(tap.list(after, without_limit), tap);
    }
    return found;
}

exit_status tail(const tail_options &options, const output &out) {
    tap_reader tap = open_tap();
    auto last = must_read(tap.newest(without_limit), tap);
    std::uint64_t after = last.empty() ? 0 : last.back().number;
    last = chosen_of(std::move(last), options.chosen);
    for (std::size_t i = last.size() - std::min(last.size(), options.lines); i < last.size(); ++i) {
        print_entry(last[i], out);
    }
    while (options.follow) {
        auto found = new_publications(tap, after);
        tell_of_gap(after, found, out);
        after = found.empty() ? after : found.back().number;
        for (const publication &each : chosen_of(std::move(found), options.chosen)) {
            print_entry(each, out);
        }
        deadline(1).pause_ms(entry_look_period_ms);
    }
    return exit_done;
}

/* ---- wait, mark ---- */

struct wait_options {
    choice chosen;
    std::uint64_t after = 0;
    double timeout = 30;
};

exit_status wait(const wait_options &options, const output &out) {
    tap_reader tap = open_tap();
    const auto found = find_in_time(options.timeout, [&] {
        const auto all =
            chosen_of(must_read(tap.list(options.after, without_limit), tap), options.chosen);
        return all.empty() ? std::nullopt : std::optional(all.front());
    });
    if (!found) {
        throw failure(exit_timed_out, "no such event was published in time");
    }
    out.done(std::to_string(found->number), publication_json(*found));
    return exit_done;
}

std::uint64_t newest_number() {
    tap_reader tap = open_tap();
    return must_read(tap.newest_number(), tap);
}

/* ---- the command line ---- */

void add_list(CLI::App &to, command_line &line) {
    auto options = std::make_shared<list_options>();
    CLI::App *command = add_command(to, "list", "Lists what the tap has, oldest first",
                                    "kzectl bus list --event origin --limit 5");
    add_event(command, options->chosen);
    add_after(command, options->after, "publications");
    add_limit(command, options->limit);
    on_chosen(command, line, [&line, options] { return list(*options, line.out); });
}

void add_tail(CLI::App &to, command_line &line) {
    auto options = std::make_shared<tail_options>();
    CLI::App *command =
        add_command(to, "tail", "Shows the newest publications, one a line", "kzectl bus tail -f");
    add_event(command, options->chosen);
    add_tail_options(command, options->lines, options->follow);
    on_chosen(command, line, [&line, options] { return tail(*options, line.out); });
}

void add_wait(CLI::App &to, command_line &line) {
    auto options = std::make_shared<wait_options>();
    CLI::App *command = add_command(to, "wait", "Waits for a publication and prints its number",
                                    "last=$(kzectl bus mark) && kzectl engine die && "
                                    "kzectl bus wait --event offline --after $last");
    add_event(command, options->chosen);
    add_after_for_wait(command, options->after, "publications");
    command
        ->add_option("--contains", options->chosen.contains,
                     "Only one whose data, as far as it is kept, holds this text")
        ->type_name("STRING");
    add_seconds(command, "--timeout", options->timeout, "How long to wait");
    on_chosen(command, line, [&line, options] { return wait(*options, line.out); });
}

}  // namespace

void add_bus_commands(CLI::App &app, command_line &line) {
    CLI::App *group = add_command(app, "bus", "Shows what was published on the message bus",
                                  "kzectl bus tail -f");
    group->require_subcommand(1);
    add_list(*group, line);
    add_tail(*group, line);
    add_wait(*group, line);
    add_mark(*group, line, "publication", newest_number);
}

}  // namespace kze::ctl
