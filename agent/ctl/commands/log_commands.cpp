/* kzectl log: the agent's log files. */

#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "agent/ctl/commands/command_line.h"
#include "agent/ctl/core/deadline.h"
#include "agent/ctl/core/log_files.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

constexpr int look_period_ms = 50;

json to_json(const log_line &line) {
    json value = {{"line", line.text},
                  {"offset", line.offset},
                  {"next", line.next.offset},
                  {"mark", to_text(line.next)}};
    if (const auto record = parse_log_line(line.text)) {
        value["time"] = record->time;
        value["level"] = record->level;
        value["thread"] = record->thread;
        value["source"] = record->source;
        value["text"] = record->text;
    }
    return value;
}

void print(const log_line &line, const output &out) {
    if (out.json()) {
        out.json_line(to_json(line));
        return;
    }
    const auto record = parse_log_line(line.text);
    if (!record) {
        out.line(printable(line.text));
        return;
    }
    const look with = look_of_level(record->level);
    out.line(out.paint(look::faint, record->time) + " " + out.paint(with, record->level) + " " +
             out.paint(look::faint, record->thread + " " + record->source) + " " +
             out.paint(with, printable(record->text)));
}

struct tail_options {
    std::string which = "worker";
    unsigned int lines = 20;
    bool follow = false;
};

exit_status tail(const tail_options &options, const output &out) {
    const std::string path = log_path(options.which);
    if (!options.follow && file_size(path) == 0) {
        throw failure(exit_not_there, "nothing has been logged to " + path + " yet");
    }
    log_reader reader(path, offset_of_last_lines(path, options.lines));
    for (;;) {
        if (const auto line = reader.next()) {
            print(*line, out);
        } else if (options.follow) {
            deadline(1).pause_ms(look_period_ms);
        } else {
            return exit_done;
        }
    }
}

struct wait_options {
    std::string text;
    std::string which = "worker";
    double timeout = 30;
    std::string after = "0";
};

exit_status wait(const wait_options &options, const output &out) {
    const std::string path = log_path(options.which);
    const deadline until(options.timeout);
    log_reader reader(path, log_mark_of(options.after));
    for (;;) {
        while (const auto line = reader.next()) {
            if (line->text.find(options.text) != std::string::npos) {
                print(*line, out);
                return exit_done;
            }
        }
        if (until.passed()) {
            throw failure(exit_timed_out,
                          "\"" + options.text + "\" did not appear in " + path + " in time");
        }
        until.pause_ms(look_period_ms);
    }
}

exit_status mark(const std::string &which, const output &out) {
    const log_mark end = end_of_log(log_path(which));
    out.done(to_text(end), {{"offset", end.offset}, {"mark", to_text(end)}});
    return exit_done;
}

void add_which(CLI::App *command, std::string &which) {
    command
        ->add_option("WHICH", which,
                     "worker (the plug-in's), upgrade, task, setdriveswitch (its threads'), host, "
                     "engine, gateway, agt_cfgc, agt_lkg, agt_rpdsp, services, output (what the "
                     "host prints), "
                     "or any log under var/log by its name")
        ->capture_default_str();
}

}  // namespace

void add_log_commands(CLI::App &app, command_line &line) {
    CLI::App *log = add_command(app, "log", "Reads the agent's logs", "kzectl log tail -f worker");
    log->require_subcommand(1);

    auto tailing = std::make_shared<tail_options>();
    CLI::App *tail_command =
        add_command(*log, "tail", "Shows the end of a log", "kzectl log tail -f -n 50 engine");
    add_which(tail_command, tailing->which);
    tail_command->add_flag("-f,--follow", tailing->follow,
                           "Go on with what is written, until Ctrl-C");
    tail_command->add_option("-n,--lines", tailing->lines, "How many lines")->capture_default_str();
    on_chosen(tail_command, line, [&line, tailing] { return tail(*tailing, line.out); });

    auto waiting = std::make_shared<wait_options>();
    CLI::App *wait_command = add_command(
        *log, "wait", "Waits for a line that contains a text, and prints it",
        "from=$(kzectl log mark) && kzectl engine die && kzectl log wait 'qd-agent is offline' "
        "--after $from --timeout 10");
    wait_command->add_option("TEXT", waiting->text, "What the line contains")->required();
    add_which(wait_command, waiting->which);
    add_seconds(wait_command, "--timeout", waiting->timeout, "How long to wait");
    wait_command
        ->add_option("--after", waiting->after,
                     "Look at the lines from this place on, as \"log mark\" prints it, or from an "
                     "offset in the current file")
        ->capture_default_str()
        ->check(log_mark_problem);
    on_chosen(wait_command, line, [&line, waiting] { return wait(*waiting, line.out); });

    auto marked = std::make_shared<std::string>("worker");
    CLI::App *mark_command =
        add_command(*log, "mark", "Prints where a log ends now, for \"log wait --after\"",
                    "kzectl log mark host");
    add_which(mark_command, *marked);
    on_chosen(mark_command, line, [&line, marked] { return mark(*marked, line.out); });
}

}  // namespace kze::ctl
