#include "platform/kzabase/creator_turn.h"

#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <new>

namespace {

// How long a new thread waits for a creator that gives no sign. In rounds, for each of which it
// must be woken: on a machine that is too busy, or in a process that is stopped, it can't count
// them while its creator gets no processor either.
constexpr int rounds = 20;
constexpr std::chrono::milliseconds round_length{50};

// The turn of each thread that has one. A key of its own and not a variable of the thread, since to
// keep it may fail for want of memory without ending the process, and since it still works while
// the last objects of a thread are destroyed.
class own_turns {
  public:
    own_turns() : error(pthread_key_create(&key, pass)) {}
    own_turns(const own_turns &) = delete;
    own_turns &operator=(const own_turns &) = delete;
    ~own_turns() {
        if (error == 0) {
            pthread_key_delete(key);
        }
    }

    int set(creator_turn *turn) const {
        return error != 0 ? error : pthread_setspecific(key, turn);
    }

    creator_turn *get() const {
        return error != 0 ? nullptr : static_cast<creator_turn *>(pthread_getspecific(key));
    }

  private:
    // At the end of a thread whose turn isn't over.
    static void pass(void *turn) { static_cast<creator_turn *>(turn)->pass(); }

    pthread_key_t key{};
    int error;
};

const own_turns s_own;

}  // namespace

int creator_turn::begin(creator_turn **out) {
    end();
    auto *const turn = new (std::nothrow) creator_turn;
    if (turn == nullptr) {
        return ENOMEM;
    }
    const int error = s_own.set(turn);
    if (error != 0) {
        delete turn;
        return error;
    }
    *out = turn;
    return 0;
}

void creator_turn::thread_is_made() {
    creator_turn *const turn = s_own.get();
    if (turn == nullptr) {
        return;
    }
    const std::lock_guard<std::mutex> lock(turn->mutex);
    turn->made = true;
    turn->changed.notify_one();
}

void creator_turn::end() {
    creator_turn *const turn = s_own.get();
    if (turn != nullptr) {
        s_own.set(nullptr);
        turn->pass();
    }
}

void creator_turn::pass() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        over = true;
        changed.notify_one();
    }
    leave();
}

void creator_turn::wait() {
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return made || over; });
        for (int round = 0; round < rounds && !over; ++round) {
            changed.wait_for(lock, round_length, [this] { return over; });
        }
    }
    leave();
}

void creator_turn::leave() {
    if (--owners == 0) {
        delete this;
    }
}
