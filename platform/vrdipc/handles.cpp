#include "platform/vrdipc/handles.h"

#include <atomic>

namespace kze_ipc {

std::uintptr_t next_handle_value() {
    static std::atomic<std::uintptr_t> last{0};
    return 2 * last.fetch_add(1, std::memory_order_relaxed) + 1;
}

// The tables are never destroyed: threads may outlive static objects while the process exits.

handle_table<vrd_ipc_st, endpoint> &endpoints() {
    static auto *const table = new handle_table<vrd_ipc_st, endpoint>;
    return *table;
}

handle_table<vrd_addr_st, const address> &addresses() {
    static auto *const table = new handle_table<vrd_addr_st, const address>;
    return *table;
}

}  // namespace kze_ipc
