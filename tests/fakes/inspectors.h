/*
 * A look at the fields of the plug-in's classes, which are private, and at the worker's duties.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_INSPECTORS_H
#define KZEMDLMGR_TESTS_FAKES_INSPECTORS_H

#include "config/kzemm_config.h"
#include "datapath/kzemm_invoke.h"
#include "datapath/kzemm_task.h"
#include "engine/kzemm_loader.h"
#include "plugin/kzemm_work.h"
#include "upgrade/kzemm_upgrade.h"

// A worker whose every duty can be called.
struct kzemm_work_inspector : kzemm_work {
    using kzemm_work::build_cusioa_hello_msg;
    using kzemm_work::check_qd_status;
    using kzemm_work::check_qd_status_cb;
    using kzemm_work::do_cfgc_notify;
    using kzemm_work::do_engine_swicth;
    using kzemm_work::do_trace;
    using kzemm_work::handle_ipc_recv_msg;
    using kzemm_work::handle_ipc_request;
    using kzemm_work::init_ipc;
    using kzemm_work::init_kzemm_config;
    using kzemm_work::init_kzemm_task;
    using kzemm_work::init_upgrade;
    using kzemm_work::on_ipc_recv;
    using kzemm_work::on_ipc_request;
    using kzemm_work::qd_agent_offline_cb;
    using kzemm_work::qd_alarm_cb;
    using kzemm_work::qd_client_offline_to_fmb;
    using kzemm_work::qd_client_start;
    using kzemm_work::qd_client_stop;
    using kzemm_work::qd_client_subscribe;
    using kzemm_work::qd_client_subscribe_origin;
    using kzemm_work::qd_client_subscribe_RealTime;
    using kzemm_work::qd_coordinate_append_cb;
    using kzemm_work::qd_coordinate_hunting_cb;
    using kzemm_work::qd_coordinate_linkage_cb;
    using kzemm_work::qd_eng_sub_credible_cb;
    using kzemm_work::qd_origin_cb;
    using kzemm_work::qd_send_to_kzelkganal;
    using kzemm_work::register_ipc_cb;
    using kzemm_work::request_cfg;
    using kzemm_work::response_mgr_msg;
    using kzemm_work::retry_switch_engine;
    using kzemm_work::send_ctm_helloinfo;
    using kzemm_work::set_engine_switch_cb;
    using kzemm_work::set_qd_swicth;
    using kzemm_work::set_x_client_status;
    using kzemm_work::start_qd_timer;
    using kzemm_work::stop_cfg_timer;
    using kzemm_work::stop_qd_timer;
    using kzemm_work::stop_switch_timer;
    using kzemm_work::switch_engine_cb;
    using kzemm_work::uninit_ipc;
    using kzemm_work::uninit_kzemm_config;
    using kzemm_work::uninit_kzemm_task;
    using kzemm_work::uninit_upgrade;

    static bool &running(kzemm_work &work) { return work.running; }
    static vrd_ipc_st *&ipc(kzemm_work &work) { return work.ipc; }
    static vrd_addr_st *&rpdsp_addr(kzemm_work &work) { return work.rpdsp_addr; }
    static vrd_addr_st *&lkg_addr(kzemm_work &work) { return work.lkg_addr; }
    static kzemm_task *&task(kzemm_work &work) { return work.task; }
    static int x_client_status(const kzemm_work &work) { return work.x_client_status; }
    static cl_timerplus *cfg_timer(const kzemm_work &work) { return work.cfg_timer; }
    static cl_timerplus *switch_timer(const kzemm_work &work) { return work.switch_timer; }
    static CUpgradeRelay *&upgrade(kzemm_work &work) { return work.upgrade; }
    static cl_timerplus *qd_timer(const kzemm_work &work) { return work.qd_timer; }
};

struct kzemm_task_inspector {
    static bool &initialized(kzemm_task &task) { return task.initialized; }
    static bool &running(kzemm_task &task) { return task.running; }
    static kze_thread_t &thread(kzemm_task &task) { return task.thread; }
    static kze_mutex_t mutex(const kzemm_task &task) { return task.mutex; }
    static std::list<kzemm::task_info *> &task_list(kzemm_task &task) { return task.task_list; }
    static std::string &cur_rule_id(kzemm_task &task) { return task.cur_rule_id; }
};

struct kzemm_invoke_inspector {
    // Takes the singleton off a bus that is not told.
    static void reset() {
        kzemm_invoke &plugin = kzemm_invoke::GetInstance();
        plugin.dispatch = nullptr;
        plugin.dll = nullptr;
        plugin.frame = nullptr;
    }

    static MbFrame::IDispatch *dispatch() { return kzemm_invoke::GetInstance().dispatch; }
    static kze_mutex_t mutex() { return kzemm_invoke::GetInstance().mutex; }
    static void *dll() { return kzemm_invoke::GetInstance().dll; }
    static MbFrame::IRtmFrame *frame() { return kzemm_invoke::GetInstance().frame; }
};

struct kzemm_upgrade_inspector {
    static ioc_st &ev(CUpgradeRelay &relay) { return relay.ev; }
    static cl_timerplus *upgrade_timer(const CUpgradeRelay &relay) { return relay.upgrade_timer; }
    static pthread_t upgrade_thread(const CUpgradeRelay &relay) { return relay.upgrade_thread; }
    static bool thread_running(const CUpgradeRelay &relay) { return relay.thread_running; }
};

struct kzemm_config_inspector {
    // Puts the singleton back to what the constructor makes.
    static void reset() { kzemm_config::get_instance() = kzemm_config(); }

    static kzemm_config &config() { return kzemm_config::get_instance(); }
    static bool initialized() { return config().initialized; }
    static bool cfgc_initialized() { return config().cfgc_initialized; }
    static bool has_library() { return config().cfgc_dll != nullptr; }
    static bool has_table() { return config().cfgc_api != nullptr; }
    static bool has_client() { return config().cfgc_client != nullptr; }
    static std::string &ctmioa_rule_id() { return config().ctmioa_rule_id; }
    static unsigned int &collect_report_cycle() { return config().collect_report_cycle; }
    static unsigned int &task_queue_size() { return config().task_queue_size; }
    static unsigned int &upgrade_check_interval() { return config().upgrade_check_interval; }
    static unsigned int &offline_retry_times() { return config().offline_retry_times; }
    static unsigned int &qd_start_max_interval() { return config().qd_start_max_interval; }
    static bool &collect_switch() { return config().collect_switch; }
    static bool &subscribe_event_switch() { return config().subscribe_event_switch; }
    static bool &md_switch() { return config().md_switch; }
    static bool &ioa_switch() { return config().ioa_switch; }
    static bool &ioc_switch() { return config().ioc_switch; }
    static bool &hunting_switch() { return config().hunting_switch; }
    static bool &linkage_switch() { return config().linkage_switch; }
    static bool &report_switch() { return config().report_switch; }
    static bool &origin_forward_switch() { return config().origin_forward_switch; }
    static bool &abnormal_ip_login_switch() { return config().abnormal_ip_login_switch; }
    static bool &abnormal_time_login_switch() { return config().abnormal_time_login_switch; }
    static bool &abnormal_scan_switch() { return config().abnormal_scan_switch; }
    static bool &reverseshell_switch() { return config().reverseshell_switch; }
    static bool &bruteforce_global_switch() { return config().bruteforce_global_switch; }
    static bool &bruteforce_ssh_switch() { return config().bruteforce_ssh_switch; }
    static bool &dispose_web_switch() { return config().dispose_web_switch; }
    static bool &dispose_phishing_switch() { return config().dispose_phishing_switch; }
};

struct kzemm_loader_inspector {
    // Puts the singleton back to what it is before its first init.
    static void reset() { kzemm_loader::get_instance() = kzemm_loader(); }

    static bool initialized() { return kzemm_loader::get_instance().initialized; }
    static void *qdccl_handle() { return kzemm_loader::get_instance().qdccl_handle; }
    static void *kzethtgw_handle() { return kzemm_loader::get_instance().kzethtgw_handle; }
};

#endif
