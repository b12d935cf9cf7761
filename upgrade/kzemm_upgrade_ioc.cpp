// IOC packs: which of them still matter, in what order they go to the engine, and which are thrown
// away.

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "engine/qd_calls.h"
#include "kzautil.h"
#include "upgrade/kzemm_upgrade.h"
#include "upgrade/kzemm_upgrade_common.h"
#include "vrdbase.h"

namespace {

// A text without digits is 0; what doesn't fit an int wraps.
int read_number(const char *text) {
    return static_cast<int>(strtoul(text, nullptr, 10));
}

// Reads "<begin>major.minor<end>", where begin stands at or behind `from`. False when one of the
// marks is missing. A number ends before the mark behind it, which is no digit.
bool read_version(ioc_version &version, const char *from, char begin, char end) {
    const char *const major = strchr(from, begin);
    const char *const dot = major != nullptr ? strchr(major, '.') : nullptr;
    if (dot == nullptr || strchr(dot + 1, end) == nullptr) {
        return false;
    }
    version.major = read_number(major + 1);
    version.minor = read_number(dot + 1);
    return true;
}

// Any of the letters of "full" makes a name a candidate, not the word.
bool read_full_version(ioc_version &version, const char *name) {
    const char *const letter = strpbrk(name, "ful");
    return letter != nullptr && read_version(version, letter, '_', '.');
}

bool read_incremental_version(ioc_version &version, const char *name) {
    return read_version(version, name, '-', ']');
}

std::string_view without_extension(const std::string &name) {
    return std::string_view(name).substr(0, name.rfind('.'));
}

void delete_all(const std::vector<std::string> &names, const char *directory) {
    upgrade_path path = {};
    for (const std::string &name : names) {
        join_path(path, directory, name.c_str());
        delete_if_present(path);
    }
}

}  // namespace

int CUpgradeRelay::compare_ioc_version(const ioc_st *new_version, const ioc_st *old_version,
                                       int &result) {
    if (new_version == nullptr || old_version == nullptr) {
        kze_log(1, "param error");
        return -1;
    }
    const ioc_version older = {old_version->major, old_version->minor};
    const ioc_version newer = {new_version->major, new_version->minor};
    if (older < newer) {
        kze_log(2, "ioc old version < new version");
        result = 1;
    } else if (newer < older) {
        kze_log(2, "ioc old version > new version");
        result = -1;
    } else {
        kze_log(2, "ioc old version = new version");
        result = 0;
    }
    return 0;
}

int CUpgradeRelay::query_ioc_engine_ver() {
    qd::buffer_ptr text;
    const int code = qd::query_version(::ENGINE_IOC, text);
    if (code != 0 || text == nullptr) {
        kze_log(1, "query ioc version failed:%d", code);
        return 1;
    }
    const char *const dot = strchr(text.get(), '.');
    if (dot == nullptr) {
        kze_log(1, "ioc ver format error,can not find '.'!");
        return -1;
    }
    ev.major = static_cast<int>(strtol(text.get(), nullptr, 10));
    ev.minor = static_cast<int>(strtol(dot + 1, nullptr, 10));
    kze_log(3, "query ioc engine result: ev.major:%d, ev.minor:%d", ev.major, ev.minor);
    return 0;
}

void CUpgradeRelay::get_max_full_version(const std::vector<std::string> &files, ioc_list &list,
                                         std::vector<std::string> &delete_names) {
    const std::string *best = nullptr;
    ioc_version best_version;
    for (const std::string &name : files) {
        ioc_version version;
        if (!read_full_version(version, name.c_str())) {
            continue;
        }
        if (!(best_version < version)) {
            delete_names.push_back(name);
            continue;
        }
        if (best != nullptr) {
            delete_names.push_back(*best);
        }
        best = &name;
        best_version = version;
    }
    if (best != nullptr) {
        list.append(without_extension(*best), best_version);
    }
}

void CUpgradeRelay::reorder_update(const std::vector<std::string> &files, ioc_list &list,
                                   std::vector<std::string> &delete_names) {
    delete_names.reserve(delete_names.size() + files.size());
    get_max_full_version(files, list, delete_names);
    list.reserve(files.size());
    ioc_version base;
    if (list.size() == 1) {
        const ioc_st full = list[0];
        base = {full.major, full.minor};
    }
    for (const std::string &name : files) {
        ioc_version version;
        if (!read_incremental_version(version, name.c_str())) {
            continue;
        }
        if (base < version) {
            list.append(without_extension(name), version);
        } else {
            delete_names.push_back(name);
        }
    }
    list.sort();
}

