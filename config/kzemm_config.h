/*
 * The plug-in's configuration: local settings, the custom IOA rule identifier, the client of
 * central configuration and the switches derived from it.
 */
#ifndef KZEMDLMGR_CONFIG_KZEMM_CONFIG_H
#define KZEMDLMGR_CONFIG_KZEMM_CONFIG_H

#include <string>

#include "config/kzacfgc_api.h"
#include "config/kzemm_switch.h"

/*
 * Threads: init, uninit and the evaluations run on the worker thread, set_ctmioa_rule_id on a
 * thread of the engine client; the getters are plain reads from any thread. Deliberately unlocked:
 * a reader on another thread may see some switches before and some after an evaluation, each of
 * which is a whole byte.
 */
class kzemm_config {
  public:
    kzemm_config() = default;

    static kzemm_config &get_instance();

    // Makes the central client, then reads the two local files, whose failures only cost a log
    // line. 0, or -1 when there is no central client. A second call changes nothing.
    int init();
    void uninit();

    // ---- local settings (kzemm_config.cpp) ----

    // Reads the settings file. 0, or -1 when it cannot be read, with every setting as it was.
    int load();
    // Puts each setting that is out of its range back to its default.
    void check_content();
    // Reads the identifier of the custom IOA rules, or creates its file. 0, -1, or what saving
    // the file returned.
    int load_ctm_cfg_rule();
    // Stores the identifier in its file, which must exist, and then here, so that the memory never
    // runs ahead of the file: on a failure both keep the old one. 0, -1 without the file or without
    // memory, or the code with which the file layer refused the identifier or failed to save it.
    int set_ctmioa_rule_id(const std::string &id);

    unsigned int get_collect_report_cycle() const { return collect_report_cycle; }      // seconds
    unsigned int get_task_queue_size() const { return task_queue_size; }                // tasks
    unsigned int get_offline_retry_times() const { return offline_retry_times; }        // attempts
    unsigned int get_upgrade_check_interval() const { return upgrade_check_interval; }  // seconds
    unsigned int get_qd_start_max_intreval() const { return qd_start_max_interval; }    // seconds

    // ---- central configuration and switches (kzemm_config_central.cpp) ----

    // Opens the client library and makes the client. 0 or -1.
    int init_cfgc();
    void uninit_cfgc();
    // Reads one text into out, cut to size with its terminator. 0, or -1 with out left as it was.
    int get_cfgc_val(const char *module, const char *key, unsigned int size, char *out);
    // Reads one boolean; out becomes dflt when the read fails. 0 or -1.
    int get_cfgc_switch(bool &out, const char *key, const char *module, bool dflt);
    // Reads whether a decimal number has a bit of the mask; out becomes dflt when the read fails.
    // 1 (not 0) on success, or -1.
    int get_cfgc_bit_switch(bool &out, int mask, bool dflt, const char *module, const char *key);
    // Derives all switches anew. 0, or -1 with every switch as it was.
    int set_engine_swith_value();
    // Reads the report cycle of origin data. 0, or -1 with the last good value kept.
    int set_report_cycle();
    // Sets the three switches of the rule packs.
    void set_upgrad_switch(bool on);

    // False for a number that names no switch.
    bool get_switch(EMM_SWITCH_TYPE type) const;
    bool get_collect_switch() const { return get_switch(EMM_SWITCH_COLLECT); }
    bool get_subscribe_event_swith() const { return get_switch(EMM_SWITCH_SUBSCRIBE_EVENT); }
    bool get_ioa_switch() const { return get_switch(EMM_SWITCH_IOA); }
    bool get_ioc_switch() const { return get_switch(EMM_SWITCH_IOC); }
    bool get_hunting_switch() const { return get_switch(EMM_SWITCH_HUNTING); }
    bool get_linkage_switch() const { return get_switch(EMM_SWITCH_LINKAGE); }
    bool get_report_switch() const { return get_switch(EMM_SWITCH_REPORT); }
    bool get_md_switch() const { return get_switch(EMM_SWITCH_MD); }
    bool get_origin_forward_swith() const { return get_switch(EMM_SWITCH_ORIGIN_FORWARD); }
    bool get_abnormal_ip_login_switch() const { return get_switch(EMM_SWITCH_ABNORMAL_IP_LOGIN); }
    bool get_abnormal_time_login_switch() const {
        return get_switch(EMM_SWITCH_ABNORMAL_TIME_LOGIN);
    }
    bool get_abnormal_scan_switch() const { return get_switch(EMM_SWITCH_ABNORMAL_SCAN); }
    bool get_reverseshell_switch() const { return get_switch(EMM_SWITCH_REVERSESHELL); }
    bool get_bruteforce_global_switch() const { return get_switch(EMM_SWITCH_BRUTEFORCE_GLOBAL); }
    bool get_bruteforce_ssh_switch() const { return get_switch(EMM_SWITCH_BRUTEFORCE_SSH); }
    bool get_dispose_web_switch() const { return get_switch(EMM_SWITCH_DISPOSE_WEB); }
    bool get_dispose_phishing_switch() const { return get_switch(EMM_SWITCH_DISPOSE_PHISHING); }

  private:
    friend struct kzemm_config_inspector;  // tests look at the fields through it

    // One switch: its field, and the value of central configuration that it follows, by the
    // position of its read; some are on only together with the IOA switch.
    struct switch_row {
        EMM_SWITCH_TYPE type;
        bool kzemm_config::*field;
        unsigned int source;
        bool needs_ioa;
    };
    static const switch_row s_switches[];

    // Opens the client library and its table. 0, or -1 with what was opened left open.
    int open_cfgc_library();
    void release_cfgc_library();
    void log_switches() const;

    bool initialized = false;
    bool cfgc_initialized = false;
    cfgc_operations *cfgc_api = nullptr;
    void *cfgc_dll = nullptr;
    cfgc_new_object_fn dll_new_object = nullptr;
    cfgc_destroy_object_fn dll_destroy_object = nullptr;
    cfgc_client_st *cfgc_client = nullptr;
    unsigned int cfgc_reserved = 0;
    bool collect_switch = false;
    bool subscribe_event_switch = false;
    bool md_switch = false;
    bool ioa_switch = false;
    bool ioc_switch = false;
    bool hunting_switch = false;
    bool linkage_switch = false;
    bool report_switch = false;
    bool origin_forward_switch = false;
    unsigned int collect_report_cycle = 120;
    unsigned int task_queue_size = 10;
    unsigned int upgrade_check_interval = 120;
    unsigned int offline_retry_times = 10;
    unsigned int qd_start_max_interval = 300;

  public:
    // The identifier of the custom IOA rules, empty until it is known. The worker's hello copies
    // it; there is no getter. Deliberately unlocked: a thread of the engine client may be storing
    // the next one through set_ctmioa_rule_id meanwhile.
    std::string ctmioa_rule_id;

  private:
    bool abnormal_ip_login_switch = false;
    bool abnormal_time_login_switch = false;
    bool abnormal_scan_switch = false;
    bool reverseshell_switch = false;
    bool bruteforce_global_switch = false;
    bool bruteforce_ssh_switch = false;
    bool dispose_web_switch = false;
    bool dispose_phishing_switch = false;
};

#endif
