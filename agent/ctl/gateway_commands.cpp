/* kzectl gateway: what reached the gateway. */

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <string>

#include "agent/common/tree.h"
#include "agent/ctl/command_line.h"
#include "agent/ctl/deadline.h"
#include "agent/ctl/records.h"
#include "agent/gateway/gateway.h"
#include "agent/gateway/journal.h"

namespace kze::ctl {
namespace {

using gateway::journal_entry;
using gateway::journal_reader;
using nlohmann::json;

constexpr int look_period_ms = 100;
constexpr unsigned int batch = 256;

std::string journal_path() {
    return tree_path(GATEWAY_JOURNAL_PATH);
}

[[noreturn]] void fail(const journal_reader &journal) {
    throw failure(journal.absent() ? exit_not_there : exit_failed, journal.problem());
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
    std::int64_t after = -1;
    unsigned int limit = 0;
};

exit_status list(const list_options &options, const output &out) {
    journal_reader journal(journal_path());
    const int type = type_of(options.type);
    const unsigned int limit =
        options.limit == 0 ? std::numeric_limits<unsigned int>::max() : options.limit;
    const auto found =
        options.after < 0 ? journal.newest(type, limit) : journal.list(options.after, type, limit);
    if (!found) {
        fail(journal);
    }
    if (out.json()) {
        json records = json::array();
        for (const journal_entry &entry : *found) {
            records.push_back(record_json(with_content(journal, entry)));
        }
        out.done("", {{"records", records}});
        return exit_done;
    }
    table rows;
    rows.add({{"ID", look::strong},
              {"TIME", look::strong},
              {"TYPE", look::strong},
              {"SIZE", look::strong},
              {"CONTENT", look::strong}});
    for (const journal_entry &entry : *found) {
        rows.add(record_row(with_content(journal, entry)));
    }
    rows.print(out);
    return exit_done;
}

struct show_options {
    std::int64_t id = 0;
    bool raw = false;
    bool content = false;
};

exit_status show(const show_options &options, const output &out) {
    journal_reader journal(journal_path());
    const auto nearest = journal.list(options.id - 1, 0, 1);
    if (!nearest) {
        fail(journal);
    }
    if (nearest->empty() || nearest->front().id != options.id) {
        throw failure(exit_not_there, "there is no record " + std::to_string(options.id));
    }
    const auto record = journal.show(options.id);
    if (!record) {
        fail(journal);
    }
    if (options.raw || options.content) {
        const std::string bytes = options.raw ? record->data : record_content(*record);
        std::fwrite(bytes.data(), 1, bytes.size(), stdout);
        if (std::fflush(stdout) != 0) {
            throw failure(exit_failed, "can't write the record's bytes");
        }
    } else if (out.json()) {
        out.done("", whole_record_json(*record));
    } else {
        print_record(*record, out);
    }
    return exit_done;
}

std::int64_t newest_id(journal_reader &journal) {
    const auto newest = journal.newest(0, 1);
    if (!newest && !journal.absent()) {
        fail(journal);
    }
    return !newest || newest->empty() ? 0 : newest->back().id;
}

/* A row without a table around it: widths that fit what usually comes. */
void print_row(const journal_entry &entry, const output &out) {
    if (out.json()) {
        out.json_line(record_json(entry));
        return;
    }
    const auto row = record_row(entry);
    const auto padded = [&](std::size_t i, std::size_t width) {
        const std::string &text = row[i].text;
        return out.paint(row[i].with, text) +
               std::string(text.size() < width ? width - text.size() : 0, ' ');
    };
    out.line(padded(0, 5) + "  " + padded(1, 12) + "  " + padded(2, 10) + "  " + padded(3, 9) +
             "  " + row[4].text);
}

struct tail_options {
    std::string type;
    unsigned int lines = 10;
    bool follow = false;
};

exit_status tail(const tail_options &options, const output &out) {
    journal_reader journal(journal_path());
    const int type = type_of(options.type);
    std::int64_t after = 0;
    const auto last = journal.newest(type, std::max(1U, options.lines));
    if (!last && !(options.follow && journal.absent())) {
        fail(journal);
    }
    for (const journal_entry &entry : last.value_or(std::vector<journal_entry>())) {
        after = entry.id;
        if (options.lines != 0) {
            print_row(with_content(journal, entry), out);
        }
    }
    if (options.follow &&
        !journal.follow(
            after, type, std::chrono::milliseconds(look_period_ms),
            [&](const journal_entry &entry) { print_row(with_content(journal, entry), out); },
            [] { return true; })) {
        fail(journal);
    }
    return exit_done;
}

struct wait_options {
    std::string type;
    std::int64_t after = 0;
    std::string contains;
    double timeout = 30;
};

bool has_text(journal_reader &journal, const journal_entry &entry, const std::string &text) {
    if (text.empty()) {
        return true;
    }
    const auto record = journal.show(entry.id);
    return record && record_content(*record).find(text) != std::string::npos;
}

exit_status wait(const wait_options &options, const output &out) {
    journal_reader journal(journal_path());
    const int type = type_of(options.type);
    const deadline until(options.timeout);
    std::int64_t after = options.after;
    for (;;) {
        /* A journal that can't be read now may be replaced by the gateway in a moment. */
        const auto found = journal.list(after, type, batch);
        for (const journal_entry &entry : found.value_or(std::vector<journal_entry>())) {
            after = entry.id;
            if (has_text(journal, entry, options.contains)) {
                json value = record_json(with_content(journal, entry));
                out.done(std::to_string(entry.id), value);
                return exit_done;
            }
        }
        if (found && !found->empty()) {
            continue;
        }
        if (until.passed()) {
            throw failure(exit_timed_out, "no such record reached the gateway in time" +
                                              (found ? std::string() : ": " + journal.problem()));
        }
        until.pause_ms(look_period_ms);
    }
}

exit_status mark(const output &out) {
    journal_reader journal(journal_path());
    const std::int64_t id = newest_id(journal);
    out.done(std::to_string(id), {{"id", id}});
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
    command->add_option("--after", options->after, "Only records with a number above this")
        ->check(CLI::Range(std::int64_t{0}, INT64_MAX).description(""));
    command
        ->add_option("--limit", options->limit,
                     "At most so many: the newest, or with --after the oldest")
        ->check(CLI::Range(1U, UINT32_MAX).description(""));
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
    auto options = std::make_shared<tail_options>();
    CLI::App *command =
        add_command(to, "tail", "Shows the newest records, one a line", "kzectl gateway tail -f");
    add_type(command, options->type);
    command->add_option("-n,--lines", options->lines, "How many")->capture_default_str();
    command->add_flag("-f,--follow", options->follow, "Go on with what comes, until Ctrl-C");
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
    command
        ->add_option("--after", options->after,
                     "Only records with a number above this; 0 takes one that is already there")
        ->capture_default_str()
        ->check(CLI::Range(std::int64_t{0}, INT64_MAX).description(""));
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
    CLI::App *mark_command =
        add_command(*group, "mark", "Prints the newest record's number, for \"wait --after\"",
                    "kzectl gateway mark");
    on_chosen(mark_command, line, [&line] { return mark(line.out); });
}

}  // namespace kze::ctl
