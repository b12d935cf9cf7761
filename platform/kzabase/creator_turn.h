/*
 * The turn of a thread that has made another: the new thread's routine does not begin before its
 * creator has gone on.
 */
#ifndef KZEMDLMGR_PLATFORM_KZABASE_CREATOR_TURN_H
#define KZEMDLMGR_PLATFORM_KZABASE_CREATOR_TURN_H

#include <atomic>
#include <condition_variable>
#include <mutex>

// Belongs to the creator and to the new thread, and goes when both are done with it. A thread has
// one turn at most, its latest.
class creator_turn {
  public:
    // The calling thread is about to make another: its turn begins, and the one that it had is
    // over. *out is what the new thread waits for. 0 or an error number.
    static int begin(creator_turn **out);
    // The calling thread has made the other one, which from here on waits only for so long.
    static void thread_is_made();
    // The calling thread goes on: its turn, if it has one, is over.
    static void end();

    creator_turn(const creator_turn &) = delete;
    creator_turn &operator=(const creator_turn &) = delete;

    // The new thread's call, or that for a thread which could not be made: each of them the last of
    // its side. wait returns when the turn is over, or the creator has given no sign of that.
    void wait();
    void leave();
    // The creator's last call.
    void pass();

  private:
    creator_turn() = default;
    ~creator_turn() = default;

    std::atomic<int> owners{2};
    std::mutex mutex;
    std::condition_variable changed;
    bool made = false;  // guarded by the mutex, like `over`
    bool over = false;
};

#endif
