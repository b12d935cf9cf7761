#include "tests/fakes/fake_gateway.h"

#include <mutex>

#include "engine/qd_client.h"
#include "tests/fakes/journal.h"

namespace {

std::mutex s_mutex;
std::vector<fakes::gateway_send> s_sends;
int s_result = 0;

int fake_async_send(KZEMM_DATA_TYPE type, const char *data, unsigned int len) {
    fakes::note(fakes::what::gateway, "kzethtgw_async_send(" + std::to_string(type) + ", " +
                                          std::to_string(len) + " bytes)");
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_sends.push_back({type, std::string(data, len), pthread_self()});
    return s_result;
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

symbols gateway_symbols() {
    const kzethtgw_async_send_fn send = fake_async_send;
    return {{"kzethtgw_async_send", reinterpret_cast<void *>(send)}};
}

void reset_gateway() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_sends.clear();
    s_result = 0;
}

}  // namespace fakes
