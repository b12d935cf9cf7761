/*
 * The timers of one loop.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDCL_EV_TIMER_H
#define KZEMDLMGR_PLATFORM_VRDCL_EV_TIMER_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "vrdcl_ev.h"

namespace kze_ev {

// One timer. The first three fields are constant, the others guarded by the lock of the queue that
// it was armed on.
struct timer {
    cl_timerplus record;  // first, so that a handle is the timer's address
    std::function<void(cl_timerplus *)> callback;
    std::uint64_t period_ns = 0;  // 0: fires once
    std::uint64_t due_ns = 0;
    bool armed = false;    // will fire, or is firing and will be armed again
    bool running = false;  // its callback is on the loop's thread right now
};

// The monotonic clock, in nanoseconds.
inline std::uint64_t now_ns() {
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(since).count());
}

// The armed timers of one loop, in order of their due times. Safe from any thread; run_due() is
// called by the loop's thread only.
class timer_queue {
  public:
    // Arms a timer. False when the queue has ended. *earliest_out tells whether it is now the first
    // to fall due.
    bool arm(const std::shared_ptr<timer> &item, std::uint64_t first_ns, bool *earliest_out);

    // Disarms a timer of this queue. With `wait`, returns only when its callback isn't running.
    void disarm(timer *item, bool wait);

    // Runs each timer that is due now, once, and arms the periodic ones again.
    void run_due();

    // When the first timer falls due; false when there is none.
    bool next_due(std::uint64_t *due_ns_out);

    // Disarms everything, for good.
    void end();

  private:
    using queue = std::multimap<std::uint64_t, std::shared_ptr<timer>>;

    void rearm(queue::node_type node);
    void remove_queued(timer *item);

    std::mutex mutex;
    std::condition_variable callback_done;
    queue armed_timers;                   // guarded by mutex
    bool ended = false;                   // guarded by mutex
    std::vector<queue::node_type> ready;  // the loop's thread only; kept for its memory
};

}  // namespace kze_ev

#endif
