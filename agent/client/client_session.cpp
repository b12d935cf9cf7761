#include "agent/client/client_session.h"

#include <unistd.h>

#include <chrono>
#include <climits>
#include <system_error>
#include <utility>
#include <vector>

#include "agent/client/client_buffers.h"
#include "vrdbase.h"

namespace kze::engine {
namespace {

constexpr unsigned int start_limit_s = 3;
constexpr unsigned int call_limit_s = 5;
constexpr unsigned int leave_limit_s = 1;
/* The IPC ends a request in time by itself; beyond this its thread must be stuck. */
constexpr auto stuck_limit = std::chrono::seconds(1);
constexpr unsigned int next_limit_s = 60;
constexpr unsigned int ping_limit_s = 30;
/* One ping each second: the first of four has had three seconds to be answered. */
constexpr int unanswered_limit = 3;
/* What may wait for the callbacks before no more events are fetched. */
constexpr std::size_t queue_limit = 32U << 20;
constexpr std::size_t item_overhead = 256;
constexpr auto settle_time = std::chrono::milliseconds(250);

int code_of_status(int status) {
    switch (status) {
        case VRD_IPC_OK:
            return client_ok;
        case VRD_IPC_E_TIMEOUT:
        case VRD_IPC_E_QUEUE_FULL:
        case VRD_IPC_E_BUSY:
            return client_timeout;
        case VRD_IPC_E_TOO_LARGE:
        case VRD_IPC_E_ARGUMENT:
            return client_invalid;
        case VRD_IPC_E_NO_MEMORY:
            return client_failed;
        default:
            return client_offline;
    }
}

bool means_gone(int status) {
    return code_of_status(status) == client_offline;
}

std::string program_name() {
    char path[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof(path));
    const std::string_view full(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    return std::string(full.substr(full.rfind('/') + 1));
}

}  // namespace

client_session::~client_session() {
    begin_close();
    stop_loop();
}

int client_session::open(qd_offline_cb offline, void *context) {
    offline_ = offline;
    offline_context_ = context;
    if (!delivery_.start() || !start_loop()) {
        return client_failed;
    }
    return call_within(engine_call::start, ::getpid(), 0, program_name(), start_limit_s).code;
}

void client_session::begin_close() {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        closing_ = true;
    }
    changed_.notify_all();
    delivery_.close();
}

int client_session::close() {
    bool online = false;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        online = state_ == state::online;
    }
    int code = client_ok;
    if (online) {
        code = call_within(engine_call::stop, 0, 0, {}, leave_limit_s).code;
        /* The engine that can't be told has no say in whether the client stops. */
        code = code == client_offline || code == client_timeout ? client_ok : code;
    }
    std::map<int, open_order> dropped;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        state_ = state::closed;
        subscriptions_ = {};
        orders_.swap(dropped);
        for (const std::shared_ptr<waiting_call> &waiting : calls_) {
            waiting->done = true;
            waiting->result.code = client_offline;
        }
    }
    changed_.notify_all();
    stop_loop();
    return code;
}

/* ---- the loop's thread ---- */

bool client_session::start_loop() {
    try {
        loop_ = std::thread(&client_session::run_loop, this);
    } catch (const std::system_error &) {
        return false;
    }
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait(guard, [this] { return loop_state_ != loop_state::starting; });
    return loop_state_ == loop_state::ready;
}

void client_session::run_loop() {
    /* A loop of its own that no other thread's timers end up on. */
    cl_ev_loop_nowait(0);
    vrd_ipc_st *ipc = vrd_ipc_create_temp("qd_client", 0);
    vrd_addr_st *addr = vrd_addr_create(endpoint_name, 0, 0);
    cl_timerplus *tick = cl_timerplus_start(1000, 0, 1000, on_tick, this);
    const bool complete = ipc != nullptr && addr != nullptr && tick != nullptr;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        ipc_ = ipc;
        addr_ = addr;
        loop_state_ = complete ? loop_state::ready : loop_state::failed;
    }
    changed_.notify_all();
    while (complete && !stop_ && cl_event_loop_once() == 0) {
    }
    cl_timerplus_close(tick);
    vrd_ipc_destroy(ipc);
    vrd_addr_destroy(addr);
}

void client_session::stop_loop() {
    if (!loop_.joinable()) {
        return;
    }
    stop_ = true;
    /* Also ends the loop's wait. */
    vrd_ipc_destroy(ipc_);
    loop_.join();
}

