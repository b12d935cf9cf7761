/* What the engine does on its clients' calls, and what it keeps of them. */
#ifndef KZE_AGENT_ENGINE_CALLS_H
#define KZE_AGENT_ENGINE_CALLS_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "agent/engine/engine_clients.h"
#include "agent/engine/engine_protocol.h"
#include "agent/engine/engine_settings.h"
#include "engine/qd_client.h"

namespace kze::engine {

/* How a call ends: what its answer holds, and what its callback is to get later on. */
struct call_result {
    int code = client_ok;
    int second = 0;
    std::string payload;
    struct completion {
        int ticket;
        int result;
        std::string payload;
    };
    std::optional<completion> later;
};

/* The engine's switches, versions and orders. One thread at a time, but for collecting(). */
class engine_calls {
  public:
    /* Orders a snapshot for a client. */
    using order_snapshot = std::function<void(const std::vector<std::uint32_t> &clients)>;

    /* settings and clients outlive the object. */
    engine_calls(engine_settings &settings, engine_clients &clients, order_snapshot order);

    /* Carries out a call of a client that is known, or x_client_start. `told` is the answer that
     * was set for it; with a code in it the call has no effect. */
    call_result carry_out(engine_call call, const record &request,
                          const std::optional<call_answer> &told);

    /* Whether the collect capability is on. Any thread. */
    bool collecting() const { return collecting_; }

    /* Adds capabilities, drive switches, orders, updates and rule texts to a status. */
    void describe(nlohmann::json &into) const;
    /* The rule text that came last for a type, or null. */
    const std::string *rule_text(int type) const;

  private:
    struct order_count {
        std::uint64_t count = 0;
        std::size_t bytes = 0; /* of the last one */
    };

    call_result effect(engine_call call, const record &request);
    call_result start(const record &request);
    call_result subscribe(const record &request, event_kind kind);
    call_result update(const record &request, bool answered_later);
    call_result update_by_data(const record &request);
    call_result control(const record &request);
    call_result query_version(const record &request) const;
    call_result subscribe_origin(const record &request);
    call_result register_coordinate(const record &request);
    call_result coordinate(const record &request);
    call_result dispose_trace(const record &request);
    call_result set_drive(const record &request);

    engine_settings &settings_;
    engine_clients &clients_;
    const order_snapshot order_;
    std::map<int, bool> capabilities_;
    std::atomic<bool> collecting_{false};
    int run_level_ = 0;
    int drive_[2] = {0, 0};                     /* by qd_drive_switch */
    std::map<std::string, order_count> orders_; /* by kind of order */
    std::map<int, std::string> updates_;        /* the path that came last, by type */
    std::map<int, std::string> rule_texts_;     /* the text that came last, by type */
};

/* The capability's name, as "collect"; null for a number that is none. */
const char *capability_name(int type);

}  // namespace kze::engine

#endif
