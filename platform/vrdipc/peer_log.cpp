#include "platform/vrdipc/peer_log.h"

#include "vrdbase.h"

namespace kze_ipc {
namespace {

const char *const names[peer_event_kinds] = {
    "peers that are not allowed",
    "peers above the number of connections",
    "connections that can't be taken",
    "broken formats",
    "request ids used twice",
    "connections that ended within a message",
    "messages without memory",
    "full queues",
    "messages dropped",
};

}  // namespace

void peer_log::tell(std::size_t kind, unsigned long long held_back) const {
    if (held_back > 0) {
        kze_log(2, "ipc: %s: %llu more lines on %s were held back", endpoint_name.c_str(),
                held_back, names[kind]);
    }
}

bool peer_log::admits(peer_event kind, std::uint64_t now_ns) {
    const auto index = static_cast<std::size_t>(kind);
    unsigned long long held_back = 0;
    {
        std::lock_guard<std::mutex> guard(mutex);
        line &of_kind = lines[index];
        if (now_ns < of_kind.quiet_until_ns) {
            ++of_kind.held_back;
            return false;
        }
        of_kind.quiet_until_ns = now_ns + quiet_ns;
        held_back = std::exchange(of_kind.held_back, 0);
    }
    tell(index, held_back);
    return true;
}

void peer_log::finish() {
    std::array<line, peer_event_kinds> told;
    {
        std::lock_guard<std::mutex> guard(mutex);
        told = lines;
        for (line &each : lines) {
            each.held_back = 0;
        }
    }
    for (std::size_t kind = 0; kind < told.size(); ++kind) {
        tell(kind, told[kind].held_back);
    }
}

}  // namespace kze_ipc
