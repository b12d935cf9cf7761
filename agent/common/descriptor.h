/* A file descriptor with an owner. */
#ifndef KZE_AGENT_COMMON_DESCRIPTOR_H
#define KZE_AGENT_COMMON_DESCRIPTOR_H

#include <unistd.h>

namespace kze {

/* Closes the descriptor when it goes; -1 is none. One thread at a time. */
class descriptor {
  public:
    explicit descriptor(int number) : number_(number) {}
    ~descriptor() { reset(); }
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;

    int get() const { return number_; }
    bool valid() const { return number_ >= 0; }
    /* The caller's from now on. */
    int release() {
        const int released = number_;
        number_ = -1;
        return released;
    }
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
