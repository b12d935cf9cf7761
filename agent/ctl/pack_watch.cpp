/* kzectl pack watch and wait: what becomes of each pack, from the directory and the logs. */
#include <fnmatch.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <ctime>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "agent/ctl/ask.h"
#include "agent/ctl/deadline.h"
#include "agent/ctl/log_files.h"
#include "agent/ctl/pack_commands.h"
#include "agent/ctl/processes.h"
#include "agent/packs/pack_fate.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

constexpr int look_period_ms = 100;
constexpr int looks_between_host_checks = 10;

struct watch_options {
    bool until_empty = false;
    bool from_now = false;
    std::int64_t after = 0;
    double timeout = 0;
};

struct wait_options {
    std::string pack;
    std::string fate;
    watch_options watch;
};

struct timed_event {
    std::string time; /* local, as the logs write it */
    pack_event event;
};

std::string now_text() {
    struct timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm parts {};
    localtime_r(&now.tv_sec, &parts);
    std::array<char, 64> text{};
    const std::size_t length = strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    std::snprintf(text.data() + length, text.size() - length, ".%06ld", now.tv_nsec / 1000);
    return text.data();
}

/* What speaks against a word for a fate. */
std::string fate_problem(const std::string &text) {
    std::string known;
    for (const fate each : all_fates) {
        if (text == fate_text(each)) {
            return "";
        }
        known += std::string(known.empty() ? "" : ", ") + fate_text(each);
    }
    return "\"" + printable(text) + "\" is no fate; there are " + known;
}

look look_of(fate what) {
    switch (what) {
        case fate::applied:
            return look::good;
        case fate::refused_dropped:
        case fate::unpack_failed:
            return look::bad;
        case fate::obsolete:
        case fate::too_old:
        case fate::replaced:
        case fate::refused_kept:
        case fate::not_confirmed:
        case fate::gone:
            return look::warning;
        case fate::fresh:
        case fate::in_work:
        case fate::renamed:
            return look::accent;
        case fate::waiting:
            break;
    }
    return look::faint;
}

void print(const timed_event &shown, const output &out) {
    const pack_event &event = shown.event;
    if (out.json()) {
        json value = {{"time", shown.time},
                      {"pack", event.pack},
                      {"kind", rule_kind_name(event.kind)},
                      {"fate", fate_text(event.what)},
                      {"reason", event.reason}};
        if (event.engine) {
            value["engine"] = *event.engine;
        }
        if (event.code) {
            value["code"] = *event.code;
        }
        out.json_line(value);
        return;
    }
    constexpr std::size_t fate_width = 19;
    const std::string fate_name = fate_text(event.what);
    const std::string pack = event.pack.empty() ? std::string(rule_kind_name(event.kind)) + " packs"
                                                : printable(event.pack);
    std::string reason = printable(event.reason);
    if (event.what == fate::applied && event.engine) {
        reason += (reason.empty() ? "" : "; ") + std::string("the engine's version now is ") +
                  printable(*event.engine);
    }
    out.line(out.paint(look::faint,
                       shown.time.substr(std::min<std::size_t>(11, shown.time.size()), 12)) +
             "  " + out.paint(look_of(event.what), fate_name) +
             std::string(fate_width - std::min(fate_width, fate_name.size()) + 2, ' ') +
             out.paint(look::strong, pack) + (reason.empty() ? "" : "  " + reason));
}

/* The time of the last record in front of an offset: what comes from the other log must be later.
 */
std::string time_at(const std::string &path, std::int64_t offset) {
    std::string time;
    log_reader reader(path, 0);
    for (auto line = reader.next(); line && line->offset < offset; line = reader.next()) {
        if (const auto record = parse_log_line(line->text)) {
            time = record->time;
        }
    }
    return time;
}

/* Follows the rule directory, the relay's log and the host's. One thread at a time. */
class pack_watcher {
  public:
    explicit pack_watcher(const watch_options &options)
        : pack_watcher(options.from_now ? file_size(log_path("upgrade")) : options.after,
                       options.from_now) {}

    /* What has happened since the last look. */
    std::vector<timed_event> look();
    /* Whether no pack is left that the plug-in would ever take. */
    bool is_empty() const { return packs_there_ == 0; }

  private:
    pack_watcher(std::int64_t after, bool from_now)
        : relay_(log_path("upgrade"), after),
          host_(log_path("host"), 0),
          host_from_(from_now ? now_text() : time_at(log_path("upgrade"), after)) {}

    struct record {
        std::string time;
        std::string text;
        bool is_relays = false;
    };

    void read(log_reader &reader, bool is_relays, std::vector<record> &into) const;
    std::vector<timed_event> logged();
    std::vector<timed_event> arrived(const std::map<std::string, ino_t> &before);
    std::vector<timed_event> vanished(const std::map<std::string, ino_t> &before);
    std::string place_in_order(const std::string &name) const;
    void note(const pack_event &event);
    bool is_for_nobody(const pack_event &event) const;
    void add_version(pack_event &event) const;

