/*
 * Bytes that wait until a connection takes them.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDIPC_SEND_QUEUE_H
#define KZEMDLMGR_PLATFORM_VRDIPC_SEND_QUEUE_H

#include <sys/uio.h>

#include <cstddef>
#include <deque>
#include <vector>

namespace kze_ipc {

// A bounded queue of bytes, in chunks, so that its memory follows the bytes and not the number of
// messages. One thread at a time.
class send_queue {
  public:
    static constexpr std::size_t limit = 64U << 20;

    bool empty() const { return total_size == 0; }
    std::size_t size() const { return total_size; }

    // Whether `bytes` more stay within the limit.
    bool fits(std::size_t bytes) const { return bytes <= limit - total_size; }

    // Appends. The caller has asked fits().
    void append(const void *data, std::size_t bytes);

    // Describes the first bytes in at most `max` pieces; returns how many. They stay valid until
    // the queue is changed.
    std::size_t front(struct iovec *out, std::size_t max);

    // Removes the first bytes, at most size().
    void consume(std::size_t bytes);

  private:
    std::deque<std::vector<char>> chunks;
    std::size_t consumed = 0;  // of the first chunk
    std::size_t total_size = 0;
};

}  // namespace kze_ipc

#endif
