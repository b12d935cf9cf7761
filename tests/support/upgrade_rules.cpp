#include "tests/support/upgrade_rules.h"

#include <algorithm>
#include <cctype>
#include <cstdint>

namespace upgrade_rules {
namespace {

constexpr char ioa_config[] = "linux_kzedbd.cfg";
constexpr char md_config_name[] = "linux_kzemsi.ptn";
constexpr char five_seconds[] = "5000000";
constexpr char one_second[] = "1000000";
constexpr int attempts = 60;

// A decimal number as 64 bits without a sign: too large ones become the largest, a minus sign turns
// the number round, and what is no digit ends it.
uint64_t number(const std::string &text) {
    size_t at = 0;
    while (at < text.size() && isspace(static_cast<unsigned char>(text[at])) != 0) {
        ++at;
    }
    bool minus = false;
    if (at < text.size() && (text[at] == '-' || text[at] == '+')) {
        minus = text[at] == '-';
        ++at;
    }
    unsigned __int128 value = 0;
    bool too_large = false;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        value = value * 10 + static_cast<unsigned>(text[at] - '0');
        too_large = too_large || value > UINT64_MAX;
        value = too_large ? 0 : value;
    }
    if (too_large) {
        return UINT64_MAX;
    }
    const auto plain = static_cast<uint64_t>(value);
    return minus ? 0 - plain : plain;
}

int as_int(uint64_t value) {
    const uint64_t low = value & 0xffffffffU;
    return low < 0x80000000U ? static_cast<int>(low)
                             : static_cast<int>(static_cast<int64_t>(low) - 0x100000000LL);
}

bool starts(const std::string &text, const std::string &with) {
    return text.compare(0, with.size(), with) == 0;
}

bool ends(const std::string &text, const std::string &with) {
    return text.size() >= with.size() &&
           text.compare(text.size() - with.size(), with.size(), with) == 0;
}

// What is left behind the first of these characters; none: nothing is left.
std::optional<std::string> behind(const std::optional<std::string> &text, char mark) {
    if (!text || text->find(mark) == std::string::npos) {
        return std::nullopt;
    }
    return text->substr(text->find(mark) + 1);
}

// Two numbers: up to the next point, and from there up to the mark. Without either, none.
std::optional<version> two_numbers(const std::optional<std::string> &text, char mark) {
    const std::optional<std::string> second = behind(text, '.');
    if (!second || second->find(mark) == std::string::npos) {
        return std::nullopt;
    }
    return version{as_int(number(text->substr(0, text->find('.')))),
                   as_int(number(second->substr(0, second->find(mark))))};
}

std::optional<version> full_version(const std::string &name) {
    for (size_t each = 0; each < name.size(); ++each) {
        if (name[each] == 'f' || name[each] == 'u' || name[each] == 'l') {
            return two_numbers(behind(name.substr(each), '_'), '.');
        }
    }
    return std::nullopt;
}

std::optional<version> incremental_version(const std::string &name) {
    return two_numbers(behind(name, '-'), ']');
}

std::string without_extension(const std::string &name) {
    return name.substr(0, name.rfind('.'));
}

bool for_now(int code) {
    return code == -8 || code == -14;
}

}  // namespace

void relay::tick(bool ioc, bool ioa, bool md) {
    if (ioc) {
        ioc_pass();
    }
    if (ioa) {
        other_pass(true);
    }
    if (md && md_last != -16) {
        other_pass(false);
    }
}

// ---- IOC ----

relay::order relay::sort_ioc(const std::vector<std::string> &names) {
    order result;
    std::string best;
    version highest = {0, 0};
    for (const std::string &each : names) {
        const std::optional<version> found = full_version(each);
        if (!found) {
            continue;
        }
        std::string loser = each;
        if (*found > highest) {
            loser = best;
            best = each;
            highest = *found;
        }
        if (!loser.empty()) {
            result.drop.push_back(loser);
        }
    }
    if (!best.empty()) {
        result.apply.push_back({without_extension(best), highest});
    }
    for (const std::string &each : names) {
        const std::optional<version> found = incremental_version(each);
        if (found && *found > highest) {
            result.apply.push_back({without_extension(each), *found});
        } else if (found) {
            result.drop.push_back(each);
        }
    }
    std::stable_sort(result.apply.begin(), result.apply.end(),
                     [](const pack &one, const pack &other) { return one.at < other.at; });
    return result;
}

void relay::ioc_pass() {
    const order work = sort_ioc(list("ioc_"));
    for (const std::string &each : work.drop) {
        remove(each);
    }
    bool first = true;
    for (const pack &each : work.apply) {
        if (!ioc_pack(each, first)) {
            return;
        }
        first = false;
    }
}

// Whether the pass goes on.
bool relay::ioc_pack(const pack &each, bool first) {
    if (first && !ask_ioc()) {
        return false;
    }
    if (engine >= each.at) {
        remove(each.name + ".tgz");
        return true;
    }
    if (!unpack(each.name + ".tgz")) {
        remove(each.name + ".json");
        return false;
    }
    const std::string result = ioc_update(each);
    if (result == "done" || result == "drop") {
        remove(each.name + ".tgz");
    }
    if (result == "done" && has_flag) {
        calls.push_back("delete " + at.flag);
        has_flag = false;
    }
    return result == "done";
}

