/*
 * The worker: one object for each run of the plug-in, made, used and destroyed on the worker
 * thread. Its duties are one source file each, kzemm_work_<duty>.cpp.
 */
#ifndef KZEMDLMGR_PLUGIN_KZEMM_WORK_H
#define KZEMDLMGR_PLUGIN_KZEMM_WORK_H

#include <list>
#include <string>

#include "datapath/kzemm_task.h"
#include "engine/qd_client.h"
#include "vrdcl_ev.h"
#include "vrdipc.h"

class CUpgradeRelay;

enum X_CLIENT_STATUS {
    X_CLIENT_INIT = 0,     // never started
    X_CLIENT_ONLINE = 1,   // x_client_start succeeded
    X_CLIENT_OFFLINE = 2,  // the engine went away, or the client was stopped
};

/*
 * Threads: everything runs on the worker thread, but for stop, which the host's thread calls too,
 * and what the engine client calls on its own threads: the offline callback with
 * set_x_client_status, the data callbacks, and the reply of a linkage analysis.
 */
class kzemm_work {
  public:
    kzemm_work();
    ~kzemm_work() = default;
    kzemm_work(const kzemm_work &) = delete;
    kzemm_work &operator=(const kzemm_work &) = delete;

    // ---- life cycle (kzemm_work.cpp) ----

    // Brings everything up in its order. 0, or -1 at the first step that counts and failed; what
    // was done until then is undone by clean.
    int start();
    // Turns the event loop, about ten times a second, until stop. Always 0.
    int run();
    // Tells run to return; waits for nothing. One that comes during start takes effect when that
    // has ended: the loop doesn't turn then. Any thread.
    void stop();
    // Releases everything, whatever start and run came to.
    void clean();

  private:
    friend struct kzemm_work_inspector;  // tests reach the rest through it
    friend void kzemm_send_to_kzelkganal(_x_error err, char *data, unsigned int len, void *user);

    // ---- steps of start and clean (kzemm_work.cpp) ----

    int init_kzemm_config();
    void uninit_kzemm_config();
    int init_kzemm_task();
    void uninit_kzemm_task();
    int init_upgrade();
    void uninit_upgrade();

    // ---- the engine client's life (kzemm_work_client.cpp) ----

    // Starts the engine client, with growing waits and one restart of the engine's service; blocks
    // for as long as that takes. 0, or -1 when the engine was given up.
    int qd_client_start();
    // 0, or -1 when the client library refused.
    int qd_client_stop();
    // Any thread.
    void set_x_client_status(X_CLIENT_STATUS status);
    // The client's offline callback, on a thread of the client library; user is the kzemm_work.
    static void qd_agent_offline_cb(void *user);
    // Arms the engine watch, once a second. 0 or -1.
    int start_qd_timer();
    void stop_qd_timer();
    // One look at the engine: brings the client back when it is offline, and ends the worker when
    // that fails.
    void check_qd_status();
    static void check_qd_status_cb(cl_timerplus *timer);
    // Tells the message bus that the engine was away. Always 0.
    int qd_client_offline_to_fmb();

    // ---- the engine's capabilities (kzemm_work_switching.cpp) ----

    // Re-reads central configuration and switches the engine; an unreadable configuration is read
    // again every 5 seconds. 0, or -1 when nothing was sent and nothing is armed.
    int set_qd_swicth();
    // Sends the state of every capability; the refused ones are tried again every 180 seconds.
    void do_engine_swicth();
    // Arms the retry for these capabilities in place of what is armed. 0 or -1.
    int retry_switch_engine(std::list<_engine_type> engines);
    static void set_engine_switch_cb(cl_timerplus *timer);
    static void switch_engine_cb(cl_timerplus *timer);
    void stop_cfg_timer();
    void stop_switch_timer();

    // ---- subscriptions (kzemm_work_subscriptions.cpp) ----

    // Registers the fixed callbacks, all of them in any case. 0 when every one was taken, else -1.
    int qd_client_subscribe();
    // Makes or cancels the origin data subscription as the switches say. 0 or -1.
    int qd_client_subscribe_origin();
    // Has no content; keeps its place in every order of calls. Always 0.
    int qd_client_subscribe_RealTime();

    // ---- endpoint and management requests (kzemm_work_ipc.cpp) ----

