// The relay's frame: its thread, its timer and what a tick does.

#include "upgrade/kzemm_upgrade.h"

#include <unistd.h>

#include <atomic>

#include "config/kzemm_config.h"
#include "kzautil.h"
#include "plugin/kzemm_platform.h"
#include "upgrade/kzemm_upgrade_common.h"
#include "vrdbase.h"

namespace {

constexpr char debug_marker[] = "@/../hlthreat_rule/debug_adv_threat.txt";
constexpr char log_directory[] = "@/../var/log/agent/kzemdlmgr/upgrade";
constexpr unsigned int milliseconds_in_second = 1000;
constexpr useconds_t turn_pause_us = 100000;

// Keeps a stop that comes before the upgrade thread has reached its loop: the loop itself sets
// thread_running, which would lose it, and uninit would wait for ever.
std::atomic<bool> s_stop_wanted{false};

}  // namespace

bool kzemm_upgrade_state::s_debug_adv_threat = false;
std::string kzemm_upgrade_state::s_md_tgz_path;
std::string kzemm_upgrade_state::s_md_cfg_path;
int kzemm_upgrade_state::s_md_last_result = 0;
int kzemm_upgrade_state::s_md_retry_times = 0;

CUpgradeRelay::CUpgradeRelay() {
    s_stop_wanted = false;
    upgrade_path marker = {};
    expand_path(marker, debug_marker);
    if (kze_path_is_exist_u(marker) != 0) {
        kzemm_upgrade_state::s_debug_adv_threat = true;
    }
    // An engine that never called back has held up the updates of the run before, not of this one.
    if (kzemm_upgrade_state::s_md_last_result == md_update_pending) {
        kzemm_upgrade_state::s_md_last_result = 0;
    }
}

CUpgradeRelay::~CUpgradeRelay() {
    stop_upgrade_timer();
}

int CUpgradeRelay::init() {
    kze_log(3, "upgrade init");
    if (upgrade_thread != 0) {
        kze_log(2, "upgrade_thread is already running");
        return 0;
    }
    s_stop_wanted = false;
    const int result =
        cl_ev_create_isolated_thread(&upgrade_thread, nullptr, upgrade_thread_func, this);
    if (result != 0) {
        kze_log(1, "cl_ev_create_isolated_thread failed, ret: %d", result);
        return -1;
    }
    return 0;
}

int CUpgradeRelay::uninit() {
    kze_log(3, "upgrade uninit.");
    if (upgrade_thread == 0) {
        kze_log(2, "thread is not running.");
        return -1;
    }
    stop_thread();
    pthread_join(upgrade_thread, nullptr);
    upgrade_thread = 0;
    kze_log(3, "%s upgrade thread exit.", "kzemdlmgr");
    return 0;
}

void CUpgradeRelay::clear() {
    stop_upgrade_timer();
}

void CUpgradeRelay::stop_thread() {
    s_stop_wanted = true;
    thread_running = false;
}

void *upgrade_thread_func(void *argument) {
    // Read, if at all, when the thread is gone. There is one upgrade thread at a time.
    static char s_result_text[1024];

    start_thread_log(log_directory);

    int result = 1;
    if (auto *const relay = static_cast<CUpgradeRelay *>(argument)) {
        result = relay->start_upgrade_timer();
        if (result == 0) {
            relay->upgrade_thread_loop();
        } else {
            kze_log(1, "start upgrade timer failed, go to exit");
        }
        kze_log(3, "upgrade thread loop stop");
        relay->clear();
    }
    kze_str_snprintf(s_result_text, sizeof(s_result_text), "%d", result);
    return s_result_text;
}

void CUpgradeRelay::upgrade_thread_loop() {
    kze_log(3, "upgrade thread loop start");
    thread_running = true;
    cl_ev_loop_nowait(1);
    while (thread_running && !s_stop_wanted) {
        cl_event_loop_once();
        usleep(turn_pause_us);
    }
}

int CUpgradeRelay::start_upgrade_timer() {
    kze_log(3, "start upgrade timer.");
    if (upgrade_timer != nullptr) {
        kze_log(3, "upgrade timer already start.");
        return 0;
    }
    const unsigned int period_ms =
        kzemm_config::get_instance().get_upgrade_check_interval() * milliseconds_in_second;
    upgrade_timer = cl_timerplus_start(period_ms, 0, period_ms, timer_upgrade_callback, this);
    if (upgrade_timer == nullptr) {
        kze_log(2, "start upgrade timer failed.");
        return -1;
    }
    kze_log(3, "start upgrade timer(%u) success.", period_ms);
    return 0;
}

void CUpgradeRelay::stop_upgrade_timer() {
    kze_log(3, "stop upgrade timer.");
    close_timer(upgrade_timer);
}

void CUpgradeRelay::timer_upgrade_callback(cl_timerplus *timer) {
    if (timer == nullptr) {
        kze_log(1, "timer is null");
        return;
    }
    auto *const relay = static_cast<CUpgradeRelay *>(timer->user);
    if (relay == nullptr) {
        kze_log(2, "no userdata input");
        return;
    }
    const kzemm_config &config = kzemm_config::get_instance();
    const bool md_switch = config.get_md_switch();
    const bool ioa_switch = config.get_ioa_switch();
    const bool ioc_switch = config.get_ioc_switch();
    kze_log(3, "start upgrade, ioc switch: %d, ioa switch: %d, md switch: %d", ioc_switch,
            ioa_switch, md_switch);

    if (ioc_switch) {
        kze_log(3, "upgrade ioc");
        if (relay->upgrade_ioc_handle() != 0) {
            kze_log(2, "update ioc rule failed !");
        }
    }
    if (ioa_switch) {
        kze_log(3, "upgrade ioa");
        if (relay->upgrade_eng_handle(ENGINE_IOA) != 0) {
            kze_log(2, "update ioa rule failed !");
        }
    }
    if (md_switch) {
        const int last_result = kzemm_upgrade_state::s_md_last_result;
        kze_log(3, "upgrade md, last result: %d, retry times: %d", last_result,
                kzemm_upgrade_state::s_md_retry_times);
        if (last_result == md_update_pending) {
            return;
        }
        if (relay->upgrade_eng_handle(ENGINE_MD) != 0) {
            kze_log(2, "update md rule failed !");
        }
    }
}
