/*
 * The switches of the engine's drive layer: the answer for the module "base_drive" is compared with
 * the engine's state, and a difference is put right on a short-lived thread.
 *
 * The state is kept at file level, since neither answers nor timers have a worker. Deliberately
 * unlocked: the worker thread and the drive thread both touch the identifier of the latter (an
 * atomic word) and the retry timer. Thread and timers are not tied to the worker's end and may
 * outlive it.
 */
#ifndef KZEMDLMGR_PLUGIN_KZEMM_DRIVE_SWITCH_H
#define KZEMDLMGR_PLUGIN_KZEMM_DRIVE_SWITCH_H

#include "vrdcl_ev.h"

// How the switches should stand; 0 is off, anything else on.
struct drive_cfg {
    int enable;
    int collect_enable;
};

// What a drive thread is to do.
struct drive_switch_ctx {
    bool change_drive;
    int drive_enable;
    bool change_collect;
    int collect_enable;
};

// The answer for "base_drive", on the worker thread; user is not read. A vrd_ipc_reply_cb.
void on_base_drive_cfg_response(int result, unsigned int cmd, const char *data, unsigned int len,
                                void *user);

// Asks the engine for its state and fills in what must change. 0 when something must, -1 when
// nothing must or the state can't be read.
int check_drive_switch_change(const drive_cfg *cfg, drive_switch_ctx *ctx);

// Starts a drive thread with a copy of the record. 0, -1 without memory, or the code of
// pthread_create.
int start_set_drive_switch_thread(const drive_switch_ctx *ctx);
// The body of a drive thread, which owns ctx, a drive_switch_ctx made with malloc.
void *set_drive_switch_thread(void *ctx);

// The retry job: 20 seconds after the engine asked to be tried again. 0, also when it is armed
// already, or -1. Worker thread and drive thread.
int start_drive_switch_retry_job(const drive_switch_ctx *ctx);
void stop_drive_switch_retry_job();
void set_drive_switch_retry_cb(cl_timerplus *timer);

// The wait for a running drive thread to end, 3 seconds.
void stop_drive_update_timer();
void drive_update_timer_cb(cl_timerplus *timer);

#endif
