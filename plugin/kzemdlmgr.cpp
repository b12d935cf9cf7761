#include "plugin/kzemdlmgr.h"

#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "datapath/kzemm_invoke.h"
#include "engine/kzemm_loader.h"
#include "kzautil.h"
#include "plugin/kzemm_work.h"
#include "vrdbase.h"

namespace {

constexpr char plugin_name[] = "kzemdlmgr";
constexpr char log_directory[] = "@/../var/log/agent/kzemdlmgr";
constexpr int log_files = 5;

// The worker thread's id; 0 while there is none, which is what "stopped" means. Used on the host's
// thread alone.
pthread_t s_work_thread = 0;

// The one worker, null while there is none. Deliberately unlocked: the worker thread writes it and
// kzemdlmgr_uninit reads it.
kzemm_work *s_work = nullptr;

void *work_thread_routine(void *) {
    char directory[4096] = {};
    kze_dirutils_path_transform(log_directory, directory, sizeof(directory));
    autolog_init(directory, log_files);

    s_work = new (std::nothrow) kzemm_work;
    if (s_work == nullptr) {
        kze_log(1, "new kzemm_work failed");
        return nullptr;
    }
    if (s_work->start() != 0) {
        kze_log(1, "start kzemm_work failed");
    } else if (s_work->run() != 0) {
        kze_log(1, "run kzemm_work failed");
    }
    s_work->clean();
    delete s_work;
    s_work = nullptr;
    kze_log(3, "kzemm_work stopped");
    return nullptr;
}

}  // namespace

int kzemdlmgr_init(void) {
    kze_log(3, "begin to init plugin %s", plugin_name);
    if (s_work_thread != 0) {
        kze_log(2, "plugin %s is already running", plugin_name);
        return 0;
    }
    kzemm_loader &loader = kzemm_loader::get_instance();
    if (loader.init() != 0) {
        kze_log(1, "load lib fiailed");
        loader.uninit();
        return -1;
    }
    if (!kzemm_invoke::GetInstance().Initialize()) {
        kze_log(1, "load mb failed");  // the two libraries stay loaded here
        return -1;
    }
    const int result =
        cl_ev_create_isolated_thread(&s_work_thread, nullptr, work_thread_routine, nullptr);
    if (result != 0) {
        kze_log(1, "cl_ev_create_isolated_thread failed, ret: %d", result);
        loader.uninit();
        return -1;
    }
    kze_log(3, "init plugin %s success", plugin_name);
    return 0;
}

int kzemdlmgr_uninit(void) {
    kze_log(3, "begin to uninit plugin %s", plugin_name);
    if (s_work_thread == 0) {
        kze_log(2, "plugin %s is already stop", plugin_name);
        return 0;
    }
    if (kzemm_work *const work = s_work; work != nullptr) {
        work->stop();
    }
    if (pthread_join(s_work_thread, nullptr) != 0) {
        kze_log(2, "pthread_join failed with error: %s", strerror(errno));
    }
    s_work_thread = 0;
    kzemm_loader::get_instance().uninit();
    kze_log(3, "uninit plugin %s success", plugin_name);
    return 0;
}
