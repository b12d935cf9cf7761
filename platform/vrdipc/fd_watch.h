/*
 * Watches one descriptor on an event loop.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDIPC_FD_WATCH_H
#define KZEMDLMGR_PLATFORM_VRDIPC_FD_WATCH_H

#include <uv.h>

#include <functional>

namespace kze_ipc {

// Calls back when the descriptor is ready. All of it on the loop's thread; whoever opens a watch
// closes it there, before the descriptor is closed.
class fd_watch {
  public:
    // `events` as in uv_poll_start(); a negative `status` means that the watch has stopped for
    // good.
    using callback = std::function<void(int status, int events)>;

    fd_watch() = default;
    fd_watch(const fd_watch &) = delete;
    fd_watch &operator=(const fd_watch &) = delete;

    bool open(uv_loop_t *loop, int fd, callback on_event);

    // Which of UV_READABLE and UV_WRITABLE to call back for; 0 for none. Ignored when closed.
    void set(int events);

    // No callback runs afterwards, not even of events that have been seen already.
    void close();

  private:
    struct state {
        uv_poll_t handle;
        callback on_event;
    };

    state *own_state = nullptr;  // given to libuv, which deletes it after close()
    int wanted_events = 0;
};

}  // namespace kze_ipc

#endif
