#include "plugin/kzemm_work.h"

#include <unistd.h>

#include "config/kzemm_config.h"
#include "vrdbase.h"

namespace {

constexpr useconds_t turn_pause_us = 100000;

}  // namespace

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
    set_qd_swicth();
    qd_client_subscribe();
    running = true;
    kze_log(3, "kzemm_work start succeed");
    return 0;
}

int kzemm_work::run() {
    start_qd_timer();
    kze_log(3, "work loop start");
    cl_ev_loop_nowait(1);
    while (running) {
        cl_event_loop_once();
        usleep(turn_pause_us);
    }
    kze_log(3, "work loop stop");
    return 0;
}

void kzemm_work::stop() {
    running = false;
    kze_log(3, "kzemm_work stopped succeed");
}

void kzemm_work::clean() {
    stop_cfg_timer();
    stop_switch_timer();
    stop_qd_timer();
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
