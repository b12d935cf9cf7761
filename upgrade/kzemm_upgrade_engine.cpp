// MD and IOA packs: one fixed arrival name for each, moved aside under a backup name that is found
// again until the engine has taken it.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "engine/qd_calls.h"
#include "kzautil.h"
#include "upgrade/kzemm_upgrade.h"
#include "upgrade/kzemm_upgrade_common.h"
#include "vrdbase.h"

namespace {

// A pack that fails this often in a row is given up.
constexpr int md_max_failures = 10;

struct pack_names {
    const char *arrival;
    const char *backup_pattern;
    const char *backup_format;  // takes the directory and a number
    const char *config;         // inside the pack
};

constexpr pack_names ioa_names = {"ioa_linux_en.tgz", "ioa_linux_bk_*.tgz",
                                  "%s/ioa_linux_bk_%d.tgz", "linux_kzedbd.cfg"};
constexpr pack_names md_names = {"md_linux.tgz", "md_linux_bk_*.tgz", "%s/md_linux_bk_%d.tgz",
                                 "linux_kzemsi.ptn"};

// The backup that an earlier pass has left, the first one in directory order; else empty.
void find_backup(upgrade_path &backup, const char *rules, const char *pattern) {
    backup[0] = '\0';
    std::vector<std::string> found;
    CUpgradeRelay::list_files(pattern, found, rules);
    if (!found.empty()) {
        join_path(backup, rules, found.front().c_str());
        kze_log(3, "bk_tgz_name: %s", backup);
    }
}

// Moves a pack that has arrived to a backup name of its own, in place of the backup that is there.
// 0, or -1 with the old backup gone already.
int take_arrival(upgrade_path &backup, const char *arrival, const char *rules, const char *format) {
    kze_log(3, "has new tgz, rename");
    delete_if_present(backup);
    kze_str_snprintf(backup, sizeof(backup), format, rules, kze_rand_by_time());
    kze_log(3, "tgz_rename_name: %s", backup);
    if (rename(arrival, backup) != 0) {
        kze_log(1, "rename %s to  %s failed", arrival, backup);
        kze_log(1, "get new tgz failed");
        return -1;
    }
    return 0;
}

// The first pack ever leaves its configuration in the engine agent's program directory; later ones
// don't replace it.
void place_ioa_config(const char *config_path) {
    upgrade_path directory = {};
    expand_path(directory, "@/../qd_agent/bin/");
    upgrade_path target = {};
    join_path(target, directory, "kzedbd.cfg");
    if (kze_path_is_exist_u(target) != 0) {
        delete_if_present(config_path);
    } else if (kze_file_rename(config_path, target) != 0) {
        kze_log(1, "failed to rename %s to %s", config_path, target);
    }
}

// Waits for the IOA engine's version to rise above what it was. The result of upgrade_ioa_engine.
int wait_for_ioa_version(unsigned long ul_ver_be) {
    unsigned long ul_ver_af = 0;
    for (int count = 0; count < poll_attempts; ++count) {
        usleep(poll_pause_us);
        if (CUpgradeRelay::query_ioa_engine(ul_ver_af) != 0) {
            continue;
        }
        kze_log(3, "retry get ioa ver %d times, ul_ver_be:%lu, ul_ver_af:%lu", count, ul_ver_be,
                ul_ver_af);
        if (ul_ver_be < ul_ver_af) {
            kze_log(3, "ioa upgrade success");
            kze_log(3, "i:%d,ret:%d", count, 0);
            return 0;
        }
    }
    int result = 0;
    if (ul_ver_be == ul_ver_af) {
        kze_log(3, "ioa upgrade reach to max times, ul_ver_be is equal to ul_ver_af!");
    } else {
        kze_log(1, "ioa upgrade reach to max times,return");
        result = 1;
    }
    kze_log(3, "i:%d,ret:%d", poll_attempts, result);
    return result;
}

}  // namespace

