// What an endpoint does on its loop's thread.
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "platform/vrdcl_ev/guard.h"
#include "platform/vrdipc/endpoint.h"
#include "vrdbase.h"

namespace kze_ipc {
namespace {

constexpr int accepts_in_turn = 16;
constexpr unsigned int accept_pause_ms = 100;

}  // namespace

void endpoint::start_listening() {
    if (released) {
        return;
    }
    const bool opened = listen_watch.open(loop->uv(), own_listener.fd(), [this](int status, int) {
        const std::shared_ptr<endpoint> self = shared_from_this();
        if (status == 0) {
            accept_waiting();
        }
    });
    if (!opened) {
        kze_log(1, "ipc: %s: its socket can't be watched", own_name.c_str());
        return;
    }
    listen_watch.set(UV_READABLE);
}

void endpoint::accept_waiting() {
    for (int i = 0; i < accepts_in_turn && !released; ++i) {
        kze::descriptor fd(
            ::accept4(own_listener.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (fd.valid()) {
            accept_one(std::move(fd));
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            const int error = errno;
            if (log->admits(peer_event::no_descriptor, kze_ev::now_ns())) {
                kze_log(1, "ipc: %s: no connection can be taken: %s", own_name.c_str(),
                        strerror(error));
            }
            pause_listening();
            return;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            return;
        }
    }
}

void endpoint::accept_one(kze::descriptor fd) {
    struct ucred peer {};
    if (!is_allowed_peer(fd.get(), own_name, *log, &peer)) {
        return;
    }
    if (accepted == max_accepted) {
        if (log->admits(peer_event::too_many, kze_ev::now_ns())) {
            kze_log(2, "ipc: %s: %zu connections already, process %d is turned away",
                    own_name.c_str(), accepted, static_cast<int>(peer.pid));
        }
        return;
    }
    auto made = std::make_shared<connection>(
        shared_from_this(), loop, log, std::move(fd), connection::origin::accepted,
        own_name + " from process " + std::to_string(peer.pid), std::string());
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (own_state != state::open) {
            return;
        }
        own_connections.insert(made);
    }
    ++accepted;
    made->start();
}

// The connection that can't be taken stays ready: without a pause the loop would do nothing else.
void endpoint::pause_listening() {
    listen_watch.set(0);
    accept_timer = std::make_shared<kze_ev::timer>();
    accept_timer->callback = [weak = weak_from_this()](cl_timerplus *) {
        if (const std::shared_ptr<endpoint> self = weak.lock()) {
            self->listen_watch.set(UV_READABLE);
        }
    };
    loop->arm(accept_timer, accept_pause_ms);
}

// False when no callback may begin any more. Otherwise *out is a copy of the handlers, and
// end_callback() must follow: nothing between them throws.
bool endpoint::begin_callback(handlers *out) {
    std::lock_guard<std::mutex> guard(mutex);
    if (own_state != state::open) {
        return false;
    }
    in_callback = true;
    *out = own_handlers;
    return true;
}

void endpoint::end_callback() {
    std::lock_guard<std::mutex> guard(mutex);
    in_callback = false;
    if (own_state != state::open) {
        changed.notify_all();
    }
}

bool endpoint::on_frame(connection &from, const frame_header &header, const char *body) {
    switch (header.type) {
        case frame_type::request:
            return on_request(from, header, body);
        case frame_type::message:
            return on_message(from, header, body);
        case frame_type::response:
            complete(header.request_id, &from, VRD_IPC_OK, header.cmd, body, header.length);
            return true;
        case frame_type::refusal: {
            const bool busy = header.length == static_cast<std::uint32_t>(refusal_reason::busy);
            complete(header.request_id, &from, busy ? VRD_IPC_E_BUSY : VRD_IPC_E_NO_HANDLER,
                     header.cmd, nullptr, 0);
            return true;
        }
    }
    return false;
}

bool endpoint::on_request(connection &from, const frame_header &header, const char *body) {
    vrd_addr_st *const peer = from.peer_address();
    handlers to;
    if (!begin_callback(&to)) {
        return false;
    }
    if (to.on_request != nullptr) {
        kze_ev::run_guarded("a callback for requests", [&] {
            to.on_request(handle, peer, header.request_id, header.cmd, body, header.length,
                          to.request_context);
        });
    } else {
        from.answer({frame_type::refusal, header.cmd, header.request_id,
                     static_cast<std::uint32_t>(refusal_reason::no_handler)},
                    nullptr);
    }
    end_callback();
    return true;
}

bool endpoint::on_message(connection &from, const frame_header &header, const char *body) {
    vrd_addr_st *const peer = from.peer_address();
    handlers to;
    if (!begin_callback(&to)) {
        return false;
    }
    if (to.on_message != nullptr) {
        kze_ev::run_guarded("a callback for messages", [&] {
            to.on_message(handle, peer, header.cmd, body, header.length, to.message_context);
        });
    }
    end_callback();
    return true;
}

// `via` is where the answer came from, or null. An answer to no request, or to one that went
// elsewhere, is ignored: most likely its request has timed out.
void endpoint::complete(std::uint32_t id, const connection *via, int status, std::uint32_t cmd,
                        const char *body, std::uint32_t size) {
    pending_request done;
    {
        std::lock_guard<std::mutex> guard(mutex);
        const pending_request *const found = pending.find(id);
        if (own_state != state::open || found == nullptr || (via != nullptr && found->via != via)) {
            return;
        }
        pending.take(id, &done);
        in_callback = true;
    }
    kze_ev::run_guarded("a callback for a reply", [&] {
        done.callback(status, status == VRD_IPC_OK ? cmd : done.cmd, body, size, done.context);
    });
    end_callback();
}

// Needs no memory, so that each of them ends.
template <typename Predicate>
void endpoint::fail_where(Predicate which, int code) {
    pending_request done;
    while (take_for_callback(which, &done)) {
        kze_ev::run_guarded("a callback for a reply", [&done, code] {
            done.callback(code, done.cmd, nullptr, 0, done.context);
        });
        end_callback();
    }
}

// False when there is none, or no callback may begin any more. Otherwise end_callback() must
// follow.
template <typename Predicate>
bool endpoint::take_for_callback(Predicate which, pending_request *out) {
    std::lock_guard<std::mutex> guard(mutex);
    if (own_state != state::open || !pending.take_where(which, out)) {
        return false;
    }
    in_callback = true;
    return true;
}

void endpoint::on_connection_closed(connection &closed, int code) {
    if (closed.was_accepted()) {
        --accepted;
    }
    std::shared_ptr<connection> last;  // let go of without the lock
    {
        std::lock_guard<std::mutex> guard(mutex);
        for (auto at = dialled.begin(); at != dialled.end(); ++at) {
            if (at->second.get() == &closed) {
                dialled.erase(at);
                break;
            }
        }
        last = closed.shared_from_this();
        own_connections.erase(last);
    }
    fail_where([&closed](const auto &request) { return request.via == &closed; }, code);
}

void endpoint::on_deadline() {
    const std::uint64_t now = kze_ev::now_ns();
    {
        std::lock_guard<std::mutex> guard(mutex);
        timer_due_ns = std::numeric_limits<std::uint64_t>::max();
    }
    fail_where([now](const auto &request) { return request.deadline_ns <= now; },
               VRD_IPC_E_TIMEOUT);
    std::lock_guard<std::mutex> guard(mutex);
    if (own_state == state::open && !pending.empty()) {
        set_deadline_timer(pending.earliest_deadline());
    }
}

// Once; both the close and the loop's end ask for it.
void endpoint::release() {
    if (std::exchange(released, true)) {
        return;
    }
    const std::shared_ptr<endpoint> self = shared_from_this();
    listen_watch.close();
    if (accept_timer != nullptr) {
        loop->disarm(accept_timer.get(), false);
    }
    own_listener.close();
    std::unique_lock<std::mutex> guard(mutex);
    if (deadline_timer != nullptr) {
        loop->disarm(deadline_timer.get(), false);
    }
    while (!own_connections.empty()) {
        const std::shared_ptr<connection> each = *own_connections.begin();
        own_connections.erase(own_connections.begin());
        guard.unlock();
        each->close(VRD_IPC_E_CLOSED);
        guard.lock();
    }
    guard.unlock();
    log->finish();
    loop->remove_user(this);
}

void endpoint::on_loop_end() {
    close();
    release();
}

}  // namespace kze_ipc
