#include "platform/vrdipc/pending_table.h"

#include <algorithm>
#include <limits>

namespace kze_ipc {

// Ids that differ modulo n also differ modulo 2n: nothing collides.
void pending_table::grow() {
    std::vector<pending_request> old(slots.empty() ? 16 : 2 * slots.size());
    old.swap(slots);
    for (const pending_request &request : old) {
        if (request.id != 0) {
            slots[slot_of(request.id)] = request;
        }
    }
}

std::uint32_t pending_table::add(const pending_request &request) {
    if (2 * (used + 1) > slots.size()) {
        grow();
    }
    do {
        ++last_id;
    } while (last_id == 0 || slots[slot_of(last_id)].id != 0);
    pending_request &slot = slots[slot_of(last_id)];
    slot = request;
    slot.id = last_id;
    ++used;
    return last_id;
}

pending_request *pending_table::find(std::uint32_t id) {
    if (id == 0 || slots.empty()) {
        return nullptr;
    }
    pending_request &slot = slots[slot_of(id)];
    return slot.id == id ? &slot : nullptr;
}

bool pending_table::take(std::uint32_t id, pending_request *out) {
    pending_request *slot = find(id);
    if (slot == nullptr) {
        return false;
    }
    *out = *slot;
    *slot = pending_request{};
    --used;
    return true;
}

std::uint64_t pending_table::earliest_deadline() const {
    std::uint64_t earliest = std::numeric_limits<std::uint64_t>::max();
    for (const pending_request &slot : slots) {
        if (slot.id != 0) {
            earliest = std::min(earliest, slot.deadline_ns);
        }
    }
    return earliest;
}

}  // namespace kze_ipc
