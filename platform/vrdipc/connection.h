/*
 * One connection of an endpoint, in either direction.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDIPC_CONNECTION_H
#define KZEMDLMGR_PLATFORM_VRDIPC_CONNECTION_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "platform/vrdcl_ev/loop.h"
#include "platform/vrdipc/fd_watch.h"
#include "platform/vrdipc/frame.h"
#include "platform/vrdipc/peer_log.h"
#include "platform/vrdipc/send_queue.h"
#include "platform/vrdipc/sockets.h"
#include "vrdipc.h"

namespace kze_ipc {

class connection;

// What a connection tells its endpoint, on the loop's thread and without any lock.
class connection_owner {
  public:
    virtual ~connection_owner() = default;

    // False when the endpoint takes no more frames.
    virtual bool on_frame(connection &from, const frame_header &header, const char *body) = 0;

    // Once, when the connection has ended. `code` says why.
    virtual void on_connection_closed(connection &closed, int code) = 0;
};

// Sends and receives frames. Functions are safe from any thread, except those marked "loop's
// thread", which is that of the endpoint.
class connection : public std::enable_shared_from_this<connection>, private frame_sink {
  public:
    // A peer's unanswered requests; more are refused.
    static constexpr std::size_t max_open_requests = 16384;

    // How `fd` came to be: accepted, or dialled and either connected or still to be connected.
    enum class origin { accepted, dialled, dialling };

    // `ends` names the two ends in the log, `peer` is the name of a dialled endpoint. `peers` is
    // the owner's.
    connection(const std::shared_ptr<connection_owner> &owner, std::shared_ptr<kze_ev::loop> where,
               std::shared_ptr<peer_log> peers, kze::descriptor fd, origin made_by,
               std::string ends, std::string peer);

    bool was_accepted() const { return accepted; }

    bool is_owned_by(const connection_owner *owner) const { return owner_key == owner; }

    // Sends a frame, or queues it behind what waits already. VRD_IPC_OK or a negative code; after
    // VRD_IPC_E_PEER_GONE nothing of the frame has been sent.
    int send(const frame_header &header, const char *body);

    // Answers an open request with a response or a refusal; see vrd_ipc_response().
    int answer(const frame_header &header, const char *body);

    // Tells the peer that nothing more comes; the rest follows on the loop's thread.
    void shut_down();

    // Loop's thread: begins to receive, and to connect if that is still to be done.
    void start();

    // Loop's thread: ends the connection and tells the owner.
    void close(int code);

    // Loop's thread: the handle of the peer's address, which lives as long as the connection.
    vrd_addr_st *peer_address();

  private:
    bool on_frame(const frame_header &header, const char *body) override;
    void on_event(int status, int events);
    void receive(bool until_end);
    bool feed(const char *data, std::size_t size);
    void start_watching();
    void start_dialling();
    void dial_again();
    void stop_dialling();
    void update_watch();
    void send_queued();
    bool add_open_request(std::uint32_t id, bool *full_out);
    int transmit(const frame_header &header, const char *body);
    int queue_rest(const unsigned char *header, std::size_t header_size, const char *body,
                   std::size_t body_size);
    void end_both_directions();
    void report_dropped();
    bool may_log(peer_event kind) const { return log->admits(kind, kze_ev::now_ns()); }

    // Constant.
    const std::weak_ptr<connection_owner> weak_owner;
    const connection_owner *const owner_key;
    const std::shared_ptr<kze_ev::loop> loop;
    const std::shared_ptr<peer_log> log;
    const std::string label;
    const std::string peer_name;
    const bool accepted;

    // Loop's thread.
    fd_watch watch;
    frame_decoder decoder;
    vrd_addr_st *own_peer_address = nullptr;
    std::shared_ptr<kze_ev::timer> dial_timer;
    std::uint64_t dial_deadline_ns = 0;

    // Guarded by mutex. own_fd, closed and dialling change on the loop's thread only, which
    // therefore reads them without it.
    std::mutex mutex;
    kze::descriptor own_fd;
    bool dialling;
    bool closed = false;
    bool write_wanted = false;  // the watch waits, or is going to wait, until own_fd takes more
    send_queue queue;
    std::uint64_t dropped_count = 0;  // messages that found the queue full, since the last report
    std::set<std::uint32_t> open_requests;  // no hash: the peer chooses the ids
};

}  // namespace kze_ipc

#endif
