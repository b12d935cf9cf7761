/*
 * What several modules do with the platform's timers and logs, in one place.
 */
#ifndef KZEMDLMGR_PLUGIN_KZEMM_PLATFORM_H
#define KZEMDLMGR_PLUGIN_KZEMM_PLATFORM_H

#include "kzautil.h"
#include "vrdbase.h"
#include "vrdcl_ev.h"

// Stops and releases a timer and forgets its handle; null is passed over. Also from within the
// timer's own callback, which must not look at the timer any more.
inline void close_timer(cl_timerplus *&timer) {
    if (timer != nullptr) {
        cl_timerplus_stop(timer);
        cl_timerplus_close(timer);
        timer = nullptr;
    }
}

// Directs the calling thread's log to a directory, whose path may begin with "@".
inline void start_thread_log(const char *directory) {
    constexpr int log_files = 5;
    char path[4096] = {};
    kze_dirutils_path_transform(directory, path, sizeof(path));
    autolog_init(path, log_files);
}

#endif
