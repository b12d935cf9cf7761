/* What the engine does on its clients' calls, and what it keeps of them. */
#ifndef KZE_AGENT_ENGINE_ENGINE_CALLS_H
#define KZE_AGENT_ENGINE_ENGINE_CALLS_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "agent/common/rule_file.h"
#include "agent/engine/engine_clients.h"
#include "agent/engine/engine_protocol.h"
#include "agent/engine/engine_rules.h"
#include "agent/engine/engine_settings.h"
#include "engine/qd_client.h"

namespace kze::engine {

/* How a call ends: what its answer holds, and what comes after it. */
struct call_result {
    bool answered = true; /* false: there is no answer, and nothing else either */
    int code = client_ok;
    int second = 0;
    std::string payload;
    /* A callback's turn, for the caller alone, or the event that answers an order, for all who have
     * subscribed. */
    struct aftermath {
        event_kind kind = event_kind::completion;
        unsigned int delay_ms = 0; /* from the answer on */
        int ticket = 0;
        int type = 0; /* the engine type that the callback is told */
        int result = 0;
        std::string payload;
        std::uint64_t load = 0; /* the number of the load that it ends; 0: of none */
    };
    std::optional<aftermath> later;
};

/* The engine's switches, versions and orders. One thread at a time, but for collecting(). */
class engine_calls {
  public:
    /* Orders a snapshot for a client. */
    using order_snapshot = std::function<void(const std::vector<std::uint32_t> &clients)>;

    /* Runs something on the calling thread when so many milliseconds have passed; at once with 0.
     */
    using run_later = std::function<void(unsigned int ms, std::function<void()> what)>;

    /* settings and clients outlive the object. */
    engine_calls(engine_settings &settings, engine_clients &clients, order_snapshot order,
                 run_later later);

    /* Carries out a call of a client that is known, or x_client_start. `told` is the answer that
     * was set for it; with a code in it, or without an answer, the call has no effect. */
    call_result carry_out(engine_call call, const record &request,
                          const std::optional<call_answer> &told);

    /* Keeps what the callback of a load told. */
    void note_callback(std::uint64_t load, int result) { note_in_load(load, "callback", result); }

    /* Whether the collect capability is on. Any thread. */
    bool collecting() const { return collecting_; }

    /* Adds capabilities, orders, updates and rules to a status. */
    void describe(nlohmann::json &into) const;
    const engine_rules &rules() const { return rules_; }

  private:
    struct order_count {
        std::uint64_t count = 0;
        std::size_t bytes = 0; /* of the last one */
    };

    call_result outcome(engine_call call, const record &request, const call_answer &told);
    static void change_aftermath(call_result &result, const call_answer &told);
    call_result effect(engine_call call, const record &request, bool taken);
    call_result start(const record &request);
    call_result subscribe(const record &request, event_kind kind);
    static call_result with_callback(const record &request, call_result result);
    call_result update(const record &request, bool taken);
    void load(const rule_file &file, std::string text, const std::string &path);
    call_result update_by_data(const record &request, bool taken);
    call_result control(const record &request);
    call_result query_version(const record &request) const;
    call_result subscribe_origin(const record &request);
    call_result register_coordinate(const record &request);
    call_result coordinate(const record &request);
    call_result dispose_trace(const record &request);
    std::uint64_t count_order(const char *kind, std::size_t bytes);
    call_result set_drive(const record &request);
    void note_drive_order(const record &request, const call_result &result);
    void begin_load(engine_call call, const record &request);
    void end_load(call_result &result);
    void note_in_load(std::uint64_t number, const char *key, const nlohmann::json &value);

    engine_settings &settings_;
    engine_clients &clients_;
    const order_snapshot order_;
    const run_later later_;
    std::map<int, bool> capabilities_;
    std::atomic<bool> collecting_{false};
    int run_level_ = 0;
    std::deque<nlohmann::json> loads_; /* the newest at the end, as below */
    std::uint64_t load_number_ = 0;    /* of the newest, from 1 on */
    std::deque<nlohmann::json> drive_orders_;
    std::map<std::string, order_count> orders_; /* by kind of order */
    std::map<int, std::string> updates_;        /* the path that came last, by type */
    engine_rules rules_;
};

}  // namespace kze::engine

#endif
