#include "platform/vrdipc/fd_watch.h"

#include <memory>
#include <utility>

#include "platform/vrdcl_ev/guard.h"

namespace kze_ipc {

bool fd_watch::open(uv_loop_t *loop, int fd, callback on_event) {
    auto opened = std::make_unique<state>();
    opened->on_event = std::move(on_event);
    if (uv_poll_init(loop, &opened->handle, fd) != 0) {
        return false;
    }
    opened->handle.data = opened.get();
    own_state = opened.release();
    return true;
}

void fd_watch::set(int events) {
    if (own_state == nullptr || events == wanted_events) {
        return;
    }
    wanted_events = events;
    if (events == 0) {
        uv_poll_stop(&own_state->handle);
        return;
    }
    uv_poll_start(&own_state->handle, events, [](uv_poll_t *handle, int status, int ready) {
        kze_ev::run_guarded("the handling of a socket",
                            [&] { static_cast<state *>(handle->data)->on_event(status, ready); });
    });
}

void fd_watch::close() {
    if (own_state == nullptr) {
        return;
    }
    uv_close(reinterpret_cast<uv_handle_t *>(&own_state->handle),
             [](uv_handle_t *handle) { delete static_cast<state *>(handle->data); });
    own_state = nullptr;
}

}  // namespace kze_ipc
