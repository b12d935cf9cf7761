// The engine's capabilities: each one's state from the switches, its order of sending, the retry.

#include <new>
#include <utility>

#include "config/kzemm_config.h"
#include "engine/qd_calls.h"
#include "kzabase.h"
#include "plugin/kzemm_platform.h"
#include "plugin/kzemm_work.h"
#include "vrdbase.h"

namespace {

constexpr unsigned int cfg_period_ms = 5000;
constexpr unsigned int switch_period_ms = 180000;
constexpr unsigned int max_switch_tries = 5;  // passes after the first one

// What the retry of refused capabilities carries from pass to pass; owned by the armed timer.
struct switch_engine_ctx {
    kzemm_work *work;
    unsigned int try_times;
    std::list<_engine_type> engines;  // still to be sent
};

// A capability of the engine and the switch that it follows.
struct capability {
    _engine_type type;
    EMM_SWITCH_TYPE follows;
    bool is_sent;
    bool on_in_cnapp;  // whatever configuration says
};

// In the order in which they are sent. The global brute force is none of the engine's: it gates the
// ssh one. The detection analysis has no switch of its own.
constexpr capability capabilities[] = {
    {ENGINE_BRUTEFORCE_GLOBAL, EMM_SWITCH_BRUTEFORCE_GLOBAL, false, true},
    {ENGINE_COLLECT, EMM_SWITCH_COLLECT, true, true},
    {ENGINE_IOC, EMM_SWITCH_IOC, true, true},
    {ENGINE_IOA, EMM_SWITCH_IOA, true, true},
    {ENGINE_ABNORMAL_IP_LOGIN, EMM_SWITCH_ABNORMAL_IP_LOGIN, true, true},
    {ENGINE_MD, EMM_SWITCH_MD, true, true},
    {ENGINE_ABNORMAL_TIME_LOGIN, EMM_SWITCH_ABNORMAL_TIME_LOGIN, true, true},
    {ENGINE_ABNORMAL_SCAN, EMM_SWITCH_ABNORMAL_SCAN, true, true},
    {ENGINE_REVERSESHELL, EMM_SWITCH_REVERSESHELL, true, false},
    {ENGINE_BRUTEFORCE_SSH, EMM_SWITCH_BRUTEFORCE_SSH, true, true},
    {ENGINE_DETANAL, EMM_SWITCH_IOA, true, true},
};

int get_engine_switch_status(_engine_type type) {
    for (const capability &each : capabilities) {
        if (each.type == type) {
            return kzemm_config::get_instance().get_switch(each.follows) ? ENGINE_SWITCH_ON
                                                                         : ENGINE_SWITCH_OFF;
        }
    }
    kze_log(2, "type %d error", static_cast<int>(type));
    return ENGINE_SWITCH_OFF;
}

// The status of each capability, by its number.
struct engine_statuses {
    int of[ENGINE_DETANAL + 1] = {};
};

engine_statuses current_statuses() {
    engine_statuses statuses;
    for (const capability &each : capabilities) {
        statuses.of[each.type] = get_engine_switch_status(each.type);
    }
    int &ssh = statuses.of[ENGINE_BRUTEFORCE_SSH];
    if (statuses.of[ENGINE_BRUTEFORCE_GLOBAL] == ENGINE_SWITCH_OFF) {
        ssh = ENGINE_SWITCH_OFF;  // whatever its own switch says
    }
    kze_log(3, "ssh:%d", ssh);

    if (IsCNAPPAgent() != 0) {
        kze_log(3, "cnapp agent will enable all switch");
        kzemm_config::get_instance().set_upgrad_switch(true);
        for (const capability &each : capabilities) {
            if (each.on_in_cnapp) {
                statuses.of[each.type] = ENGINE_SWITCH_ON;
            }
        }
    }
    return statuses;
}

void log_statuses(const engine_statuses &statuses) {
    const int *const of = statuses.of;
    kze_log(3,
            "collect: %d, ioc: %d, ioa: %d, login ip:%d, login time:%d, scan:%d, reverseshell:%d, "
            "bruteforce_global: %d, detanal: %d",
            of[ENGINE_COLLECT], of[ENGINE_IOC], of[ENGINE_IOA], of[ENGINE_ABNORMAL_IP_LOGIN],
            of[ENGINE_ABNORMAL_TIME_LOGIN], of[ENGINE_ABNORMAL_SCAN], of[ENGINE_REVERSESHELL],
            of[ENGINE_BRUTEFORCE_GLOBAL], of[ENGINE_DETANAL]);
    kze_log(3, "set engine switch, on[2], off[1]. collect: %d, ioc: %d, ioa: %d, md: %d",
            of[ENGINE_COLLECT], of[ENGINE_IOC], of[ENGINE_IOA], of[ENGINE_MD]);
}

// False when the engine refused, which is logged.
bool send_status(_engine_type type, int status) {
    if (qd::engine_control(type, status) != 0) {
        kze_log(2, "switch %d status: %d failed", static_cast<int>(type), status);
        return false;
    }
    return true;
}

void remember(std::list<_engine_type> &engines, _engine_type type) try {
    engines.push_back(type);
} catch (const std::bad_alloc &) {
    kze_log(1, "no memory to retry switch %d", static_cast<int>(type));
}

}  // namespace

