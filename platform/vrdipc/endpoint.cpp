#include "platform/vrdipc/endpoint.h"

#include <limits>
#include <new>
#include <utility>

#include "platform/vrdcl_ev/guard.h"
#include "vrdbase.h"

namespace kze_ipc {
namespace {

constexpr std::uint64_t default_limit = VRD_IPC_DEFAULT_LIMIT;  // seconds
constexpr std::uint64_t never = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t ns_per_ms = 1000 * 1000;
constexpr std::uint64_t ns_per_s = 1000 * ns_per_ms;

}  // namespace

endpoint::endpoint(std::string name, int flags, std::shared_ptr<kze_ev::loop> where)
    : own_name(std::move(name)),
      own_flags(flags),
      loop(std::move(where)),
      log(std::make_shared<peer_log>(own_name)),
      timer_due_ns(never) {}

std::shared_ptr<endpoint> endpoint::create(const std::string &name, bool temporary, int flags,
                                           vrd_ipc_st **handle_out) {
    std::shared_ptr<kze_ev::loop> where = kze_ev::loop::of_caller();
    if (where == nullptr) {
        kze_log(1, "ipc: %s: no event loop for the endpoint", name.c_str());
        return nullptr;
    }
    auto made = std::make_shared<endpoint>(name, flags, std::move(where));
    if (!temporary && made->own_listener.open(name) != VRD_IPC_OK) {
        return nullptr;
    }
    if (!made->loop->add_user(made)) {
        made->own_listener.withdraw(listener::patience::brief);
        kze_log(1, "ipc: %s: the event loop is ending", name.c_str());
        return nullptr;
    }
    made->handle = endpoints().add(made);
    if (!temporary) {
        made->loop->post([made] { made->start_listening(); });
    }
    *handle_out = made->handle;
    return made;
}

int endpoint::set_request_handler(vrd_ipc_request_cb callback, void *context) {
    std::lock_guard<std::mutex> guard(mutex);
    if (own_state != state::open) {
        return VRD_IPC_E_CLOSED;
    }
    own_handlers.on_request = callback;
    own_handlers.request_context = context;
    return VRD_IPC_OK;
}

int endpoint::set_message_handler(vrd_ipc_recv_cb callback, void *context) {
    std::lock_guard<std::mutex> guard(mutex);
    if (own_state != state::open) {
        return VRD_IPC_E_CLOSED;
    }
    own_handlers.on_message = callback;
    own_handlers.message_context = context;
    return VRD_IPC_OK;
}

// Null with *code_out set. *fresh_out: this connection has just been made.
std::shared_ptr<connection> endpoint::find_connection(const address &to, bool *fresh_out,
                                                      int *code_out) {
    *fresh_out = false;
    if (to.name.empty()) {
        std::shared_ptr<connection> peer = to.peer.lock();
        if (peer == nullptr || !peer->is_owned_by(this)) {
            *code_out = VRD_IPC_E_ADDRESS;
            return nullptr;
        }
        return peer;
    }
    const auto at = dialled.find(to.name);
    if (at != dialled.end()) {
        return at->second;
    }
    *fresh_out = true;
    return dial(to.name, code_out);
}

std::shared_ptr<connection> endpoint::dial(const std::string &name, int *code_out) {
    kze::descriptor fd = make_socket();
    if (!fd.valid()) {
        *code_out = VRD_IPC_E_NO_MEMORY;
        return nullptr;
    }
    const connect_state result = connect_to(fd.get(), name, code_out);
    if (result == connect_state::failed) {
        return nullptr;
    }
    std::string label = own_name + " to " + name;
    struct ucred peer {};
    if (result == connect_state::done && !is_allowed_peer(fd.get(), label, *log, &peer)) {
        *code_out = VRD_IPC_E_FORBIDDEN;
        return nullptr;
    }
    auto made = std::make_shared<connection>(
        shared_from_this(), loop, log, std::move(fd),
        result == connect_state::done ? connection::origin::dialled : connection::origin::dialling,
        std::move(label), name);
    // A connection that never starts must not stay.
    try {
        own_connections.insert(made);
        dialled[name] = made;
        loop->post([made] { made->start(); });
    } catch (const std::bad_alloc &) {
        own_connections.erase(made);
        dialled.erase(name);
        throw;
    }
    return made;
}

void endpoint::forget_dialled(const std::string &name, const connection *gone) {
    const auto at = dialled.find(name);
    if (at != dialled.end() && at->second.get() == gone) {
        dialled.erase(at);
    }
}

// A request is noted as pending on its connection before it is sent, so that the end of the
// connection completes it. A connection that ended without our loop having seen it yet is replaced
// with a new one, once.
int endpoint::transmit(const address &to, const frame_header &header, const char *body) {
    for (int attempt = 0;; ++attempt) {
        std::shared_ptr<connection> via;
        bool fresh = false;
        {
            std::lock_guard<std::mutex> guard(mutex);
            if (own_state != state::open) {
                return VRD_IPC_E_CLOSED;
            }
            int code = VRD_IPC_OK;
            via = find_connection(to, &fresh, &code);
            if (via == nullptr) {
                return code;
            }
            if (header.type == frame_type::request) {
                pending_request *const request = pending.find(header.request_id);
                if (request == nullptr) {
                    return VRD_IPC_OK;  // completed meanwhile
                }
                request->via = via.get();
            }
        }
        const int result = via->send(header, body);
        if (result != VRD_IPC_E_PEER_GONE || fresh || to.name.empty() || attempt > 0) {
            return result;
        }
        std::lock_guard<std::mutex> guard(mutex);
        forget_dialled(to.name, via.get());
    }
}

int endpoint::send(const address &to, std::uint32_t cmd, const char *data, std::uint32_t size) {
    if (size > frame_max_body) {
        return VRD_IPC_E_TOO_LARGE;
    }
    return transmit(to, {frame_type::message, cmd, 0, size}, data);
}

int endpoint::request(const address &to, std::uint32_t cmd, const char *data, std::uint32_t size,
                      vrd_ipc_reply_cb callback, void *context, unsigned int limit_seconds) {
    const std::uint64_t limit = limit_seconds == 0 ? default_limit : limit_seconds;
    pending_request stored;
    stored.cmd = cmd;
    stored.callback = callback;
    stored.context = context;
    stored.deadline_ns = kze_ev::now_ns() + limit * ns_per_s;
    std::uint32_t id;
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (own_state == state::closed ||
            (own_state == state::closing && taken_while_closing++ >= max_while_closing)) {
            return VRD_IPC_E_CLOSED;
        }
        id = pending.add(stored);
        if (own_state == state::closing) {
            return VRD_IPC_OK;  // whoever closes completes it
        }
    }
    try {
        start_request(to, {frame_type::request, cmd, id, size}, data, stored.deadline_ns);
    } catch (const std::bad_alloc &) {
        std::lock_guard<std::mutex> guard(mutex);
        return pending.take(id, &stored) ? VRD_IPC_E_NO_MEMORY : VRD_IPC_OK;
    }
    return VRD_IPC_OK;
}

