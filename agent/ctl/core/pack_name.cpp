#include "agent/ctl/core/pack_name.h"

#include <fnmatch.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>

namespace kze {
namespace {

/* What stands between two positions, with all that the conversion does to it: no digits give 0,
 * more than the type holds is cut. */
int number_between(const std::string &name, std::size_t from, std::size_t to) {
    return static_cast<int>(std::strtoul(name.substr(from, to - from).c_str(), nullptr, 10));
}

/* The version between the characters at `before` and `end`, with a dot in its middle. */
ioc_version version_between(const std::string &name, std::size_t before, std::size_t dot,
                            std::size_t end) {
    return {number_between(name, before + 1, dot), number_between(name, dot + 1, end)};
}

std::optional<ioc_version> full_version(const std::string &name) {
    /* Any of the letters, not the word. */
    const std::size_t letter = name.find_first_of("ful");
    const std::size_t before = letter == std::string::npos ? letter : name.find('_', letter);
    const std::size_t dot = before == std::string::npos ? before : name.find('.', before);
    const std::size_t end = dot == std::string::npos ? dot : name.find('.', dot + 1);
    if (end == std::string::npos) {
        return std::nullopt;
    }
    return version_between(name, before, dot, end);
}

std::optional<ioc_version> incremental_version(const std::string &name) {
    const std::size_t before = name.find('-');
    const std::size_t dot = before == std::string::npos ? before : name.find('.', before);
    const std::size_t end = dot == std::string::npos ? dot : name.find(']', dot + 1);
    if (end == std::string::npos) {
        return std::nullopt;
    }
    return version_between(name, before, dot, end);
}

bool matches(const char *pattern, const std::string &name) {
    return fnmatch(pattern, name.c_str(), FNM_PATHNAME | FNM_PERIOD) == 0;
}

pack_place place_of(const std::string &name) {
    if (matches("ioc_*.tgz", name)) {
        return pack_place::ioc;
    }
    if (name == ioa_pack_name) {
        return pack_place::ioa_arrival;
    }
    if (name == md_pack_name) {
        return pack_place::md_arrival;
    }
    if (matches("ioa_linux_bk_*.tgz", name)) {
        return pack_place::ioa_backup;
    }
    return matches("md_linux_bk_*.tgz", name) ? pack_place::md_backup : pack_place::none;
}

void warn_of_ioc_name(const pack_name &pack, std::vector<std::string> &warnings) {
    const std::string &name = pack.name;
    if (!pack.full && !pack.incremental) {
        warnings.push_back(
            "it fits neither form of an IOC pack's name and will lie there for good");
    }
    if (pack.full && pack.incremental) {
        warnings.push_back(
            "it fits both forms of an IOC pack's name: it may be deleted and then looked for");
    }
    if (pack.full && name != ioc_full_base_name(version_text(*pack.full)) + ".tgz") {
        warnings.push_back("it counts as a full pack of version " + version_text(*pack.full) +
                           " because of the letter " + name[name.find_first_of("ful")]);
    }
    if (pack.incremental &&
        name.find("-" + version_text(*pack.incremental) + "]") != name.find('-')) {
        warnings.push_back("it counts as an incremental pack of version " +
                           version_text(*pack.incremental));
    }
    for (const auto &version : {pack.full, pack.incremental}) {
        if (version && !(ioc_version() < *version)) {
            warnings.push_back("version " + version_text(*version) +
                               " is not above 0.0: such a pack may be deleted without being used");
        }
    }
}

/* What the plug-in makes of the IOC packs among the names. */
struct ioc_plan {
    std::optional<ioc_version> best;
    std::string best_name;
    std::set<std::string> deleted;
    std::vector<std::pair<ioc_version, std::string>> entries; /* in the order of use */
};

void choose_full(const std::vector<pack_name> &packs, ioc_plan &plan) {
    for (const pack_name &pack : packs) {
        if (pack.place != pack_place::ioc || !pack.full) {
            continue;
        }
        if (!(plan.best.value_or(ioc_version()) < *pack.full)) {
            plan.deleted.insert(pack.name);
            continue;
        }
        if (plan.best) {
            plan.deleted.insert(plan.best_name);
        }
        plan.best = pack.full;
        plan.best_name = pack.name;
    }
    if (plan.best) {
        plan.entries.emplace_back(*plan.best, plan.best_name);
    }
}

ioc_plan plan_of(const std::vector<pack_name> &packs) {
    ioc_plan plan;
    choose_full(packs, plan);
    for (const pack_name &pack : packs) {
        if (pack.place != pack_place::ioc || !pack.incremental) {
            continue;
        }
        if (plan.best.value_or(ioc_version()) < *pack.incremental) {
            plan.entries.emplace_back(*pack.incremental, pack.name);
        } else {
            plan.deleted.insert(pack.name);
        }
    }
    std::stable_sort(plan.entries.begin(), plan.entries.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    return plan;
}

std::string deletion_reason(const pack_name &pack, const ioc_plan &plan) {
    if (pack.full && pack.incremental) {
        return "fits both forms: deleted before its turn";
    }
    return plan.best ? "full " + version_text(*plan.best) + " is there" : "not above 0.0";
}

void judge_ioc(std::vector<pack_judgement> &all, const ioc_plan &plan,
               const std::optional<ioc_version> &engine) {
    std::optional<ioc_version> reached = engine;
    unsigned int order = 0;
    std::map<std::string, pack_judgement *> by_name;
    for (pack_judgement &each : all) {
        by_name[each.pack.name] = &each;
    }
    for (const auto &[version, name] : plan.entries) {
        pack_judgement *found = by_name[name];
        if (found->verdict != pack_verdict::ignored) {
            continue; /* twice in the plan; its first turn counts */
        }
        if (reached && !(*reached < version)) {
            found->verdict = pack_verdict::too_old;
            found->reason = "the engine has " + version_text(*reached) + " by then";
            continue;
        }
        found->verdict = pack_verdict::goes;
        found->order = ++order;
        reached = version;
    }
    for (pack_judgement &each : all) {
        if (each.pack.place == pack_place::ioc && plan.deleted.count(each.pack.name) != 0) {
            each.verdict = pack_verdict::obsolete;
            each.order = 0;
            each.reason = deletion_reason(each.pack, plan);
        } else if (each.pack.place == pack_place::ioc && !each.pack.taken()) {
            each.reason = "fits neither form: stays untouched";
        }
    }
}

/* IOA or MD: of the backups the first one counts, and gives way to an arrival. */
void judge_pair(std::vector<pack_judgement> &all, pack_place arrival, pack_place backup) {
    const bool arrived = std::any_of(
        all.begin(), all.end(), [arrival](const auto &each) { return each.pack.place == arrival; });
    bool is_first = true;
    for (pack_judgement &each : all) {
        if (each.pack.place == arrival) {
            each.verdict = pack_verdict::goes;
            each.reason = "gets a backup's name first";
        }
        if (each.pack.place != backup) {
            continue;
        }
        if (!is_first) {
            each.verdict = pack_verdict::passed_over;
            each.reason = "another backup comes first";
        } else if (arrived) {
            each.verdict = pack_verdict::obsolete;
            each.reason = "a new arrival replaces it";
        } else {
            each.verdict = pack_verdict::goes;
            each.reason = "tried again";
        }
        is_first = false;
    }
}

}  // namespace

std::string version_text(const ioc_version &version) {
    return std::to_string(version.first) + "." + std::to_string(version.second);
}

std::optional<ioc_version> engine_ioc_version(const std::string &text) {
    const std::size_t dot = text.find('.');
    if (dot == std::string::npos) {
        return std::nullopt;
    }
    return ioc_version{static_cast<int>(std::strtol(text.c_str(), nullptr, 10)),
                       static_cast<int>(std::strtol(text.c_str() + dot + 1, nullptr, 10))};
}

pack_name read_pack_name(const std::string &name) {
    pack_name pack;
    pack.name = name;
    pack.place = place_of(name);
    if (pack.place == pack_place::ioc) {
        pack.full = full_version(name);
        pack.incremental = incremental_version(name);
    }
    return pack;
}

std::optional<rule_kind> pack_kind(const pack_name &pack) {
    switch (pack.place) {
        case pack_place::ioc:
            return rule_kind::ioc;
        case pack_place::ioa_arrival:
        case pack_place::ioa_backup:
            return rule_kind::ioa;
        case pack_place::md_arrival:
        case pack_place::md_backup:
            return rule_kind::md;
        case pack_place::none:
            break;
    }
    return std::nullopt;
}

std::string pack_form_text(const pack_name &pack) {
    switch (pack.place) {
        case pack_place::ioc:
            break;
        case pack_place::ioa_arrival:
            return "IOA";
        case pack_place::ioa_backup:
            return "IOA backup";
        case pack_place::md_arrival:
            return "MD";
        case pack_place::md_backup:
            return "MD backup";
        case pack_place::none:
            return "no pack";
    }
    std::string text = pack.full ? "full " + version_text(*pack.full) : std::string();
    if (pack.incremental) {
        text +=
            (text.empty() ? "incremental " : " and incremental ") + version_text(*pack.incremental);
    }
    return text.empty() ? "neither form" : text;
}

std::vector<std::string> pack_name_warnings(const std::string &name) {
    const pack_name pack = read_pack_name(name);
    std::vector<std::string> warnings;
    if (pack.place == pack_place::none) {
        warnings.push_back("nobody takes a file of this name, and it will lie there for good");
    }
    if (pack.place == pack_place::ioc) {
        warn_of_ioc_name(pack, warnings);
    }
    if (pack.place == pack_place::ioa_backup || pack.place == pack_place::md_backup) {
        warnings.push_back(
            "it is the name of a backup, of which the first one found is taken; a "
            "new pack is called " +
            std::string(pack.place == pack_place::ioa_backup ? ioa_pack_name : md_pack_name));
    }
    if (name.find('\'') != std::string::npos && pack.taken()) {
        warnings.push_back("it can't be unpacked because of the single quote");
    }
    return warnings;
}

std::string ioc_full_base_name(const std::string &version) {
    return "ioc_full_" + version;
}

std::string ioc_incremental_base_name(const std::string &from, const std::string &version) {
    return "ioc_inc_[" + from + "-" + version + "]";
}

const char *verdict_text(pack_verdict verdict) {
    switch (verdict) {
        case pack_verdict::ignored:
            return "ignored";
        case pack_verdict::goes:
            return "goes";
        case pack_verdict::too_old:
            return "too old";
        case pack_verdict::obsolete:
            return "obsolete";
        case pack_verdict::passed_over:
            return "passed over";
    }
    return "";
}

std::vector<pack_judgement> judge_packs(const std::vector<std::string> &names,
                                        const std::optional<ioc_version> &engine) {
    std::vector<pack_name> packs;
    std::vector<pack_judgement> all;
    for (const std::string &name : names) {
        packs.push_back(read_pack_name(name));
        all.push_back({packs.back(), pack_verdict::ignored, 0, ""});
    }
    judge_ioc(all, plan_of(packs), engine);
    judge_pair(all, pack_place::ioa_arrival, pack_place::ioa_backup);
    judge_pair(all, pack_place::md_arrival, pack_place::md_backup);
    return all;
}

}  // namespace kze
