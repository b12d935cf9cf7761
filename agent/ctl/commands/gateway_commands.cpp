/* kzectl gateway: what reached the gateway. */

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "agent/common/tree.h"
#include "agent/ctl/commands/command_line.h"
#include "agent/ctl/core/entries.h"
#include "agent/ctl/views/records.h"
#include "agent/gateway/gateway.h"
#include "agent/gateway/journal.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

record_reader open_journal() {
    return record_reader(tree_path(GATEWAY_JOURNAL_PATH), gateway::journal_form);
}

/* Throws failure also where there is no journal yet. */
template <typename found>
found must_read_journal(std::optional<found> result, const record_reader &journal) {
    if (result && journal.absent()) {
        throw failure(exit_not_there, "there is no journal at " + tree_path(GATEWAY_JOURNAL_PATH) +
                                          ": nothing has been handed to the gateway yet");
    }
    return must_read(std::move(result), journal);
}

/* 0 for all types. */
int type_of(const std::string &text) {
    if (text.empty()) {
        return 0;
    }
    if (const int named = gateway::data_type_number(text)) {
        return named;
    }
    const bool digits =
        std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    const int number = digits && text.size() < 3 ? std::stoi(text) : 0;
    if (number >= 1 && number <= 10) {
        return number;
    }
    std::string known;
    for (int type = 1; type <= 10; ++type) {
        const std::string name = gateway::data_type_name(type);
        known += name == "unknown" ? std::string() : " " + name;
    }
    throw failure(exit_usage,
                  "no type \"" + text + "\"; give a number from 1 to 10, or one of" + known);
}

struct list_options {
    std::string type;
    list_range range;
};

exit_status list(const list_options &options, const output &out) {
    record_reader journal = open_journal();
    const auto found = must_read_journal(
        std::optional(read_range(journal, options.range, type_of(options.type))), journal);
    return print_list(
        found, "records", {"ID", "TIME", "TYPE", "SIZE", "CONTENT"},
        [&](const kept_record &entry) { return record_row(with_content(journal, entry)); },
        [&](const kept_record &entry) { return record_json(with_content(journal, entry)); }, out);
}

struct show_options {
    std::int64_t id = 0;
    bool raw = false;
    bool content = false;
};

exit_status show(const show_options &options, const output &out) {
    record_reader journal = open_journal();
    const auto found = must_read_journal(journal.show(options.id), journal);
    if (found.empty()) {
        throw failure(exit_not_there, "there is no record " + std::to_string(options.id));
    }
    const kept_record &record = found.front();
    if (options.raw || options.content) {
        const std::string bytes = options.raw ? record.data : record_content(record);
        std::fwrite(bytes.data(), 1, bytes.size(), stdout);
        if (std::fflush(stdout) != 0) {
            throw failure(exit_failed, "can't write the record's bytes");
        }
    } else if (out.json()) {
        out.done("", whole_record_json(record));
    } else {
        print_record(record, out);
    }
    return exit_done;
}

std::int64_t newest_id() {
    record_reader journal = open_journal();
    return must_read(journal.newest_id(), journal);
}

void print_entry(const kept_record &entry, const output &out) {
    if (out.json()) {
        out.json_line(record_json(entry));
    } else {
        print_row(record_row(entry), out, {5, 12, 10, 9}); /* which fit what usually comes */
    }
}

struct gateway_tail_options {
    std::string type;
    tail_options tail;
};

exit_status tail(const gateway_tail_options &options, const output &out) {
    record_reader journal = open_journal();
    const int type = type_of(options.type);
    if (!options.tail.follow) {
        must_read_journal(journal.newest_id(), journal);
    }
    return tail_entries(journal, options.tail, type, [&](const kept_record &entry) {
        print_entry(with_content(journal, entry), out);
    });
}

struct wait_options {
    std::string type;
    std::int64_t after = 0;
    std::string contains;
    double timeout = 30;
};

