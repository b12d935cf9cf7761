#include "tests/fakes/fake_ipc.h"

#include <list>
#include <mutex>
#include <set>
#include <utility>

#include "tests/fakes/journal.h"

struct vrd_ipc_st {
    std::string name;
    bool open = true;
    vrd_ipc_request_cb on_request = nullptr;
    void *request_context = nullptr;
    vrd_ipc_recv_cb on_message = nullptr;
    void *message_context = nullptr;
};

struct vrd_addr_st {
    std::string name;
    bool open = true;
};

namespace {

// Handles stay where they are: the plug-in keeps some for the process's life.
std::list<vrd_ipc_st> s_ipcs;
std::list<vrd_addr_st> s_addrs;
vrd_addr_st s_peer = {"peer", true};

struct state {
    std::vector<fakes::ipc_send> sends;
    std::vector<fakes::ipc_response> responses;
    std::vector<fakes::ipc_request> requests;
    std::function<void()> send_hook;
    std::function<void(const fakes::ipc_request &)> request_hook;
    std::set<std::string> failing_ipcs;
    std::set<std::string> failing_addrs;
    int send_result = 0;
    int on_request_result = 0;
    int msg_recv_result = 0;
    int make_request_result = 0;
    int response_result = 0;
};

std::mutex s_mutex;
state s_state;

template <typename handles>
std::vector<std::string> names_of_open(const handles &all) {
    std::vector<std::string> result;
    for (const auto &each : all) {
        if (each.open) {
            result.push_back(each.name);
        }
    }
    return result;
}

template <typename handles>
auto *newest_of_name(handles &all, const std::string &name) {
    typename handles::value_type *result = nullptr;
    for (auto &each : all) {
        if (each.open && each.name == name) {
            result = &each;
        }
    }
    return result;
}

vrd_ipc_st *create_ipc(const char *call, const char *name, int flags) {
    fakes::note(fakes::what::ipc, std::string(call) + " " + name + " " + std::to_string(flags));
    const std::lock_guard<std::mutex> lock(s_mutex);
    if (s_state.failing_ipcs.count(name) != 0) {
        return nullptr;
    }
    s_ipcs.push_back({});
    s_ipcs.back().name = name;
    return &s_ipcs.back();
}

std::string bytes(const char *data, unsigned int size) {
    return data == nullptr ? std::string() : std::string(data, size);
}

}  // namespace

namespace fakes {

std::vector<ipc_send> ipc_sends() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.sends;
}

std::vector<ipc_response> ipc_responses() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.responses;
}

std::vector<ipc_request> ipc_requests() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.requests;
}

void ipc_answer(const ipc_request &request, const std::string &body) {
    request.callback(0, request.cmd, body.data(), static_cast<unsigned int>(body.size()),
                     request.context);
}

void ipc_fail(const ipc_request &request, int status) {
    request.callback(status, request.cmd, nullptr, 0, request.context);
}

std::vector<std::string> open_ipcs() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return names_of_open(s_ipcs);
}

std::vector<std::string> open_addrs() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return names_of_open(s_addrs);
}

std::vector<std::string> take_left_ipc_handles() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    std::vector<std::string> result;
    const vrd_ipc_st *lasting = nullptr;
    for (vrd_ipc_st &each : s_ipcs) {
        if (each.open && each.name == "req_tmp" && lasting == nullptr) {
            lasting = &each;
        } else if (each.open) {
            result.push_back(each.name);
            each.open = false;
        }
    }
    bool has_lasting_addr = lasting == nullptr;
    for (vrd_addr_st &each : s_addrs) {
        if (each.open && each.name == "agt_cfgc" && !has_lasting_addr) {
            has_lasting_addr = true;
        } else if (each.open) {
            result.push_back("address " + each.name);
            each.open = false;
        }
    }
    return result;
}

vrd_ipc_st *ipc_by_name(const std::string &name) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return newest_of_name(s_ipcs, name);
}

const vrd_addr_st *addr_by_name(const std::string &name) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return newest_of_name(s_addrs, name);
}

vrd_addr_st *ipc_peer() {
    return &s_peer;
}

bool ipc_receives_request(const std::string &name, unsigned int request_id, unsigned int cmd,
                          const std::string &data) {
    vrd_ipc_st *const ipc = ipc_by_name(name);
    if (ipc == nullptr || ipc->on_request == nullptr) {
        return false;
    }
    ipc->on_request(ipc, &s_peer, request_id, cmd, data.data(),
                    static_cast<unsigned int>(data.size()), ipc->request_context);
    return true;
}

