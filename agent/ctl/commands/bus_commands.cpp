/* kzectl bus: what was published on the message bus, as its tap keeps it. */

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "agent/common/tree.h"
#include "agent/ctl/commands/command_line.h"
#include "agent/ctl/core/entries.h"
#include "agent/message_bus/events.h"
#include "agent/message_bus/tap.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

/* Of the data in a row for people. */
constexpr std::size_t shown_at_most = 160;

record_reader open_tap() {
    return record_reader(tree_path(bus::tap_path), bus::tap_form);
}

std::string event_name(const kept_record &publication) {
    return bus::event_name(static_cast<std::uint32_t>(publication.kind));
}

/* Whether the tap has only the beginning of the data. */
bool is_cut(const kept_record &publication) {
    return static_cast<std::int64_t>(publication.data.size()) < publication.size;
}

/* The data whole, as far as the tap has it. */
json publication_json(const kept_record &each) {
    return {{"id", each.id},
            {"published_us", each.time_us},
            {"event", each.kind},
            {"name", event_name(each)},
            {"size", each.size},
            {"cut", is_cut(each)},
            {"text", is_utf8(each.data)},
            {"content", is_utf8(each.data) ? each.data : printable(each.data)}};
}

std::vector<table::cell> publication_row(const kept_record &each) {
    const std::string shown = each.data.substr(0, shown_at_most);
    return {
        {std::to_string(each.id)},
        {human_time(each.time_us), look::faint},
        {std::to_string(each.kind) + " " + event_name(each), look::accent},
        {human_size(static_cast<std::uint64_t>(each.size))},
        {printable(shown) + (static_cast<std::int64_t>(shown.size()) < each.size ? " ..." : "")}};
}

/* ---- which publications ---- */

/* 0 for all events. */
int event_of(const std::string &event) {
    if (event.empty()) {
        return 0;
    }
    for (const std::uint32_t id : {bus::event_origin, bus::event_offline}) {
        if (event == bus::event_name(id) || event == std::to_string(id)) {
            return static_cast<int>(id);
        }
    }
    throw failure(exit_usage, "no event \"" + printable(event) + "\"; give origin or offline");
}

void add_event(CLI::App *command, std::string &event) {
    command->add_option("--event", event, "Only this event: origin, offline, or its number")
        ->type_name("EVENT");
}

/* ---- list ---- */

struct list_options {
    std::string event;
    list_range range;
};

exit_status list(const list_options &options, const output &out) {
    record_reader tap = open_tap();
    return print_list(read_range(tap, options.range, event_of(options.event)), "publications",
                      {"ID", "TIME", "EVENT", "SIZE", "DATA"}, publication_row, publication_json,
                      out);
}

/* ---- tail ---- */

struct bus_tail_options {
    std::string event;
    tail_options tail;
};

void print_entry(const kept_record &each, const output &out) {
    if (out.json()) {
        out.json_line(publication_json(each));
    } else {
        print_row(publication_row(each), out);
    }
}

/* Says where the tap has dropped what its reader hadn't read. */
void tell_of_gap(std::int64_t before, std::int64_t next, const output &out) {
    if (before != 0 && next > before + 1 && !out.json()) {
        const std::int64_t lost = next - before - 1;
        out.line(out.paint(look::warning, std::to_string(lost) + " publications were overwritten"));
    }
}

exit_status tail(const bus_tail_options &options, const output &out) {
    record_reader tap = open_tap();
    return tail_entries(
        tap, options.tail, event_of(options.event),
        [&](const kept_record &each) { print_entry(each, out); },
        [&](std::int64_t before, std::int64_t next) { tell_of_gap(before, next, out); });
}

/* ---- wait, mark ---- */

struct wait_options {
    std::string event;
    std::int64_t after = 0;
    std::string contains;
    double timeout = 30;
};

exit_status wait(const wait_options &options, const output &out) {
    record_reader tap = open_tap();
    const int event = event_of(options.event);
    std::int64_t after = options.after;
    const auto found = find_in_time(options.timeout, [&] {
        return first_wanted(tap, after, event, [&](const kept_record &each) {
            return each.data.find(options.contains) != std::string::npos;
        });
    });
    if (!found) {
        throw failure(exit_timed_out, "no such event was published in time");
    }
    out.done(std::to_string(found->id), publication_json(*found));
    return exit_done;
}

std::int64_t newest_id() {
    record_reader tap = open_tap();
    return must_read(tap.newest_id(), tap);
}

/* ---- the command line ---- */

void add_list(CLI::App &to, command_line &line) {
    auto options = std::make_shared<list_options>();
    CLI::App *command = add_command(to, "list", "Lists what the tap has, oldest first",
                                    "kzectl bus list --event origin --limit 5");
    add_event(command, options->event);
    add_after(command, options->range.after, "publications");
    add_limit(command, options->range.limit);
    on_chosen(command, line, [&line, options] { return list(*options, line.out); });
}

void add_tail(CLI::App &to, command_line &line) {
    auto options = std::make_shared<bus_tail_options>();
    CLI::App *command =
        add_command(to, "tail", "Shows the newest publications, one a line", "kzectl bus tail -f");
    add_event(command, options->event);
    add_tail_options(command, options->tail);
    on_chosen(command, line, [&line, options] { return tail(*options, line.out); });
}

void add_wait(CLI::App &to, command_line &line) {
    auto options = std::make_shared<wait_options>();
    CLI::App *command = add_command(to, "wait", "Waits for a publication and prints its number",
                                    "last=$(kzectl bus mark) && kzectl engine die && "
                                    "kzectl bus wait --event offline --after $last");
    add_event(command, options->event);
    add_after_for_wait(command, options->after, "publications");
    command
        ->add_option("--contains", options->contains,
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
    add_mark(*group, line, "publication", newest_id);
}

}  // namespace kze::ctl
