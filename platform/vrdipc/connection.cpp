#include "platform/vrdipc/connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include "platform/vrdipc/handles.h"
#include "vrdbase.h"

namespace kze_ipc {
namespace {

constexpr std::size_t read_size = 64 * 1024;
constexpr int reads_in_turn = 16;        // so that one busy peer doesn't keep the others waiting
constexpr int reads_at_end = 64 * 1024;  // more than a dead peer's socket can hold
constexpr std::size_t pieces_in_turn = 16;

// How long a living peer may take to accept a connection.
constexpr std::uint64_t dial_limit_ns = 5ULL * 1000 * 1000 * 1000;
constexpr unsigned int dial_pause_ms = 10;

// One for each thread that receives. Nothing received is kept in it beyond a read.
char *read_buffer() {
    thread_local const std::unique_ptr<char[]> buffer(new char[read_size]);
    return buffer.get();
}

bool is_full_now(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == ENOBUFS || error == ENOMEM;
}

// The number of bytes sent, 0 when none can be now, or -1 when the connection has ended.
ssize_t send_now(int fd, struct iovec *pieces, std::size_t count) {
    struct msghdr message {};
    message.msg_iov = pieces;
    message.msg_iovlen = count;
    ssize_t sent;
    do {
        sent = ::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    return sent < 0 && is_full_now(errno) ? 0 : sent;
}

}  // namespace

connection::connection(const std::shared_ptr<connection_owner> &owner,
                       std::shared_ptr<kze_ev::loop> where, std::shared_ptr<peer_log> peers,
                       kze::descriptor fd, origin made_by, std::string ends, std::string peer)
    : weak_owner(owner),
      owner_key(owner.get()),
      loop(std::move(where)),
      log(std::move(peers)),
      label(std::move(ends)),
      peer_name(std::move(peer)),
      accepted(made_by == origin::accepted),
      own_fd(std::move(fd)),
      dialling(made_by == origin::dialling) {}

int connection::send(const frame_header &header, const char *body) {
    std::lock_guard<std::mutex> guard(mutex);
    return transmit(header, body);
}

int connection::answer(const frame_header &header, const char *body) {
    std::lock_guard<std::mutex> guard(mutex);
    const auto at = open_requests.find(header.request_id);
    if (at == open_requests.end()) {
        return closed ? VRD_IPC_E_PEER_GONE : VRD_IPC_E_NO_REQUEST;
    }
    const int result = transmit(header, body);
    if (result == VRD_IPC_OK) {
        open_requests.erase(at);
    }
    return result;
}

// With mutex held.
int connection::transmit(const frame_header &header, const char *body) {
    if (closed) {
        return VRD_IPC_E_PEER_GONE;
    }
    unsigned char head[frame_header_size];
    encode_header(header, head);
    const std::size_t size = body_length(header);
    if (dialling || !queue.empty()) {
        return queue_rest(head, sizeof head, body, size);
    }
    std::array<struct iovec, 2> pieces{{{head, sizeof head}, {const_cast<char *>(body), size}}};
    const ssize_t result = send_now(own_fd.get(), pieces.data(), size == 0 ? 1 : 2);
    if (result < 0) {
        end_both_directions();
        return VRD_IPC_E_PEER_GONE;
    }
    const auto sent = static_cast<std::size_t>(result);
    if (sent == sizeof head + size) {
        return VRD_IPC_OK;
    }
    const std::size_t head_sent = std::min(sent, sizeof head);
    const std::size_t body_sent = sent - head_sent;
    return queue_rest(head + head_sent, sizeof head - head_sent, body + body_sent,
                      size - body_sent);
}

// With mutex held. What is left of a frame of which a part was sent always fits, the queue being
// empty then.
int connection::queue_rest(const unsigned char *header, std::size_t header_size, const char *body,
                           std::size_t body_size) {
    if (!queue.fits(header_size + body_size)) {
        if (dropped_count++ == 0 && may_log(peer_event::queue_full)) {
            kze_log(2, "ipc: %s: %zu bytes wait already, message dropped", label.c_str(),
                    queue.size());
        }
        return VRD_IPC_E_QUEUE_FULL;
    }
    try {
        queue.append(header, header_size);
        queue.append(body, body_size);
        if (!write_wanted && !dialling) {
            write_wanted = true;
            loop->post([self = shared_from_this()] { self->update_watch(); });
        }
    } catch (const std::bad_alloc &) {
        // Half a frame may be queued: nothing sensible can follow it.
        end_both_directions();
        return VRD_IPC_E_NO_MEMORY;
    }
    return VRD_IPC_OK;
}

void connection::shut_down() {
    std::lock_guard<std::mutex> guard(mutex);
    if (!closed) {
        end_both_directions();
    }
}

// With mutex held. Receiving then finds what has arrived, and the end after it. A peer that only
// ceases to read would otherwise keep the connection for as long as it likes.
void connection::end_both_directions() {
    ::shutdown(own_fd.get(), SHUT_RDWR);
}

void connection::report_dropped() {
    if (dropped_count > 1 && may_log(peer_event::dropped)) {
        kze_log(2, "ipc: %s: %llu messages dropped in all", label.c_str(),
                static_cast<unsigned long long>(dropped_count));
    }
    dropped_count = 0;
}

void connection::start() {
    if (closed) {
        return;
    }
    try {
        if (dialling) {
            start_dialling();
        } else {
            start_watching();
        }
    } catch (const std::bad_alloc &) {
        close(VRD_IPC_E_NO_MEMORY);  // one that doesn't listen would stay for ever
    }
}

void connection::start_watching() {
    // The owner closes the watch before it lets go of the connection.
    const bool opened = watch.open(loop->uv(), own_fd.get(), [this](int status, int events) {
        const std::shared_ptr<connection> self = shared_from_this();
        on_event(status, events);
    });
    if (!opened) {
        close(VRD_IPC_E_NO_MEMORY);
        return;
    }
    update_watch();
}

void connection::update_watch() {
    bool wanted;
    {
        std::lock_guard<std::mutex> guard(mutex);
        wanted = write_wanted = !queue.empty();
    }
    watch.set(wanted ? UV_READABLE | UV_WRITABLE : UV_READABLE);
}

void connection::start_dialling() {
    dial_deadline_ns = kze_ev::now_ns() + dial_limit_ns;
    dial_timer = std::make_shared<kze_ev::timer>();
    dial_timer->period_ns = std::uint64_t{dial_pause_ms} * 1000 * 1000;
    dial_timer->callback = [weak = weak_from_this()](cl_timerplus *) {
        if (const std::shared_ptr<connection> self = weak.lock()) {
            self->dial_again();
        }
    };
    loop->arm(dial_timer, dial_pause_ms);
}

void connection::stop_dialling() {
    if (dial_timer != nullptr) {
        loop->disarm(dial_timer.get(), false);
        dial_timer.reset();
    }
}

void connection::dial_again() {
    if (closed) {
        return;
    }
    int code = VRD_IPC_E_NO_PEER;
    const connect_state state = connect_to(own_fd.get(), peer_name, &code);
    if (state == connect_state::full && kze_ev::now_ns() < dial_deadline_ns) {
        return;
    }
    if (state != connect_state::done) {
        close(code);
        return;
    }
    stop_dialling();
    struct ucred peer {};
    if (!is_allowed_peer(own_fd.get(), label, *log, &peer)) {
        close(VRD_IPC_E_FORBIDDEN);
        return;
    }
    {
        std::lock_guard<std::mutex> guard(mutex);
        dialling = false;
    }
    start_watching();
}

void connection::on_event(int status, int events) {
    if ((events & UV_WRITABLE) != 0) {
        send_queued();
    }
    if (status < 0 || (events & UV_READABLE) != 0) {
        receive(status < 0);
    }
}

void connection::send_queued() {
    bool drained;
    {
        std::lock_guard<std::mutex> guard(mutex);
        std::array<struct iovec, pieces_in_turn> pieces;
        const std::size_t count = queue.front(pieces.data(), pieces.size());
        const ssize_t sent = count == 0 ? 0 : send_now(own_fd.get(), pieces.data(), count);
        if (sent < 0) {
            end_both_directions();
        } else {
            queue.consume(static_cast<std::size_t>(sent));
        }
        drained = queue.empty();
        if (drained) {
            report_dropped();
        }
    }
    if (drained) {
        update_watch();
    }
}

// A short read means that nothing more is there. `until_end`: the watch has stopped for good, so
// what has arrived is taken now.
void connection::receive(bool until_end) {
    char *const buffer = read_buffer();
    const int reads = until_end ? reads_at_end : reads_in_turn;
    for (int i = 0; i < reads; ++i) {
        ssize_t result;
        do {
            result = ::recv(own_fd.get(), buffer, read_size, 0);
        } while (result < 0 && errno == EINTR);
        if (result < 0 && is_full_now(errno) && !until_end) {
            return;
        }
        if (result <= 0) {
            break;
        }
        const auto size = static_cast<std::size_t>(result);
        if (!feed(buffer, size)) {
            return;
        }
        if (!until_end && (size < read_size || i + 1 == reads)) {
            return;
        }
    }
    if (decoder.inside_frame() && may_log(peer_event::cut_off)) {
        kze_log(2, "ipc: %s: connection ended within a message", label.c_str());
    }
    close(VRD_IPC_E_PEER_GONE);
}

// False when the connection has been closed.
bool connection::feed(const char *data, std::size_t size) {
    try {
        if (decoder.feed(data, size, *this) == frame_decoder::outcome::broken) {
            if (may_log(peer_event::broken_format)) {
                kze_log(2, "ipc: %s: peer broke the format, disconnected", label.c_str());
            }
            close(VRD_IPC_E_PEER_GONE);
        }
    } catch (const std::bad_alloc &) {
        if (may_log(peer_event::no_memory)) {
            kze_log(1, "ipc: %s: no memory for a message, disconnected", label.c_str());
        }
        close(VRD_IPC_E_NO_MEMORY);
    }
    return !closed;
}

// False when the peer has used the id already.
bool connection::add_open_request(std::uint32_t id, bool *full_out) {
    std::lock_guard<std::mutex> guard(mutex);
    if (open_requests.count(id) != 0) {
        return false;
    }
    *full_out = open_requests.size() == max_open_requests;
    if (!*full_out) {
        open_requests.insert(id);
    }
    return true;
}

bool connection::on_frame(const frame_header &header, const char *body) {
    if (header.type == frame_type::request) {
        bool full = false;
        if (!add_open_request(header.request_id, &full)) {
            if (may_log(peer_event::id_used_twice)) {
                kze_log(2, "ipc: %s: peer used a request id twice, disconnected", label.c_str());
            }
            close(VRD_IPC_E_PEER_GONE);
            return false;
        }
        if (full) {
            send({frame_type::refusal, header.cmd, header.request_id,
                  static_cast<std::uint32_t>(refusal_reason::busy)},
                 nullptr);
            return true;
        }
    }
    const std::shared_ptr<connection_owner> owner = weak_owner.lock();
    return owner != nullptr && owner->on_frame(*this, header, body) && !closed;
}

vrd_addr_st *connection::peer_address() {
    if (own_peer_address == nullptr) {
        auto peer = std::make_shared<address>();
        peer->peer = weak_from_this();
        own_peer_address = addresses().add(std::move(peer));
    }
    return own_peer_address;
}

void connection::close(int code) {
    if (closed) {
        return;
    }
    const std::shared_ptr<connection> self = shared_from_this();
    kze::descriptor fd;
    send_queue unsent;
    {
        std::lock_guard<std::mutex> guard(mutex);
        closed = true;
        std::swap(fd, own_fd);
        std::swap(unsent, queue);
        open_requests.clear();
        report_dropped();
    }
    stop_dialling();
    watch.close();
    fd.reset();
    if (own_peer_address != nullptr) {
        addresses().remove(own_peer_address);
    }
    if (const std::shared_ptr<connection_owner> owner = weak_owner.lock()) {
        owner->on_connection_closed(*this, code);
    }
}

}  // namespace kze_ipc
