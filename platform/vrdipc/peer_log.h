/*
 * Keeps peers from filling the log.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDIPC_PEER_LOG_H
#define KZEMDLMGR_PLATFORM_VRDIPC_PEER_LOG_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

namespace kze_ipc {

// What is said of peers. The lines of one kind are held back together.
enum class peer_event : std::size_t {
    not_allowed,
    too_many,
    no_descriptor,
    broken_format,
    id_used_twice,
    cut_off,
    no_memory,
    queue_full,
    dropped,
};

constexpr std::size_t peer_event_kinds = static_cast<std::size_t>(peer_event::dropped) + 1;

// Decides what an endpoint says of its peers: of each kind one line, and in the minute behind it no
// other. Those held back are told as a sum, with the next line or at the end. Safe from any thread.
class peer_log {
  public:
    static constexpr std::uint64_t quiet_ns = 60ULL * 1000 * 1000 * 1000;

    explicit peer_log(std::string endpoint) : endpoint_name(std::move(endpoint)) {}

    // Whether a line may be written at this time of the monotonic clock.
    bool admits(peer_event kind, std::uint64_t now_ns);

    // Tells what has been held back.
    void finish();

  private:
    struct line {
        std::uint64_t quiet_until_ns = 0;
        unsigned long long held_back = 0;
    };

    void tell(std::size_t kind, unsigned long long held_back) const;

    const std::string endpoint_name;
    std::mutex mutex;
    std::array<line, peer_event_kinds> lines;  // guarded by mutex
};

}  // namespace kze_ipc

#endif
