#include "platform/vrdipc/pending_table.h"

#include <algorithm>
#include <limits>

namespace kze_ipc {

// Ids that differ modulo n also differ modulo 2n: nothing collides.
void pending_table::grow() {
    std::vector<pending_request> old(slots_.empty() ? 16 : 2 * slots_.size());
    old.swap(slots_);
    for (const pending_request &request : old) {
        if (request.id != 0) {
            slots_[slot_of(request.id)] = request;
        }
    }
}

std::uint32_t pending_table::add(const pending_request &request) {
    if (2 * (used_ + 1) > slots_.size()) {
        grow();
    }
    do {
        ++last_id_;
    } while (last_id_ == 0 || slots_[slot_of(last_id_)].id != 0);
    pending_request &slot = slots_[slot_of(last_id_)];
    slot = request;
    slot.id = last_id_;
    ++used_;
    return last_id_;
}

pending_request *pending_table::find(std::uint32_t id) {
    if (id == 0 || slots_.empty()) {
        return nullptr;
    }
    pending_request &slot = slots_[slot_of(id)];
    return slot.id == id ? &slot : nullptr;
}

bool pending_table::take(std::uint32_t id, pending_request *out) {
    pending_request *slot = find(id);
    if (slot == nullptr) {
        return false;
    }
    *out = *slot;
    *slot = pending_request{};
    --used_;
    return true;
}

std::uint64_t pending_table::earliest_deadline() const {
    std::uint64_t earliest = std::numeric_limits<std::uint64_t>::max();
    for (const pending_request &slot : slots_) {
        if (slot.id != 0) {
            earliest = std::min(earliest, slot.deadline_ns);
        }
    }
    return earliest;
}

}  // namespace kze_ipc
