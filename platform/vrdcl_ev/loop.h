/*
 * The event loop of one thread, as the base libraries see it. No interface of the agent: programs
 * use vrdcl_ev.h.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDCL_EV_LOOP_H
#define KZEMDLMGR_PLATFORM_VRDCL_EV_LOOP_H

#include <unistd.h>
#include <uv.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/vrdcl_ev/timer.h"

namespace kze_ev {

// What lives on a loop and has to go before the loop does.
class loop_user {
  public:
    virtual ~loop_user() = default;

    // Called once on the loop's thread when the loop ends; closes all of the user's uv handles.
    virtual void on_loop_end() = 0;
};

// A loop and what other threads have handed to it. Safe from any thread, except where a comment
// says "loop's thread".
class VRDCL_EV_API loop : public std::enable_shared_from_this<loop> {
  public:
    // Null when the system gives no descriptors or memory.
    static std::shared_ptr<loop> create();
    ~loop();
    loop(const loop &) = delete;
    loop &operator=(const loop &) = delete;

    // The calling thread's loop, else the loop of the oldest living isolated thread, else null.
    static std::shared_ptr<loop> of_caller();

    // The calling thread's own loop, or null.
    static loop *current();

    // True on the loop's thread.
    bool is_current() const;

    // False in a child that a fork() gave a copy of the loop. The epoll set and the sockets behind
    // the copy are still the parent's, so that closing them there would change the parent.
    bool is_in_own_process() const { return owner == ::getpid(); }

    // Loop's thread.
    uv_loop_t *uv() { return &uv_loop; }

    // Runs `task` on the loop's thread at its next turn, or at its end. False when it has ended;
    // the task is then dropped.
    bool post(std::function<void()> task);

    // Keeps `user` alive and tells it of the loop's end, until remove_user(). False when the loop
    // has begun to end.
    bool add_user(std::shared_ptr<loop_user> user);
    void remove_user(const loop_user *user);

    // Arms a timer; false when the loop has ended. It is kept alive while it is armed.
    bool arm(const std::shared_ptr<timer> &item, std::uint64_t first_ms);

    // Disarms a timer armed on this loop. With `wait`, and not on the loop's thread, returns only
    // when its callback isn't running.
    void disarm(timer *item, bool wait);

    // Loop's thread: one turn, see cl_event_loop_once().
    int turn();
    void set_nowait(bool on) { nowait = on; }

    // Makes this the loop of the calling thread, which has none so far and must call end().
    void enter();

    // Loop's thread, or whoever made a loop that never got one: ends the loop. Nothing runs on it
    // afterwards. In a forked child it leaves all as it is.
    void end();

    // From now until it ends the loop serves threads that have none.
    void offer_to_others();

  private:
    loop() = default;
    void withdraw_offer();
    void end_users();
    void close_handles();
    void run_tasks();
    void set_wake_time(std::uint64_t due_ns);

    const pid_t owner = ::getpid();
    uv_loop_t uv_loop{};
    uv_async_t async{};       // rung with mutex held, so never after it was closed
    uv_timer_t wake_timer{};  // ends the wait when the first timer falls due; loop's thread
    timer_queue timers;

    // Loop's thread.
    bool nowait = false;
    bool turning = false;
    bool opened = false;  // uv_loop and the two handles are open
    std::vector<std::function<void()>> running_tasks;

    std::mutex mutex;
    std::vector<std::function<void()>> tasks;       // guarded by mutex
    std::vector<std::shared_ptr<loop_user>> users;  // guarded by mutex
    bool ending = false;                            // guarded by mutex: no more users
    bool ended = false;                             // guarded by mutex: no more tasks
};

}  // namespace kze_ev

#endif