    log_reader relay_;
    log_reader host_;
    std::string host_from_;
    pack_log log_;
    std::map<std::string, ino_t> there_;
    std::vector<pack_judgement> judged_; /* what is there */
    std::size_t packs_there_ = 0;
    std::set<std::string> ended_;   /* the log tells their end; they need not be gone yet */
    std::set<std::string> backups_; /* names given by the plug-in, no news */
    bool is_first_look_ = true;
};

void pack_watcher::read(log_reader &reader, bool is_relays, std::vector<record> &into) const {
    while (const auto line = reader.next()) {
        const auto parsed = parse_log_line(line->text);
        if (parsed && (is_relays || parsed->time > host_from_)) {
            into.push_back({parsed->time, parsed->text, is_relays});
        }
    }
}

void pack_watcher::note(const pack_event &event) {
    if (is_end(event.what)) {
        ended_.insert(event.pack);
    }
    if (event.what == fate::renamed) {
        backups_.insert(event.reason);
    }
}

/* "switched off" interests nobody who has no pack of this kind. */
bool pack_watcher::is_for_nobody(const pack_event &event) const {
    return event.pack.empty() &&
           std::none_of(judged_.begin(), judged_.end(), [&event](const pack_judgement &each) {
               return each.pack.taken() && pack_kind(each.pack) == event.kind;
           });
}

/* The relay doesn't ask for the version of MD rules. What is long past can't be asked for. */
void pack_watcher::add_version(pack_event &event) const {
    if (event.what != fate::applied || event.kind != rule_kind::md || is_first_look_) {
        return;
    }
    try {
        const auto status = ask_if_running(engine_endpoint, {{"op", "status"}}, 1);
        const json versions = status ? status->value("versions", json::object()) : json::object();
        if (versions.contains("md")) {
            event.engine = versions.value("md", std::string());
        }
    } catch (const failure &) {
        /* The event stands without it. */
    }
}

std::vector<timed_event> pack_watcher::logged() {
    std::vector<record> records;
    read(relay_, true, records);
    read(host_, false, records);
    std::stable_sort(records.begin(), records.end(),
                     [](const record &a, const record &b) { return a.time < b.time; });
    std::vector<timed_event> events;
    for (const record &each : records) {
        for (pack_event &event :
             each.is_relays ? log_.relay_record(each.text) : log_.host_record(each.text)) {
            if (!is_for_nobody(event)) {
                note(event);
                add_version(event);
                events.push_back({each.time, std::move(event)});
            }
        }
    }
    return events;
}

std::string pack_watcher::place_in_order(const std::string &name) const {
    const auto found =
        std::find_if(judged_.begin(), judged_.end(),
                     [&name](const pack_judgement &each) { return each.pack.name == name; });
    std::string text = pack_form_text(found->pack);
    if (found->order != 0) {
        text += ", number " + std::to_string(found->order) + " in the order";
    }
    if (!found->reason.empty()) {
        text += ", " + found->reason;
    }
    if (found->pack.taken() && log_.period_ms() != 0) {
        text += "; the plug-in looks every " + std::to_string(log_.period_ms() / 1000) + " s";
    }
    return text;
}

timed_event seen_now(const std::string &name, fate what, const std::string &reason) {
    timed_event seen;
    seen.time = now_text();
    seen.event.what = what;
    seen.event.kind = pack_kind(read_pack_name(name)).value_or(rule_kind::ioc);
    seen.event.pack = name;
    seen.event.reason = reason;
    return seen;
}

std::vector<timed_event> pack_watcher::arrived(const std::map<std::string, ino_t> &before) {
    std::vector<timed_event> events;
    for (const auto &[name, inode] : there_) {
        if (read_pack_name(name).place == pack_place::none) {
            continue;
        }
        const auto old = before.find(name);
        if (is_first_look_) {
            events.push_back(seen_now(name, fate::waiting, place_in_order(name)));
        } else if (old != before.end() && old->second != inode && ended_.count(name) == 0) {
            events.push_back(seen_now(name, fate::replaced, "by another file of its name"));
        } else if ((old == before.end() && backups_.count(name) == 0) ||
                   (old != before.end() && old->second != inode)) {
            ended_.erase(name);
            events.push_back(seen_now(name, fate::fresh, place_in_order(name)));
        }
    }
    return events;
}

std::vector<timed_event> pack_watcher::vanished(const std::map<std::string, ino_t> &before) {
    std::vector<timed_event> events;
    for (const auto &[name, inode] : before) {
        if (there_.count(name) == 0 && ended_.erase(name) == 0 &&
            read_pack_name(name).place != pack_place::none) {
            events.push_back(seen_now(name, fate::gone, "the log doesn't tell why"));
        }
    }
    return events;
}