bool has_text(record_reader &journal, const kept_record &entry, const std::string &text) {
    if (text.empty()) {
        return true;
    }
    const auto found = journal.show(entry.id);
    return found && !found->empty() &&
           record_content(found->front()).find(text) != std::string::npos;
}

exit_status wait(const wait_options &options, const output &out) {
    record_reader journal = open_journal();
    const int type = type_of(options.type);
    std::int64_t after = options.after;
    std::string trouble;
    const auto found = find_in_time(options.timeout, [&]() -> std::optional<kept_record> {
        /* A journal that can't be read now may be replaced by the gateway in a moment. */
        try {
            trouble.clear();
            must_read_journal(journal.newest_id(), journal);
            return first_wanted(journal, after, type, [&](const kept_record &entry) {
                return has_text(journal, entry, options.contains);
            });
        } catch (const failure &failed) {
            trouble = std::string(": ") + failed.what();
            return std::nullopt;
        }
    });
    if (!found) {
        throw failure(exit_timed_out, "no such record reached the gateway in time" + trouble);
    }
    out.done(std::to_string(found->id), record_json(with_content(journal, *found)));
    return exit_done;
}

void add_type(CLI::App *command, std::string &type) {
    command
        ->add_option(
            "--type", type,
            "Only this type: alarm, linkage, append, hunting, origin, credible, or its number")
        ->type_name("TYPE");
}

void add_list(CLI::App &to, command_line &line) {
    auto options = std::make_shared<list_options>();
    CLI::App *command = add_command(to, "list", "Lists the records, oldest first",
                                    "kzectl gateway list --type origin --limit 5");
    add_type(command, options->type);
    add_after(command, options->range.after, "records");
    add_limit(command, options->range.limit);
    on_chosen(command, line, [&line, options] { return list(*options, line.out); });
}

void add_show(CLI::App &to, command_line &line) {
    auto options = std::make_shared<show_options>();
    CLI::App *command = add_command(to, "show", "Shows a record, its frame decoded and inflated",
                                    "kzectl gateway show 12 --raw | cmp - alarm.bin");
    command->add_option("ID", options->id, "The record's number")->required();
    CLI::Option *raw = command->add_flag("--raw", options->raw,
                                         "Nothing but the record's bytes, as the gateway got them");
    command
        ->add_flag("--content", options->content,
                   "Nothing but what the record carries: the frame's payload, inflated")
        ->excludes(raw);
    on_chosen(command, line, [&line, options] { return show(*options, line.out); });
}

void add_tail(CLI::App &to, command_line &line) {
    auto options = std::make_shared<gateway_tail_options>();
    CLI::App *command =
        add_command(to, "tail", "Shows the newest records, one a line", "kzectl gateway tail -f");
    add_type(command, options->type);
    add_tail_options(command, options->tail);
    on_chosen(command, line, [&line, options] { return tail(*options, line.out); });
}

void add_wait(CLI::App &to, command_line &line) {
    auto options = std::make_shared<wait_options>();
    CLI::App *command =
        add_command(to, "wait", "Waits for a record and prints its number",
                    "last=$(kzectl gateway mark) && kzectl engine push alarm alarm.bin && "
                    "kzectl gateway wait --type alarm --after $last --timeout 10");
    add_type(command, options->type);
    command->get_option("--type")->required();
    add_after_for_wait(command, options->after, "records");
    command
        ->add_option("--contains", options->contains,
                     "Only a record that carries this text, compressed ones included")
        ->type_name("STRING");
    add_seconds(command, "--timeout", options->timeout, "How long to wait");
    on_chosen(command, line, [&line, options] { return wait(*options, line.out); });
}

}  // namespace

void add_gateway_commands(CLI::App &app, command_line &line) {
    CLI::App *group =
        add_command(app, "gateway", "Shows what reached the gateway", "kzectl gateway tail -f");
    group->require_subcommand(1);
    add_list(*group, line);
    add_show(*group, line);
    add_tail(*group, line);
    add_wait(*group, line);
    add_mark(*group, line, "record", newest_id);
}

}  // namespace kze::ctl
