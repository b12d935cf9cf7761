#include "agent/packs/pack_fate.h"

#include <cstdio>
#include <cstdlib>

#include "agent/packs/pack_name.h"

namespace kze {
namespace {

/* What stands behind the prefix, or nothing when the text doesn't begin with it. */
std::optional<std::string> behind(const std::string &text, const std::string &prefix) {
    if (text.compare(0, prefix.size(), prefix) != 0) {
        return std::nullopt;
    }
    return text.substr(prefix.size());
}

/* What stands between the two; nothing unless the text is made of them. */
std::optional<std::string> between(const std::string &text, const std::string &prefix,
                                   const std::string &suffix) {
    std::optional<std::string> rest = behind(text, prefix);
    if (!rest || rest->size() < suffix.size() ||
        rest->compare(rest->size() - suffix.size(), suffix.size(), suffix) != 0) {
        return std::nullopt;
    }
    rest->resize(rest->size() - suffix.size());
    return rest;
}

std::string base_name(const std::string &path) {
    return path.substr(path.rfind('/') + 1); /* npos + 1 is 0 */
}

int number_in(const std::string &text) {
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

bool is_pack(const std::string &name) {
    return read_pack_name(name).place != pack_place::none;
}

}  // namespace

const char *fate_text(fate what) {
    switch (what) {
        case fate::fresh:
            return "new";
        case fate::waiting:
            return "waiting";
        case fate::renamed:
            return "renamed";
        case fate::in_work:
            return "in work";
        case fate::applied:
            return "applied";
        case fate::obsolete:
            return "obsolete";
        case fate::too_old:
            return "too old";
        case fate::replaced:
            return "replaced";
        case fate::unpack_failed:
            return "unpack failed";
        case fate::refused_kept:
            return "refused and kept";
        case fate::refused_dropped:
            return "refused and dropped";
        case fate::not_confirmed:
            return "not confirmed";
        case fate::gone:
            return "gone";
    }
    return "";
}

bool is_end(fate what) {
    switch (what) {
        case fate::renamed:
        case fate::applied:
        case fate::obsolete:
        case fate::too_old:
        case fate::replaced:
        case fate::refused_dropped:
        case fate::gone:
            return true;
        case fate::fresh:
        case fate::waiting:
        case fate::in_work:
        case fate::unpack_failed:
        case fate::refused_kept:
        case fate::not_confirmed:
            break;
    }
    return false;
}

void pack_log::tell(fate what, const std::string &pack, const std::string &reason) {
    pack_event event;
    event.what = what;
    event.kind = kind_;
    event.pack = pack;
    event.reason = reason;
    const std::string &version = kind_ == rule_kind::ioc ? ioc_engine_ : ioa_engine_;
    if (kind_ != rule_kind::md && !version.empty()) {
        event.engine = version;
    }
    if (is_end(what)) {
        settled_.insert(pack);
    }
    events_.push_back(std::move(event));
}

/* -8 and -14 say that the engine can't take it now. */
void pack_log::refused(int code) {
    const bool is_kept = code == -8 || code == -14;
    tell(is_kept ? fate::refused_kept : fate::refused_dropped, pack_,
         "the engine refused with " + std::to_string(code));
    events_.back().code = code;
}

/* The log tells it before the file goes. */
void pack_log::deleted(const std::string &path) {
    const std::string name = base_name(path);
    if (!is_pack(name) || settled_.count(name) != 0) {
        return;
    }
    if (replaces_) {
        replaces_ = false;
        tell(fate::replaced, name, "a new arrival takes its place");
    } else if (kind_ == rule_kind::ioc) {
        tell(fate::obsolete, name,
             "a full pack at or above it is there, or its version is not above 0.0");
    }
}

void pack_log::switches(const std::string &text) {
    int ioc = 0;
    int ioa = 0;
    int md = 0;
    if (std::sscanf(text.c_str(), "start upgrade, ioc switch: %d, ioa switch: %d, md switch: %d",
                    &ioc, &ioa, &md) != 3) {
        return;
    }
    const std::map<rule_kind, bool> now = {
        {rule_kind::ioc, ioc != 0}, {rule_kind::ioa, ioa != 0}, {rule_kind::md, md != 0}};
    for (const auto &[kind, is_on] : now) {
        const auto before = on_.find(kind);
        if (!is_on && (before == on_.end() || before->second)) {
            kind_ = kind;
            tell(fate::waiting, "", std::string(rule_kind_name(kind)) + " is switched off");
        }
    }
    on_ = now;
}

/* What begins a pass, or one capability's part of it. */
bool pack_log::pass_record(const std::string &text) {
    if (const auto rest = behind(text, "start upgrade timer(")) {
        period_ms_ = static_cast<unsigned int>(std::strtoul(rest->c_str(), nullptr, 10));
        return true;
    }
    if (behind(text, "start upgrade, ")) {
        settled_.clear();
        switches(text);
        return true;
    }
    const auto begins = [this](rule_kind kind) {
        kind_ = kind;
        pack_.clear();
        waiting_backup_.clear();
        replaces_ = false;
        return true;
    };
    if (text == "upgrade ioc") {
        return begins(rule_kind::ioc);
    }
    if (text == "upgrade ioa") {
        return begins(rule_kind::ioa);
    }
    if (const auto rest = behind(text, "upgrade md, last result: ")) {
        begins(rule_kind::md);
        const int result = number_in(*rest);
        if (result == -16) {
            tell(fate::waiting, md_pending_, "the engine hasn't called back yet");
        } else if (result != 0 && !md_pending_.empty()) {
            const std::size_t colon = rest->rfind(' ');
            tell(fate::waiting, md_pending_,
                 "the last result was " + std::to_string(result) +
                     ", failures in a row: " + std::to_string(number_in(rest->substr(colon + 1))));
        }
        return true;
    }
    return false;
}

bool pack_log::unpack_record(const std::string &text) {
    if (const auto pack = between(text, "unzip file (", ") successfully!")) {
        pack_ = base_name(*pack);
        tell(fate::in_work, pack_, "unpacked");
        return true;
    }
    if (const auto pack = between(text, "unzip upgrade file ioa tgz file ", " failed")) {
        tell(fate::unpack_failed, base_name(*pack),
             "tar failed four times; tried again at the next look");
        return true;
    }
    if (const auto pack = between(text, "unzip upgrade file ", " failed")) {
        tell(fate::unpack_failed, *pack + ".tgz",
             "tar failed four times; nothing behind it is used before it is gone or mended");
        return true;
    }
    return false;
}

bool pack_log::ioc_record(const std::string &text) {
    int first = 0;
    int second = 0;
    if (std::sscanf(text.c_str(), "query ioc engine result: ev.major:%d, ev.minor:%d", &first,
                    &second) == 2) {
        ioc_engine_ = version_text({first, second});
    } else if (const auto code = behind(text, "query ioc version failed:")) {
        if (pack_.empty()) {
            tell(fate::waiting, "", "the engine doesn't tell its IOC version (" + *code + ")");
        }
    } else if (behind(text, "ioc ver format error,can not find '.'!")) {
        if (pack_.empty()) {
            tell(fate::waiting, "", "what the engine tells as its IOC version holds no point");
        }
    } else if (const auto old = between(text, "ioc file version ", " is too old")) {
        tell(fate::too_old, *old + ".tgz", "the engine has " + ioc_engine_);
    } else if (const auto done = between(text, "ioc file ", " upgrade successful")) {
        tell(fate::applied, *done + ".tgz", "");
    } else if (const auto refusal = behind(text, "upgrade ioc engine failed with error code=")) {
        refused(number_in(*refusal));
    } else if (behind(text, "ioc upgrade reach to max times or query ioc ver failed")) {
        tell(fate::not_confirmed, pack_, "the engine's version isn't the pack's after 60 looks");
    } else if (behind(text, "invoke update interface success")) {
        tell(fate::in_work, pack_, "the engine has taken it; its version is awaited");
    } else {
        return false;
    }
    return true;
}

/* IOA and MD: from the arrival's name to the backup's. */
bool pack_log::arrival_record(const std::string &text) {
    if (const auto found = behind(text, "bk_tgz_name: ")) {
        waiting_backup_ = base_name(*found);
    } else if (behind(text, "has new tgz")) {
        replaces_ = !waiting_backup_.empty();
    } else if (const auto fresh = behind(text, "tgz_rename_name: ")) {
        replaces_ = false;
        pack_ = base_name(*fresh);
    } else if (behind(text, "get new tgz failed")) {
        tell(fate::waiting, kind_ == rule_kind::ioa ? ioa_pack_name : md_pack_name,
             "it can't be renamed");
        pack_.clear();
    } else if (const auto chosen = behind(text, "deal tgz: ")) {
        if (!pack_.empty()) {
            tell(fate::renamed, kind_ == rule_kind::ioa ? ioa_pack_name : md_pack_name, pack_);
        }
        pack_ = base_name(*chosen);
        is_handed_ = false;
    } else {
        return false;
    }
    return true;
}

bool pack_log::ioa_record(const std::string &text) {
    unsigned long before = 0;
    unsigned long now = 0;
    int times = 0;
    if (const auto code = behind(text, "invoke update func failed:")) {
        refused(number_in(*code));
    } else if (behind(text, "invoke update interface success")) {
        tell(fate::in_work, pack_, "the engine has taken it; a higher version is awaited");
        is_handed_ = true;
    } else if (const auto version = behind(text, "ul_ver_be:")) {
        ioa_engine_ = *version;
    } else if (std::sscanf(text.c_str(), "retry get ioa ver %d times, ul_ver_be:%lu, ul_ver_af:%lu",
                           &times, &before, &now) == 3) {
        ioa_engine_ = std::to_string(now);
    } else if (behind(text, "query ioa version failed:") && !is_handed_) {
        tell(fate::waiting, pack_, "the engine doesn't tell its IOA version");
    } else if (text == "ioa upgrade success") {
        tell(fate::applied, pack_, "");
    } else if (behind(text, "ioa upgrade reach to max times, ul_ver_be is equal")) {
        tell(fate::applied, pack_, "the version stayed the same for five minutes");
    } else if (behind(text, "ioa upgrade reach to max times,return")) {
        tell(fate::not_confirmed, pack_, "the version didn't rise within five minutes");
    } else {
        return false;
    }
    return true;
}

bool pack_log::md_record(const std::string &text) {
    if (text == "upgrade md engine") {
        md_pending_ = pack_;
        tell(fate::in_work, pack_, "handed to the engine, which will call back");
    } else if (const auto code = behind(text, "invoke update func failed: ")) {
        md_pending_.clear();
        refused(number_in(*code));
    } else {
        return false;
    }
    return true;
}

std::vector<pack_event> pack_log::relay_record(const std::string &text) {
    events_.clear();
    if (pass_record(text) || unpack_record(text)) {
        return std::move(events_);
    }
    if (const auto path = between(text, "delete file (", ")!")) {
        deleted(*path);
    } else if (const auto rest = behind(text, "delete file (")) {
        const std::string name = base_name(rest->substr(0, rest->rfind(')')));
        if (is_pack(name)) {
            tell(fate::waiting, name, "it can't be deleted");
        }
    } else if (kind_ == rule_kind::ioc) {
        ioc_record(text);
    } else if (!arrival_record(text)) {
        kind_ == rule_kind::ioa ? ioa_record(text) : md_record(text);
    }
    return std::move(events_);
}

/* The engine's client calls back on a thread of its own. */
std::vector<pack_event> pack_log::host_record(const std::string &text) {
    events_.clear();
    const rule_kind relay_kind = kind_;
    kind_ = rule_kind::md;
    const auto path = between(text, "delete file (", ")!");
    if (behind(text, "upgrade md error ")) {
        md_dropped_ = true;
    } else if (path && !md_pending_.empty() && base_name(*path) == md_pending_) {
        tell(md_dropped_ ? fate::refused_dropped : fate::applied, md_pending_,
             md_dropped_ ? "ten failures in a row" : "the engine called back with 0");
        md_dropped_ = false;
        md_pending_.clear();
    } else if (path && base_name(*path) == md_rule_file_name && !md_pending_.empty()) {
        tell(fate::refused_kept, md_pending_, "the engine called back with a failure");
    }
    kind_ = relay_kind;
    return std::move(events_);
}

}  // namespace kze
