// The interface of vrdipc.h on top of endpoints and addresses. No exception leaves it.
#include "vrdipc.h"

#include <unistd.h>

#include <atomic>
#include <exception>
#include <memory>
#include <string>

#include "platform/vrdipc/endpoint.h"
#include "platform/vrdipc/handles.h"
#include "platform/vrdipc/sockets.h"
#include "vrdbase.h"

namespace {

using kze_ipc::address;
using kze_ipc::addresses;
using kze_ipc::endpoint;
using kze_ipc::endpoints;

std::string temporary_name(const char *beginning) {
    static std::atomic<unsigned int> last{0};
    return std::string(beginning) + "." + std::to_string(getpid()) + "." +
           std::to_string(last.fetch_add(1, std::memory_order_relaxed) + 1);
}

vrd_ipc_st *create(const char *name, bool temporary, int flags) {
    if (!kze_ipc::is_valid_name(name)) {
        kze_log(1, "ipc: %s is no name for an endpoint", name == nullptr ? "null" : name);
        return nullptr;
    }
    try {
        vrd_ipc_st *handle = nullptr;
        endpoint::create(temporary ? temporary_name(name) : name, temporary, flags, &handle);
        return handle;
    } catch (const std::exception &error) {
        kze_log(1, "ipc: %s can't be made: %s", name, error.what());
        return nullptr;
    }
}

// Looks the endpoint up and does the rest with it.
template <typename Action>
int with_endpoint(vrd_ipc_st *ipc, Action action) {
    try {
        const std::shared_ptr<endpoint> found = endpoints().find(ipc);
        return found == nullptr ? VRD_IPC_E_HANDLE : action(*found);
    } catch (const std::exception &) {
        return VRD_IPC_E_NO_MEMORY;
    }
}

// The same with an address.
template <typename Action>
int with_both(vrd_ipc_st *ipc, const vrd_addr_st *addr, Action action) {
    return with_endpoint(ipc, [&](endpoint &from) {
        const std::shared_ptr<const address> to = addresses().find(addr);
        return to == nullptr ? VRD_IPC_E_ADDRESS : action(from, *to);
    });
}

bool is_body(const char *data, unsigned int size) {
    return data != nullptr || size == 0;
}

}  // namespace

vrd_ipc_st *vrd_ipc_create(const char *name, int flags) {
    return create(name, false, flags);
}

vrd_ipc_st *vrd_ipc_create_temp(const char *name, int flags) {
    return create(name, true, flags);
}

void vrd_ipc_destroy(vrd_ipc_st *ipc) {
    with_endpoint(ipc, [ipc](endpoint &found) {
        found.close();
        endpoints().remove(ipc);
        return VRD_IPC_OK;
    });
}

vrd_addr_st *vrd_addr_create(const char *name, int a, int b) {
    if (!kze_ipc::is_valid_name(name)) {
        return nullptr;
    }
    try {
        auto made = std::make_shared<address>();
        made->name = name;
        made->a = a;
        made->b = b;
        return addresses().add(std::move(made));
    } catch (const std::exception &) {
        return nullptr;
    }
}

void vrd_addr_destroy(vrd_addr_st *addr) {
    const std::shared_ptr<const address> found = addresses().find(addr);
    if (found != nullptr && !found->name.empty()) {
        addresses().remove(addr);
    }
}

int vrd_ipc_on_request(vrd_ipc_st *ipc, vrd_ipc_request_cb callback, void *context) {
    return with_endpoint(
        ipc, [=](endpoint &found) { return found.set_request_handler(callback, context); });
}

int vrd_ipc_msg_recv(vrd_ipc_st *ipc, vrd_ipc_recv_cb callback, void *context) {
    return with_endpoint(
        ipc, [=](endpoint &found) { return found.set_message_handler(callback, context); });
}

int vrd_ipc_response(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int request_id,
                     unsigned int cmd, const char *data, unsigned int size) {
    if (!is_body(data, size)) {
        return VRD_IPC_E_ARGUMENT;
    }
    return with_both(ipc, addr, [=](endpoint &from, const address &to) {
        return from.respond(to, request_id, cmd, data, size);
    });
}

int vrd_ipc_make_request(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int cmd,
                         const char *data, unsigned int size, vrd_ipc_reply_cb callback,
                         void *context, unsigned int time_limit) {
    if (callback == nullptr || !is_body(data, size)) {
        return VRD_IPC_E_ARGUMENT;
    }
    return with_both(ipc, addr, [=](endpoint &from, const address &to) {
        return from.request(to, cmd, data, size, callback, context, time_limit);
    });
}

int vrd_ipc_send(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int cmd, const char *data,
                 unsigned int size) {
    if (!is_body(data, size)) {
        return VRD_IPC_E_ARGUMENT;
    }
    return with_both(ipc, addr, [=](endpoint &from, const address &to) {
        return from.send(to, cmd, data, size);
    });
}
