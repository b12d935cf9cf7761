// What the tests of the event loop and of the IPC share.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "tests/support/temp_tree.h"
#include "vrdcl_ev.h"

namespace kze_test {

constexpr std::chrono::seconds long_enough{20};

// Counts events of any thread; waits for them. Safe from any thread.
class counter {
  public:
    void add() {
        std::lock_guard<std::mutex> guard(lock_);
        ++value_;
        changed_.notify_all();
    }
    int value() {
        std::lock_guard<std::mutex> guard(lock_);
        return value_;
    }
    // False when the count isn't reached within the deadline.
    bool reaches(int count, std::chrono::seconds deadline = long_enough) {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, deadline, [&] { return value_ >= count; });
    }

  private:
    std::mutex lock_;
    std::condition_variable changed_;
    int value_ = 0;
};

// Keeps the calling thread busy for a while, like a blocking callback does.
void be_busy(std::chrono::milliseconds time);

// Runs `body` on a new isolated thread and waits for its end.
void run_isolated(const std::function<void()> &body);

// Turns the calling thread's loop until the condition holds; false when it doesn't within the
// deadline. The loop must not wait (cl_ev_loop_nowait) or have something that wakes it.
bool turn_until(const std::function<bool()> &condition);

// An isolated thread that turns its loop until the object goes.
class loop_thread {
  public:
    loop_thread();
    ~loop_thread() { stop(); }
    loop_thread(const loop_thread &) = delete;
    loop_thread &operator=(const loop_thread &) = delete;

    // Runs `body` on the loop's thread and waits for its end.
    void call(const std::function<void()> &body);

    // The same without waiting.
    void start(std::function<void()> body);

    // Ends the thread.
    void stop();

    pthread_t id() const { return id_; }

  private:
    static void *run(void *self);
    void turn();
    void run_calls();

    pthread_t id_{};
    bool joined_ = false;
    std::mutex lock_;
    std::deque<std::function<void()>> calls_;  // guarded by lock_
    bool stopping_ = false;                    // the loop's thread
};

// A tree of its own. Its end asserts that the test has left no descriptor and no thread.
class ev_ipc : public ::testing::Test {
  protected:
    ev_ipc();
    ~ev_ipc() override;

    // What was logged since the test began.
    std::string log_text() const;
    // Waits until it contains `text`.
    bool logs(const std::string &text) const;

    temp_tree tree;

  private:
    std::size_t descriptors_;
    std::size_t threads_;
    std::size_t log_begin_;
};

}  // namespace kze_test
