/* A point of the monotonic clock by which something must have happened. */
#ifndef KZE_AGENT_CTL_CORE_DEADLINE_H
#define KZE_AGENT_CTL_CORE_DEADLINE_H

#include <algorithm>
#include <chrono>
#include <thread>

namespace kze::ctl {

/* Immutable. */
class deadline {
  public:
    /* Never passes when seconds is below 0. */
    explicit deadline(double seconds)
        : never_(seconds < 0),
          at_(std::chrono::steady_clock::now() +
              std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                  std::chrono::duration<double>(std::clamp(seconds, 0.0, 1e9)))) {}

    bool passed() const { return !never_ && std::chrono::steady_clock::now() >= at_; }
    /* Milliseconds left, at least 0 and at most the given number. */
    int left_ms(int at_most) const {
        if (never_) {
            return at_most;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              at_ - std::chrono::steady_clock::now())
                              .count();
        return static_cast<int>(std::clamp<long long>(left, 0, at_most));
    }
    /* Whole seconds left, rounded up, at least 1 and at most the given number. */
    unsigned int left_seconds(unsigned int at_most) const {
        const int left = left_ms(static_cast<int>(at_most) * 1000);
        return std::max(1U, (static_cast<unsigned int>(left) + 999) / 1000);
    }
    /* The pause between two looks at something that can't be waited for. */
    void pause_ms(int milliseconds) const {
        std::this_thread::sleep_for(std::chrono::milliseconds(std::max(1, left_ms(milliseconds))));
    }

  private:
    bool never_;
    std::chrono::steady_clock::time_point at_;
};

}  // namespace kze::ctl

#endif
