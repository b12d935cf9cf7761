#include <cstdlib>
#include <cstring>

#include "config/kzemm_config.h"
#include "kzautil.h"
#include "vrdbase.h"

namespace {

constexpr char library_path[] = "@/../lib/libkzacfgc.so";
constexpr char store_directory[] = "@/../config/kzacfgc";
constexpr char client_name[] = "cfgc_ctr";
constexpr unsigned int value_size = 30;  // longer texts are cut to 29 characters

constexpr unsigned int min_report_cycle = 120;  // seconds
constexpr unsigned int max_report_cycle = 600;

constexpr int dispose_web_mask = 1;
constexpr int dispose_phishing_mask = 2;

// Whether every operation is there that the library has to offer, called here or not.
bool is_table_complete(const cfgc_operations &table) {
    cfgc_entry entries[CFGC_TABLE_SIZE];
    static_assert(sizeof(entries) == sizeof(table), "one entry for each operation");
    memcpy(entries, &table, sizeof(entries));
    for (int position = 0; position < CFGC_TABLE_SIZE; ++position) {
        const bool optional = position == 4 || position == 9 || position == 14 || position == 16;
        if (!optional && entries[position] == nullptr) {
            return false;
        }
    }
    return true;
}

// Compares only as many characters as the text has, up to the literal with its terminator. So the
// beginnings of "true", the empty text among them, count as true.
bool is_true_text(const char *text) {
    const size_t length = strlen(text);
    const auto begins = [&](const char *literal) {
        const size_t literal_size = strlen(literal) + 1;
        return strncmp(text, literal, length < literal_size ? length : literal_size) == 0;
    };
    return begins("true") || begins("1");
}

}  // namespace

int kzemm_config::init_cfgc() {
    kze_log(3, "init cfgc");
    if (cfgc_initialized) {
        kze_log(2, "cfgc is already initialized");
        return 0;
    }
    if (open_cfgc_library() != 0) {
        release_cfgc_library();
        kze_log(1, "failed to initialize cfgc");
        return -1;
    }
    char directory[1024] = {};
    kze_dirutils_path_transform(store_directory, directory, sizeof(directory));
    cfgc_client = cfgc_api->NewClient(client_name, directory);
    if (cfgc_client == nullptr) {
        kze_log(1, "failed to create cfgc client");
        release_cfgc_library();
        return -1;
    }
    cfgc_initialized = true;
    kze_log(3, "init cfgc succeed");
    return 0;
}

int kzemm_config::open_cfgc_library() {
    char path[4097] = {};
    kze_dirutils_path_transform(library_path, path, sizeof(path));
    kze_dll_open(path, &cfgc_dll);
    if (cfgc_dll == nullptr) {
        return -1;
    }
    void *new_object = nullptr;
    void *destroy_object = nullptr;
    kze_dll_get_addr(cfgc_dll, "DllNewObject", &new_object);
    const int result = kze_dll_get_addr(cfgc_dll, "DllDestroyObject", &destroy_object);
    dll_new_object = reinterpret_cast<cfgc_new_object_fn>(new_object);
    dll_destroy_object = reinterpret_cast<cfgc_destroy_object_fn>(destroy_object);
    if (dll_new_object == nullptr || dll_destroy_object == nullptr) {
        return -1;
    }
    if (dll_new_object(&cfgc_api) < 0 || cfgc_api == nullptr) {
        return -1;
    }
    return is_table_complete(*cfgc_api) && result == 0 ? 0 : -1;
}

void kzemm_config::release_cfgc_library() {
    if (cfgc_api != nullptr && dll_destroy_object != nullptr) {
        dll_destroy_object(cfgc_api);
        cfgc_api = nullptr;
    }
    if (cfgc_dll != nullptr) {
        kze_dll_close(cfgc_dll);
        cfgc_dll = nullptr;
    }
}

void kzemm_config::uninit_cfgc() {
    if (cfgc_client != nullptr) {
        cfgc_api->DeleteClient(cfgc_client);
        cfgc_client = nullptr;
    }
    release_cfgc_library();
    cfgc_initialized = false;
    kze_log(3, "uninit cfgc succeed");
}

