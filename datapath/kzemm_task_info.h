/*
 * One piece of management work: a request's body, copied, and how the engine answers it.
 */
#ifndef KZEMDLMGR_DATAPATH_KZEMM_TASK_INFO_H
#define KZEMDLMGR_DATAPATH_KZEMM_TASK_INFO_H

#include "engine/qd_client.h"
#include "plugin/kzemm_command.h"

// The request of a task, with a copy of its data.
struct TASK_COORDINATE {
    char *data = nullptr;
    unsigned int size = 0;
    qd_dispose_trc_cb callback = nullptr;  // set for KZEMM_TASK_LKGANAL only
    void *user = nullptr;                  // for callback
};

namespace kzemm {

/*
 * Threads: made on the producer's thread; afterwards only the holder of its one reference touches
 * it. Lives on the heap and ends with that reference.
 */
class task_info {
  public:
    // Copies the data, which stays the caller's. Without memory for the copy the task stays empty:
    // its type is 0 and it has no coordinate. Never throws.
    task_info(KZEMM_TASK_TYPE task_type, const char *data, unsigned int size,
              qd_dispose_trc_cb callback, void *user) noexcept;
    task_info(const task_info &) = delete;
    task_info &operator=(const task_info &) = delete;

    void add_reference();
    // Gives one reference back. The last one takes the task with it.
    void release();

    KZEMM_TASK_TYPE get_type() const { return type; }
    // Null in an empty task.
    const TASK_COORDINATE *get_coordinate() const { return coordinate; }

  private:
    ~task_info() = default;

    volatile int ref_count = 0;
    KZEMM_TASK_TYPE type = static_cast<KZEMM_TASK_TYPE>(0);
    TASK_COORDINATE *coordinate = nullptr;  // owned, with its data
};

}  // namespace kzemm

#endif
