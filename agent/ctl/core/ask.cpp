#include "agent/ctl/core/ask.h"

#include "agent/common/control.h"
#include "agent/common/services.h"
#include "agent/ctl/core/failure.h"
#include "vrdipc.h"

namespace kze::ctl {

using nlohmann::json;

std::string program_at(const std::string &endpoint) {
    const agent_service *service = find_service_at(endpoint);
    return service == nullptr ? "the host" : service->spoken;
}

std::optional<json> ask_if_running(const std::string &endpoint, const json &request,
                                   unsigned int seconds) {
    const control_result result = control_call(endpoint, request, seconds);
    if (result.status == VRD_IPC_E_NO_PEER || result.status == VRD_IPC_E_PEER_GONE) {
        return std::nullopt;
    }
    if (!result.answer) {
        const bool late = result.status == VRD_IPC_E_TIMEOUT;
        throw failure(late ? exit_timed_out : exit_failed,
                      program_at(endpoint) + " didn't answer: " + result.error);
    }
    if (!result.answer->value("ok", false)) {
        throw failure(exit_failed, program_at(endpoint) + " refused: " +
                                       result.answer->value("error", std::string("no reason")));
    }
    return result.answer;
}

json ask(const std::string &endpoint, const json &request, unsigned int seconds) {
    if (std::optional<json> answer = ask_if_running(endpoint, request, seconds)) {
        return std::move(*answer);
    }
    throw failure(exit_not_running,
                  program_at(endpoint) + " isn't running; start it with \"kzectl " +
                      (endpoint == engine_endpoint ? "engine start" : "up") + "\"");
}

}  // namespace kze::ctl