void endpoint::start_request(const address &to, const frame_header &header, const char *body,
                             std::uint64_t deadline_ns) {
    {
        std::lock_guard<std::mutex> guard(mutex);
        set_deadline_timer(deadline_ns);
    }
    int result = VRD_IPC_E_TOO_LARGE;
    if (header.length <= frame_max_body) {
        result = transmit(to, header, body);
    }
    if (result != VRD_IPC_OK) {
        fail_later(header.request_id, result);
    }
}

int endpoint::respond(const address &to, std::uint32_t id, std::uint32_t cmd, const char *data,
                      std::uint32_t size) {
    const std::shared_ptr<connection> via = to.peer.lock();
    if (via == nullptr || !via->is_owned_by(this)) {
        return VRD_IPC_E_ADDRESS;
    }
    if (size > frame_max_body) {
        return VRD_IPC_E_TOO_LARGE;
    }
    return via->answer({frame_type::response, cmd, id, size}, data);
}

// When the loop ends first, its end completes the request.
void endpoint::fail_later(std::uint32_t id, int code) {
    loop->post([self = shared_from_this(), id, code] {
        self->complete(id, nullptr, code, 0, nullptr, 0);
    });
}

// The timer only ever moves to an earlier time here: a steady flow of requests costs nothing.
void endpoint::set_deadline_timer(std::uint64_t deadline_ns) {
    if (timer_due_ns <= deadline_ns) {
        return;
    }
    auto made = std::make_shared<kze_ev::timer>();
    made->callback = [weak = weak_from_this()](cl_timerplus *) {
        if (const std::shared_ptr<endpoint> self = weak.lock()) {
            self->on_deadline();
        }
    };
    const std::uint64_t now = kze_ev::now_ns();
    const std::uint64_t wait_ns = deadline_ns > now ? deadline_ns - now : 0;
    loop->arm(made, (wait_ns + ns_per_ms - 1) / ns_per_ms);
    if (deadline_timer != nullptr) {
        loop->disarm(deadline_timer.get(), false);
    }
    deadline_timer = std::move(made);
    timer_due_ns = deadline_ns;
}

void endpoint::close_sockets() {
    own_listener.refuse();
    {
        std::lock_guard<std::mutex> guard(mutex);
        for (const auto &open : own_connections) {
            open->shut_down();
        }
    }
    // This may wait, so without the lock. On the loop's thread everything else would wait with it.
    own_listener.withdraw(loop->is_current() ? listener::patience::brief
                                             : listener::patience::usual);
    std::lock_guard<std::mutex> guard(mutex);
    sockets_closed = true;
    changed.notify_all();
}

void endpoint::close() {
    if (!loop->is_in_own_process()) {
        return;
    }
    std::unique_lock<std::mutex> guard(mutex);
    if (own_state != state::open) {
        // Who is waited for doesn't wait: a callback of this endpoint, on its loop's thread or, for
        // a request, on the closer's.
        const bool in_own_callback = in_callback && loop->is_current();
        if (!in_own_callback && closer != std::this_thread::get_id()) {
            changed.wait(guard, [this] { return sockets_closed; });
        }
        return;
    }
    own_state = state::closing;
    closer = std::this_thread::get_id();
    if (!loop->is_current()) {
        changed.wait(guard, [this] { return !in_callback; });
    }
    pending_request done;
    while (pending.take_where([](const auto &) { return true; }, &done)) {
        guard.unlock();
        kze_ev::run_guarded("a callback for a reply", [&done] {
            done.callback(VRD_IPC_E_CLOSED, done.cmd, nullptr, 0, done.context);
        });
        guard.lock();
    }
    own_state = state::closed;
    guard.unlock();
    close_sockets();
    if (loop->is_current()) {
        release();
        return;
    }
    // Should it fail, the loop's end releases it.
    kze_ev::run_guarded("the release of an endpoint",
                        [this] { loop->post([self = shared_from_this()] { self->release(); }); });
}

}  // namespace kze_ipc
