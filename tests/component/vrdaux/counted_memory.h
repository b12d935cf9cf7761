// The process's operator new and delete, counted, and able to fail.
#pragma once

#include <cstddef>

namespace counted_memory {

// Bytes allocated and not freed. Any thread.
std::size_t live();

// The most that live() was since the last reset_peak(). Any thread.
std::size_t peak();
void reset_peak();

// On the calling thread the next `count` allocations succeed and all later ones fail, until this
// object ends.
class failing_after {
  public:
    explicit failing_after(int count);
    failing_after(const failing_after &) = delete;
    failing_after &operator=(const failing_after &) = delete;
    ~failing_after();

    // Whether an allocation has failed yet.
    bool failed() const;
};

}  // namespace counted_memory
