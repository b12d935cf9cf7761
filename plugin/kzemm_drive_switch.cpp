#include "plugin/kzemm_drive_switch.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "engine/qd_calls.h"
#include "plugin/kzemm_platform.h"
#include "plugin/kzemm_work_module_config.h"
#include "vrdbase.h"

namespace {

constexpr char log_directory[] = "@/../var/log/agent/kzemdlmgr/setdriveswitch";

constexpr unsigned int retry_period_ms = 20000;
constexpr unsigned int retry_count_start = 3;
constexpr unsigned int retry_count_limit = 2;
constexpr int retry_times = 3;  // as it is logged

constexpr unsigned int update_period_ms = 3000;
constexpr unsigned int update_count_start = 10;
constexpr unsigned int update_count_limit = 9;
constexpr int update_times = 10;  // as it is logged

constexpr int state_on = 1;
constexpr int state_off = 0;

// How x_client_set_drive_switch tells what came of a call that succeeded.
constexpr int outcome_done = 0;
constexpr int outcome_done_too = -1;
constexpr int outcome_try_again = -2;

// 0: there is no thread. A thread that ends before its identifier is stored leaves a stale one,
// which may be probed as living or not. Read once for the test and the probe behind it: the thread
// may set 0 in between, and a probe of 0 is a crash.
std::atomic<pthread_t> drive_thread_id{0};
drive_switch_ctx retry_drive_ctx = {};
cl_timerplus *retry_timer = nullptr;  // null: not armed
unsigned int retry_count = 0;
drive_cfg pending_drive_cfg = {};
cl_timerplus *update_timer = nullptr;  // null: not armed
unsigned int update_count = 0;

// A state that is neither on nor off differs from both.
bool differs(int wanted, int state) {
    return wanted == 0 ? state != state_off : state != state_on;
}

// Puts right what differs from the wish; what can't be done now goes to the retry job.
void apply_drive_cfg(const drive_cfg *cfg) {
    drive_switch_ctx ctx = {};
    if (check_drive_switch_change(cfg, &ctx) == 0 && start_set_drive_switch_thread(&ctx) != 0 &&
        start_drive_switch_retry_job(&ctx) != 0) {
        kze_log(1, "set retry job failed.");
    }
}

// A wish that came while a thread runs waits for it.
void keep_until_thread_ends(const drive_cfg &cfg) {
    pending_drive_cfg = cfg;
    stop_drive_update_timer();
    update_count = update_count_start;
    update_timer =
        cl_timerplus_start(update_period_ms, 0, update_period_ms, drive_update_timer_cb, nullptr);
    if (update_timer == nullptr) {
        kze_log(1, "cl_timerplus_start failed.");
    }
}

bool is_flag(const char *text) {
    return text[0] == '0' || text[0] == '1';
}

int to_number(const char *text) {
    return static_cast<int>(strtol(text, nullptr, 10));
}

// Reads the wish of an answer. False when it holds none.
bool read_wish(const xmsg_ptr &answer, drive_cfg &cfg) {
    const char *const enable = get_cfg_field(answer, "enable");
    if (enable == nullptr) {
        return false;
    }
    const char *const collect_enable = get_cfg_field(answer, "collect_enable");
    if (collect_enable == nullptr) {
        return false;
    }
    kze_log(4, "drive_enable:%s,drive_collect_enable:%s", enable, collect_enable);
    if (!is_flag(enable) && !is_flag(collect_enable)) {
        kze_log(1, "illegal value");
        return false;
    }
    cfg = {to_number(enable), to_number(collect_enable)};
    return true;
}

// One of the two switches: its number, and the lines that tell what came of a change.
struct drive_step {
    qd_drive_switch target;
    const char *called;
    const char *done;
    const char *try_again;
    const char *refused;
};

constexpr drive_step step_drive = {
    DRIVE_SWITCH_DRIVE, "change drive switch:%d, ret:%d", "change drive switch success",
    "change drive switch failed, need retry", "change drive switch failed, not need retry"};
constexpr drive_step step_collect = {DRIVE_SWITCH_COLLECT, "change drive collect switch:%d, ret:%d",
                                     "change drive collect switch success",
                                     "change drive collect switch failed, need retry",
                                     "change drive collect switch failed, not need retry"};

// Changes one switch. Whether the engine asked to be tried again. A call that doesn't write
// `outcome` leaves it as the step before did.
bool change_switch(const drive_step &step, int value, int &outcome) {
    const int result = qd::set_drive_switch(step.target, value, &outcome);
    kze_log(3, step.called, value, outcome);
    if (result != 0) {
        kze_log(2, "set drive switch failed, not need retry, ret = %d", result);
    } else if (outcome == outcome_done || outcome == outcome_done_too) {
        kze_log(3, "%s", step.done);
    } else if (outcome == outcome_try_again) {
        kze_log(2, "%s", step.try_again);
        return true;
    } else {
        kze_log(2, "%s", step.refused);
    }
    return false;
}

// Carries out a record. Whether the engine asked to be tried again, at which the rest is left
// alone.
bool change_switches(const drive_switch_ctx &ctx) {
    int outcome = 0;  // of both steps
    if (ctx.change_drive) {
        if (change_switch(step_drive, ctx.drive_enable, outcome)) {
            return true;
        }
        if (ctx.drive_enable == 0) {
            return false;
        }
    }
    return ctx.change_collect && change_switch(step_collect, ctx.collect_enable, outcome);
}

unsigned long now_seconds() {
    return static_cast<unsigned long>(time(nullptr));
}

}  // namespace

