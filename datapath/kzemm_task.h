/*
 * The bounded queue of management work and the thread that runs it.
 */
#ifndef KZEMDLMGR_DATAPATH_KZEMM_TASK_H
#define KZEMDLMGR_DATAPATH_KZEMM_TASK_H

#include <list>
#include <string>

#include "datapath/kzemm_custom_ioa.h"
#include "datapath/kzemm_task_info.h"
#include "engine/qd_client.h"
#include "kzabase.h"

// How a management request was received, which is what its response says.
enum KZEMM_TRACE_ERRORCODE : int {
    KZEMM_TRACE_OK = 0,             // the task is queued
    KZEMM_TRACE_QUEUE_FULL = 1,     // as many tasks as allowed are waiting
    KZEMM_TRACE_NO_PERMISSION = 2,  // the command is switched off, or unknown
    KZEMM_TRACE_INVALID = 3,        // a malformed message or task
    KZEMM_TRACE_FAILED = 4,         // no memory, or no task thread
};

/*
 * Threads: init, uninit and add_task are called by the worker thread. Tasks run on the task thread,
 * one at a time and with no lock held. The mutex guards task_list and running and nothing else;
 * engine_upd_by_data_cb comes on a thread of the engine client.
 */
class kzemm_task {
  public:
    kzemm_task();
    // uninit must have run: what is queued is not released here.
    ~kzemm_task();
    kzemm_task(const kzemm_task &) = delete;
    kzemm_task &operator=(const kzemm_task &) = delete;

    // ---- queue and thread (kzemm_task.cpp) ----

    // Starts the task thread, once. 0 or -1.
    int init();
    // Waits for the task that is running, which nothing interrupts, ends the thread, and releases
    // what is queued without running it.
    void uninit();

    // Queues a task. With KZEMM_TRACE_OK its reference has passed to the queue, with any other code
    // it stays the caller's. A full queue refuses, also what would replace a task in it; then a
    // task of type 3, 4 or 5 takes the place of those of its type that still wait.
    KZEMM_TRACE_ERRORCODE add_task(kzemm::task_info *task);

    // 0, or -1 when the thread could not be started.
    int create_task_thread();
    void terminate_task_thread();
    // Releases all queued tasks of one type. The caller holds the mutex.
    void erase_spe_type_task(KZEMM_TASK_TYPE type);
    // Releases every queued task; the thread must have ended.
    void clear_task_list();
    // Runs one task on the calling thread. 0 or -1.
    int run_task(kzemm::task_info *task);

    // ---- custom IOA rules (kzemm_custom_ioa.cpp) ----

    // Hands the rules of a request's frame to the engine. The frame was checked on arrival: its
    // header alone tells its length. 0 when the engine took them, else -1. On the task thread.
    int deal_customioa_task(const char *data, unsigned int len);
    // The engine's verdict on the rules, on a thread of the engine client; user is the kzemm_task.
    // One that comes after that has ended is passed over. Nothing is held meanwhile: a verdict may
    // come during another one, and the task may end.
    static void engine_upd_by_data_cb(_engine_type type, int ret, void *user);
    // Tells the console the outcome. 0 or -1; without an identifier nothing is sent. Any thread,
    // as the following ones.
    static int report_ctmioa_info(_customioa_info &info);
    // Replaces the engine's value by the one that the console knows.
    static void ctmioa_ret_trans(_customioa_info &info);
    // 0 with the result message, which the caller releases with free, or -1.
    static int build_cusioa_json_msg(_customioa_info &info, char **out);
    // Frames a text and hands it to the gateway, once. 0 or -1. The text stays the caller's.
    static int send_ctmdata_to_gw(KZEMM_DATA_TYPE type, const char *data, unsigned int len);

  private:
    friend struct kzemm_task_inspector;  // tests look at the fields through it

    // Verdicts are taken from the constructor to the destructor.
    void take_verdicts();
    void refuse_verdicts();
    // Copies the identifier of the update in flight. False when `task` takes no verdicts any more.
    static bool copy_rule_id(const kzemm_task *task, std::string &out);

    static void *static_thread_routine(void *task);
    void task_thread_routine();

    bool initialized = false;
    bool running = false;
    kze_thread_t thread = 0;  // 0: there is none
    kze_mutex_t mutex;
    kze_cond_t cond;
    std::list<kzemm::task_info *> task_list;  // each with its reference
    // The identifier of the update in flight. The task thread writes it once the engine took the
    // rules, and the engine's callback copies it. Nothing keeps the two in step: a newer update
    // puts its own in place while an older one is still at work, which is then reported under it.
    std::string cur_rule_id;
};

#endif