    // Makes the endpoint "agt_rpt" and the two lasting addresses. 0, or -1 with what was made left
    // to uninit_ipc.
    int init_ipc();
    void uninit_ipc();
    // Lets requests and one-way messages in. 0 or -1.
    int register_ipc_cb();
    // Callbacks of the endpoint; context is the kzemm_work. The data stays the platform's.
    static void on_ipc_request(vrd_ipc_st *from, vrd_addr_st *addr, unsigned int request_id,
                               unsigned int cmd, const char *data, unsigned int len, void *context);
    static void on_ipc_recv(vrd_ipc_st *from, vrd_addr_st *addr, unsigned int cmd, const char *data,
                            unsigned int len, void *context);
    // Checks a request, queues its work and answers at once whether that was taken.
    void handle_ipc_request(vrd_ipc_st *from, vrd_addr_st *addr, unsigned int request_id,
                            unsigned int cmd, const char *data, unsigned int len);
    void handle_ipc_recv_msg(vrd_ipc_st *from, vrd_addr_st *addr, unsigned int cmd,
                             const char *data, unsigned int len);
    // Answers a request. Without memory it stays unanswered.
    void response_mgr_msg(vrd_ipc_st *from, vrd_addr_st *addr, unsigned int request_id,
                          unsigned int cmd, KZEMM_TRACE_ERRORCODE code);

    // ---- management tasks (kzemm_work_trace.cpp) ----

    // Copies a request into a task and queues it. The data stays the caller's.
    KZEMM_TRACE_ERRORCODE do_trace(KZEMM_TASK_TYPE type, const char *data, unsigned int len);

    // ---- configuration modules (kzemm_work_module_config.cpp) ----

    // Sets the switches anew and asks for every module. 0, or -1 when the configuration service has
    // no address, with nothing done.
    int request_cfg();
    // Handles a change notification: sets the switches anew and asks for the modules it names.
    // Always 0.
    int do_cfgc_notify(vrd_ipc_st *from, vrd_addr_st *addr, const char *data, unsigned int len);

    // ---- custom IOA rules (kzemm_work_custom_ioa.cpp) ----

    // Announces the stored identifier to the console.
    void send_ctm_helloinfo();
    // 0 with the message, which the caller releases with free, or -1.
    int build_cusioa_hello_msg(const std::string &rule_id, char **out);

    // ---- the engine's data (kzemm_work_engine_data.cpp), on threads of the client library ----

    // Each takes over the data; user is not read where nothing else is said.
    static void qd_alarm_cb(char *data, unsigned int len, void *user);
    static void qd_coordinate_hunting_cb(char *data, unsigned int len, void *user);
    static void qd_coordinate_linkage_cb(char *data, unsigned int len, void *user);
    static void qd_coordinate_append_cb(char *data, unsigned int len, void *user);
    static void qd_origin_cb(char *data, unsigned int len, void *user);
    // user is the kzemm_work.
    static void qd_eng_sub_credible_cb(char *data, unsigned int len, void *user);
    // Sends the result of a linkage analysis to the linkage service. Takes over the data when err
    // is 0 and leaves it alone otherwise; user is not read.
    void qd_send_to_kzelkganal(_x_error err, char *data, unsigned int len, void *user);

    // Deliberately unlocked: a plain flag that the host's thread clears and the loop reads; the
    // loop sees the change within one turn. Set where the start ends well.
    bool running = false;
    vrd_ipc_st *ipc = nullptr;          // own endpoint
    vrd_addr_st *rpdsp_addr = nullptr;  // the disposal service
    vrd_addr_st *lkg_addr = nullptr;    // the linkage analysis service
    kzemm_task *task = nullptr;         // owned
    // An X_CLIENT_STATUS. Written atomically through set_x_client_status, read plainly.
    volatile int x_client_status = X_CLIENT_INIT;
    cl_timerplus *cfg_timer = nullptr;     // repeats the read of the switches, 5,000 ms
    cl_timerplus *switch_timer = nullptr;  // repeats refused engine orders, 180,000 ms
    CUpgradeRelay *upgrade = nullptr;      // owned
    cl_timerplus *qd_timer = nullptr;      // the engine watch, 1,000 ms
};

// The result callback of a linkage analysis, on a thread of the client library; user is the
// kzemm_work. Without one it does nothing at all.
void kzemm_send_to_kzelkganal(_x_error err, char *data, unsigned int len, void *user);

#endif
