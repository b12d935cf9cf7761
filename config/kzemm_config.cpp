#include "config/kzemm_config.h"

#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>

#include "kzautil.h"
#include "vrdbase.h"

namespace {

constexpr char settings_path[] = "@/../config/kzemdlmgr.ini";
constexpr char rule_path[] = "@/../config/kzectmrule.ini";
constexpr char first_rule_id[] = "0";
constexpr unsigned int path_size = 4096;

constexpr unsigned int default_task_queue_size = 10;
constexpr unsigned int default_offline_retry_times = 10;
constexpr unsigned int default_upgrade_check_interval = 120;
constexpr unsigned int default_qd_start_max_interval = 300;

// Two verdicts of the engine may come at once; whoever reads the identifier doesn't take it.
std::mutex s_rule_id_mutex;

struct ini_deleter {
    void operator()(void *ini) const { kze_ini_file_free(ini); }
};
using ini_ptr = std::unique_ptr<void, ini_deleter>;

// Leaves the field as it is when the key is absent. What follows the digits is not looked at.
void read_number(void *ini, const char *section, const char *key, unsigned int &field) {
    const char *text = kze_ini_file_get(ini, section, key);
    if (text != nullptr) {
        field = static_cast<unsigned int>(strtoul(text, nullptr, 10));
    }
}

// Puts a value outside min to max, both included, back to its default and returns -1.
int check_range(unsigned int &field, unsigned int max, unsigned int min, unsigned int dflt) {
    if (field >= min && field <= max) {
        return 0;
    }
    field = dflt;
    return -1;
}

}  // namespace

kzemm_config &kzemm_config::get_instance() {
    static kzemm_config s_instance;
    return s_instance;
}

int kzemm_config::init() {
    if (initialized) {
        kze_log(3, "kzemm_config is initialized");
        return 0;
    }
    if (init_cfgc() != 0) {
        kze_log(1, "init cfgc failed");
        return -1;
    }
    if (load() != 0) {
        kze_log(2, "load ini failed, use default");
    }
    if (load_ctm_cfg_rule() != 0) {
        kze_log(2, "load ctm rule failed");
    }
    initialized = true;
    kze_log(3, "init kzemm_config succeed");
    return 0;
}

void kzemm_config::uninit() {
    uninit_cfgc();
    initialized = false;
    kze_log(3, "uninit kzemm_config");
}

int kzemm_config::load() {
    char path[path_size] = {};
    kze_dirutils_path_transform(settings_path, path, sizeof(path));
    ini_ptr ini(kze_ini_file_load(path));
    if (ini == nullptr) {
        kze_log(2, "load ini file failed, path: %s", path);
        return -1;
    }
    read_number(ini.get(), "basic", "task_queue_size", task_queue_size);
    read_number(ini.get(), "basic", "offline_retry_times", offline_retry_times);
    read_number(ini.get(), "time", "upgrade_check_interval", upgrade_check_interval);
    read_number(ini.get(), "time", "qd_start_max_interval", qd_start_max_interval);
    check_content();
    ini.reset();
    kze_log(3, "queue_size: %u, retry_times: %u, check_interval: %u, max_intreval: %u",
            task_queue_size, offline_retry_times, upgrade_check_interval, qd_start_max_interval);
    return 0;
}

void kzemm_config::check_content() {
    if (check_range(task_queue_size, 100, 5, default_task_queue_size) != 0) {
        kze_log(2, "task_queue_size is beyond range, use default");
    }
    if (check_range(offline_retry_times, 30, 5, default_offline_retry_times) != 0) {
        kze_log(2, "offline_retry_times is beyond range, use default");
    }
    if (check_range(upgrade_check_interval, 300, 60, default_upgrade_check_interval) != 0) {
        kze_log(2, "upgrade_check_interval is beyond range, use default");
    }
    if (check_range(qd_start_max_interval, 1800, 180, default_qd_start_max_interval) != 0) {
        kze_log(2, "qd_start_max_intreval is beyond range, use default");
    }
}

int kzemm_config::load_ctm_cfg_rule() try {
    char path[path_size] = {};
    kze_dirutils_path_transform(rule_path, path, sizeof(path));
    const bool exists = is_file_exist(path) != 0;
    const ini_ptr ini(kze_ini_file_load(exists ? path : nullptr));
    if (ini == nullptr) {
        kze_log(0, "ini file load failed");
        return -1;
    }
    if (exists) {
        const char *id = kze_ini_file_get(ini.get(), "ioa", "ruleid");
        if (id == nullptr) {
            kze_log(1, "get custom ioa ruleid failed");
            return -1;
        }
        ctmioa_rule_id = id;
        return 0;
    }

    kze_ini_file_set(ini.get(), "ioa", "ruleid", first_rule_id);
    const int result = kze_ini_file_save(ini.get(), path, 0);
    if (result == 0) {
        ctmioa_rule_id = first_rule_id;
    } else {
        kze_log(1, "save file err");
    }
    return result;
} catch (const std::bad_alloc &) {
    kze_log(1, "no memory for the rule id");
    return -1;
}

int kzemm_config::set_ctmioa_rule_id(const std::string &id) try {
    char path[path_size] = {};
    kze_dirutils_path_transform(rule_path, path, sizeof(path));
    std::string kept = id;  // so that nothing can fail once the file has it
    // A missing file is not made here: load_ctm_cfg_rule is the one that creates it.
    const ini_ptr ini(kze_ini_file_load(path));
    if (ini == nullptr) {
        kze_log(0, "ini file load failed");
        return -1;
    }
    // An identifier that a file can't hold is refused here, and must not go ahead of it either.
    int result = kze_ini_file_set(ini.get(), "ioa", "ruleid", id.c_str());
    if (result == 0) {
        result = kze_ini_file_save(ini.get(), path, 0);
    }
    if (result == 0) {
        kze_log(3, "update ruleid success");
        const std::lock_guard<std::mutex> lock(s_rule_id_mutex);
        ctmioa_rule_id.swap(kept);
    } else {
        kze_log(1, "save file err");
    }
    return result;
} catch (const std::bad_alloc &) {
    kze_log(1, "no memory for the rule id");
    return -1;
}
