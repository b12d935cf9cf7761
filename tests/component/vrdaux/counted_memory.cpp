#include "counted_memory.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> live_bytes{0};
std::atomic<std::size_t> peak_bytes{0};

constexpr int without_limit = -1;
thread_local int left = without_limit;  // allocations of this thread that will succeed
thread_local bool has_failed = false;

void *allocate(std::size_t size) noexcept {
    if (left == 0) {
        has_failed = true;
        return nullptr;
    }
    if (left > 0)
        --left;
    void *memory = malloc(size == 0 ? 1 : size);
    const std::size_t now = live_bytes += malloc_usable_size(memory);
    std::size_t peak = peak_bytes;
    while (now > peak && !peak_bytes.compare_exchange_weak(peak, now)) {
    }
    return memory;
}

void *allocate_or_throw(std::size_t size) {
    void *memory = allocate(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void release(void *memory) noexcept {
    live_bytes -= malloc_usable_size(memory);
    free(memory);
}

}  // namespace

void *operator new(std::size_t size) {
    return allocate_or_throw(size);
}
void *operator new[](std::size_t size) {
    return allocate_or_throw(size);
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    return allocate(size);
}
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
    return allocate(size);
}
void operator delete(void *memory) noexcept {
    release(memory);
}
void operator delete[](void *memory) noexcept {
    release(memory);
}
void operator delete(void *memory, std::size_t) noexcept {
    release(memory);
}
void operator delete[](void *memory, std::size_t) noexcept {
    release(memory);
}

namespace counted_memory {

std::size_t live() {
    return live_bytes;
}

std::size_t peak() {
    return peak_bytes;
}

void reset_peak() {
    peak_bytes = live_bytes.load();
}

failing_after::failing_after(int count) {
    left = count;
    has_failed = false;
}

failing_after::~failing_after() {
    left = without_limit;
}

bool failing_after::failed() const {
    return has_failed;
}

}  // namespace counted_memory
