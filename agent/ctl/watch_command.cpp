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

/* Follows both. One thread at a time. */
class watcher {
  public:
    watcher(const output &out, bool from_now)
        : out_(out),
          log_(log_path("worker"), from_now ? file_size(log_path("worker")) : 0),
          journal_(tree_path(GATEWAY_JOURNAL_PATH)) {
        if (from_now) {
            skip_records();
        }
    }

    void look() {
        while (const auto line = log_.next()) {
            print(*line);
        }
        const auto found = new_records();
        for (const journal_entry &entry : found) {
            last_ = entry.id;
            print(entry);
        }
    }

  private:
    bool has_journal() const { return file_size(tree_path(GATEWAY_JOURNAL_PATH)) != 0; }

    void skip_records() {
        if (has_journal()) {
            if (const auto newest = journal_.newest(0, 1); newest && !newest->empty()) {
                last_ = newest->back().id;
            }
        }
    }

    std::vector<journal_entry> new_records() {
        if (!has_journal()) {
            return {};
        }
        auto found = journal_.list(last_, 0, batch);
        if (!found) {
            throw failure(exit_failed, journal_.problem());
        }
        return std::move(*found);
    }

    void print(const log_line &line) const {
        const auto record = parse_log_line(line.text);
        if (out_.json()) {
            out_.json_line({{"from", "plug-in"}, {"line", line.text}});
            return;
        }
        if (!record) {
            out_.line(printable(line.text));
            return;
        }
        /* The time of day, without the date and the microseconds. */
        const std::string time = record->time.size() >= 23 ? record->time.substr(11, 12) : "";
        print(time, look::accent, "plug-in", look_of_level(record->level), printable(record->text));
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
    log_reader log_;
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
