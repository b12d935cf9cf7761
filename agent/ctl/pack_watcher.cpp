#include "agent/ctl/pack_watcher.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <utility>

#include "agent/ctl/ask.h"
#include "agent/ctl/failure.h"
#include "agent/ctl/pack_commands.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

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

/* The time of the last record in front of a mark: what comes from the other log must be later.
 */
std::string time_at(const std::string &path, log_mark mark) {
    std::string time;
    log_reader reader(path, log_mark{0, mark.file});
    for (auto line = reader.next();
         line && line->offset < mark.offset && (!mark.file.known() || line->next.file == mark.file);
         line = reader.next()) {
        if (const auto record = parse_log_line(line->text)) {
            time = record->time;
        }
    }
    return time;
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

}  // namespace

pack_watcher::pack_watcher(log_mark after)
    : pack_watcher(after, time_at(log_path("upgrade"), after)) {}

pack_watcher::pack_watcher(log_mark after, std::string host_from)
    : relay_(log_path("upgrade"), after),
      host_(log_path("host"), 0),
      host_from_(std::move(host_from)) {}

pack_watcher pack_watcher::from_now() {
    return pack_watcher(end_of_log(log_path("upgrade")), now_text());
}

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
           std::none_of(judged_.begin(), judged_.end(), [&event](const auto &each) {
               const pack_name &pack = each.second.pack;
               return pack.taken() && pack_kind(pack) == event.kind;
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
    const pack_judgement &found = judged_.at(name);
    std::string text = pack_form_text(found.pack);
    if (found.order != 0) {
        text += ", number " + std::to_string(found.order) + " in the order";
    }
    if (!found.reason.empty()) {
        text += ", " + found.reason;
    }
    if (found.pack.taken() && log_.period_ms() != 0) {
        text += "; the plug-in looks every " + std::to_string(log_.period_ms() / 1000) + " s";
    }
    return text;
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
    judged_.clear();
    packs_there_ = 0;
    for (pack_judgement &each : judge_packs(names, std::nullopt)) {
        packs_there_ += each.pack.taken() ? 1 : 0;
        judged_.emplace(each.pack.name, std::move(each));
    }
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

}  // namespace kze::ctl