void client_session::on_tick(cl_timerplus *timer) {
    auto *session = static_cast<client_session *>(timer->user);
    {
        const std::lock_guard<std::mutex> guard(session->lock_);
        if (session->state_ != state::online) {
            return;
        }
    }
    if (session->pings_unanswered_ >= unanswered_limit) {
        session->lose_engine("it is silent");
        return;
    }
    session->send_ping();
    session->ask_for_next();
}

void client_session::send_ping() {
    record ping;
    ping.second = buffers_out();
    {
        const std::lock_guard<std::mutex> guard(lock_);
        ping.client = client_;
    }
    const std::string bytes = encode_record(ping);
    ++pings_unanswered_;
    vrd_ipc_make_request(ipc_, addr_, command_ping, bytes.data(),
                         static_cast<unsigned int>(bytes.size()), on_ping_reply, this,
                         ping_limit_s);
}

void client_session::on_ping_reply(int status, unsigned int /* cmd */, const char *data,
                                   unsigned int len, void *self) {
    auto *session = static_cast<client_session *>(self);
    const std::optional<record> answer = status == 0 ? decode_record(data, len) : std::nullopt;
    if (means_gone(status)) {
        session->lose_engine(vrd_ipc_strerror(status));
    } else if (answer && answer->first == client_offline) {
        session->lose_engine("it doesn't know this client");
    } else if (answer) {
        session->pings_unanswered_ = 0;
    }
}

/* ---- calls ---- */

client_session::reply client_session::call(engine_call call, int first, int second,
                                           std::string_view payload) {
    return call_within(call, first, second, payload, call_limit_s);
}

client_session::reply client_session::call_within(engine_call call, int first, int second,
                                                  std::string_view payload, unsigned int limit_s) {
    const auto waiting = std::make_shared<waiting_call>();
    record request;
    request.what = static_cast<std::uint32_t>(call);
    request.first = first;
    request.second = second;
    request.payload = payload;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (state_ != (call == engine_call::start ? state::opening : state::online)) {
            return {client_offline, 0, {}};
        }
        request.client = client_;
        calls_.insert(waiting);
    }
    const std::string bytes = encode_record(request);
    auto context = std::make_unique<call_context>(call_context{this, waiting, call});
    const int result = bytes.empty() ? VRD_IPC_E_TOO_LARGE
                                     : vrd_ipc_make_request(ipc_, addr_, command_call, bytes.data(),
                                                            static_cast<unsigned int>(bytes.size()),
                                                            on_call_reply, context.get(), limit_s);
    std::unique_lock<std::mutex> guard(lock_);
    if (result != 0) {
        calls_.erase(waiting);
        return {code_of_status(result), 0, {}};
    }
    static_cast<void>(context.release()); /* on_call_reply takes it over */
    const bool done = changed_.wait_for(guard, std::chrono::seconds(limit_s) + stuck_limit,
                                        [&] { return waiting->done; });
    calls_.erase(waiting);
    if (!done) {
        return {client_timeout, 0, {}};
    }
    return std::move(waiting->result);
}

void client_session::on_call_reply(int status, unsigned int /* cmd */, const char *data,
                                   unsigned int len, void *context) {
    const std::unique_ptr<call_context> own(static_cast<call_context *>(context));
    reply result;
    result.code = code_of_status(status);
    if (status == 0) {
        const std::optional<record> answer = decode_record(data, len);
        if (answer && answer->what == static_cast<std::uint32_t>(own->call)) {
            result.code = answer->first;
            result.second = answer->second;
            result.payload = std::string(answer->payload);
        } else {
            result.code = client_failed;
        }
    } else if (means_gone(status)) {
        own->session->lose_engine(vrd_ipc_strerror(status));
    }
    if (own->call == engine_call::start && result.code == 0) {
        own->session->come_online(static_cast<std::uint32_t>(result.second));
    }
    own->session->finish(*own->waiting, std::move(result));
}

void client_session::finish(waiting_call &waiting, reply result) {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (!waiting.done) {
            waiting.done = true;
            waiting.result = std::move(result);
        }
    }
    changed_.notify_all();
}

int client_session::order(engine_call call, int first, std::string_view payload, completion end) {
    int ticket = 0;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        last_ticket_ = last_ticket_ == INT_MAX ? 1 : last_ticket_ + 1;
        ticket = last_ticket_;
        orders_[ticket] = open_order{first, std::move(end)};
    }
    const int code = call_within(call, first, ticket, payload, call_limit_s).code;
    if (code != 0) {
        const std::lock_guard<std::mutex> guard(lock_);
        orders_.erase(ticket);
    }
    return code;
}

