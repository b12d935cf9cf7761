#include "tests/fakes/fake_ipc.h"

#include <mutex>

#include "tests/fakes/journal.h"

namespace {

std::mutex s_mutex;
std::vector<fakes::ipc_send> s_sends;
int s_send_result = 0;

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

void reset_ipc() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_sends.clear();
    s_send_result = 0;
}

}  // namespace fakes

int vrd_ipc_send(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int cmd, const char *data,
                 unsigned int size) {
    fakes::note(fakes::what::ipc, "send " + std::to_string(cmd) + ", " + std::to_string(size));
    const std::string copy = data == nullptr ? std::string() : std::string(data, size);
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_sends.push_back({ipc, addr, cmd, data == nullptr, copy, pthread_self()});
    return s_send_result;
}
