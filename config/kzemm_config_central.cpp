#include <cstdlib>
#include <cstring>
#include <memory>

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

// What an evaluation reads, in this order; behind the reads stands what needs none.
enum cfgc_value : unsigned int {
    ADV_THREATS,
    REPORT_ACTION_LOG,
    REAL_TIME_DATA,
    BOTNET,
    ABNORMAL_IP_LOGIN,
    ABNORMAL_TIME_LOGIN,
    ABNORMAL_SCAN,
    REVERSESHELL,
    BRUTEFORCE_GLOBAL,
    BRUTEFORCE_SSH,
    DISPOSE_WEB,
    DISPOSE_PHISHING,
    CFGC_READS,
    ALWAYS_ON = CFGC_READS,
    CFGC_VALUES,
};

constexpr char base_collect[] = "/mgr/base_collect";
constexpr char abnormal_login[] = "/mgr/abnormal_login";
constexpr char anti_bfa[] = "/mgr/anti_bfa";
constexpr char auto_dispose[] = "/mgr/auto_dispose";

constexpr int dispose_web_mask = 1;
constexpr int dispose_phishing_mask = 2;

struct cfgc_read {
    const char *module;
    const char *key;
    int mask;   // of a decimal number; 0: the value is a boolean
    bool dflt;  // when it can't be read
};

// By cfgc_value. BOTNET and REVERSESHELL feed the log alone.
constexpr cfgc_read reads[CFGC_READS] = {
    {base_collect, "/adv_threats", 0, false},
    {base_collect, "/enable_actioninfo", 0, false},
    {base_collect, "/real_time_data", 0, false},
    {"/mgr/global", "/enable_domain_report", 0, true},
    {abnormal_login, "/abnormal_ip_login_enable", 0, false},
    {abnormal_login, "/abnormal_time_login_enable", 0, false},
    {abnormal_login, "/abnormal_scan_enable", 0, false},
    {abnormal_login, "/reverseshell_enable", 0, false},
    {anti_bfa, "/enable", 0, false},
    {anti_bfa, "/ssh_enable", 0, false},
    {auto_dispose, "/switch", dispose_web_mask, false},
    {auto_dispose, "/switch", dispose_phishing_mask, false},
};

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
    cfgc_value_st *read = nullptr;
    const int result = cfgc_api->GetValue(cfgc_client, module, key, &read);
    const std::unique_ptr<cfgc_value_st, decltype(cfgc_api->FreeValue)> value(read,
                                                                              cfgc_api->FreeValue);
    if (result < 0 || value == nullptr) {
        kze_log(1, "cfgc GetValue failed, module: %s, key: %s, err: %s.", module, key,
                cfgc_api->ErrorString(result));
        return -1;
    }
    if (const int type = cfgc_api->ValueType(value.get()); type != CFGC_VALUE_STRING) {
        kze_log(1, "value type: %d error", type);
        return -1;
    }
    const char *const text = cfgc_api->ValueAsString(value.get());
    if (text == nullptr) {
        kze_log(1, "convert cfgc value to string failed");
        return -1;
    }
    kze_str_strlcpy(out, text, size);
    return 0;
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

// The reverse shell follows the IOA switch, not its own key.
const kzemm_config::switch_row kzemm_config::s_switches[] = {
    {EMM_SWITCH_HUNTING, &kzemm_config::hunting_switch, ADV_THREATS, false},
    {EMM_SWITCH_LINKAGE, &kzemm_config::linkage_switch, ADV_THREATS, false},
    {EMM_SWITCH_REPORT, &kzemm_config::report_switch, REPORT_ACTION_LOG, false},
    {EMM_SWITCH_COLLECT, &kzemm_config::collect_switch, ADV_THREATS, false},
    {EMM_SWITCH_IOA, &kzemm_config::ioa_switch, ADV_THREATS, false},
    {EMM_SWITCH_IOC, &kzemm_config::ioc_switch, ADV_THREATS, false},
    {EMM_SWITCH_MD, &kzemm_config::md_switch, ADV_THREATS, false},
    {EMM_SWITCH_SUBSCRIBE_EVENT, &kzemm_config::subscribe_event_switch, REAL_TIME_DATA, false},
    {EMM_SWITCH_ORIGIN_FORWARD, &kzemm_config::origin_forward_switch, ALWAYS_ON, false},
    {EMM_SWITCH_ABNORMAL_IP_LOGIN, &kzemm_config::abnormal_ip_login_switch, ABNORMAL_IP_LOGIN,
     false},
    {EMM_SWITCH_ABNORMAL_TIME_LOGIN, &kzemm_config::abnormal_time_login_switch, ABNORMAL_TIME_LOGIN,
     false},
    {EMM_SWITCH_ABNORMAL_SCAN, &kzemm_config::abnormal_scan_switch, ABNORMAL_SCAN, false},
    {EMM_SWITCH_REVERSESHELL, &kzemm_config::reverseshell_switch, ADV_THREATS, false},
    {EMM_SWITCH_BRUTEFORCE_GLOBAL, &kzemm_config::bruteforce_global_switch, BRUTEFORCE_GLOBAL,
     false},
    {EMM_SWITCH_BRUTEFORCE_SSH, &kzemm_config::bruteforce_ssh_switch, BRUTEFORCE_SSH, false},
    {EMM_SWITCH_DISPOSE_WEB, &kzemm_config::dispose_web_switch, DISPOSE_WEB, true},
    {EMM_SWITCH_DISPOSE_PHISHING, &kzemm_config::dispose_phishing_switch, DISPOSE_PHISHING, true},
};

int kzemm_config::set_engine_swith_value() {
    if (!cfgc_initialized) {
        kze_log(2, "cfgc is not initialized");
        return -1;
    }

    bool values[CFGC_VALUES] = {};
    values[ALWAYS_ON] = true;
    for (unsigned int each = 0; each < CFGC_READS; ++each) {
        const cfgc_read &row = reads[each];
        const int result =
            row.mask == 0
                ? get_cfgc_switch(values[each], row.key, row.module, row.dflt)
                : get_cfgc_bit_switch(values[each], row.mask, row.dflt, row.module, row.key);
        if (result < 0 && each == ADV_THREATS) {  // any other one leaves its default
            kze_log(1, "get cfgc failed");
            return -1;
        }
    }
    kze_log(3,
            "adv_threats: %d, report_action_log: %d, botnet: %d, rtd:%d, abnormal_ip_login:%d, "
            "abnormal_time_login:%d abnormal_scan:%d, reverseshell: %d, bruteforce_global: %d, "
            "dispose_web: %d, dispose_phishing: %d",
            values[ADV_THREATS], values[REPORT_ACTION_LOG], values[BOTNET], values[REAL_TIME_DATA],
            values[ABNORMAL_IP_LOGIN], values[ABNORMAL_TIME_LOGIN], values[ABNORMAL_SCAN],
            values[REVERSESHELL], values[BRUTEFORCE_GLOBAL], values[DISPOSE_WEB],
            values[DISPOSE_PHISHING]);

    for (const switch_row &row : s_switches) {
        this->*row.field = values[row.source] && (!row.needs_ioa || values[ADV_THREATS]);
    }
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
    if (get_cfgc_val(base_collect, "/collect_act_time", sizeof(text), text) != 0) {
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
    for (const switch_row &row : s_switches) {
        if (row.type == type) {
            return this->*row.field;
        }
    }
    return false;
}
