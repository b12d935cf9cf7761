#include "platform/vrdipc/send_queue.h"

#include <algorithm>

namespace kze_ipc {
namespace {

constexpr std::size_t chunk_size = 64 * 1024;

}  // namespace

void send_queue::append(const void *data, std::size_t bytes) {
    const char *at = static_cast<const char *>(data);
    total_size += bytes;
    while (bytes > 0) {
        if (chunks.empty() || chunks.back().size() == chunk_size) {
            chunks.emplace_back();
            chunks.back().reserve(chunk_size);
        }
        std::vector<char> &last = chunks.back();
        const std::size_t part = std::min(bytes, chunk_size - last.size());
        last.insert(last.end(), at, at + part);
        at += part;
        bytes -= part;
    }
}

std::size_t send_queue::front(struct iovec *out, std::size_t max) {
    const std::size_t count = std::min(max, chunks.size());
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t skipped = i == 0 ? consumed : 0;
        out[i].iov_base = chunks[i].data() + skipped;
        out[i].iov_len = chunks[i].size() - skipped;
    }
    return count;
}

void send_queue::consume(std::size_t bytes) {
    total_size -= bytes;
    consumed += bytes;
    while (!chunks.empty() && consumed >= chunks.front().size()) {
        consumed -= chunks.front().size();
        chunks.pop_front();
    }
}

}  // namespace kze_ipc
