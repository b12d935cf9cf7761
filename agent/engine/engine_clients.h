/* The engine's clients and the events that wait for them. */
#ifndef KZE_AGENT_ENGINE_ENGINE_CLIENTS_H
#define KZE_AGENT_ENGINE_ENGINE_CLIENTS_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "agent/engine/engine_protocol.h"
#include "vrdipc.h"

namespace kze::engine {

/*
 * Who is connected, to what, and what each has not fetched yet. A client fetches its events one by
 * one: its request for the next one is kept until there is one. Safe from any thread.
 */
class engine_clients {
  public:
    using clock = std::chrono::steady_clock;

    /* Bytes that wait for one client at most; what comes beyond is dropped and counted. */
    static constexpr std::size_t queue_limit = 64U << 20;
    /* What each waiting event counts beyond its bytes. */
    static constexpr std::size_t event_overhead = 256;

    /* The endpoint outlives the object. */
    explicit engine_clients(vrd_ipc_st *ipc);

    /* Takes up a client and returns its number. One of the same process, left over, goes. */
    std::uint32_t add(pid_t process, const std::string &name);
    /* False, here and below, when there is no such client. */
    bool remove(std::uint32_t client);
    bool knows(std::uint32_t client);
    /* Notes a sign of life, with the number of buffers that the client has given out. */
    bool heard(std::uint32_t client, int buffers);
    /* Answers the request with the next event, now or once there is one. */
    bool wait_next(std::uint32_t client, const vrd_addr_st *addr, unsigned int request_id);

    bool subscribe(std::uint32_t client, event_kind kind, bool on);
    /*
     * Sets the client's origin cycle in seconds, 0 to cancel. *starts becomes true when that begins
     * a rhythm: there was none or one of another cycle.
     */
    bool subscribe_origin(std::uint32_t client, unsigned int cycle, bool *starts);
    /* The clients whose origin data is due; their next time is a cycle from now. */
    std::vector<std::uint32_t> take_due_origin(clock::time_point now);
    std::vector<std::uint32_t> origin_subscribers();

    /* How many were to get an event, and how many of them had room for it. */
    struct pushed {
        unsigned int meant = 0;
        unsigned int taken = 0;
    };
    /* Gives an event to all subscribers of its kind. */
    pushed push(event_kind kind, std::string_view payload);
    /* Gives an event to those of the clients that are still there. */
    pushed push_to(const std::vector<std::uint32_t> &clients, const record &event);

    /* Gives out no event while the engine is silent; afterwards with the next tick. */
    void set_silent(bool silent);

    /* To be called each second, unless the engine is silent: forgets clients that are gone, ends
     * requests that wait long. */
    void tick(clock::time_point now);

    nlohmann::json describe();

  private:
    using event_bytes = std::shared_ptr<const std::string>;
    struct waiting_request {
        const vrd_addr_st *addr;
        unsigned int id;
        clock::time_point since;
    };
    struct client_entry {
        pid_t process = 0;
        std::string name;
        clock::time_point last_heard;
        std::set<event_kind> subscriptions;
        unsigned int origin_cycle = 0; /* seconds; 0: not subscribed */
        clock::time_point origin_due;
        std::optional<waiting_request> waiting;
        std::deque<event_bytes> events;
        std::size_t queued_bytes = 0;
        std::uint64_t sent = 0;
        std::uint64_t dropped = 0;
        int buffers = 0;
    };

    client_entry *find(std::uint32_t client);
    void enqueue(std::uint32_t number, client_entry &client, const event_bytes &event,
                 pushed &counts);
    void answer_waiting(client_entry &client);

    vrd_ipc_st *const ipc_;
    std::mutex lock_;
    std::map<std::uint32_t, client_entry> clients_; /* guarded by lock_ */
    bool silent_ = false;                           /* guarded by lock_ */
};

}  // namespace kze::engine

#endif
