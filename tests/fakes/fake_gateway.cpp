#include "tests/fakes/fake_gateway.h"

#include <mutex>
#include <utility>

#include "engine/qd_client.h"
#include "tests/fakes/journal.h"

namespace {

std::mutex s_mutex;
std::vector<fakes::gateway_send> s_sends;
int s_result = 0;
std::function<void()> s_hook;

int fake_async_send(KZEMM_DATA_TYPE type, const char *data, unsigned int len) {
    fakes::note(fakes::what::gateway, "kzethtgw_async_send(" + std::to_string(type) + ", " +
                                          std::to_string(len) + " bytes)");
    std::function<void()> hook;
    int result = 0;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_sends.push_back({type, std::string(data, len), pthread_self()});
        hook = s_hook;
        result = s_result;
    }
    if (hook) {
        hook();
    }
    return result;
}

}  // namespace

namespace fakes {

std::vector<gateway_send> gateway_sends() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_sends;
}

void gateway_returns(int result) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_result = result;
}

void on_gateway_send(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_hook = std::move(hook);
}

symbols gateway_symbols() {
    const kzethtgw_async_send_fn send = fake_async_send;
    return {{"kzethtgw_async_send", reinterpret_cast<void *>(send)}};
}

void reset_gateway() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_sends.clear();
    s_result = 0;
    s_hook = nullptr;
}

}  // namespace fakes
