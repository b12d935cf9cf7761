#include "agent/ctl/core/request_call.h"

#include <algorithm>
#include <memory>

#include "agent/ctl/core/failure.h"
#include "vrdcl_ev.h"
#include "vrdipc.h"

namespace kze::ctl {
namespace {

using ipc_ptr = std::unique_ptr<vrd_ipc_st, decltype(&vrd_ipc_destroy)>;
using addr_ptr = std::unique_ptr<vrd_addr_st, decltype(&vrd_addr_destroy)>;

/* One request that is still to end. */
struct pending_request {
    request_end *end;
    unsigned int *open;
};

void on_reply(int status, unsigned int cmd, const char *data, unsigned int len, void *context) {
    const auto &pending = *static_cast<pending_request *>(context);
    pending.end->status = std::min(status, 0);
    pending.end->cmd = cmd;
    if (status >= 0 && len != 0) {
        pending.end->answer.assign(data, len);
    }
    --*pending.open;
}

}  // namespace

std::vector<request_end> send_requests(const std::string &endpoint, unsigned int cmd,
                                       std::string_view body, unsigned int count,
                                       unsigned int seconds) {
    std::vector<request_end> ends(count);
    std::vector<pending_request> pending(count);
    unsigned int open = 0;
    cl_ev_loop_nowait(0);
    const addr_ptr peer(vrd_addr_create(endpoint.c_str(), 0, 0), vrd_addr_destroy);
    const ipc_ptr ipc(vrd_ipc_create_temp("request", 0), vrd_ipc_destroy);
    if (ipc == nullptr || peer == nullptr) {
        throw failure(exit_failed, "no endpoint of our own can be made in this tree");
    }
    for (unsigned int i = 0; i < count; ++i) {
        pending[i] = {&ends[i], &open};
        const int result = vrd_ipc_make_request(ipc.get(), peer.get(), cmd, body.data(),
                                                static_cast<unsigned int>(body.size()), on_reply,
                                                &pending[i], std::max(1U, seconds));
        if (result == VRD_IPC_OK) {
            ++open;
        } else {
            ends[i] = {result, cmd, ""};
        }
    }
    while (open != 0) {
        cl_event_loop_once();
    }
    return ends;
}

}  // namespace kze::ctl
