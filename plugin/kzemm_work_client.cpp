// The life of the link to the engine: its start with growing waits, the watch, the way back.

#include <unistd.h>

#include <cstdlib>

#include "config/kzemm_config.h"
#include "datapath/kzemm_invoke.h"
#include "engine/qd_calls.h"
#include "kzabase.h"
#include "kzautil.h"
#include "plugin/kzemm_fileoperate.h"
#include "plugin/kzemm_platform.h"
#include "plugin/kzemm_work.h"
#include "vrdbase.h"

namespace {

constexpr unsigned int watch_period_ms = 1000;
constexpr int restart_pause_seconds = 180;
constexpr int microseconds_in_second = 1000000;

// Operations on the engine's service.
enum qd_agent_opr {
    QD_AGENT_START = 1,
    QD_AGENT_STOP = 2,
    QD_AGENT_RESTART = 3,
};

int do_qd_agent_cmd(const char *cmd) {
    char command[4096] = {};
    kze_dirutils_path_transform(cmd, command, sizeof(command));
    kze_log(3, "qd-agent do cmd: %s", command);
    if (create_process(command) != 0) {
        kze_log(2, "qd-agent do cmd failed");
        return -1;
    }
    return 0;
}

int do_qd_agent_opr(int opr) {
    const char *cmd = nullptr;
    switch (opr) {
        case QD_AGENT_START:
            cmd = "@/vrd_services start 10qd_agent";
            break;
        case QD_AGENT_STOP:
            cmd = "@/vrd_services stop 10qd_agent";
            break;
        case QD_AGENT_RESTART:
            cmd = "@/vrd_services restart 10qd_agent";
            break;
        default:
            kze_log(2, "invalid opr: %d", opr);
            return -1;
    }
    const int result = do_qd_agent_cmd(cmd);
    kze_log(3, "qd-agent do opr success");
    return result;
}

// The wait has no bound of its own; one that no longer fits 32 bits ends the process.
int multiply_or_abort(int value, int factor) {
    int product = 0;
    if (__builtin_mul_overflow(value, factor, &product)) {
        abort();
    }
    return product;
}

void sleep_seconds(int seconds) {
    usleep(static_cast<useconds_t>(multiply_or_abort(seconds, microseconds_in_second)));
}

}  // namespace

int kzemm_work::qd_client_start() {
    const unsigned int max = kzemm_config::get_instance().get_offline_retry_times();
    kze_log(3, "qd_client_start, max_try_times: %u", max);
    const int max_tries = static_cast<int>(max);
    int interval = 1;
    int tries = 0;
    bool restarted = false;
    const qd_client_callbacks callbacks = {qd_agent_offline_cb, nullptr};

    for (;;) {
        if (qd::start(&callbacks, this) == 0) {
            kze_log(3, "x_client start success");
            set_x_client_status(X_CLIENT_ONLINE);
            return 0;
        }
        if (tries > max_tries) {
            kze_log(2, "try times %d over max, stop qd agent", tries);
            do_qd_agent_opr(QD_AGENT_STOP);
            return -1;
        }
        if (!restarted && tries == max_tries) {
            kze_log(2, "try times %d, restart qd-agent", tries);
            restarted = true;
            if (do_qd_agent_opr(QD_AGENT_RESTART) == 0) {
                kze_log(3, "restart qd-agent success, reset try times");
                sleep_seconds(restart_pause_seconds);
                interval = 1;
                tries = 0;
            }
        }
        ++tries;
        interval = multiply_or_abort(interval, 2);  // before the first wait too: it is 2 seconds
        kze_log(3, "qd start try_times: %d, interval: %d", tries, interval);
        sleep_seconds(interval);
    }
}

int kzemm_work::qd_client_stop() {
    set_x_client_status(X_CLIENT_OFFLINE);
    if (qd::stop() != 0) {
        kze_log(2, "x_client stop failed");
        return -1;
    }
    return 0;
}

void kzemm_work::set_x_client_status(X_CLIENT_STATUS status) {
    kze_atomic32_set(&x_client_status, status);
    kze_log(3, "x_client status %ld", static_cast<long>(status));
}

void kzemm_work::qd_agent_offline_cb(void *user) {
    kze_log(2, "qd-agent is offline");
    static_cast<kzemm_work *>(user)->set_x_client_status(X_CLIENT_OFFLINE);
}

int kzemm_work::start_qd_timer() {
    qd_timer = cl_timerplus_start(watch_period_ms, 0, watch_period_ms, check_qd_status_cb, this);
    if (qd_timer == nullptr) {
        kze_log(2, "start qd timer failed");
        return -1;
    }
    kze_log(3, "start qd timer success");
    return 0;
}

void kzemm_work::stop_qd_timer() {
    close_timer(qd_timer);
    kze_log(3, "stop qd timer");
}

void kzemm_work::check_qd_status() {
    if (x_client_status != X_CLIENT_OFFLINE) {
        return;
    }
    kze_log(3, "x_clinet is offline, start restart client");
    stop_qd_timer();  // closes the timer whose callback this is: no look while the restart runs
    if (qd_client_start() != 0) {
        kze_log(1, "start qd client failed");
        stop();
        return;
    }
    start_qd_timer();
    do_engine_swicth();
    qd_client_subscribe();
    qd_client_subscribe_origin();
    qd_client_subscribe_RealTime();
    request_cfg();
    qd_client_offline_to_fmb();
}

int kzemm_work::qd_client_offline_to_fmb() {
    constexpr char text[] = "offline";
    kzemm_invoke::Publish(KZEMM_PUBLISH_OFFLINE, text, sizeof(text) - 1,
                          &kzemm_invoke::GetInstance());
    return 0;
}

void kzemm_work::check_qd_status_cb(cl_timerplus *timer) {
    static_cast<kzemm_work *>(timer->user)->check_qd_status();
}