/* The directory comes first: what is gone from it is in the log by then. */
std::vector<timed_event> pack_watcher::look() {
    const std::map<std::string, ino_t> before = std::move(there_);
    there_.clear();
    std::vector<std::string> names;
    for (const directory_entry &entry : rule_directory_entries()) {
        there_[entry.name] = entry.inode;
        names.push_back(entry.name);
    }
    judged_ = judge_packs(names, std::nullopt);
    packs_there_ = static_cast<std::size_t>(
        std::count_if(judged_.begin(), judged_.end(),
                      [](const pack_judgement &each) { return each.pack.taken(); }));
    std::vector<timed_event> from_log = logged();
    std::vector<timed_event> events = arrived(before);
    const std::vector<timed_event> left = vanished(before);
    /* The log's first part is the past, in front of what lies there now. */
    events.insert(is_first_look_ ? events.begin() : events.end(),
                  std::make_move_iterator(from_log.begin()),
                  std::make_move_iterator(from_log.end()));
    events.insert(events.end(), left.begin(), left.end());
    if (is_first_look_) {
        ended_.clear();
        is_first_look_ = false;
    }
    return events;
}

pid_t host_process() {
    const std::vector<tree_process> hosts = tree_processes("bin/kze_agent");
    return hosts.empty() ? 0 : hosts.front().pid;
}

/*
 * Looks until `is_done`, which gets what each look brings, says so. Throws failure when the time is
 * up or the host isn't running any more.
 */
void follow(
    const watch_options &options,
    const std::function<bool(const std::vector<timed_event> &, const pack_watcher &)> &is_done) {
    const deadline until(options.timeout > 0 ? options.timeout : -1);
    const pid_t host = host_process();
    pack_watcher eyes(options);
    for (int looks = 0;; ++looks) {
        if (is_done(eyes.look(), eyes)) {
            return;
        }
        if (looks % looks_between_host_checks == 0 && (host == 0 || host_process() != host)) {
            if (is_done(eyes.look(), eyes)) {
                return;
            }
            throw failure(exit_not_running, host == 0 ? "the host isn't running; start it with "
                                                        "\"kzectl up\""
                                                      : "the host has ended");
        }
        if (until.passed()) {
            throw failure(exit_timed_out, "the time is up");
        }
        until.pause_ms(look_period_ms);
    }
}

exit_status watch(const watch_options &options, const output &out) {
    follow(options, [&](const std::vector<timed_event> &events, const pack_watcher &eyes) {
        for (const timed_event &each : events) {
            print(each, out);
        }
        return options.until_empty && eyes.is_empty();
    });
    return exit_done;
}

/* The name itself, or what fits it as a pattern; an incremental pack's is both. */
bool is_meant(const std::string &name, const std::string &wanted) {
    return name == wanted || fnmatch(wanted.c_str(), name.c_str(), 0) == 0;
}

exit_status wait(const wait_options &options, const output &out) {
    follow(options.watch, [&](const std::vector<timed_event> &events, const pack_watcher &) {
        const auto found =
            std::find_if(events.begin(), events.end(), [&options](const timed_event &each) {
                return options.fate == fate_text(each.event.what) &&
                       is_meant(each.event.pack, options.pack);
            });
        if (found == events.end()) {
            return false;
        }
        print(*found, out);
        return true;
    });
    return exit_done;
}

void add_after(CLI::App *command, std::int64_t &after) {
    command
        ->add_option("--after", after,
                     "Begin behind this offset, as \"log mark upgrade\" prints it")
        ->capture_default_str()
        ->check(CLI::Range(std::int64_t{0}, INT64_MAX).description(""));
}

void add_wait(CLI::App &group, command_line &line) {
    auto options = std::make_shared<wait_options>();
    options->watch.timeout = 30;
    CLI::App *command = add_command(
        group, "wait", "Waits until a pack meets a fate, and prints it as \"pack watch\" does",
        "from=$(kzectl log mark upgrade) && kzectl pack drop md_linux.tgz && "
        "kzectl pack wait 'md_linux_bk_*' applied --after $from --timeout 130");
    command->add_option("PACK", options->pack, "Its name, or a pattern")->required();
    command->add_option("FATE", options->fate, "A word of \"pack watch\", as \"too old\"")
        ->required()
        ->check(fate_problem);
    add_seconds(command, "--timeout", options->watch.timeout, "How long to wait; 0: for ever");
    add_after(command, options->watch.after);
    on_chosen(command, line, [&line, options] { return wait(*options, line.out); });
}

}  // namespace

void add_pack_watch(CLI::App &group, command_line &line) {
    auto options = std::make_shared<watch_options>();
    CLI::App *command = add_command(
        group, "watch", "Shows what becomes of each pack, with the reason, as it happens",
        "kzectl pack watch --until-empty --timeout 300",
        "Begins with what the plug-in's log tells of packs before. Until Ctrl-C, or the host's end "
        "(exit status 3).");
    command->add_flag("--until-empty", options->until_empty,
                      "End, with status 0, when no pack is left that the plug-in would take");
    add_seconds(command, "--timeout", options->timeout,
                "End, with status 4, after so long; 0: never");
    auto *from_now =
        command->add_flag("--from-now", options->from_now, "Leave out what happened before");
    add_after(command, options->after);
    from_now->excludes("--after");
    on_chosen(command, line, [&line, options] { return watch(*options, line.out); });
    add_wait(group, line);
}

}  // namespace kze::ctl