int kzemm_work::set_qd_swicth() {
    if (kzemm_config::get_instance().set_engine_swith_value() != 0) {
        kze_log(3, "get cfgc switch failed, start retry");
        if (cfg_timer != nullptr) {
            kze_log(2, "cfgc timer exist");
            return 0;
        }
        cfg_timer = cl_timerplus_start(cfg_period_ms, 0, cfg_period_ms, set_engine_switch_cb, this);
        if (cfg_timer == nullptr) {
            kze_log(2, "start cfgc timer failed, use default");
            return -1;
        }
    }
    qd_client_subscribe_origin();
    qd_client_subscribe_RealTime();
    do_engine_swicth();
    return 0;
}

void kzemm_work::set_engine_switch_cb(cl_timerplus *timer) {
    const auto work = static_cast<kzemm_work *>(timer->user);
    if (kzemm_config::get_instance().set_engine_swith_value() != 0) {
        return;
    }
    kze_log(3, "set engine switch success, stop timer");
    work->stop_cfg_timer();
    work->qd_client_subscribe_origin();
    work->qd_client_subscribe_RealTime();
    work->do_engine_swicth();
}

void kzemm_work::do_engine_swicth() {
    const engine_statuses statuses = current_statuses();
    log_statuses(statuses);
    bool all_taken = true;
    std::list<_engine_type> refused;
    for (const capability &each : capabilities) {
        if (each.is_sent && !send_status(each.type, statuses.of[each.type])) {
            all_taken = false;
            remember(refused, each.type);
        }
    }
    if (all_taken) {
        kze_log(3, "set engine switch success");
        return;
    }
    kze_log(3, "need to retry switch engine");
    if (!refused.empty()) {
        retry_switch_engine(std::move(refused));
    }
}

int kzemm_work::retry_switch_engine(std::list<_engine_type> engines) {
    const auto ctx = new (std::nothrow) switch_engine_ctx;
    if (ctx == nullptr) {
        kze_log(1, "new context failed");
        return -1;
    }
    ctx->work = this;
    ctx->try_times = 0;
    ctx->engines.swap(engines);
    if (switch_timer != nullptr) {
        kze_log(3, "switch timer exist, stop old");
        // The old context goes with the process; its capabilities were all tried just now.
        stop_switch_timer();
    }
    switch_timer = cl_timerplus_start(switch_period_ms, 0, switch_period_ms, switch_engine_cb, ctx);
    if (switch_timer == nullptr) {
        kze_log(2, "start switch timer failed");
        delete ctx;
        return -1;
    }
    kze_log(3, "start switch timer success");
    return 0;
}

void kzemm_work::switch_engine_cb(cl_timerplus *timer) {
    // Fetched first: the timer may be closed below, within its own callback.
    const auto ctx = static_cast<switch_engine_ctx *>(timer->user);
    kzemm_work *const work = ctx->work;

    for (auto each = ctx->engines.begin(); each != ctx->engines.end();) {
        // The plain status: neither the brute-force gate nor the CNAPP override applies here.
        const int status = get_engine_switch_status(*each);
        if (send_status(*each, status)) {
            kze_log(3, "switch %d status: %d succeed", static_cast<int>(*each), status);
            each = ctx->engines.erase(each);
        } else {
            ++each;
        }
    }
    if (ctx->engines.empty()) {
        work->stop_switch_timer();
        delete ctx;
        kze_log(3, "set engine switch success, stop timer");
        return;
    }
    ++ctx->try_times;
    kze_log(3, "sitch engine try times: %d", static_cast<int>(ctx->try_times));
    if (ctx->try_times > max_switch_tries) {
        kze_log(2, "switch engine over max times %d", static_cast<int>(max_switch_tries));
        work->stop_switch_timer();
        delete ctx;
    }
}

void kzemm_work::stop_cfg_timer() {
    close_timer(cfg_timer);
    kze_log(3, "stop cfg timer");
}

void kzemm_work::stop_switch_timer() {
    close_timer(switch_timer);
    kze_log(3, "stop switch timer");
}
