#include "agent/engine/engine_server.h"

#include <iterator>

#include "agent/common/control.h"
#include "agent/engine/left_requests.h"
#include "vrdbase.h"

namespace kze::engine {
std::unique_ptr<engine_server> engine_server::create(const std::string &settings_path) {
    vrd_ipc_st *ipc = vrd_ipc_create(endpoint_name, 0);
    if (ipc == nullptr) {
        return nullptr;
    }
    return std::unique_ptr<engine_server>(new engine_server(ipc, settings_path));
}

engine_server::engine_server(vrd_ipc_st *ipc, const std::string &settings_path)
    : ipc_(ipc),
      started_(clock::now()),
      settings_(settings_path),
      left_path_(settings_path + left_suffix),
      clients_(ipc),
      calls_(
          settings_, clients_,
          [this](const std::vector<std::uint32_t> &clients) { order_snapshot(clients); },
          [this](unsigned int ms, std::function<void()> what) {
              if (ms == 0) {
                  what();
              } else {
                  later(ms, std::move(what));
              }
          }),
      collector_([this](std::string snapshot, const std::vector<std::uint32_t> &clients) {
          deliver_origin(std::move(snapshot), clients);
      }) {
    take_left();
    collector_.start();
    tick_ = cl_timerplus_start(1000, 0, 1000, on_tick, this);
    vrd_ipc_on_request(ipc_, on_request, this);
}

void engine_server::take_left() {
    take_left_requests(left_path_, [this](const nlohmann::json &request) {
        const nlohmann::json answer = settings_.apply(request);
        if (!answer.value("ok", false)) {
            kze_log(2, "a request that was left is refused: %s",
                    answer.value("error", std::string()).c_str());
        }
    });
}

engine_server::~engine_server() {
    vrd_ipc_destroy(ipc_);
    collector_.stop();
    cl_timerplus_close(tick_);
    for (const later_task &task : tasks_) {
        cl_timerplus_close(task.timer);
    }
}

void engine_server::on_request(vrd_ipc_st *ipc, vrd_addr_st *addr, unsigned int request_id,
                               unsigned int cmd, const char *data, unsigned int len, void *self) {
    auto *server = static_cast<engine_server *>(self);
    if (control_answer(ipc, addr, request_id, cmd, data, len,
                       [server](const auto &request) { return server->control(request); })) {
        return;
    }
    if (server->silent()) {
        return;
    }
    const std::optional<record> request = decode_record(data, len);
    if (request && cmd == command_call) {
        server->handle_call(addr, request_id, *request);
    } else if (request && cmd == command_ping) {
        server->handle_ping(addr, request_id, *request);
    } else if (request && cmd == command_next) {
        server->handle_next(addr, request_id, *request);
    } else {
        kze_log(2, "request with command %u and %u bytes is none of ours", cmd, len);
        record answer;
        answer.first = client_invalid;
        server->respond(addr, request_id, cmd, answer);
    }
}

void engine_server::handle_call(const vrd_addr_st *addr, unsigned int request_id,
                                const record &request) {
    if (request.what < 1 || request.what > engine_call_count) {
        call_result unknown;
        unknown.code = client_invalid;
        answer_call(addr, request_id, request, unknown);
        return;
    }
    const auto call = static_cast<engine_call>(request.what);
    if (call != engine_call::start && !clients_.knows(request.client)) {
        call_result stranger;
        stranger.code = client_offline;
        answer_call(addr, request_id, request, stranger);
        return;
    }
    const std::optional<call_answer> told = settings_.take(call_name(call), request.first);
    const call_result result = calls_.carry_out(call, request, told);
    if (!result.answered) {
        return;
    }
    if (!told || told->delay_ms == 0) {
        answer_call(addr, request_id, request, result);
        return;
    }
    record head = request;
    head.payload = {};
    later(told->delay_ms, [=] { answer_call(addr, request_id, head, result); });
}

void engine_server::answer_call(const vrd_addr_st *addr, unsigned int request_id,
                                const record &request, const call_result &result) {
    record answer;
    answer.what = request.what;
    answer.client = request.client;
    answer.first = result.code;
    answer.second = result.second;
    answer.payload = result.payload;
    respond(addr, request_id, command_call, answer);
    if (result.later) {
        later(result.later->delay_ms,
              [this, client = request.client, what = *result.later] { end_order(client, what); });
    }
}

void engine_server::end_order(std::uint32_t client, const call_result::aftermath &what) {
    if (what.kind != event_kind::completion) {
        clients_.push(what.kind, what.payload);
        return;
    }
    calls_.note_callback(what.load, what.result);
    record event;
    event.what = static_cast<std::uint32_t>(event_kind::completion);
    event.client = static_cast<std::uint32_t>(what.type);
    event.first = what.ticket;
    event.second = what.result;
    event.payload = what.result == 0 ? std::string_view(what.payload) : std::string_view();
    clients_.push_to({client}, event);
}

void engine_server::handle_ping(const vrd_addr_st *addr, unsigned int request_id,
                                const record &request) {
    record answer;
    answer.client = request.client;
    answer.first = clients_.heard(request.client, request.second) ? client_ok : client_offline;
    respond(addr, request_id, command_ping, answer);
}

void engine_server::handle_next(const vrd_addr_st *addr, unsigned int request_id,
                                const record &request) {
    if (!clients_.wait_next(request.client, addr, request_id)) {
        record answer;
        answer.first = client_offline;
        respond(addr, request_id, command_next, answer);
    }
}

void engine_server::respond(const vrd_addr_st *addr, unsigned int request_id, unsigned int cmd,
                            const record &answer) {
    if (silent()) {
        return;
    }
    const std::string bytes = encode_record(answer);
    const int result = vrd_ipc_response(ipc_, addr, request_id, cmd, bytes.data(),
                                        static_cast<unsigned int>(bytes.size()));
    if (result != 0) {
        kze_log(2, "an answer is lost: %s", vrd_ipc_strerror(result));
    }
}

void engine_server::order_snapshot(const std::vector<std::uint32_t> &clients) {
    if (!clients.empty()) {
        ++snapshots_ordered_;
        collector_.order(clients);
    }
}

/* Runs on the collector's thread, and for a push on the loop's. */
engine_clients::pushed engine_server::deliver_origin(std::string snapshot,
                                                     const std::vector<std::uint32_t> &clients) {
    if (!calls_.collecting()) {
        return {};
    }
    const std::size_t lost = cut_at_line(snapshot, payload_limit);
    if (lost != 0) {
        kze_log(1, "origin data is too large for one message, %zu lines are lost", lost);
    }
    record event;
    event.what = static_cast<std::uint32_t>(event_kind::origin);
    event.payload = snapshot;
    const engine_clients::pushed counts = clients_.push_to(clients, event);
    kze_log(3, "origin data of %zu bytes for %u clients", snapshot.size(), counts.taken);
    return counts;
}

void engine_server::on_tick(cl_timerplus *timer) {
    auto *server = static_cast<engine_server *>(timer->user);
    if (server->silent()) {
        return;
    }
    const clock::time_point now = clock::now();
    server->clients_.set_silent(false);
    server->clients_.tick(now);
    const std::vector<std::uint32_t> due = server->clients_.take_due_origin(now);
    if (!due.empty() && server->calls_.collecting()) {
        server->order_snapshot(due);
    }
}

void engine_server::later(unsigned int ms, std::function<void()> what) {
    later_task &task = tasks_.emplace_back(later_task{this, std::move(what), nullptr, {}});
    task.place = std::prev(tasks_.end());
    task.timer = cl_timerplus_start(ms, 0, 0, on_later, &task);
    if (task.timer == nullptr) {
        kze_log(1, "no timer for an answer, it is lost");
        tasks_.pop_back();
    }
}

void engine_server::on_later(cl_timerplus *timer) {
    auto *task = static_cast<later_task *>(timer->user);
    engine_server *server = task->owner;
    const std::function<void()> what = std::move(task->what);
    cl_timerplus_close(timer);
    server->tasks_.erase(task->place);
    what();
}

}  // namespace kze::engine
