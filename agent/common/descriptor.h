/* A file descriptor with an owner. */
#ifndef KZE_AGENT_COMMON_DESCRIPTOR_H
#define KZE_AGENT_COMMON_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace kze {

/* Closes the descriptor when it goes; -1 is none. One thread at a time. */
class descriptor {
  public:
    explicit descriptor(int number = -1) : number_(number) {}
    ~descriptor() { reset(); }
    descriptor(descriptor &&other) noexcept : number_(other.release()) {}
    descriptor &operator=(descriptor &&other) noexcept {
        reset(other.release());
        return *this;
    }

    int get() const { return number_; }
    bool valid() const { return number_ >= 0; }
    /* The caller's from now on. */
    int release() { return std::exchange(number_, -1); }
    /* Closes what it owns and takes over another. */
    void reset(int number = -1) {
        if (number_ >= 0) {
            close(number_);
        }
        number_ = number;
    }

  private:
    int number_;
};

}  // namespace kze

#endif
