#include "platform/vrdipc/send_queue.h"

#include <algorithm>

namespace kze_ipc {
namespace {

constexpr std::size_t chunk_size = 64 * 1024;

}  // namespace

void send_queue::append(const void *data, std::size_t bytes) {
    const char *at = static_cast<const char *>(data);
    size_ += bytes;
    while (bytes > 0) {
        if (chunks_.empty() || chunks_.back().size() == chunk_size) {
            chunks_.emplace_back();
            chunks_.back().reserve(chunk_size);
        }
        std::vector<char> &last = chunks_.back();
        const std::size_t part = std::min(bytes, chunk_size - last.size());
        last.insert(last.end(), at, at + part);
        at += part;
        bytes -= part;
    }
}

std::size_t send_queue::front(struct iovec *out, std::size_t max) {
    const std::size_t count = std::min(max, chunks_.size());
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t skipped = i == 0 ? consumed_ : 0;
        out[i].iov_base = chunks_[i].data() + skipped;
        out[i].iov_len = chunks_[i].size() - skipped;
    }
    return count;
}

void send_queue::consume(std::size_t bytes) {
    size_ -= bytes;
    consumed_ += bytes;
    while (!chunks_.empty() && consumed_ >= chunks_.front().size()) {
        consumed_ -= chunks_.front().size();
        chunks_.pop_front();
    }
}

}  // namespace kze_ipc
