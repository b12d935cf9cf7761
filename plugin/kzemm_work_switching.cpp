// The engine's capabilities: each one's state from the switches, its order of sending, the retry.

#include <algorithm>
#include <iterator>
#include <new>

#include "config/kzemm_config.h"
#include "engine/kzemm_loader.h"
#include "kzabase.h"
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

// What one capability is told, and what came of it.
struct engine_order {
    _engine_type type;
    int status;
    bool refused;
};

int get_engine_switch_status(_engine_type type) {
    const kzemm_config &config = kzemm_config::get_instance();
    bool on = false;
    switch (type) {
        case ENGINE_IOC:
            on = config.get_ioc_switch();
            break;
        case ENGINE_IOA:
        case ENGINE_DETANAL:  // has no switch of its own
            on = config.get_ioa_switch();
            break;
        case ENGINE_MD:
            on = config.get_md_switch();
            break;
        case ENGINE_BRUTEFORCE_GLOBAL:
            on = config.get_bruteforce_global_switch();
            break;
        case ENGINE_COLLECT:
            on = config.get_collect_switch();
            break;
        case ENGINE_ABNORMAL_SCAN:
            on = config.get_abnormal_scan_switch();
            break;
        case ENGINE_BRUTEFORCE_SSH:
            on = config.get_bruteforce_ssh_switch();
            break;
        case ENGINE_ABNORMAL_IP_LOGIN:
            on = config.get_abnormal_ip_login_switch();
            break;
        case ENGINE_ABNORMAL_TIME_LOGIN:
            on = config.get_abnormal_time_login_switch();
            break;
        case ENGINE_REVERSESHELL:
            on = config.get_reverseshell_switch();
            break;
        default:
            kze_log(2, "type %d error", static_cast<int>(type));
    }
    return on ? ENGINE_SWITCH_ON : ENGINE_SWITCH_OFF;
}

int control_engine(_engine_type type, int status) {
    return reinterpret_cast<x_client_engine_control_fn>(
        kzemm_loader::get_instance().get_x_client_engine_control_fn())(type, status);
}

std::list<_engine_type> refused_types(const engine_order *begin, const engine_order *end) {
    std::list<_engine_type> types;
    for (const engine_order *order = begin; order != end; ++order) {
        if (order->refused) {
            types.push_back(order->type);
        }
    }
    return types;
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
    int ioc = get_engine_switch_status(ENGINE_IOC);
    int ioa = get_engine_switch_status(ENGINE_IOA);
    int collect = get_engine_switch_status(ENGINE_COLLECT);
    int md = get_engine_switch_status(ENGINE_MD);
    int ip_login = get_engine_switch_status(ENGINE_ABNORMAL_IP_LOGIN);
    int time_login = get_engine_switch_status(ENGINE_ABNORMAL_TIME_LOGIN);
    int scan = get_engine_switch_status(ENGINE_ABNORMAL_SCAN);
    const int reverseshell = get_engine_switch_status(ENGINE_REVERSESHELL);
    int bruteforce_global = get_engine_switch_status(ENGINE_BRUTEFORCE_GLOBAL);
    int detanal = get_engine_switch_status(ENGINE_DETANAL);
    int ssh = bruteforce_global;  // off with the global switch, whatever its own says
    if (ssh == ENGINE_SWITCH_ON) {
        ssh = get_engine_switch_status(ENGINE_BRUTEFORCE_SSH);
    }
    kze_log(3, "ssh:%d", ssh);

    if (IsCNAPPAgent() != 0) {
        kze_log(3, "cnapp agent will enable all switch");
        kzemm_config::get_instance().set_upgrad_switch(true);
        // The reverse shell still follows configuration.
        ioc = ioa = collect = md = ip_login = time_login = scan = detanal = ENGINE_SWITCH_ON;
        bruteforce_global = ssh = ENGINE_SWITCH_ON;
    }
    kze_log(3,
            "collect: %d, ioc: %d, ioa: %d, login ip:%d, login time:%d, scan:%d, reverseshell:%d, "
            "bruteforce_global: %d, detanal: %d",
            collect, ioc, ioa, ip_login, time_login, scan, reverseshell, bruteforce_global,
            detanal);
    kze_log(3, "set engine switch, on[2], off[1]. collect: %d, ioc: %d, ioa: %d, md: %d", collect,
            ioc, ioa, md);

    engine_order orders[] = {
        {ENGINE_COLLECT, collect, false},
        {ENGINE_IOC, ioc, false},
        {ENGINE_IOA, ioa, false},
        {ENGINE_ABNORMAL_IP_LOGIN, ip_login, false},
        {ENGINE_MD, md, false},
        {ENGINE_ABNORMAL_TIME_LOGIN, time_login, false},
        {ENGINE_ABNORMAL_SCAN, scan, false},
        {ENGINE_REVERSESHELL, reverseshell, false},
        {ENGINE_BRUTEFORCE_SSH, ssh, false},
        {ENGINE_DETANAL, detanal, false},
    };
    for (engine_order &order : orders) {
        order.refused = control_engine(order.type, order.status) != 0;
        if (order.refused) {
            kze_log(2, "switch %d status: %d failed", static_cast<int>(order.type), order.status);
        }
    }
    const auto is_refused = [](const engine_order &order) { return order.refused; };
    if (std::none_of(std::begin(orders), std::end(orders), is_refused)) {
        kze_log(3, "set engine switch success");
        return;
    }
    kze_log(3, "need to retry switch engine");
    try {
        retry_switch_engine(refused_types(std::begin(orders), std::end(orders)));
    } catch (const std::bad_alloc &) {
        kze_log(1, "new context failed");
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
        if (control_engine(*each, status) != 0) {
            kze_log(2, "switch %d status: %d failed", static_cast<int>(*each), status);
            ++each;
        } else {
            kze_log(3, "switch %d status: %d succeed", static_cast<int>(*each), status);
            each = ctx->engines.erase(each);
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
    if (cfg_timer != nullptr) {
        cl_timerplus_stop(cfg_timer);
        cl_timerplus_close(cfg_timer);
        cfg_timer = nullptr;
    }
    kze_log(3, "stop cfg timer");
}

void kzemm_work::stop_switch_timer() {
    if (switch_timer != nullptr) {
        cl_timerplus_stop(switch_timer);
        cl_timerplus_close(switch_timer);
        switch_timer = nullptr;
    }
    kze_log(3, "stop switch timer");
}