int CUpgradeRelay::upgrade_ioc_handle() try {
    upgrade_path rules = {};
    expand_path(rules, rule_directory);
    upgrade_path full_flag = {};
    expand_path(full_flag, "@/../config/ioc_full_tag");
    kze_log(3, "upzipfiledir:%s,iocfullflag:%s", rules, full_flag);

    ioc_list list;
    {
        std::vector<std::string> files;
        std::vector<std::string> delete_names;
        list_files("ioc_*.tgz", files, rules);
        reorder_update(files, list, delete_names);
        delete_all(delete_names, rules);
    }
    for (size_t position = 0; position < list.size(); ++position) {
        if (position == 0) {
            const int result = query_ioc_engine_ver();
            if (result != 0) {
                return result;
            }
        }
        const ioc_st entry = list[position];
        const int result = upgrade_ioc_pack(entry, rules, full_flag);
        if (result != 0) {
            return result;
        }
    }
    return 0;
} catch (const std::bad_alloc &) {
    kze_log(1, "no memory to upgrade ioc");
    return -1;
}

int CUpgradeRelay::upgrade_ioc_pack(const ioc_st &entry, const char *rules, const char *full_flag) {
    upgrade_path pack = {};
    kze_str_snprintf(pack, sizeof(pack), "%s/%s.tgz", rules, entry.name);
    upgrade_path json = {};
    kze_str_snprintf(json, sizeof(json), "%s/%s.json", rules, entry.name);

    int comparison = 0;
    compare_ioc_version(&entry, &ev, comparison);
    if (comparison != 1) {
        kze_log(2, "ioc file version %s is too old", entry.name);
        delete_if_present(pack);
        return 0;
    }
    const int unzip_result = unzip_upgrade_rule(pack, rules, ".tgz");
    if (unzip_result != 0) {
        kze_log(2, "unzip upgrade file %s failed", entry.name);
        delete_if_present(json);
        return unzip_result;
    }
    const int result = upgrade_ioc_engine(json, &entry);
    if (result == 0) {
        delete_if_present(pack);
        delete_if_present(full_flag);
    } else if (result == 1) {
        kze_log(1, "ioc upgrade failed,no need delete tgz file");
    } else {
        kze_log(1, "ioc upgrade failed,need delete tgz file");
        delete_if_present(pack);
    }
    return result;
}

int CUpgradeRelay::upgrade_ioc_engine(const char *path, const ioc_st *target) {
    if (path == nullptr) {
        kze_log(2, "upgrade ioc engine invalid param!");
        return 1;
    }
    kze_log(3, "upgrade ioc engine");
    const int code = qd::engine_update(::ENGINE_IOC, path);
    if (code != 0) {
        kze_log(2, "upgrade ioc engine failed with error code=%d", code);
        if (kzemm_upgrade_state::s_debug_adv_threat) {
            test_for_solve(path, code);
        }
        return is_refused_for_now(code) ? 1 : -1;
    }
    kze_log(3, "invoke update interface success, waitting engine upgrade");
    const bool confirmed = wait_for_ioc_version(target);
    delete_if_present(path);
    if (!confirmed) {
        kze_log(1, "ioc upgrade reach to max times or query ioc ver failed,return");
        return 1;
    }
    return 0;
}

bool CUpgradeRelay::wait_for_ioc_version(const ioc_st *target) {
    for (int count = 0; count < poll_attempts; ++count) {
        usleep(poll_pause_us);
        kze_log(3, "retry get ioc ver %d times", count);
        if (query_ioc_engine_ver() != 0) {
            kze_log(2, "query ioc engine failed, continue");
            continue;
        }
        int comparison = -1;
        if (compare_ioc_version(target, &ev, comparison) != 0) {
            kze_log(2, "compare ioc engine version failed return");
            return false;
        }
        if (comparison == 0) {
            kze_log(3, "ioc file %s upgrade successful", target->name);
            return true;
        }
    }
    return false;
}