int CUpgradeRelay::upgrade_eng_handle(engine_type_e type) try {
    if (type != ENGINE_IOA && type != ENGINE_MD) {
        kze_log(1, "eng_type invalid: %d", type);
        return -1;
    }
    const pack_names &names = type == ENGINE_IOA ? ioa_names : md_names;
    upgrade_path rules = {};
    expand_path(rules, rule_directory);
    upgrade_path backup = {};
    find_backup(backup, rules, names.backup_pattern);
    upgrade_path arrival = {};
    join_path(arrival, rules, names.arrival);
    kze_log(3, "new tgz_name: %s", arrival);
    if (kze_path_is_exist_u(arrival) != 0) {
        if (take_arrival(backup, arrival, rules, names.backup_format) != 0) {
            return -1;
        }
        if (type == ENGINE_MD) {
            kzemm_upgrade_state::s_md_retry_times = 0;
        }
    }
    if (backup[0] == '\0') {
        kze_log(3, "no tgz exist");
        return 0;
    }
    kze_log(3, "deal tgz: %s", backup);
    if (unzip_upgrade_rule(backup, rules, ".tgz") != 0) {
        kze_log(1, "unzip upgrade file ioa tgz file %s failed", backup);
        return -1;
    }
    upgrade_path config_path = {};
    join_path(config_path, rules, names.config);
    kze_log(3, "cfg_path: %s", config_path);
    return upgrade_engine(type, backup, config_path);
} catch (const std::bad_alloc &) {
    kze_log(1, "no memory to upgrade engine %d", type);
    return -1;
}

int CUpgradeRelay::upgrade_engine(engine_type_e type, const char *backup, const char *config_path) {
    if (type == ENGINE_IOA) {
        const int result = upgrade_ioa_engine(config_path);
        if (result == 0 || result == -1) {
            delete_if_present(backup);
        }
        place_ioa_config(config_path);
        return result;
    }
    kzemm_upgrade_state::s_md_tgz_path = backup;
    kzemm_upgrade_state::s_md_cfg_path = config_path;
    const int result = upgrade_md_engine(config_path);
    if (result != 0) {
        delete_if_present(backup);
        delete_if_present(config_path);
    }
    return result;
}

int CUpgradeRelay::query_ioa_engine(unsigned long &version) {
    qd::buffer_ptr text;
    const int code = qd::query_version(::ENGINE_IOA, text);
    if (code != 0 || text == nullptr) {
        kze_log(1, "query ioa version failed:%d", code);
        return 1;
    }
    version = strtoul(text.get(), nullptr, 10);
    return 0;
}

int CUpgradeRelay::upgrade_ioa_engine(const char *config_path) {
    if (config_path == nullptr) {
        kze_log(2, "param is null!");
        return 1;
    }
    kze_log(3, "upgrade ioa engine");
    unsigned long ul_ver_be = 0;
    const int query_result = query_ioa_engine(ul_ver_be);
    if (query_result != 0) {
        return query_result;
    }
    kze_log(3, "ul_ver_be:%lu", ul_ver_be);
    const int code = qd::engine_update(::ENGINE_IOA, config_path);
    if (code != 0) {
        kze_log(1, "invoke update func failed:%d", code);
        return is_refused_for_now(code) ? 1 : -1;
    }
    kze_log(3, "invoke update interface success, waitting engine upgrade");
    return wait_for_ioa_version(ul_ver_be);
}

int CUpgradeRelay::upgrade_md_engine(const char *config_path) {
    if (config_path == nullptr) {
        kze_log(2, "param is null!");
        return -1;
    }
    kze_log(3, "upgrade md engine");
    kzemm_upgrade_state::s_md_last_result = md_update_pending;
    const int code =
        qd::engine_update_async(::ENGINE_MD, config_path, on_md_engine_update_cb, nullptr);
    if (code == 0) {
        return 0;
    }
    kze_log(1, "invoke update func failed: %d", code);
    kzemm_upgrade_state::s_md_last_result = md_call_failed;
    return is_refused_for_now(code) ? 0 : -1;
}

void CUpgradeRelay::on_md_engine_update_cb(_engine_type type, int result, void * /*context*/) {
    // Once the result is set, the upgrade thread may begin the next pass and change the paths.
    upgrade_path tgz_path = {};
    upgrade_path cfg_path = {};
    kze_str_strlcpy(tgz_path, kzemm_upgrade_state::s_md_tgz_path.c_str(), sizeof(tgz_path));
    kze_str_strlcpy(cfg_path, kzemm_upgrade_state::s_md_cfg_path.c_str(), sizeof(cfg_path));

    const int last_result = type == ::ENGINE_MD ? result : md_wrong_engine;
    kzemm_upgrade_state::s_md_last_result = last_result;
    int &retry_times = kzemm_upgrade_state::s_md_retry_times;
    if (last_result == 0) {
        delete_if_present(tgz_path);
        retry_times = 0;
    } else if (++retry_times >= md_max_failures) {
        kze_log(2, "upgrade md error %d times, delete %s", retry_times, tgz_path);
        delete_if_present(tgz_path);
        retry_times = 0;
    }
    delete_if_present(cfg_path);
}
