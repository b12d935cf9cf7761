#include "agent/common/control.h"

#include <exception>
#include <memory>
#include <system_error>
#include <utility>

#include "agent/common/json_text.h"
#include "vrdbase.h"
#include "vrdcl_ev.h"

namespace kze {
namespace {

using nlohmann::json;

using addr_ptr = std::unique_ptr<vrd_addr_st, decltype(&vrd_addr_destroy)>;

addr_ptr make_addr(const std::string &endpoint) {
    return addr_ptr(vrd_addr_create(endpoint.c_str(), 0, 0), &vrd_addr_destroy);
}

/* Bytes that are no UTF-8 are replaced: a text from outside must not cost the whole answer. */
std::string to_text(const json &value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::optional<json> handle(const char *data, unsigned int len, const control_ticket &ticket,
                           const control_later_handler &handler) {
    std::string problem = "it is no object";
    const std::optional<json> request = parse_json({data, len}, problem);
    if (!request || !request->is_object()) {
        return control_error("the request can't be read: " + problem);
    }
    try {
        return handler(*request, ticket);
    } catch (const std::exception &failure) {
        return control_error(failure.what());
    }
}

int respond(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int request_id, const json &answer) {
    const std::string text = to_text(answer);
    return vrd_ipc_response(ipc, addr, request_id, control_command, text.data(),
                            static_cast<unsigned int>(text.size()));
}

control_later_handler answering_at_once(control_handler handler) {
    return [handler = std::move(handler)](const json &request, const control_ticket &) {
        return std::optional<json>(handler(request));
    };
}

/* What a server sends itself. */
constexpr unsigned int wake_command = 0;
constexpr unsigned int wake_seconds = 1;

void on_woken(int /* status */, unsigned int /* cmd */, const char * /* data */,
              unsigned int /* len */, void * /* context */) {}

/* One control_call: what goes in, what comes out, both owned by the thread that waits. */
struct call {
    std::string endpoint;
    std::string request;
    unsigned int seconds = 0;
    control_result result;
    bool done = false;
};

std::string reason(const call &pending, int status) {
    if (status == VRD_IPC_E_NO_PEER) {
        return "the agent is not running in this tree: start it with kzectl up (\"" +
               pending.endpoint + "\" is not there)";
    }
    if (status == VRD_IPC_E_TIMEOUT) {
        return "\"" + pending.endpoint + "\" gave no answer within " +
               std::to_string(pending.seconds) + " s";
    }
    return "\"" + pending.endpoint + "\": " + vrd_ipc_strerror(status);
}

void take_answer(call &pending, int status, const char *data, unsigned int len) {
    pending.done = true;
    if (status < 0) {
        pending.result.error = reason(pending, status);
        pending.result.status = status;
        return;
    }
    std::string problem = "it is no object";
    std::optional<json> answer = parse_json({data, len}, problem);
    if (!answer || !answer->is_object()) {
        pending.result.error =
            "the answer of \"" + pending.endpoint + "\" can't be read: " + problem;
        return;
    }
    pending.result.answer = std::move(answer);
}

void on_reply(int status, unsigned int /* cmd */, const char *data, unsigned int len,
              void *context) {
    take_answer(*static_cast<call *>(context), status, data, len);
}

/* Runs on a thread of its own, whose loop it makes: the caller's may be in use just now. */
void make_call(call &pending) {
    cl_ev_loop_nowait(0);
    std::unique_ptr<vrd_ipc_st, decltype(&vrd_ipc_destroy)> ipc(vrd_ipc_create_temp("control", 0),
                                                                &vrd_ipc_destroy);
    const addr_ptr addr = make_addr(pending.endpoint);
    if (ipc == nullptr || addr == nullptr) {
        pending.result.error = "no endpoint of our own can be made in this tree";
        return;
    }
    const int result = vrd_ipc_make_request(
        ipc.get(), addr.get(), control_command, pending.request.data(),
        static_cast<unsigned int>(pending.request.size()), on_reply, &pending, pending.seconds);
    if (result != 0) {
        pending.result.error = reason(pending, result);
        pending.result.status = result;
        return;
    }
    while (!pending.done) {
        cl_event_loop_once();
    }
}

}  // namespace

json control_error(const std::string &reason) {
    return {{"ok", false}, {"error", reason}};
}

void control_ticket::answer(const json &answer) const {
    const int result = respond(ipc_, addr_, request_id_, answer);
    if (result == VRD_IPC_OK) {
        return;
    }
    kze_log(2, "control answer not sent: %s", vrd_ipc_strerror(result));
    if (result == VRD_IPC_E_TOO_LARGE) {
        respond(ipc_, addr_, request_id_, control_error("the answer is too long to be sent"));
    }
}

bool control_answer(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int request_id,
                    unsigned int cmd, const char *data, unsigned int len,
                    const control_later_handler &handler) {
    if (cmd != control_command) {
        return false;
    }
    const control_ticket ticket(ipc, addr, request_id);
    if (const std::optional<json> answer = handle(data, len, ticket, handler)) {
        ticket.answer(*answer);
    }
    return true;
}

bool control_answer(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int request_id,
                    unsigned int cmd, const char *data, unsigned int len,
                    const control_handler &handler) {
    return control_answer(ipc, addr, request_id, cmd, data, len, answering_at_once(handler));
}

control_server::~control_server() {
    stop();
}

bool control_server::start(const std::string &endpoint, control_handler handler) {
    return start(endpoint, answering_at_once(std::move(handler)));
}

bool control_server::start(const std::string &endpoint, control_later_handler handler) {
    if (thread_.joinable()) {
        return false;
    }
    endpoint_ = endpoint;
    handler_ = std::move(handler);
    ready_ = {};
    std::future<bool> ready = ready_.get_future();
    running_ = true;
    try {
        thread_ = std::thread([this] { serve(); });
    } catch (const std::system_error &failure) {
        kze_log(1, "control endpoint \"%s\": no thread: %s", endpoint_.c_str(), failure.what());
        return false;
    }
    if (!ready.get()) {
        stop();
        return false;
    }
    return true;
}

void control_server::stop() {
    if (!thread_.joinable()) {
        return;
    }
    running_ = false;
    wake();
    thread_.join();
}

/* The loop turns to end a request, and each request ends: answered, in vain or too late. */
void control_server::wake() {
    const addr_ptr addr = make_addr(endpoint_);
    vrd_ipc_make_request(ipc_, addr.get(), wake_command, nullptr, 0, on_woken, nullptr,
                         wake_seconds);
}

void control_server::serve() {
    cl_ev_loop_nowait(0);
    ipc_ = vrd_ipc_create(endpoint_.c_str(), 0);
    if (ipc_ == nullptr || vrd_ipc_on_request(ipc_, on_request, this) != 0) {
        kze_log(1, "control endpoint \"%s\" can't be created", endpoint_.c_str());
        vrd_ipc_destroy(ipc_);
        ipc_ = nullptr;
        ready_.set_value(false);
        return;
    }
    ready_.set_value(true);
    while (running_) {
        cl_event_loop_once();
    }
    vrd_ipc_destroy(ipc_);
}

void control_server::on_request(vrd_ipc_st *ipc, vrd_addr_st *addr, unsigned int request_id,
                                unsigned int cmd, const char *data, unsigned int len, void *self) {
    const control_server &server = *static_cast<control_server *>(self);
    if (!control_answer(ipc, addr, request_id, cmd, data, len, server.handler_)) {
        control_ticket(ipc, addr, request_id).answer(control_error("not a control request"));
    }
}

control_result control_call(const std::string &endpoint, const json &request,
                            unsigned int seconds) {
    call pending;
    pending.endpoint = endpoint;
    pending.request = to_text(request);
    pending.seconds = seconds;
    try {
        std::thread([&pending] { make_call(pending); }).join();
    } catch (const std::system_error &failure) {
        return {std::nullopt, std::string("no thread for the request: ") + failure.what(), 0};
    }
    return std::move(pending.result);
}

}  // namespace kze
