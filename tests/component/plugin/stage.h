/*
 * What the test libraries (engine client, gateway, central configuration) answer and what was asked
 * of them. It is a shared library of its own: the plug-in closes the test libraries, and the test
 * goes on asking.
 */
#ifndef KZEMDLMGR_TESTS_COMPONENT_PLUGIN_STAGE_H
#define KZEMDLMGR_TESTS_COMPONENT_PLUGIN_STAGE_H

#include <sys/types.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "engine/qd_client.h"

namespace plugin_stage {

// The kinds of data that the engine pushes.
enum class data_kind { alarm, linkage, append, hunting, origin };

struct gateway_send {
    int type;
    std::string data;
    pid_t thread;  // that called
};

/*
 * The one stage of the process. Threads: safe from any thread. The engine client's own thread runs
 * from its start to its stop, and every callback of the plug-in is called on it.
 */
class __attribute__((visibility("default"))) stage {
  public:
    static stage &instance();

    // ---- for tests ----

    // As at the beginning: nothing is configured, nothing was called.
    void reset();
    void set_config(const std::string &module, const std::string &key, const std::string &text);
    // Each x_client_start gives this result from now on.
    void client_start_returns(int result);

    // The calls of the client and the store so far, such as "x_client_start" or
    // "x_client_engine_control(6, 2)".
    std::vector<std::string> calls() const;
    size_t count(const std::string &call) const;
    // Waits until a call was made this often; false after the deadline.
    bool await(const std::string &call, size_t times = 1) const;
    // The gateway's too.
    void forget_calls();

    // Hands data to the callback that is subscribed to its kind, on the client's thread, and
    // returns when the callback has. False when there is none.
    bool deliver(data_kind kind, const std::string &data);
    // Calls the offline callback on the client's thread.
    bool go_offline();
    // The thread of the client; 0 while it isn't started.
    pid_t client_thread() const;
    // Buffers of the engine that did not come back.
    size_t buffers_out() const;

    std::vector<gateway_send> gateway_sends() const;

    // Tables and clients of central configuration, and its values, that were not released.
    int config_objects() const;

    // ---- for the test libraries ----

    int client_start(const qd_client_callbacks *callbacks, void *context);
    int client_stop();
    void client_free(void *buffer);
    void subscribe(data_kind kind, const std::string &call, qd_data_cb callback, void *context);
    void note(const std::string &call);
    // Keeps what the plug-in leaves behind by design reachable, so that the leak checker of the
    // sanitizers tells only of other memory.
    static void left_behind_by_design(void *memory);
    int gateway_take(int type, const char *data, unsigned int len);
    // Null where nothing is configured.
    const std::string *config_text(const std::string &module, const std::string &key) const;
    void count_config_objects(int more);

  private:
    stage() = default;
    ~stage() = default;

    bool run_on_client_thread(std::function<void()> job);
    void client_routine();

    mutable std::mutex mutex;  // guards everything below; no callback runs under it
    mutable std::condition_variable changed;
    std::map<std::pair<std::string, std::string>, std::string> config;
    int config_balance = 0;
    std::vector<std::string> called;
    int start_result = 0;
    qd_offline_cb offline_cb = nullptr;
    void *offline_context = nullptr;
    std::map<data_kind, std::pair<qd_data_cb, void *>> subscribers;
    std::set<void *> buffers;
    std::vector<gateway_send> sends;
    std::thread client;
    pid_t client_id = 0;
    bool client_ends = false;
    std::deque<std::function<void()>> jobs;
};

}  // namespace plugin_stage

#endif