int client_session::subscribe(event_kind kind, qd_data_cb callback, void *context, engine_call call,
                              int first) {
    subscription &place = subscriptions_[static_cast<std::size_t>(kind)];
    subscription before;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        before = std::exchange(place, subscription{callback, context});
    }
    const int code = call_within(call, first, callback == nullptr ? 0 : 1, {}, call_limit_s).code;
    if (code != 0) {
        const std::lock_guard<std::mutex> guard(lock_);
        place = before;
    }
    return code;
}

/* ---- events ---- */

void client_session::ask_for_next() {
    record request;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (state_ != state::online || asking_ || delivery_.queued() > queue_limit) {
            return;
        }
        asking_ = true;
        request.client = client_;
    }
    const std::string bytes = encode_record(request);
    if (vrd_ipc_make_request(ipc_, addr_, command_next, bytes.data(),
                             static_cast<unsigned int>(bytes.size()), on_next_reply, this,
                             next_limit_s) != 0) {
        const std::lock_guard<std::mutex> guard(lock_);
        asking_ = false; /* the next tick asks again */
    }
}

void client_session::on_next_reply(int status, unsigned int /* cmd */, const char *data,
                                   unsigned int len, void *self) {
    auto *session = static_cast<client_session *>(self);
    {
        const std::lock_guard<std::mutex> guard(session->lock_);
        session->asking_ = false;
    }
    const std::optional<record> event = status == 0 ? decode_record(data, len) : std::nullopt;
    if (means_gone(status)) {
        session->lose_engine(vrd_ipc_strerror(status));
    } else if (event && event->first == client_offline && event->what == 0) {
        session->lose_engine("it doesn't know this client");
    } else if (event) {
        session->take_event(*event);
        session->ask_for_next();
    }
}

void client_session::take_event(const record &event) {
    const std::size_t weight = event.payload.size() + item_overhead;
    if (event.what == static_cast<std::uint32_t>(event_kind::completion)) {
        delivery_.post(
            [this, ticket = event.first, type = static_cast<int>(event.client),
             result = event.second,
             data = std::string(event.payload)] { complete(ticket, type, result, data); },
            weight);
    } else if (event.what >= 1 && event.what < event_kind_count) {
        delivery_.post([this, kind = static_cast<event_kind>(event.what),
                        data = std::string(event.payload)] { deliver(kind, data); },
                       weight);
    }
}

/* On the delivery thread, as complete. */
void client_session::deliver(event_kind kind, std::string_view payload) {
    subscription to;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        to = subscriptions_[static_cast<std::size_t>(kind)];
    }
    if (to.callback != nullptr) {
        char *buffer = new_buffer(payload);
        if (buffer != nullptr) {
            to.callback(buffer, static_cast<unsigned int>(payload.size()), to.context);
        } else {
            kze_log(1, "no memory, %zu bytes of %s data are lost", payload.size(),
                    event_name(kind));
        }
    }
    ask_for_next();
}

/* Without a type the callback is told that of the call. */
void client_session::complete(int ticket, std::optional<int> type, int result,
                              std::string_view data) {
    std::optional<open_order> order;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        const auto found = orders_.find(ticket);
        if (found != orders_.end()) {
            order = std::move(found->second);
            orders_.erase(found);
        }
    }
    if (order) {
        order->end(type.value_or(order->type), result, data);
    }
    ask_for_next();
}

/* ---- state ---- */

void client_session::come_online(std::uint32_t client) {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (state_ != state::opening) {
            return;
        }
        state_ = state::online;
        client_ = client;
        online_since_ = std::chrono::steady_clock::now();
    }
    ask_for_next();
}

void client_session::lose_engine(const char *why) {
    std::vector<int> tickets;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (state_ != state::online) {
            return;
        }
        state_ = state::offline;
        for (const std::shared_ptr<waiting_call> &waiting : calls_) {
            waiting->done = true;
            waiting->result.code = client_offline;
        }
        for (const auto &[ticket, order] : orders_) {
            tickets.push_back(ticket);
        }
    }
    changed_.notify_all();
    kze_log(2, "the engine is lost: %s", why);
    for (const int ticket : tickets) {
        delivery_.post([this, ticket] { complete(ticket, std::nullopt, client_offline, {}); },
                       item_overhead);
    }
    delivery_.post([this] { report_offline(); }, item_overhead);
}

/* On the delivery thread. A caller notes that it is online when x_client_start has returned; the
 * news of an engine that was lost in that very moment must not come before that. */
void client_session::report_offline() {
    {
        std::unique_lock<std::mutex> guard(lock_);
        if (changed_.wait_until(guard, online_since_ + settle_time, [this] { return closing_; })) {
            return;
        }
    }
    if (offline_ != nullptr) {
        offline_(offline_context_);
    }
}

}  // namespace kze::engine
