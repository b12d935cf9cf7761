#include "datapath/kzemm_task.h"

#include <new>

#include "config/kzemm_config.h"
#include "datapath/kzemm_mutex_lock.h"
#include "engine/qd_calls.h"
#include "plugin/kzemm_platform.h"
#include "vrdbase.h"

namespace {

constexpr char log_directory[] = "@/../var/log/agent/kzemdlmgr/task";

// The engine's number for a coordinate task; 0 for a task of another kind.
int trace_type_of(KZEMM_TASK_TYPE type) {
    const kzemm_command *const command = find_command_of_task(type);
    if (command == nullptr || command->trace_type == 0) {
        kze_log(2, "invalid task type: %d", type);
        return 0;
    }
    return command->trace_type;
}

int report_engine_result(int result) {
    if (result != 0) {
        kze_log(2, "qd-agent return err:%d", result);
        return -1;
    }
    return 0;
}

int run_coordinate(KZEMM_TASK_TYPE type, const TASK_COORDINATE &request) {
    const int trace_type = trace_type_of(type);
    if (trace_type == 0) {
        kze_log(1, "trace type %d is invalid", trace_type);
        return -1;
    }
    return report_engine_result(qd::coordinate(trace_type, request.data, request.size));
}

int run_linkage_analysis(const TASK_COORDINATE &request) {
    kze_log(3, "qd-agent handle lkganal task begin!");
    return report_engine_result(
        qd::coordinate_dispose_trc(request.data, request.size, request.callback, request.user));
}

}  // namespace

kzemm_task::kzemm_task() : mutex(kze_mutex_init()), cond(kze_cond_init()) {
    take_verdicts();
}

kzemm_task::~kzemm_task() {
    refuse_verdicts();
    kze_cond_destroy(cond);
    kze_mutex_destroy(mutex);
}

int kzemm_task::init() {
    kze_log(3, "init kzemm_task");
    if (initialized) {
        kze_log(2, "kzemm_task has already been initialized");
        return 0;
    }
    if (create_task_thread() != 0) {
        kze_log(1, "create task thread failed");
        return -1;
    }
    initialized = true;
    kze_log(3, "init kzemm_task success");
    return 0;
}

void kzemm_task::uninit() {
    if (!initialized) {
        kze_log(2, "task thread is not initialized");
        return;
    }
    terminate_task_thread();
    clear_task_list();
    initialized = false;
    kze_log(3, "kzemm_task uninitialized");
}

KZEMM_TRACE_ERRORCODE kzemm_task::add_task(kzemm::task_info *task) {
    if (task == nullptr) {
        kze_log(1, "task is null");
        return KZEMM_TRACE_INVALID;
    }
    const KZEMM_TASK_TYPE type = task->get_type();
    const kzemm_command *const command = find_command_of_task(type);
    if (command == nullptr) {
        kze_log(1, "task type %d is invalid", type);
        return KZEMM_TRACE_INVALID;
    }

    const mutex_lock lock(mutex);
    if (!running) {
        kze_log(2, "task thread is not running");
        return KZEMM_TRACE_FAILED;
    }
    const size_t waiting = task_list.size();
    if (waiting >= kzemm_config::get_instance().get_task_queue_size()) {
        kze_log(2, "task queue is full, size: %zu", waiting);
        return KZEMM_TRACE_QUEUE_FULL;
    }
    if (command->latest_only) {
        erase_spe_type_task(type);
    }
    try {
        task_list.push_back(task);
    } catch (const std::bad_alloc &) {
        kze_log(1, "new task node failed");
        return KZEMM_TRACE_FAILED;
    }
    kze_cond_signal(cond);
    kze_log(3, "add task done, task type: %d", type);
    return KZEMM_TRACE_OK;
}

// `running` is set behind the new thread's back, which ends at once where it finds it unset:
// kze_thread_start lets its creator go on to the lock first.
int kzemm_task::create_task_thread() {
    if (thread != 0) {
        kze_log(2, "task thread is exist");
        return 0;
    }
    if (mutex == nullptr || cond == nullptr) {
        return -1;  // no memory when the queue was made
    }
    const int result = kze_thread_start(&thread, static_thread_routine, this);
    if (result != 0) {
        kze_log(1, "start task thread failed: %d", result);
        return -1;
    }
    const mutex_lock lock(mutex);
    running = true;
    kze_log(3, "create task thread success");
    return 0;
}

void kzemm_task::terminate_task_thread() {
    {
        const mutex_lock lock(mutex);
        running = false;
        kze_cond_broadcast(cond);
    }
    if (thread != 0) {
        kze_thread_join(&thread, nullptr);
        thread = 0;
    }
    kze_log(3, "task thread is stopped");
}

void kzemm_task::erase_spe_type_task(KZEMM_TASK_TYPE type) {
    if (!is_task_type(type)) {
        kze_log(1, "task type %d is invalid", type);
        return;
    }
    for (auto each = task_list.begin(); each != task_list.end();) {
        if ((*each)->get_type() != type) {
            ++each;
            continue;
        }
        kze_log(3, "task queue has exist %d task, remove old task", type);
        (*each)->release();
        each = task_list.erase(each);
    }
}

void kzemm_task::clear_task_list() {
    while (!task_list.empty()) {
        if (kzemm::task_info *const task = task_list.front()) {
            task->release();
        }
        task_list.pop_front();
    }
}

void *kzemm_task::static_thread_routine(void *task) {
    start_thread_log(log_directory);
    static_cast<kzemm_task *>(task)->task_thread_routine();
    return nullptr;
}

void kzemm_task::task_thread_routine() {
    kze_log(3, "task thread start running");
    for (;;) {
        kzemm::task_info *task = nullptr;
        {
            const mutex_lock lock(mutex);
            while (running && task_list.empty()) {
                kze_cond_wait(cond, mutex);
            }
            if (!running) {
                break;
            }
            task = task_list.front();
            task_list.pop_front();
        }
        const int result = run_task(task);
        kze_log(3, "task %d ret: %d", task->get_type(), result);
        task->release();
    }
    kze_log(3, "task thread end running");
    kze_thread_exit(nullptr);
}

int kzemm_task::run_task(kzemm::task_info *task) {
    const TASK_COORDINATE *const request = task->get_coordinate();
    if (request == nullptr) {
        kze_log(1, "task info is null");
        return -1;
    }
    const KZEMM_TASK_TYPE type = task->get_type();
    kze_log(3, "run task, type: %d", type);
    switch (type) {
        case KZEMM_TASK_LINKAGE:
        case KZEMM_TASK_APPEND:
        case KZEMM_TASK_HUNTING:
            return run_coordinate(type, *request);
        case KZEMM_TASK_CUSTOM_IOA:
            return deal_customioa_task(request->data, request->size);
        case KZEMM_TASK_LKGANAL:
            return run_linkage_analysis(*request);
        default:
            kze_log(2, "unknown task type");
            return -1;
    }
}
