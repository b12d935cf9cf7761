/* The real gateway library, opened as its caller opens it. */
#ifndef KZE_AGENT_TESTS_COMPONENT_GATEWAY_GATEWAY_LIBRARY_H
#define KZE_AGENT_TESTS_COMPONENT_GATEWAY_GATEWAY_LIBRARY_H

#include <dlfcn.h>

#include <stdexcept>
#include <string>

#include "engine/qd_client.h"

namespace kze_test {

/* Open as long as the object lives. */
class gateway_library {
  public:
    gateway_library() : handle_(dlopen(GATEWAY_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {
        if (handle_ == nullptr) {
            throw std::runtime_error(dlerror());
        }
        send_ = reinterpret_cast<kzethtgw_async_send_fn>(dlsym(handle_, "kzethtgw_async_send"));
        if (send_ == nullptr) {
            throw std::runtime_error("no kzethtgw_async_send");
        }
    }
    ~gateway_library() { close(); }
    gateway_library(const gateway_library &) = delete;
    gateway_library &operator=(const gateway_library &) = delete;

    int send(int type, const std::string &data) const {
        return send_raw(type, data.data(), static_cast<unsigned int>(data.size()));
    }
    int send_raw(int type, const char *data, unsigned int size) const {
        return send_(static_cast<KZEMM_DATA_TYPE>(type), data, size);
    }
    void close() {
        if (handle_ != nullptr) {
            dlclose(handle_);
            handle_ = nullptr;
        }
    }

  private:
    void *handle_;
    kzethtgw_async_send_fn send_ = nullptr;
};

}  // namespace kze_test

#endif
