/*
 * Control requests between the programs of the agent: one JSON text each way, as IPC command 1.
 *
 * A request is an object with the member "op"; an answer is an object with the member "ok", and
 * where that is false with a text "error". What further members there are is between the two
 * programs.
 */
#ifndef KZE_AGENT_COMMON_CONTROL_H
#define KZE_AGENT_COMMON_CONTROL_H

#include <atomic>
#include <functional>
#include <future>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>

#include "vrdipc.h"

namespace kze {

/* The IPC command of a control request and of its answer. */
constexpr unsigned int control_command = 1;

/* Answers one request. What it throws goes back to the caller as an error answer. */
using control_handler = std::function<nlohmann::json(const nlohmann::json &request)>;

/* A request that is still to be answered. A plain value: copied, kept, used on any thread. */
class control_ticket {
  public:
    control_ticket(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int request_id)
        : ipc_(ipc), addr_(addr), request_id_(request_id) {}
    /* Once. A requester or an endpoint that is gone by then is no error. */
    void answer(const nlohmann::json &answer) const;

  private:
    vrd_ipc_st *ipc_;
    const vrd_addr_st *addr_;
    unsigned int request_id_;
};

/* The same for one that may take longer: it answers by its result, or later by the ticket, having
 * returned an empty optional. */
using control_later_handler = std::function<std::optional<nlohmann::json>(
    const nlohmann::json &request, const control_ticket &ticket)>;

/* The answer that says no, with the reason. */
nlohmann::json control_error(const std::string &reason);

/*
 * Answers a request of a vrd_ipc_request_cb when it is a control request, by calling handler on the
 * calling thread. Text that is no JSON object gets an error answer without a call of the handler.
 * Returns whether it was a control request; false leaves the request to the caller's own protocol.
 */
bool control_answer(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int request_id,
                    unsigned int cmd, const char *data, unsigned int len,
                    const control_handler &handler);
bool control_answer(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int request_id,
                    unsigned int cmd, const char *data, unsigned int len,
                    const control_later_handler &handler);

/*
 * An endpoint that answers control requests on a thread of its own. The thread's loop serves nobody
 * else: timers of threads without a loop never land on it.
 * One thread at a time may call its members; the handler runs on the server's thread.
 */
class control_server {
  public:
    control_server() = default;
    ~control_server();
    control_server(const control_server &) = delete;
    control_server &operator=(const control_server &) = delete;

    /*
     * Starts the thread and creates the endpoint. Returns false when either fails, or when the
     * server is already running; the object may then be started again. The handler must not call
     * stop.
     */
    bool start(const std::string &endpoint, control_handler handler);
    bool start(const std::string &endpoint, control_later_handler handler);
    /* Ends the thread after the request in hand and removes the endpoint. */
    void stop();

  private:
    static void on_request(vrd_ipc_st *ipc, vrd_addr_st *addr, unsigned int request_id,
                           unsigned int cmd, const char *data, unsigned int len, void *self);
    void serve();
    void wake();

    /* Constant while the thread runs. */
    std::string endpoint_;
    control_later_handler handler_;
    std::thread thread_;
    /* Set by the server's thread, before and after its loop. */
    std::promise<bool> ready_;
    vrd_ipc_st *ipc_ = nullptr;

    std::atomic<bool> running_{false};
};

/* What came of a request: the answer, or why there is none. */
struct control_result {
    std::optional<nlohmann::json> answer;
    std::string error; /* empty when there is an answer */
    int status = 0;    /* a VRD_IPC_E_... code where IPC is the reason, for instance NO_PEER */
};

/*
 * Sends a request to an endpoint of this tree and waits up to the given number of seconds for its
 * answer. May be called from any thread, also from one that has a loop; that loop doesn't turn
 * meanwhile.
 */
control_result control_call(const std::string &endpoint, const nlohmann::json &request,
                            unsigned int seconds);

}  // namespace kze

#endif
