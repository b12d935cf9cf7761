/*
 * The requests of an endpoint that wait for their answers.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDIPC_PENDING_TABLE_H
#define KZEMDLMGR_PLATFORM_VRDIPC_PENDING_TABLE_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "vrdipc.h"

namespace kze_ipc {

class connection;

struct pending_request {
    std::uint32_t id = 0;  // 0: no request
    std::uint32_t cmd = 0;
    vrd_ipc_reply_cb callback = nullptr;
    void *context = nullptr;
    std::uint64_t deadline_ns = 0;
    const connection *via = nullptr;  // only compared; null when it was never sent
};

// Finds requests by ids that count upwards, so that an id comes again only after 2^32 others. Id n
// lies in slot n modulo the number of slots; an id whose slot is taken is passed over. One thread
// at a time.
class pending_table {
  public:
    // Stores a request under a new id, which it returns.
    std::uint32_t add(const pending_request &request);

    // Takes a request out. False when there is none with this id; *out is then untouched.
    bool take(std::uint32_t id, pending_request *out);

    // The request with this id, or null; valid until the table is changed.
    pending_request *find(std::uint32_t id);

    // Takes out one of the requests for which `which` gives true; false when there is none. Needs
    // no memory, and until none is left each call goes on from where the last one ended.
    template <typename Predicate>
    bool take_where(Predicate which, pending_request *out) {
        for (std::size_t i = 0; i < slots.size(); ++i) {
            const pending_request &slot = slots[next_slot & (slots.size() - 1)];
            if (slot.id != 0 && which(slot)) {
                return take(slot.id, out);
            }
            ++next_slot;
        }
        return false;
    }

    // The earliest deadline; the greatest number when there is no request.
    std::uint64_t earliest_deadline() const;

    bool empty() const { return used == 0; }

  private:
    void grow();
    std::size_t slot_of(std::uint32_t id) const { return id & (slots.size() - 1); }

    std::vector<pending_request> slots;  // a power of two, at least twice what is used
    std::size_t used = 0;
    std::uint32_t last_id = 0;
    std::size_t next_slot = 0;  // where take_where() looks first, modulo the number of slots
};

}  // namespace kze_ipc

#endif