void on_base_drive_cfg_response(int result, unsigned int, const char *data, unsigned int len,
                                void *) {
    const xmsg_ptr answer = open_cfg_answer(result, data, len);
    drive_cfg cfg = {};
    if (answer == nullptr || !read_wish(answer, cfg)) {
        return;
    }
    stop_drive_switch_retry_job();
    const pthread_t running = drive_thread_id;
    if (running == 0) {
        apply_drive_cfg(&cfg);
    } else if (const int error = pthread_kill(running, 0); error != 0) {
        kze_log(1, "pthread_kill error:%d", error);
    } else {
        keep_until_thread_ends(cfg);
    }
}

int check_drive_switch_change(const drive_cfg *cfg, drive_switch_ctx *ctx) {
    int drive_state = 0;
    if (const int result = qd::get_drive_state(&drive_state); result != 0) {
        kze_log(1, "get drive state faile, ret = %d", result);
        return -1;
    }
    int collect_state = 0;
    if (const int result = qd::get_collect_state(&collect_state); result != 0) {
        kze_log(1, "get collect state faile, ret = %d", result);
        return -1;
    }
    kze_log(4, "current_drive_state:%d,current_collect_state:%d", drive_state, collect_state);
    ctx->drive_enable = cfg->enable;
    ctx->collect_enable = cfg->collect_enable;
    ctx->change_drive = differs(cfg->enable, drive_state);
    if (ctx->change_drive) {
        kze_log(3, "drive switch need change");
    }
    ctx->change_collect = differs(cfg->collect_enable, collect_state);
    if (ctx->change_collect) {
        kze_log(3, "drive collect switch need change");
    }
    if (ctx->change_drive || (drive_state == state_on && ctx->change_collect)) {
        kze_log(3, "need change");
        return 0;
    }
    kze_log(3, "do not need change");
    return -1;
}

int start_set_drive_switch_thread(const drive_switch_ctx *ctx) {
    auto *const copy = static_cast<drive_switch_ctx *>(malloc(sizeof(drive_switch_ctx)));
    if (copy == nullptr) {
        kze_log(1, "malloc failed.");
        return -1;
    }
    *copy = *ctx;
    kze_log(3, "begin set drive switch thread");
    pthread_t id = 0;
    if (const int result = pthread_create(&id, nullptr, set_drive_switch_thread, copy);
        result != 0) {
        kze_log(1, "failed to create thread");
        free(copy);
        return result;
    }
    pthread_detach(id);
    drive_thread_id = id;
    return 0;
}

void *set_drive_switch_thread(void *ctx) {
    auto *const work = static_cast<drive_switch_ctx *>(ctx);
    start_thread_log(log_directory);
    kze_log(3, "begin set drive switch at %lu", now_seconds());
    const bool try_again = change_switches(*work);
    if (try_again) {
        start_drive_switch_retry_job(work);
    }
    kze_log(3, "end set drive switch at %lu", now_seconds());
    if (!try_again) {
        stop_drive_switch_retry_job();
    }
    free(work);
    drive_thread_id = 0;
    pthread_exit(nullptr);
}

int start_drive_switch_retry_job(const drive_switch_ctx *ctx) {
    if (retry_timer != nullptr) {
        return 0;
    }
    retry_drive_ctx = *ctx;
    retry_count = retry_count_start;
    retry_timer =
        cl_timerplus_start(retry_period_ms, 0, retry_period_ms, set_drive_switch_retry_cb, nullptr);
    if (retry_timer == nullptr) {
        kze_log(1, "set collect engine timer failed");
        return -1;
    }
    return 0;
}

void stop_drive_switch_retry_job() {
    if (retry_timer != nullptr) {
        close_timer(retry_timer);
        retry_drive_ctx = {};
        retry_count = 0;
    }
    kze_log(3, "stop set drive switch retry timer");
}

// The count begins beyond its limit, so the job ends when it first fires.
void set_drive_switch_retry_cb(cl_timerplus *) {
    // Counted only where the line is written.
    kze_log(3, "[retry job] begin %d retry set drive switch", static_cast<int>(retry_count++));
    if (retry_count > retry_count_limit) {
        kze_log(2, "[retry job]set drive switch retry has got the max times:%d", retry_times);
        stop_drive_switch_retry_job();
        return;
    }
    if (start_set_drive_switch_thread(&retry_drive_ctx) != 0) {
        kze_log(1, "[retry job] %d retry failed", static_cast<int>(retry_count));
    }
}

void stop_drive_update_timer() {
    if (update_timer != nullptr) {
        close_timer(update_timer);
        pending_drive_cfg = {};
        update_count = 0;
    }
    kze_log(3, "stop set drive switch retry timer");
}

// The count begins beyond its limit here too: a wish that waits is dropped at the first firing.
void drive_update_timer_cb(cl_timerplus *) {
    if (update_count++ > update_count_limit) {
        kze_log(3, "update timer has got the max time:%d", update_times);
        stop_drive_update_timer();
        return;
    }
    if (const pthread_t running = drive_thread_id; running != 0) {
        if (const int error = pthread_kill(running, 0); error != 0) {
            kze_log(1, "pthread_kill error:%d", error);
        } else {
            kze_log(3, "set dirve switch thread is running");
        }
        return;
    }
    apply_drive_cfg(&pending_drive_cfg);
    stop_drive_update_timer();
}
