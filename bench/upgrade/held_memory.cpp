#include "bench/upgrade/held_memory.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<size_t> s_held{0};
std::atomic<size_t> s_most_held{0};
std::atomic<size_t> s_held_at_first{0};

}  // namespace

void watch_held_memory() {
    s_held_at_first = s_held.load();
    s_most_held = s_held.load();
}

size_t most_held_memory() {
    return s_most_held - s_held_at_first;
}

void *operator new(size_t size) {
    void *const block = malloc(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    const size_t held = s_held += malloc_usable_size(block);
    s_most_held = std::max(s_most_held.load(), held);
    return block;
}

void operator delete(void *block) noexcept {
    s_held -= malloc_usable_size(block);
    free(block);
}

void operator delete(void *block, size_t) noexcept {
    operator delete(block);
}
