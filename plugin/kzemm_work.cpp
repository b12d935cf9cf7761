#include "plugin/kzemm_work.h"

#include <unistd.h>

#include <atomic>
#include <new>

#include "config/kzemm_config.h"
#include "upgrade/kzemm_upgrade.h"
#include "vrdbase.h"

namespace {

constexpr useconds_t turn_pause_us = 100000;

// Keeps a stop that comes during the start, whose end sets `running`. There is one worker at a
// time; its constructor begins anew, before anybody knows of it.
std::atomic<bool> s_stop_wanted{false};

}  // namespace

kzemm_work::kzemm_work() {
    s_stop_wanted = false;
}

int kzemm_work::start() {
    if (running) {
        kze_log(2, "kzemm_work already started");
        return 0;
    }
    if (init_kzemm_config() != 0) {
        kze_log(1, "init cfgc failed");
        return -1;
    }
    if (qd_client_start() != 0) {
        kze_log(1, "start qd client failed");
        return -1;
    }
    if (init_ipc() != 0) {
        kze_log(1, "init ipc failed");
        return -1;
    }
    if (init_kzemm_task() != 0) {
        kze_log(1, "init task failed");
        return -1;
    }
    set_qd_swicth();
    qd_client_subscribe();
    if (register_ipc_cb() != 0) {
        kze_log(1, "register ipc callback failed");
        return -1;
    }
    if (init_upgrade() != 0) {
        kze_log(1, "init upgrade failed");
        return -1;
    }
    request_cfg();
    running = true;
    kze_log(3, "kzemm_work start succeed");
    return 0;
}

int kzemm_work::run() {
    start_qd_timer();
    send_ctm_helloinfo();
    kze_log(3, "work loop start");
    cl_ev_loop_nowait(1);
    while (running && !s_stop_wanted) {
        cl_event_loop_once();
        usleep(turn_pause_us);
    }
    kze_log(3, "work loop stop");
    return 0;
}

void kzemm_work::stop() {
    s_stop_wanted = true;
    running = false;
    kze_log(3, "kzemm_work stopped succeed");
}

void kzemm_work::clean() {
    stop_cfg_timer();
    stop_switch_timer();
    stop_qd_timer();
    uninit_upgrade();
    uninit_ipc();
    uninit_kzemm_task();
    qd_client_stop();
    uninit_kzemm_config();
    kze_log(3, "clean succeed");
}

int kzemm_work::init_kzemm_config() {
    kze_log(3, "init kzemm_config");
    if (kzemm_config::get_instance().init() != 0) {
        kze_log(1, "kzemm_config init failed");
        return -1;
    }
    kze_log(3, "init kzemm_config succeed");
    return 0;
}

void kzemm_work::uninit_kzemm_config() {
    kze_log(3, "uninit kzemm_config");
    kzemm_config::get_instance().uninit();
}

int kzemm_work::init_kzemm_task() {
    kze_log(3, "init kzemm_task");
    task = new (std::nothrow) kzemm_task;
    if (task == nullptr) {
        kze_log(1, "new kzemm_task failed");
        return -1;
    }
    if (task->init() != 0) {
        kze_log(1, "kzemm_task init failed");
        return -1;
    }
    kze_log(3, "init kzemm_task succeed");
    return 0;
}

void kzemm_work::uninit_kzemm_task() {
    kze_log(3, "uninit kzemm_task");
    if (task != nullptr) {
        task->uninit();
        delete task;
        task = nullptr;
    }
}

int kzemm_work::init_upgrade() {
    kze_log(3, "init CUpgradeRelay");
    upgrade = new (std::nothrow) CUpgradeRelay;
    if (upgrade == nullptr) {
        kze_log(1, "new CUpgradeRelay failed");
        return -1;
    }
    return upgrade->init();
}

void kzemm_work::uninit_upgrade() {
    kze_log(3, "uinit CUpgradeRelay");
    if (upgrade != nullptr) {
        upgrade->uninit();
        delete upgrade;
        upgrade = nullptr;
    }
}