bool ipc_receives_message(const std::string &name, unsigned int cmd, const std::string &data) {
    vrd_ipc_st *const ipc = ipc_by_name(name);
    if (ipc == nullptr || ipc->on_message == nullptr) {
        return false;
    }
    ipc->on_message(ipc, &s_peer, cmd, data.data(), static_cast<unsigned int>(data.size()),
                    ipc->message_context);
    return true;
}

void ipc_send_returns(int result) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.send_result = result;
}

void on_ipc_send(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.send_hook = std::move(hook);
}

void on_ipc_request(std::function<void(const ipc_request &)> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.request_hook = std::move(hook);
}

void ipc_create_fails(const std::string &name) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.failing_ipcs.insert(name);
}

void addr_create_fails(const std::string &name) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.failing_addrs.insert(name);
}

void ipc_on_request_returns(int result) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.on_request_result = result;
}

void ipc_msg_recv_returns(int result) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.msg_recv_result = result;
}

void ipc_make_request_returns(int result) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.make_request_result = result;
}

void ipc_response_returns(int result) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.response_result = result;
}

void reset_ipc() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state = state();
}

}  // namespace fakes

vrd_ipc_st *vrd_ipc_create(const char *name, int flags) {
    return create_ipc("create", name, flags);
}

vrd_ipc_st *vrd_ipc_create_temp(const char *name, int flags) {
    return create_ipc("create temporary", name, flags);
}

void vrd_ipc_destroy(vrd_ipc_st *ipc) {
    fakes::note(fakes::what::ipc, "destroy " + ipc->name);
    const std::lock_guard<std::mutex> lock(s_mutex);
    ipc->open = false;
}

vrd_addr_st *vrd_addr_create(const char *name, int a, int b) {
    fakes::note(fakes::what::ipc,
                std::string("address ") + name + " " + std::to_string(a) + " " + std::to_string(b));
    const std::lock_guard<std::mutex> lock(s_mutex);
    if (s_state.failing_addrs.count(name) != 0) {
        return nullptr;
    }
    s_addrs.push_back({name, true});
    return &s_addrs.back();
}

void vrd_addr_destroy(vrd_addr_st *addr) {
    fakes::note(fakes::what::ipc, "destroy address " + addr->name);
    const std::lock_guard<std::mutex> lock(s_mutex);
    addr->open = false;
}

int vrd_ipc_on_request(vrd_ipc_st *ipc, vrd_ipc_request_cb callback, void *context) {
    fakes::note(fakes::what::ipc, "on request");
    const std::lock_guard<std::mutex> lock(s_mutex);
    if (s_state.on_request_result == 0) {
        ipc->on_request = callback;
        ipc->request_context = context;
    }
    return s_state.on_request_result;
}

int vrd_ipc_msg_recv(vrd_ipc_st *ipc, vrd_ipc_recv_cb callback, void *context) {
    fakes::note(fakes::what::ipc, "on message");
    const std::lock_guard<std::mutex> lock(s_mutex);
    if (s_state.msg_recv_result == 0) {
        ipc->on_message = callback;
        ipc->message_context = context;
    }
    return s_state.msg_recv_result;
}

int vrd_ipc_response(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int request_id,
                     unsigned int cmd, const char *data, unsigned int size) {
    fakes::note(fakes::what::ipc, "response " + std::to_string(cmd) + ", " + std::to_string(size));
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.responses.push_back({ipc, addr, request_id, cmd, bytes(data, size)});
    return s_state.response_result;
}

int vrd_ipc_make_request(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int cmd,
                         const char *data, unsigned int size, vrd_ipc_reply_cb callback,
                         void *context, unsigned int time_limit) {
    fakes::note(fakes::what::ipc, "request " + std::to_string(cmd) + ", " + std::to_string(size));
    const fakes::ipc_request request = {ipc,      addr,    cmd,       bytes(data, size),
                                        callback, context, time_limit};
    std::function<void(const fakes::ipc_request &)> hook;
    int result = 0;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_state.requests.push_back(request);
        hook = s_state.request_hook;
        result = s_state.make_request_result;
    }
    if (hook) {
        hook(request);
    }
    return result;
}

int vrd_ipc_send(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int cmd, const char *data,
                 unsigned int size) {
    fakes::note(fakes::what::ipc, "send " + std::to_string(cmd) + ", " + std::to_string(size));
    std::function<void()> hook;
    int result = 0;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_state.sends.push_back(
            {ipc, addr, cmd, data == nullptr, bytes(data, size), pthread_self()});
        hook = s_state.send_hook;
        result = s_state.send_result;
    }
    if (hook) {
        hook();
    }
    return result;
}

const char *vrd_ipc_strerror(int) {
    return "the peer says no";
}