std::string relay::ioc_update(const pack &each) {
    const std::string json = each.name + ".json";
    calls.push_back("x_client_engine_update(1, " + path(json) + ")");
    const int code = out.update(1, json);
    if (code != 0) {
        return for_now(code) ? "keep" : "drop";
    }
    bool equal = false;
    for (int turn = 0; turn < attempts && !equal; ++turn) {
        sleep(five_seconds);
        equal = ask_ioc() && engine == each.at;
    }
    remove(json);
    return equal ? "done" : "keep";
}

bool relay::ask_ioc() {
    calls.emplace_back("x_client_engine_query_version_str(1)");
    std::optional<std::string> text;
    if (out.query(1, text) != 0 || !text || text->find('.') == std::string::npos) {
        return false;
    }
    engine = {as_int(number(*text)), as_int(number(*behind(text, '.')))};
    return true;
}

// ---- IOA and MD ----

void relay::other_pass(bool ioa) {
    const std::string start = ioa ? "ioa_linux_bk_" : "md_linux_bk_";
    const std::string arrival = ioa ? "ioa_linux_en.tgz" : "md_linux.tgz";
    const std::vector<std::string> waiting = list(start);
    std::string backup = waiting.empty() ? "" : waiting.front();
    if (files.count(arrival) != 0) {
        if (!backup.empty()) {
            remove(backup);
        }
        backup = start + std::to_string(out.random_number()) + ".tgz";
        calls.push_back("rename " + path(arrival) + " to " + path(backup));
        files[backup] = files[arrival];
        files.erase(arrival);
        md_failures = ioa ? md_failures : 0;
    }
    if (backup.empty() || !unpack(backup)) {
        return;
    }
    if (ioa) {
        update_ioa(backup);
    } else {
        update_md(backup);
    }
}

void relay::update_ioa(const std::string &backup) {
    if (ioa_update() != "keep") {
        remove(backup);
    }
    if (has_target) {
        remove(ioa_config);
        return;
    }
    calls.push_back("move " + path(ioa_config) + " to " + at.program_directory + "/kzedbd.cfg");
    has_target = files.erase(ioa_config) != 0;
}

std::string relay::ioa_update() {
    unsigned long before = 0;
    if (!ask_ioa(before)) {
        return "keep";
    }
    calls.push_back("x_client_engine_update(2, " + path(ioa_config) + ")");
    const int code = out.update(2, ioa_config);
    if (code != 0) {
        return for_now(code) ? "keep" : "drop";
    }
    unsigned long after = 0;
    for (int turn = 0; turn < attempts; ++turn) {
        sleep(five_seconds);
        if (ask_ioa(after) && after > before) {
            return "done";
        }
    }
    return after == before ? "done" : "keep";
}

bool relay::ask_ioa(unsigned long &version_number) {
    calls.emplace_back("x_client_engine_query_version_str(2)");
    std::optional<std::string> text;
    if (out.query(2, text) != 0 || !text) {
        return false;
    }
    version_number = number(*text);
    return true;
}

void relay::update_md(const std::string &backup) {
    md_backup = backup;
    md_config = md_config_name;
    md_last = -16;
    calls.push_back("x_client_engine_update_async(3, " + path(md_config) + ")");
    const int code = out.update_async(
        md_config, [this](int engine_number, int result) { md_ends(engine_number, result); });
    if (code == 0) {
        return;
    }
    md_last = -1;
    if (!for_now(code)) {
        remove(backup);
        remove(md_config);
    }
}

void relay::md_ends(int engine_number, int result) {
    md_last = engine_number == 3 ? result : -5;
    md_failures = md_last == 0 ? 0 : md_failures + 1;
    if (md_last == 0 || md_failures == 10) {
        remove(md_backup);
        md_failures = 0;
    }
    remove(md_config);
}

// ---- files ----

std::vector<std::string> relay::list(const std::string &start) {
    calls.push_back("opendir " + at.rules);
    std::vector<std::string> result;
    for (const std::string &each : out.listing()) {
        if (starts(each, start) && ends(each, ".tgz") && each.size() >= start.size() + 4) {
            result.push_back(each);
        }
    }
    return result;
}

void relay::remove(const std::string &name) {
    if (files.erase(name) != 0) {
        calls.push_back("delete " + path(name));
    }
}

bool relay::unpack(const std::string &name) {
    for (int attempt = 0; attempt < 4; ++attempt) {
        calls.push_back("run tar -zxvf '" + path(name) + "' -C '" + at.rules + "' ");
        const auto found = files.find(name);
        const std::optional<std::string> made =
            out.unpack(found == files.end() ? std::nullopt : std::optional(found->second));
        if (made) {
            files[*made] = "unpacked";
            return true;
        }
        if (attempt > 0) {
            sleep(one_second);
        }
    }
    return false;
}

}  // namespace upgrade_rules
