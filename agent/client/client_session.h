/* One connection of the client library to the engine, from x_client_start to its end. */
#ifndef KZE_AGENT_CLIENT_CLIENT_SESSION_H
#define KZE_AGENT_CLIENT_CLIENT_SESSION_H

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "agent/client/client_delivery.h"
#include "agent/engine/engine_protocol.h"
#include "engine/qd_client.h"
#include "vrdcl_ev.h"
#include "vrdipc.h"

namespace kze::engine {

/*
 * A session has two threads: one with a loop for its endpoint, on which nothing of the caller runs,
 * and one for the caller's callbacks, so that these may take their time and make calls themselves.
 * It is opened and closed once each, not at the same time; all else is safe from any thread, from
 * callbacks too. Whoever calls it keeps it alive meanwhile, and until both threads were joined.
 */
class client_session {
  public:
    /* What a call came to. */
    struct reply {
        int code = client_ok;
        int second = 0;
        std::string payload;
    };
    /* Gets the engine type and the result of an asynchronous call and, with 0, its data. */
    using completion = std::function<void(int type, int result, std::string_view data)>;

    client_session() = default;
    ~client_session();
    client_session(const client_session &) = delete;
    client_session &operator=(const client_session &) = delete;

    /* Connects. With another code than 0 it must be closed all the same. */
    int open(qd_offline_cb offline, void *context);

    /* From now on no callback begins; one that runs goes on. */
    void begin_close();
    /* Takes leave of the engine and ends the session, after begin_close. Returns the code that the
     * engine gave, 0 when it gave none. Leaves the delivery thread to join_delivery. */
    int close();
    /* Waits for the delivery thread; false on that thread itself. */
    bool join_delivery() { return delivery_.join(); }

    /* Makes a call and waits for its answer, five seconds at most. */
    reply call(engine_call call, int first, int second, std::string_view payload);
    /* Makes a call whose callback runs later if it gives 0, once, also when the engine goes. */
    int order(engine_call call, int first, std::string_view payload, completion end);
    /* Sets the callback for a kind of event, null for none, and tells the engine by a call. */
    int subscribe(event_kind kind, qd_data_cb callback, void *context, engine_call call, int first);

  private:
    enum class state { opening, online, offline, closed };
    enum class loop_state { starting, ready, failed };
    struct waiting_call {
        bool done = false;
        reply result;
    };
    struct call_context {
        client_session *session;
        std::shared_ptr<waiting_call> waiting;
        engine_call call;
    };
    struct open_order {
        int type;
        completion end;
    };
    struct subscription {
        qd_data_cb callback = nullptr;
        void *context = nullptr;
    };

    bool start_loop();
    void run_loop();
    void stop_loop();
    static void on_tick(cl_timerplus *timer);
    static void on_call_reply(int status, unsigned int cmd, const char *data, unsigned int len,
                              void *context);
    static void on_ping_reply(int status, unsigned int cmd, const char *data, unsigned int len,
                              void *self);
    static void on_next_reply(int status, unsigned int cmd, const char *data, unsigned int len,
                              void *self);

    reply call_within(engine_call call, int first, int second, std::string_view payload,
                      unsigned int limit_s);
    void finish(waiting_call &waiting, reply result);
    void send_ping();
    void ask_for_next();
    void take_event(const record &event);
    void deliver(event_kind kind, std::string_view payload);
    void complete(int ticket, std::optional<int> type, int result, std::string_view data);
    void come_online(std::uint32_t client);
    void lose_engine(const char *why);
    void report_offline();

    /* Written on the loop's thread before start_loop returns, constant from then on. */
    vrd_ipc_st *ipc_ = nullptr;
    vrd_addr_st *addr_ = nullptr;

    std::thread loop_;
    client_delivery delivery_;
    qd_offline_cb offline_ = nullptr;
    void *offline_context_ = nullptr;
    std::atomic<bool> stop_{false};
    int pings_unanswered_ = 0; /* on the loop's thread alone */

    std::mutex lock_;
    std::condition_variable changed_;
    /* Guarded by lock_, as all below. */
    state state_ = state::opening;
    loop_state loop_state_ = loop_state::starting;
    bool closing_ = false;
    std::uint32_t client_ = 0;
    std::chrono::steady_clock::time_point online_since_;
    bool asking_ = false; /* a request for the next event is out */
    std::set<std::shared_ptr<waiting_call>> calls_;
    std::array<subscription, event_kind_count + 1> subscriptions_{}; /* by event_kind */
    std::map<int, open_order> orders_;                               /* by ticket */
    int last_ticket_ = 0;
};

}  // namespace kze::engine

#endif
