/*
 * A gate with which a test holds another thread, or waits for it.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_LATCH_H
#define KZEMDLMGR_TESTS_FAKES_LATCH_H

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace fakes {

// Safe from any thread.
class latch {
  public:
    void open() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            is_open = true;
        }
        changed.notify_all();
    }

    // False when it was not opened before the deadline.
    bool wait(int deadline_seconds = 20) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(deadline_seconds),
                                [this] { return is_open; });
    }

  private:
    std::mutex mutex;
    std::condition_variable changed;
    bool is_open = false;
};

}  // namespace fakes

#endif
