/* A descriptor that closes itself. */
#ifndef KZE_AGENT_ENGINE_OWNED_DESCRIPTOR_H
#define KZE_AGENT_ENGINE_OWNED_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace kze::engine {

/* Owns a descriptor, or none (-1). One thread at a time. */
class owned_descriptor {
  public:
    explicit owned_descriptor(int descriptor = -1) : descriptor_(descriptor) {}
    ~owned_descriptor() { reset(); }
    owned_descriptor(owned_descriptor &&other) noexcept
        : descriptor_(std::exchange(other.descriptor_, -1)) {}
    owned_descriptor &operator=(owned_descriptor &&other) noexcept {
        reset(std::exchange(other.descriptor_, -1));
        return *this;
    }

    int get() const { return descriptor_; }
    /* Closes what it owns and takes over another. */
    void reset(int descriptor = -1) {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
        descriptor_ = descriptor;
    }

  private:
    int descriptor_;
};

}  // namespace kze::engine

#endif
