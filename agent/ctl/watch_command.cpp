/* kzectl watch: the plug-in's log and the gateway's records as one picture. */

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "agent/common/tree.h"
#include "agent/ctl/command_line.h"
#include "agent/ctl/deadline.h"
#include "agent/ctl/log_files.h"
#include "agent/ctl/processes.h"
#include "agent/ctl/records.h"
#include "agent/gateway/gateway.h"
#include "agent/gateway/journal.h"

namespace kze::ctl {
namespace {

using gateway::journal_entry;
using nlohmann::json;

constexpr int look_period_ms = 100;
constexpr int looks_between_host_checks = 10;
constexpr unsigned int batch = 256;

/* One of the followed logs. */
struct source {
    source(const char *shown, const char *log, bool from_now)
        : name(shown), reader(log_path(log), from_now ? file_size(log_path(log)) : 0) {}

    const char *name;
    log_reader reader;
};

/* Follows the worker's log, the host's, in which the engine's callbacks log, and the journal. One
 * thread at a time. */
class watcher {
  public:
    watcher(const output &out, bool from_now)
        : out_(out),
          worker_("plug-in", "worker", from_now),
          host_("host   ", "host", from_now),
          journal_(tree_path(GATEWAY_JOURNAL_PATH)) {
        if (const auto newest = journal_.newest(0, 1); from_now && newest && !newest->empty()) {
            last_ = newest->back().id;
        }
    }

    void look() {
        for (source *from : {&worker_, &host_}) {
            while (const auto line = from->reader.next()) {
                print(from->name, *line);
            }
        }
        const auto found = journal_.list(last_, 0, batch);
        if (!found && !journal_.absent()) {
            throw failure(exit_failed, journal_.problem());
        }
        for (const journal_entry &entry : found.value_or(std::vector<journal_entry>())) {
            last_ = entry.id;
            print(entry);
        }
    }

  private:
    void print(const char *from, const log_line &line) const {
        if (out_.json()) {
            out_.json_line(
                {{"from", from == worker_.name ? "plug-in" : "host"}, {"line", line.text}});
            return;
        }
        const auto record = parse_log_line(line.text);
        if (!record) {
            out_.line(printable(line.text));
            return;
        }
        /* The time of day, without the date and the microseconds. */
        const std::string time = record->time.size() >= 23 ? record->time.substr(11, 12) : "";
        print(time, look::accent, from, look_of_level(record->level), printable(record->text));
    }

    void print(const journal_entry &entry) const {
        if (out_.json()) {
            json value = record_json(entry);
            value["from"] = "gateway";
            out_.json_line(value);
            return;
        }
        const auto row = record_row(entry);
        print(
            human_time(entry.accepted_us), look::good, "gateway", look::strong,
            "record " + row[0].text + ": " + row[2].text + ", " + row[3].text + ", " + row[4].text);
    }

    void print(const std::string &time, enum look from_look, const std::string &from,
               enum look text_look, const std::string &text) const {
        out_.line(out_.paint(look::faint, time) + "  " + out_.paint(from_look, from) + "  " +
                  out_.paint(text_look, text));
    }

    const output &out_;
    source worker_;
    source host_;
    gateway::journal_reader journal_;
    std::int64_t last_ = 0;
};

exit_status watch(bool from_now, const output &out) {
    watcher eyes(out, from_now);
    for (int looks = 0;; ++looks) {
        eyes.look();
        if (looks % looks_between_host_checks == 0 && tree_processes("bin/kze_agent").empty()) {
            eyes.look();
            throw failure(exit_not_running, "the host isn't running");
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
