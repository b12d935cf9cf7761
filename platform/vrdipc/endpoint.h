/*
 * An endpoint: its name, its connections, its callbacks and its pending requests.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDIPC_ENDPOINT_H
#define KZEMDLMGR_PLATFORM_VRDIPC_ENDPOINT_H

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "platform/vrdcl_ev/loop.h"
#include "platform/vrdipc/connection.h"
#include "platform/vrdipc/fd_watch.h"
#include "platform/vrdipc/handles.h"
#include "platform/vrdipc/peer_log.h"
#include "platform/vrdipc/pending_table.h"
#include "platform/vrdipc/sockets.h"
#include "vrdipc.h"

namespace kze_ipc {

// Functions are safe from any thread, except those marked "loop's thread". Of two locks, mutex
// comes before a connection's; no callback of a user runs with either.
//
// How it stops. Whoever closes it, a caller of vrd_ipc_destroy() or the ending loop, first sets
// `closing`: from then on no callback begins on the loop's thread, and new requests are only
// stored, up to a limit. It waits for a callback that is running, completes the requests until none
// is left, sets `closed`, shuts the sockets down and gives the name back. Everything that libuv
// knows of goes last, on the loop's thread, by release(), posted to it if need be. Until that the
// loop keeps the endpoint alive, so that an event that was already on its way finds it.
class endpoint : public kze_ev::loop_user,
                 public connection_owner,
                 public std::enable_shared_from_this<endpoint> {
  public:
    static constexpr std::size_t max_accepted = 256;
    static constexpr unsigned int max_while_closing = 65536;  // requests

    // Null, with a line in the log, when it can't be made. *handle_out is then untouched.
    static std::shared_ptr<endpoint> create(const std::string &name, bool temporary, int flags,
                                            vrd_ipc_st **handle_out);

    // See the functions of vrdipc.h.
    int set_request_handler(vrd_ipc_request_cb callback, void *context);
    int set_message_handler(vrd_ipc_recv_cb callback, void *context);
    int send(const address &to, std::uint32_t cmd, const char *data, std::uint32_t size);
    int request(const address &to, std::uint32_t cmd, const char *data, std::uint32_t size,
                vrd_ipc_reply_cb callback, void *context, unsigned int limit_seconds);
    int respond(const address &to, std::uint32_t id, std::uint32_t cmd, const char *data,
                std::uint32_t size);
    void close();

    // Loop's thread.
    void on_loop_end() override;
    bool on_frame(connection &from, const frame_header &header, const char *body) override;
    void on_connection_closed(connection &closed, int code) override;

    endpoint(std::string name, int flags, std::shared_ptr<kze_ev::loop> where);

  private:
    enum class state { open, closing, closed };

    struct handlers {
        vrd_ipc_request_cb on_request = nullptr;
        void *request_context = nullptr;
        vrd_ipc_recv_cb on_message = nullptr;
        void *message_context = nullptr;
    };

    // Any thread, with mutex held.
    std::shared_ptr<connection> find_connection(const address &to, bool *fresh_out, int *code_out);
    std::shared_ptr<connection> dial(const std::string &name, int *code_out);
    void forget_dialled(const std::string &name, const connection *gone);
    void set_deadline_timer(std::uint64_t deadline_ns);

    // Any thread, without mutex.
    void start_request(const address &to, const frame_header &header, const char *body,
                       std::uint64_t deadline_ns);
    int transmit(const address &to, const frame_header &header, const char *body);
    void fail_later(std::uint32_t id, int code);
    void close_sockets();

    // Loop's thread.
    void start_listening();
    void accept_waiting();
    void accept_one(kze::descriptor fd);
    void pause_listening();
    void release();
    bool begin_callback(handlers *out);
    void end_callback();
    bool on_request(connection &from, const frame_header &header, const char *body);
    bool on_message(connection &from, const frame_header &header, const char *body);
    void complete(std::uint32_t id, const connection *via, int status, std::uint32_t cmd,
                  const char *body, std::uint32_t size);
    template <typename Predicate>
    void fail_where(Predicate which, int code);
    template <typename Predicate>
    bool take_for_callback(Predicate which, pending_request *out);
    void on_deadline();

    // Constant, handle since create().
    const std::string own_name;
    const int own_flags;
    const std::shared_ptr<kze_ev::loop> loop;
    const std::shared_ptr<peer_log> log;
    vrd_ipc_st *handle = nullptr;

    // Loop's thread.
    fd_watch listen_watch;
    std::shared_ptr<kze_ev::timer> accept_timer;
    std::size_t accepted = 0;
    bool released = false;

    // The loop's thread closes it, when `sockets_closed` has been set. Before that whoever closes
    // the endpoint gives the name back.
    listener own_listener;

    std::mutex mutex;                 // guards what follows
    std::condition_variable changed;  // in_callback or sockets_closed
    state own_state = state::open;
    bool sockets_closed = false;           // the last step of whoever closes the endpoint
    unsigned int taken_while_closing = 0;  // requests
    bool in_callback = false;
    std::thread::id closer;
    handlers own_handlers;
    pending_table pending;
    std::shared_ptr<kze_ev::timer> deadline_timer;
    std::uint64_t timer_due_ns;  // when it fires; the greatest number when it isn't armed
    std::unordered_set<std::shared_ptr<connection>> own_connections;
    std::unordered_map<std::string, std::shared_ptr<connection>> dialled;  // by the peer's name
};

}  // namespace kze_ipc

#endif
