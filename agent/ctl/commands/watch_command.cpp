/* kzectl watch: the plug-in's log and the gateway's records as one picture. */

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "agent/common/tree.h"
#include "agent/ctl/commands/command_line.h"
#include "agent/ctl/core/deadline.h"
#include "agent/ctl/core/entries.h"
#include "agent/ctl/core/log_files.h"
#include "agent/ctl/core/processes.h"
#include "agent/ctl/views/records.h"
#include "agent/gateway/gateway.h"
#include "agent/gateway/journal.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

constexpr int look_period_ms = 100;
constexpr int looks_between_host_checks = 10;

/* One of the followed logs. */
struct source {
    source(const char *shown, const char *log, bool from_now)
        : name(shown), reader(log_path(log), from_now ? file_size(log_path(log)) : 0) {}

    const char *name;
    log_reader reader;
};

/* What one look finds, in the order of time. */
struct event {
    std::string time; /* local, as the logs write it: 2024-05-01 12:34:56.123456 */
    std::string from;
    look from_look = look::plain;
    std::string text;
    look text_look = look::plain;
    json value;
};

event log_event(const source &from, const log_line &line, const std::string &time_before) {
    event found;
    found.from = from.name;
    found.from_look = look::accent;
    found.value = {{"from", from.name}, {"line", line.text}};
    if (const auto record = parse_log_line(line.text)) {
        found.time = record->time;
        found.text = printable(record->text);
        found.text_look = look_of_level(record->level);
    } else {
        found.time = time_before;
        found.text = printable(line.text);
    }
    return found;
}

event record_event(const kept_record &entry) {
    const auto row = record_row(entry);
    event found;
    found.time = log_time(entry.time_us);
    found.from = "gateway";
    found.from_look = look::good;
    found.text =
        "record " + row[0].text + ": " + row[2].text + ", " + row[3].text + ", " + row[4].text;
    found.text_look = look::strong;
    found.value = record_json(entry);
    found.value["from"] = "gateway";
    return found;
}

void print(const event &found, const output &out) {
    if (out.json()) {
        out.json_line(found.value);
        return;
    }
    /* The time of day in milliseconds. */
    const std::string time = found.time.size() >= 23 ? found.time.substr(11, 12) : found.time;
    const std::string from =
        found.from + std::string(7 - std::min<std::size_t>(7, found.from.size()), ' ');
    out.line(out.paint(look::faint, time) + "  " + out.paint(found.from_look, from) + "  " +
             out.paint(found.text_look, found.text));
}

/* Follows the worker's log, the host's, in which the engine's callbacks log, and the journal. One
 * thread at a time. */
class watcher {
  public:
    explicit watcher(bool from_now)
        : worker_("plug-in", "worker", from_now),
          host_("host", "host", from_now),
          journal_(tree_path(GATEWAY_JOURNAL_PATH), gateway::journal_form),
          last_(from_now ? journal_.newest_id().value_or(0) : 0) {}

    void look_and_print(const output &out) {
        std::vector<event> found;
        read_log(worker_, found);
        read_log(host_, found);
        read_journal(found);
        std::stable_sort(found.begin(), found.end(),
                         [](const event &a, const event &b) { return a.time < b.time; });
        for (const event &each : found) {
            print(each, out);
        }
    }

  private:
    static void read_log(source &from, std::vector<event> &into) {
        std::string time;
        while (const auto line = from.reader.next()) {
            into.push_back(log_event(from, *line, time));
            time = into.back().time;
        }
    }

    void read_journal(std::vector<event> &into) {
        for (const kept_record &entry : must_read(journal_.next(last_, entry_batch), journal_)) {
            into.push_back(record_event(with_content(journal_, entry)));
        }
    }

    source worker_;
    source host_;
    record_reader journal_;
    std::int64_t last_;
};

pid_t host_process() {
    const std::vector<tree_process> hosts = tree_processes("bin/kze_agent");
    return hosts.empty() ? 0 : hosts.front().pid;
}

/* Its children run the same program until they have become another. */
bool is_running(pid_t host) {
    const std::vector<tree_process> hosts = tree_processes("bin/kze_agent");
    return std::any_of(hosts.begin(), hosts.end(),
                       [host](const tree_process &each) { return each.pid == host; });
}

exit_status watch(bool from_now, const output &out) {
    const pid_t host = host_process();
    watcher eyes(from_now);
    for (int looks = 0;; ++looks) {
        eyes.look_and_print(out);
        if (looks % looks_between_host_checks == 0 && (host == 0 || !is_running(host))) {
            eyes.look_and_print(out);
            throw failure(exit_not_running, host == 0 ? "the host isn't running; start it with "
                                                        "\"kzectl up\""
                                                      : "the host has ended");
        }
        deadline(1).pause_ms(look_period_ms);
    }
}

}  // namespace

void add_watch_command(CLI::App &app, command_line &line) {
    auto from_now = std::make_shared<bool>(false);
    CLI::App *command =
        add_command(app, "watch", "Shows the plug-in's log and the gateway's records as they come",
                    "kzectl watch", "Until Ctrl-C, or the host's end (exit status 3).");
    command->add_flag("--from-now", *from_now, "Leave out what happened before");
    on_chosen(command, line, [&line, from_now] { return watch(*from_now, line.out); });
}

}  // namespace kze::ctl
