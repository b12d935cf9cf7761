/* A file descriptor with an owner. */
#ifndef KZEMDLMGR_PLATFORM_COMMON_DESCRIPTOR_H
#define KZEMDLMGR_PLATFORM_COMMON_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace kze {

/* Closes the descriptor when it goes; -1 is none. One thread at a time. */
class descriptor {
  public:
    explicit descriptor(int owned = -1) : number(owned) {}
    ~descriptor() { reset(); }
    descriptor(descriptor &&other) noexcept : number(other.release()) {}
    descriptor &operator=(descriptor &&other) noexcept {
        reset(other.release());
        return *this;
    }

    int get() const { return number; }
    bool valid() const { return number >= 0; }
    /* The caller's from now on. */
    int release() { return std::exchange(number, -1); }
    /* Closes what it owns and takes over another. */
    void reset(int owned = -1) {
        if (number >= 0) {
            close(number);
        }
        number = owned;
    }

  private:
    int number;
};

}  // namespace kze

#endif
