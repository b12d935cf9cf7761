#include "agent/ctl/core/pack_fate.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <utility>

namespace kze {
namespace {

constexpr std::int64_t second_us = 1000000;
/* How long the plug-in asks for the version: sixty times, every five seconds. */
constexpr std::int64_t confirmation_us = 300 * second_us;
/* What a pass takes at most between two packs, but for a confirmation: tar's four attempts. */
constexpr std::int64_t pass_us = 10 * second_us;
constexpr std::size_t loads_kept = 256;

constexpr rule_kind all_kinds[] = {rule_kind::ioc, rule_kind::ioa, rule_kind::md};

bool is_kept(const engine_load &load) {
    return !load.code || *load.code == -8 || *load.code == -14;
}

bool is_backup(const pack_name &pack) {
    return pack.place == pack_place::ioa_backup || pack.place == pack_place::md_backup;
}

bool is_arrival(const pack_name &pack) {
    return pack.place == pack_place::ioa_arrival || pack.place == pack_place::md_arrival;
}

std::string arrival_name(rule_kind kind) {
    return kind == rule_kind::ioa ? ioa_pack_name : md_pack_name;
}

std::string pack_of(const engine_load &load) {
    return load.kind == rule_kind::ioc ? load.file.substr(0, load.file.rfind('.')) + ".tgz"
                                       : arrival_name(load.kind);
}

unsigned long number_of(const std::string &version) {
    return std::strtoul(version.c_str(), nullptr, 10);
}

bool is_same(const rule_directory_file &a, const rule_directory_file &b) {
    return a.inode == b.inode && a.modified_us == b.modified_us;
}

std::string load_reason(fate what, const engine_load &load) {
    switch (what) {
        case fate::in_work:
            return load.kind == rule_kind::md ? "handed to the engine, which will call back"
                                              : "the engine has taken it; its version is awaited";
        case fate::refused_kept:
        case fate::refused_dropped:
            if (!load.code) {
                return "the engine gave no answer";
            }
            return *load.code != 0
                       ? "the engine refused with " + std::to_string(*load.code)
                       : "the engine called back with " + std::to_string(load.callback.value_or(0));
        case fate::not_confirmed:
            return "the engine's version didn't get there within five minutes";
        case fate::gone:
            return "the engine's version isn't the pack's";
        default:
            return "";
    }
}

}  // namespace

void pack_follower::tell(fate what, rule_kind kind, const std::string &pack,
                         const std::string &reason) {
    pack_event event;
    event.time_us = now_.time_us;
    event.what = what;
    event.kind = kind;
    event.pack = pack;
    event.reason = reason;
    events_.push_back(std::move(event));
}

void pack_follower::tell_load(fate what, const engine_load &load, std::int64_t time_us) {
    tell(what, load.kind, pack_of(load), load_reason(what, load));
    pack_event &event = events_.back();
    event.time_us = time_us;
    event.engine = what == fate::in_work ? load.before : version_by(load);
    if (load.code.value_or(0) != 0) {
        event.code = load.code;
    }
}

/* ---- the engine's loads ---- */

/* The file that was there at the time of the load, not a later one. */
bool pack_follower::lies_there(const std::string &name, const engine_load &load) const {
    return std::any_of(now_.files.begin(), now_.files.end(), [&](const auto &file) {
        return file.name == name && file.changed_us <= load.time_us;
    });
}

/* The plug-in loads one after the other: what came before the last one of its kind is over. */
bool pack_follower::is_last(const engine_load &load) const {
    return std::none_of(loads_.upper_bound(load.time_us), loads_.end(),
                        [&load](const auto &later) { return later.second.load.kind == load.kind; });
}

/* The engine's version when the plug-in asked for it last. */
std::string pack_follower::version_by(const engine_load &load) const {
    const auto now = now_.versions.find(load.kind);
    const bool is_known = is_last(load) && now != now_.versions.end();
    return !load.after.empty() ? load.after : is_known ? now->second : load.before;
}

/* The plug-in deletes the rule file once it has its answer, then the pack. */
std::optional<fate> pack_follower::end_of_ioc(const engine_load &load) const {
    const std::string pack = pack_of(load);
    const bool asks_on = is_last(load) && lies_there(load.file, load);
    if (lies_there(pack, load)) {
        const bool is_over = !is_last(load) || load.time_us + confirmation_us < now_.time_us;
        return load.code == 0 && !asks_on && is_over ? std::optional(fate::not_confirmed)
                                                     : std::nullopt;
    }
    if (load.code != 0) {
        return fate::refused_dropped;
    }
    const pack_name name = read_pack_name(pack);
    const std::optional<ioc_version> engine = engine_ioc_version(version_by(load));
    const bool is_there = engine && (name.full == engine || name.incremental == engine);
    return asks_on ? std::nullopt : std::optional(is_there ? fate::applied : fate::gone);
}

/* The pack is deleted first if it is, and then the rule file goes in any case. */
std::optional<fate> pack_follower::end_of_ioa(const engine_load &load) const {
    if (is_last(load) && lies_there(load.file, load)) {
        return std::nullopt;
    }
    if (load.code != 0) {
        return fate::refused_dropped;
    }
    const unsigned long before = number_of(load.before);
    const unsigned long after = number_of(version_by(load));
    if (after <= before && is_last(load) && now_.time_us < load.time_us + confirmation_us) {
        return std::nullopt;
    }
    return after < before ? fate::not_confirmed : fate::applied;
}

std::optional<fate> pack_follower::end_of_md(const engine_load &load) const {
    if (is_last(load) && (lies_there(load.file, load) || (load.code == 0 && !load.callback))) {
        return std::nullopt;
    }
    if (load.code != 0) {
        return fate::refused_dropped;
    }
    if (load.callback == 0) {
        return fate::applied;
    }
    const bool stays =
        !is_last(load) || std::any_of(there_.begin(), there_.end(), [](const auto &each) {
            return each.second.judged.pack.place == pack_place::md_backup;
        });
    return stays ? fate::refused_kept : fate::refused_dropped;
}

/* The directory was read before the engine was asked: what came between them is for the next look.
 */
std::optional<fate> pack_follower::end_of(const engine_load &load) const {
    if (is_kept(load)) {
        return fate::refused_kept;
    }
    if (load.time_us >= now_.time_us) {
        return std::nullopt;
    }
    switch (load.kind) {
        case rule_kind::ioc:
            return end_of_ioc(load);
        case rule_kind::ioa:
            return end_of_ioa(load);
        case rule_kind::md:
            return end_of_md(load);
    }
    return std::nullopt;
}

void pack_follower::follow_loads() {
    std::set<std::int64_t> fresh;
    for (const engine_load &load : now_.loads) {
        if (loads_.count(load.time_us) == 0) {
            fresh.insert(load.time_us);
        }
        loads_[load.time_us].load = load;
    }
    for (auto &[time_us, each] : loads_) {
        const bool is_asked_for = time_us > after_us_;
        if (fresh.count(time_us) != 0 && each.load.code == 0 && is_asked_for) {
            tell_load(fate::in_work, each.load, time_us);
        }
        if (!each.end && (each.end = end_of(each.load)) && (is_asked_for || !is_first_look_)) {
            tell_load(*each.end, each.load, is_first_look_ ? time_us : now_.time_us);
        }
    }
    while (loads_.size() > loads_kept) {
        loads_.erase(loads_.begin());
    }
}

/* The last one since the pack lies there. */
const pack_follower::followed_load *pack_follower::load_of(const pack_file &pack) const {
    const auto found = std::find_if(loads_.rbegin(), loads_.rend(), [&pack](const auto &each) {
        const engine_load &load = each.second.load;
        return pack_kind(pack.judged.pack) == load.kind &&
               (load.kind != rule_kind::ioc || pack_of(load) == pack.file.name);
    });
    return found != loads_.rend() && found->first >= pack.file.changed_us ? &found->second
                                                                          : nullptr;
}

bool pack_follower::is_told_by_load(const pack_file &pack) const {
    const followed_load *load = load_of(pack);
    return load != nullptr && (!load->end || *load->end == fate::applied ||
                               *load->end == fate::refused_dropped || *load->end == fate::gone);
}

/* ---- the directory ---- */

pack_follower::pack_files pack_follower::files_now() const {
    std::vector<std::string> names;
    for (const rule_directory_file &file : now_.files) {
        names.push_back(file.name);
    }
    const auto engine = now_.versions.find(rule_kind::ioc);
    const std::vector<pack_judgement> judged = judge_packs(
        names, engine == now_.versions.end() ? std::nullopt : engine_ioc_version(engine->second));
    pack_files files;
    for (std::size_t each = 0; each < judged.size(); ++each) {
        if (judged[each].pack.place != pack_place::none) {
            files[names[each]] = {now_.files[each], judged[each]};
        }
    }
    return files;
}

std::string pack_follower::place_in_order(const pack_judgement &judged) const {
    std::string text = pack_form_text(judged.pack);
    if (judged.order != 0) {
        text += ", number " + std::to_string(judged.order) + " in the order";
    }
    if (!judged.reason.empty()) {
        text += ", " + judged.reason;
    }
    if (judged.pack.taken() && now_.interval_us != 0) {
        text += "; the plug-in looks every " + std::to_string(now_.interval_us / second_us) + " s";
    }
    return text;
}

void pack_follower::appeared(const pack_file &pack, const pack_files &before) {
    const rule_kind kind = *pack_kind(pack.judged.pack);
    const std::string &name = pack.file.name;
    const auto old = before.find(name);
    const auto arrival = before.find(arrival_name(kind));
    const std::string place = place_in_order(pack.judged);
    if (is_first_look_) {
        tell(fate::waiting, kind, name, place);
    } else if (old != before.end() && !is_told_by_load(old->second)) {
        tell(fate::replaced, kind, name, "by another file of its name");
    } else if (!is_backup(pack.judged.pack) || arrival == before.end() ||
               !is_same(arrival->second.file, pack.file)) {
        tell(fate::fresh, kind, name, place);
    }
}

void pack_follower::vanished(const pack_file &pack, const pack_files &before) {
    const rule_kind kind = *pack_kind(pack.judged.pack);
    const std::string &name = pack.file.name;
    const std::string arrival = arrival_name(kind);
    const auto backup = std::find_if(there_.begin(), there_.end(), [&pack](const auto &each) {
        return is_backup(each.second.judged.pack) && is_same(each.second.file, pack.file);
    });
    const bool was_taken_along =
        is_backup(pack.judged.pack) && before.count(arrival) != 0 && there_.count(arrival) == 0;
    if (is_arrival(pack.judged.pack) && (backup != there_.end() || is_told_by_load(pack))) {
        tell(fate::renamed, kind, name,
             backup != there_.end() ? backup->first : "to a backup's name, and taken at once");
    } else if (was_taken_along) {
        tell(fate::replaced, kind, name, "a new arrival takes its place");
    } else if (is_told_by_load(pack)) {
        return;
    } else if (pack.judged.verdict == pack_verdict::too_old) {
        tell(fate::too_old, kind, name, pack.judged.reason);
    } else if (kind == rule_kind::ioc && pack.judged.verdict == pack_verdict::obsolete) {
        tell(fate::obsolete, kind, name, pack.judged.reason);
    } else {
        tell(fate::gone, kind, name, "neither the engine nor the other packs tell why");
    }
}

void pack_follower::compare(const pack_files &before) {
    for (const auto &[name, pack] : there_) {
        const auto old = before.find(name);
        if (old == before.end() || !is_same(old->second.file, pack.file)) {
            left_behind_.erase(name);
            appeared(pack, before);
        }
    }
    for (const auto &[name, pack] : before) {
        if (there_.count(name) == 0) {
            left_behind_.erase(name);
            vanished(pack, before);
        }
    }
}

/* ---- what stays ---- */

void pack_follower::tell_hold_ups() {
    for (const rule_kind kind : all_kinds) {
        const bool has_packs = std::any_of(there_.begin(), there_.end(), [kind](const auto &each) {
            const pack_name &pack = each.second.judged.pack;
            return pack.taken() && pack_kind(pack) == kind;
        });
        std::string reason;
        if (has_packs && !now_.has_engine) {
            reason = "the engine doesn't answer";
        } else if (has_packs && now_.off.count(kind) != 0) {
            reason = std::string(rule_kind_name(kind)) + " is switched off";
        }
        if (reason != hold_ups_[kind] && !reason.empty()) {
            tell(fate::waiting, kind, "", reason);
        }
        hold_ups_[kind] = reason;
    }
}

/* A confirmation of IOC or IOA rules holds up everything, an MD callback MD alone. */
bool pack_follower::is_busy(rule_kind kind) const {
    return std::any_of(loads_.begin(), loads_.end(), [kind](const auto &each) {
        const rule_kind other = each.second.load.kind;
        return !each.second.end && (other != rule_kind::md || kind == rule_kind::md);
    });
}

/* A look has passed over it, as far as that can be known: the interval has, with the engine there,
 * and the last load is some time ago. */
bool pack_follower::is_left_behind(const pack_file &pack) const {
    const rule_kind kind = *pack_kind(pack.judged.pack);
    std::int64_t look_us = std::max(pack.file.changed_us, now_.engine_since_us) + now_.interval_us;
    if (!loads_.empty()) {
        look_us = std::max(look_us, loads_.rbegin()->first);
    }
    return pack.judged.verdict == pack_verdict::goes && pack.judged.order <= 1 && now_.has_engine &&
           now_.off.count(kind) == 0 && now_.interval_us != 0 && look_us + pass_us < now_.time_us &&
           load_of(pack) == nullptr && !is_busy(kind);
}

void pack_follower::tell_left_behind() {
    for (const auto &[name, pack] : there_) {
        if (!is_left_behind(pack) || !left_behind_.insert(name).second) {
            continue;
        }
        const rule_kind kind = *pack_kind(pack.judged.pack);
        const std::string problem = check_(name);
        if (problem.empty()) {
            tell(fate::waiting, kind, name,
                 "its rules never reached the engine, a whole interval long; the log \"upgrade\" "
                 "may tell why");
        } else {
            tell(fate::unpack_failed, kind, name, "tar can't unpack it: " + problem);
        }
    }
}

std::vector<pack_event> pack_follower::look(pack_snapshot now) {
    now_ = std::move(now);
    events_.clear();
    const pack_files before = std::exchange(there_, files_now());
    follow_loads();
    std::vector<pack_event> of_loads = std::exchange(events_, {});
    compare(before);
    /* At first the past comes in front of what lies there now. */
    events_.insert(is_first_look_ ? events_.begin() : events_.end(),
                   std::make_move_iterator(of_loads.begin()),
                   std::make_move_iterator(of_loads.end()));
    tell_hold_ups();
    tell_left_behind();
    is_first_look_ = false;
    return std::move(events_);
}

bool pack_follower::is_empty() const {
    return std::none_of(there_.begin(), there_.end(),
                        [](const auto &each) { return each.second.judged.pack.taken(); });
}

}  // namespace kze
