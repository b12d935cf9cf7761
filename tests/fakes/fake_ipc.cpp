#include "tests/fakes/fake_ipc.h"

#include <mutex>
#include <utility>

#include "tests/fakes/journal.h"

namespace {

std::mutex s_mutex;
std::vector<fakes::ipc_send> s_sends;
int s_send_result = 0;
std::function<void()> s_send_hook;

}  // namespace

namespace fakes {

std::vector<ipc_send> ipc_sends() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_sends;
}

void ipc_send_returns(int result) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_send_result = result;
}

void on_ipc_send(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_send_hook = std::move(hook);
}

void reset_ipc() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_sends.clear();
    s_send_result = 0;
    s_send_hook = nullptr;
}

}  // namespace fakes

int vrd_ipc_send(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int cmd, const char *data,
                 unsigned int size) {
    fakes::note(fakes::what::ipc, "send " + std::to_string(cmd) + ", " + std::to_string(size));
    const std::string copy = data == nullptr ? std::string() : std::string(data, size);
    std::function<void()> hook;
    int result = 0;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_sends.push_back({ipc, addr, cmd, data == nullptr, copy, pthread_self()});
        hook = s_send_hook;
        result = s_send_result;
    }
    if (hook) {
        hook();
    }
    return result;
}