int kzemm_config::get_cfgc_val(const char *module, const char *key, unsigned int size, char *out) {
    cfgc_value_st *value = nullptr;
    const int result = cfgc_api->GetValue(cfgc_client, module, key, &value);
    if (result < 0 || value == nullptr) {
        kze_log(1, "cfgc GetValue failed, module: %s, key: %s, err: %s.", module, key,
                cfgc_api->ErrorString(result));
        if (value != nullptr) {
            cfgc_api->FreeValue(value);
        }
        return -1;
    }

    const char *text = nullptr;
    const int type = cfgc_api->ValueType(value);
    if (type != CFGC_VALUE_STRING) {
        kze_log(1, "value type: %d error", type);
    } else {
        text = cfgc_api->ValueAsString(value);
        if (text == nullptr) {
            kze_log(1, "convert cfgc value to string failed");
        } else {
            kze_str_strlcpy(out, text, size);
        }
    }
    cfgc_api->FreeValue(value);
    return text != nullptr ? 0 : -1;
}

int kzemm_config::get_cfgc_switch(bool &out, const char *key, const char *module, bool dflt) {
    out = dflt;
    char text[value_size] = {};
    if (get_cfgc_val(module, key, sizeof(text), text) != 0) {
        kze_log(2, "get from cfgc failed: switch[%s] module[%s]", key, module);
        return -1;
    }
    out = is_true_text(text);
    kze_log(3, "get from cfgc switch[%s]: %d.", key, out);
    return 0;
}

int kzemm_config::get_cfgc_bit_switch(bool &out, int mask, bool dflt, const char *module,
                                      const char *key) {
    out = dflt;
    char text[value_size] = {};
    if (get_cfgc_val(module, key, sizeof(text), text) != 0) {
        kze_log(2, "get from cfgc failed: switch[%s] module[%s]", key, module);
        return -1;
    }
    out = (strtol(text, nullptr, 10) & mask) != 0;
    kze_log(3, "get from cfgc switch[%s:%s:%d]: %d.", module, key, mask, out);
    return 1;
}

int kzemm_config::set_engine_swith_value() {
    if (!cfgc_initialized) {
        kze_log(2, "cfgc is not initialized");
        return -1;
    }

    constexpr char base_collect[] = "/mgr/base_collect";
    constexpr char abnormal_login[] = "/mgr/abnormal_login";
    constexpr char anti_bfa[] = "/mgr/anti_bfa";
    constexpr char auto_dispose[] = "/mgr/auto_dispose";
    bool adv_threats = false;
    bool report_action_log = false;
    bool real_time_data = false;
    bool botnet = false;
    bool abnormal_ip_login = false;
    bool abnormal_time_login = false;
    bool abnormal_scan = false;
    bool reverseshell = false;
    bool bruteforce_global = false;
    bool bruteforce_ssh = false;
    bool dispose_web = false;
    bool dispose_phishing = false;

    if (get_cfgc_switch(adv_threats, "/adv_threats", base_collect, false) != 0) {
        kze_log(1, "get cfgc failed");
        return -1;
    }
    // A failed read below leaves the default that the call names.
    get_cfgc_switch(report_action_log, "/enable_actioninfo", base_collect, false);
    get_cfgc_switch(real_time_data, "/real_time_data", base_collect, false);
    get_cfgc_switch(botnet, "/enable_domain_report", "/mgr/global", true);
    get_cfgc_switch(abnormal_ip_login, "/abnormal_ip_login_enable", abnormal_login, false);
    get_cfgc_switch(abnormal_time_login, "/abnormal_time_login_enable", abnormal_login, false);
    get_cfgc_switch(abnormal_scan, "/abnormal_scan_enable", abnormal_login, false);
    get_cfgc_switch(reverseshell, "/reverseshell_enable", abnormal_login, false);
    get_cfgc_switch(bruteforce_global, "/enable", anti_bfa, false);
    get_cfgc_switch(bruteforce_ssh, "/ssh_enable", anti_bfa, false);
    get_cfgc_bit_switch(dispose_web, dispose_web_mask, false, auto_dispose, "/switch");
    get_cfgc_bit_switch(dispose_phishing, dispose_phishing_mask, false, auto_dispose, "/switch");
    kze_log(3,
            "adv_threats: %d, report_action_log: %d, botnet: %d, rtd:%d, abnormal_ip_login:%d, "
            "abnormal_time_login:%d abnormal_scan:%d, reverseshell: %d, bruteforce_global: %d, "
            "dispose_web: %d, dispose_phishing: %d",
            adv_threats, report_action_log, botnet, real_time_data, abnormal_ip_login,
            abnormal_time_login, abnormal_scan, reverseshell, bruteforce_global, dispose_web,
            dispose_phishing);

    hunting_switch = adv_threats;
    linkage_switch = adv_threats;
    report_switch = report_action_log;
    collect_switch = adv_threats;
    ioa_switch = adv_threats;
    ioc_switch = adv_threats;
    md_switch = ioa_switch;
    subscribe_event_switch = real_time_data;
    origin_forward_switch = true;
    abnormal_ip_login_switch = abnormal_ip_login;
    abnormal_time_login_switch = abnormal_time_login;
    abnormal_scan_switch = abnormal_scan;
    reverseshell_switch = ioa_switch;  // not its own key, which feeds the log alone
    bruteforce_global_switch = bruteforce_global;
    bruteforce_ssh_switch = bruteforce_ssh;
    dispose_web_switch = dispose_web && ioa_switch;
    dispose_phishing_switch = dispose_phishing && ioa_switch;
    log_switches();
    return 0;
}

