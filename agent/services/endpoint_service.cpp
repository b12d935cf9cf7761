#include "agent/services/endpoint_service.h"

#include <unistd.h>

#include <exception>
#include <utility>

#include "agent/common/control.h"
#include "vrdbase.h"

namespace kze::services {

using nlohmann::json;

endpoint_service::endpoint_service(std::string endpoint)
    : endpoint_(std::move(endpoint)), started_(std::chrono::steady_clock::now()) {}

endpoint_service::~endpoint_service() {
    vrd_ipc_destroy(ipc_);
}

bool endpoint_service::open() {
    ipc_ = vrd_ipc_create(endpoint_.c_str(), 0);
    if (ipc_ == nullptr || vrd_ipc_on_request(ipc_, take_request, this) != VRD_IPC_OK ||
        vrd_ipc_msg_recv(ipc_, take_message, this) != VRD_IPC_OK) {
        kze_log(1, "the endpoint \"%s\" can't be created", endpoint_.c_str());
        return false;
    }
    return true;
}

void endpoint_service::respond(const vrd_addr_st *to, unsigned int request_id, unsigned int cmd,
                               std::string_view body) const {
    const int result = vrd_ipc_response(ipc_, to, request_id, cmd, body.data(),
                                        static_cast<unsigned int>(body.size()));
    if (result != VRD_IPC_OK) {
        kze_log(2, "a request of command %u is not answered: %s", cmd, vrd_ipc_strerror(result));
    }
}

void endpoint_service::on_request(vrd_addr_st *from, unsigned int request_id, unsigned int cmd,
                                  std::string_view /* body */) {
    kze_log(2, "a request of the unknown command %u, answered with nothing", cmd);
    respond(from, request_id, cmd, {});
}

void endpoint_service::on_message(unsigned int cmd, std::string_view /* body */) {
    kze_log(2, "a message of the unknown command %u, dropped", cmd);
}

json endpoint_service::on_control(const std::string &op, const json & /* request */) {
    return control_error("no request \"" + op + "\" here");
}

json endpoint_service::answer_control(const json &request) {
    const auto op = request.find("op");
    if (op == request.end() || !op->is_string()) {
        return control_error("a request has a text \"op\"");
    }
    if (*op != "status") {
        return on_control(op->get<std::string>(), request);
    }
    const auto uptime = std::chrono::steady_clock::now() - started_;
    json status = {{"ok", true},
                   {"pid", getpid()},
                   {"uptime_s", std::chrono::duration_cast<std::chrono::seconds>(uptime).count()}};
    add_status(status);
    return status;
}

void endpoint_service::take_request(vrd_ipc_st *ipc, vrd_addr_st *addr, unsigned int request_id,
                                    unsigned int cmd, const char *data, unsigned int len,
                                    void *self) {
    endpoint_service &service = *static_cast<endpoint_service *>(self);
    try {
        const control_handler handler = [&service](const json &request) {
            return service.answer_control(request);
        };
        if (!control_answer(ipc, addr, request_id, cmd, data, len, handler)) {
            service.on_request(addr, request_id, cmd, {data, len});
        }
    } catch (const std::exception &failure) {
        kze_log(1, "a request of command %u failed: %s", cmd, failure.what());
    }
}

void endpoint_service::take_message(vrd_ipc_st * /* ipc */, vrd_addr_st * /* addr */,
                                    unsigned int cmd, const char *data, unsigned int len,
                                    void *self) {
    try {
        static_cast<endpoint_service *>(self)->on_message(cmd, {data, len});
    } catch (const std::exception &failure) {
        kze_log(1, "a message of command %u failed: %s", cmd, failure.what());
    }
}

}  // namespace kze::services
