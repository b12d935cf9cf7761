/* kzectl lkg: the linkage replies that the linkage service keeps. */

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "agent/common/tree.h"
#include "agent/ctl/commands/command_line.h"
#include "agent/ctl/core/entries.h"
#include "agent/services/record_forms.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

record_reader open_replies() {
    return record_reader(tree_path(services::linkage_path), services::linkage_replies);
}

json reply_json(const kept_record &reply) {
    return {{"id", reply.id},
            {"received_us", reply.time_us},
            {"failed", reply.size == 0},
            {"size", reply.size},
            {"beginning", printable(reply.data)}};
}

std::vector<table::cell> reply_row(const kept_record &reply) {
    const bool failed = reply.size == 0;
    const bool cut = static_cast<std::size_t>(reply.size) > reply.data.size();
    return {{std::to_string(reply.id)},
            {human_time(reply.time_us), look::faint},
            {failed ? "failed" : "result", failed ? look::bad : look::good},
            {human_size(static_cast<std::uint64_t>(reply.size))},
            {failed ? "-" : printable(reply.data) + (cut ? " ..." : "")}};
}

/* ---- list, show ---- */

exit_status list(const list_range &range, const output &out) {
    record_reader replies = open_replies();
    return print_list(read_range(replies, range), "replies",
                      {"ID", "TIME", "REPLY", "SIZE", "CONTENT"}, reply_row, reply_json, out);
}

exit_status show(std::int64_t id, bool raw, const output &out) {
    record_reader replies = open_replies();
    const auto found = must_read(replies.show(id), replies);
    if (found.empty()) {
        throw failure(exit_not_there, "there is no linkage reply " + std::to_string(id));
    }
    const kept_record &reply = found.front();
    if (raw) {
        std::fwrite(reply.data.data(), 1, reply.data.size(), stdout);
        if (std::fflush(stdout) != 0) {
            throw failure(exit_failed, "can't write the reply's bytes");
        }
        return exit_done;
    }
    if (out.json()) {
        json value = reply_json(reply);
        value.erase("beginning");
        value["text"] = is_utf8(reply.data);
        value["content"] = is_utf8(reply.data) ? reply.data : printable(reply.data);
        out.done("", value);
        return exit_done;
    }
    table rows;
    rows.add({{"Reply", look::strong}, {std::to_string(reply.id)}});
    rows.add({{"Time", look::strong}, {human_time(reply.time_us)}});
    rows.add({{"Size", look::strong}, {human_size(static_cast<std::uint64_t>(reply.size))}});
    rows.add({{"Content", look::strong},
              {reply.size == 0 ? "none: the analysis failed" : printable(reply.data),
               reply.size == 0 ? look::bad : look::plain}});
    rows.print(out);
    return exit_done;
}

/* ---- tail ---- */

void print_entry(const kept_record &reply, const output &out) {
    if (out.json()) {
        out.json_line(reply_json(reply));
    } else {
        print_row(reply_row(reply), out);
    }
}

exit_status tail(const tail_options &options, const output &out) {
    record_reader replies = open_replies();
    return tail_entries(replies, options, 0,
                        [&](const kept_record &reply) { print_entry(reply, out); });
}

/* ---- wait, mark ---- */

struct wait_options {
    std::int64_t after = 0;
    std::string contains;
    bool failed = false;
    bool result = false;
    double timeout = 30;
};

bool is_wanted(const wait_options &options, record_reader &replies, const kept_record &reply) {
    if ((options.failed && reply.size != 0) || (options.result && reply.size == 0)) {
        return false;
    }
    if (options.contains.empty()) {
        return true;
    }
    const auto whole = must_read(replies.show(reply.id), replies);
    return !whole.empty() && whole.front().data.find(options.contains) != std::string::npos;
}

exit_status wait(const wait_options &options, const output &out) {
    record_reader replies = open_replies();
    std::int64_t after = options.after;
    const auto found = find_in_time(options.timeout, [&] {
        return first_wanted(replies, after, 0, [&](const kept_record &reply) {
            return is_wanted(options, replies, reply);
        });
    });
    if (!found) {
        throw failure(exit_timed_out, "no such linkage reply came in time");
    }
    out.done(std::to_string(found->id), reply_json(*found));
    return exit_done;
}

std::int64_t newest_id() {
    record_reader replies = open_replies();
    return must_read(replies.newest_id(), replies);
}

/* ---- the command line ---- */

void add_list(CLI::App &to, command_line &line) {
    auto range = std::make_shared<list_range>();
    CLI::App *command =
        add_command(to, "list", "Lists the replies, oldest first", "kzectl lkg list --limit 5");
    add_after(command, range->after, "replies");
    add_limit(command, range->limit);
    on_chosen(command, line, [&line, range] { return list(*range, line.out); });
}

void add_show(CLI::App &to, command_line &line) {
    auto id = std::make_shared<std::int64_t>(0);
    auto raw = std::make_shared<bool>(false);
    CLI::App *command = add_command(to, "show", "Shows a reply", "kzectl lkg show 3 --raw");
    command->add_option("ID", *id, "The reply's number")->required();
    command->add_flag("--raw", *raw, "Nothing but the reply's bytes, as they came");
    on_chosen(command, line, [&line, id, raw] { return show(*id, *raw, line.out); });
}

void add_tail(CLI::App &to, command_line &line) {
    auto options = std::make_shared<tail_options>();
    CLI::App *command =
        add_command(to, "tail", "Shows the newest replies, one a line", "kzectl lkg tail -f");
    add_tail_options(command, *options);
    on_chosen(command, line, [&line, options] { return tail(*options, line.out); });
}

void add_wait(CLI::App &to, command_line &line) {
    auto options = std::make_shared<wait_options>();
    CLI::App *command = add_command(to, "wait", "Waits for a reply and prints its number",
                                    "last=$(kzectl lkg mark) && kzectl request lkganal --text x && "
                                    "kzectl lkg wait --after $last --timeout 10");
    add_after_for_wait(command, options->after, "replies");
    command->add_option("--contains", options->contains, "Only a reply that holds this text")
        ->type_name("STRING");
    CLI::Option *failed = command->add_flag("--failed", options->failed,
                                            "Only an empty reply, which tells a failure");
    command->add_flag("--result", options->result, "Only a reply with a result")->excludes(failed);
    add_seconds(command, "--timeout", options->timeout, "How long to wait");
    on_chosen(command, line, [&line, options] { return wait(*options, line.out); });
}

}  // namespace

void add_lkg_commands(CLI::App &app, command_line &line) {
    CLI::App *group = add_command(app, "lkg",
                                  "Shows the linkage replies that the linkage service "
                                  "keeps",
                                  "kzectl lkg tail -f");
    group->require_subcommand(1);
    add_list(*group, line);
    add_show(*group, line);
    add_tail(*group, line);
    add_wait(*group, line);
    add_mark(*group, line, "reply", newest_id);
}

}  // namespace kze::ctl