void kzemm_config::log_switches() const {
    kze_log(3,
            "hunting: %d, link: %d, report: %d, collect: %d, ioa: %d, ioc: %d, real time data:%d, "
            "origin forward: %d, abnormal ip login:%d, abnormal time login:%d, abnormal scan:%d, "
            "brutecorce global:%d, reverseshell: %d, dispose web:%d, dispose phishin:%d",
            hunting_switch, linkage_switch, report_switch, collect_switch, ioa_switch, ioc_switch,
            subscribe_event_switch, origin_forward_switch, abnormal_ip_login_switch,
            abnormal_time_login_switch, abnormal_scan_switch, bruteforce_global_switch,
            reverseshell_switch, dispose_web_switch, dispose_phishing_switch);
    kze_log(3, "ssh bruteforce: %d", bruteforce_ssh_switch);
}

int kzemm_config::set_report_cycle() {
    if (!cfgc_initialized) {
        kze_log(2, "cfgc is not initialized");
        return -1;
    }
    char text[value_size] = {};
    if (get_cfgc_val("/mgr/base_collect", "/collect_act_time", sizeof(text), text) != 0) {
        kze_log(2, "get collect report cycle from cfgc failed, ues default");
        return -1;
    }
    const unsigned long cycle = strtoul(text, nullptr, 10);
    if (cycle < min_report_cycle || cycle > max_report_cycle) {
        kze_log(2, "cfgc collect report cycle is invalid, ues default");
        return -1;
    }
    collect_report_cycle = static_cast<unsigned int>(cycle);
    kze_log(3, "get collect report cycle : %u succeed", collect_report_cycle);
    return 0;
}

void kzemm_config::set_upgrad_switch(bool on) {
    ioa_switch = on;
    ioc_switch = on;
    md_switch = on;
}

bool kzemm_config::get_switch(EMM_SWITCH_TYPE type) const {
    switch (type) {
        case EMM_SWITCH_COLLECT:
            return collect_switch;
        case EMM_SWITCH_SUBSCRIBE_EVENT:
            return subscribe_event_switch;
        case EMM_SWITCH_IOA:
            return ioa_switch;
        case EMM_SWITCH_IOC:
            return ioc_switch;
        case EMM_SWITCH_HUNTING:
            return hunting_switch;
        case EMM_SWITCH_LINKAGE:
            return linkage_switch;
        case EMM_SWITCH_REPORT:
            return report_switch;
        case EMM_SWITCH_MD:
            return md_switch;
        case EMM_SWITCH_ORIGIN_FORWARD:
            return origin_forward_switch;
        case EMM_SWITCH_ABNORMAL_IP_LOGIN:
            return abnormal_ip_login_switch;
        case EMM_SWITCH_ABNORMAL_TIME_LOGIN:
            return abnormal_time_login_switch;
        case EMM_SWITCH_ABNORMAL_SCAN:
            return abnormal_scan_switch;
        case EMM_SWITCH_REVERSESHELL:
            return reverseshell_switch;
        case EMM_SWITCH_BRUTEFORCE_GLOBAL:
            return bruteforce_global_switch;
        case EMM_SWITCH_BRUTEFORCE_SSH:
            return bruteforce_ssh_switch;
        case EMM_SWITCH_DISPOSE_WEB:
            return dispose_web_switch;
        case EMM_SWITCH_DISPOSE_PHISHING:
            return dispose_phishing_switch;
    }
    return false;
}
