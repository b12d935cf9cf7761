/* The engine at its endpoint: clients' messages, control requests, time. */
#ifndef KZE_AGENT_ENGINE_ENGINE_SERVER_H
#define KZE_AGENT_ENGINE_ENGINE_SERVER_H

#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "agent/engine/engine_calls.h"
#include "agent/engine/engine_clients.h"
#include "agent/engine/engine_settings.h"
#include "agent/engine/origin_collector.h"
#include "vrdcl_ev.h"
#include "vrdipc.h"

namespace kze::engine {

/*
 * Serves the endpoint from construction to destruction, which happen on one thread that has a loop
 * and turns it meanwhile; everything else happens inside its turns.
 */
class engine_server {
  public:
    using clock = std::chrono::steady_clock;

    /* Creates the endpoint "qd_agent"; null when that fails. Settings lie in the file,
     * and beside it requests that were left for them. */
    static std::unique_ptr<engine_server> create(const std::string &settings_path);
    ~engine_server();
    engine_server(const engine_server &) = delete;
    engine_server &operator=(const engine_server &) = delete;

  private:
    struct later_task {
        engine_server *owner;
        std::function<void()> what;
        cl_timerplus *timer;
        std::list<later_task>::iterator place;
    };

    engine_server(vrd_ipc_st *ipc, const std::string &settings_path);
    static void on_request(vrd_ipc_st *ipc, vrd_addr_st *addr, unsigned int request_id,
                           unsigned int cmd, const char *data, unsigned int len, void *self);
    static void on_tick(cl_timerplus *timer);
    static void on_later(cl_timerplus *timer);

    /* Carries out the settings requests that were left while there was no engine. */
    void take_left();
    void handle_call(const vrd_addr_st *addr, unsigned int request_id, const record &request);
    void answer_call(const vrd_addr_st *addr, unsigned int request_id, const record &request,
                     const call_result &result);
    void end_order(std::uint32_t client, const call_result::aftermath &what);
    void handle_ping(const vrd_addr_st *addr, unsigned int request_id, const record &request);
    void handle_next(const vrd_addr_st *addr, unsigned int request_id, const record &request);
    void respond(const vrd_addr_st *addr, unsigned int request_id, unsigned int cmd,
                 const record &answer);
    void order_snapshot(const std::vector<std::uint32_t> &clients);
    engine_clients::pushed deliver_origin(std::string snapshot,
                                          const std::vector<std::uint32_t> &clients);
    /* Runs it on the loop when the time has passed. */
    void later(unsigned int ms, std::function<void()> what);
    bool silent() const { return clock::now() < silent_until_; }

    /* The control requests, in engine_control.cpp. */
    nlohmann::json control(const nlohmann::json &request);
    nlohmann::json control_status();
    nlohmann::json control_push(const nlohmann::json &request);
    nlohmann::json control_origin_now();
    nlohmann::json control_die(const nlohmann::json &request);
    nlohmann::json control_silent(const nlohmann::json &request);
    nlohmann::json control_rule_text(const nlohmann::json &request);

    vrd_ipc_st *const ipc_;
    const clock::time_point started_;
    engine_settings settings_;
    const std::string left_path_;
    engine_clients clients_;
    engine_calls calls_;
    origin_collector collector_;
    cl_timerplus *tick_ = nullptr;
    clock::time_point silent_until_; /* in the past: not silent */
    std::list<later_task> tasks_;
    std::uint64_t snapshots_ordered_ = 0;
    std::map<std::string, std::uint64_t> pushes_; /* sent by control requests, by kind */
};

}  // namespace kze::engine

#endif
