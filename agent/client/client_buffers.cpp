#include "agent/client/client_buffers.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace kze::engine {
namespace {

std::atomic<int> count{0};

}  // namespace

char *new_buffer(std::string_view bytes) {
    auto *buffer = static_cast<char *>(std::malloc(bytes.size() + 1));
    if (buffer == nullptr) {
        return nullptr;
    }
    if (!bytes.empty()) {
        std::memcpy(buffer, bytes.data(), bytes.size());
    }
    buffer[bytes.size()] = '\0';
    ++count;
    return buffer;
}

void free_buffer(void *buffer) {
    if (buffer != nullptr) {
        --count;
        std::free(buffer);
    }
}

int buffers_out() {
    return count;
}

}  // namespace kze::engine
