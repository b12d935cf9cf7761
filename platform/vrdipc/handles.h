/*
 * The tables behind the handles that callers have.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDIPC_HANDLES_H
#define KZEMDLMGR_PLATFORM_VRDIPC_HANDLES_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "vrdipc.h"

namespace kze_ipc {

class connection;
class endpoint;

// Where messages go. Immutable.
struct address {
    std::string name;  // empty: what is at the other end of `peer`
    std::weak_ptr<connection> peer;
    int a = 0;  // as given by the caller
    int b = 0;
};

// A value that no handle of either kind had before. It is odd, so that it can't be mistaken for the
// address of anything.
std::uintptr_t next_handle_value();

// Finds objects by handles. Safe from any thread. Handle is the caller's opaque type.
template <typename Handle, typename Object>
class handle_table {
  public:
    Handle *add(std::shared_ptr<Object> object) {
        const std::uintptr_t value = next_handle_value();
        std::lock_guard<std::mutex> guard(mutex);
        objects.emplace(value, std::move(object));
        return reinterpret_cast<Handle *>(value);
    }

    // Null when there is none with this handle.
    std::shared_ptr<Object> find(const Handle *handle) {
        std::lock_guard<std::mutex> guard(mutex);
        auto at = objects.find(reinterpret_cast<std::uintptr_t>(handle));
        return at == objects.end() ? nullptr : at->second;
    }

    void remove(const Handle *handle) {
        std::shared_ptr<Object> removed;  // let go of without the lock
        std::lock_guard<std::mutex> guard(mutex);
        auto at = objects.find(reinterpret_cast<std::uintptr_t>(handle));
        if (at != objects.end()) {
            removed = std::move(at->second);
            objects.erase(at);
        }
    }

  private:
    std::mutex mutex;
    std::unordered_map<std::uintptr_t, std::shared_ptr<Object>> objects;  // guarded by mutex
};

handle_table<vrd_ipc_st, endpoint> &endpoints();
handle_table<vrd_addr_st, const address> &addresses();

}  // namespace kze_ipc

#endif
