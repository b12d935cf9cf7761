#include "platform/vrdcl_ev/loop.h"

#include <algorithm>
#include <new>
#include <utility>

#include "platform/vrdcl_ev/guard.h"

namespace kze_ev {
namespace {

constexpr std::uint64_t ns_per_ms = 1000000;

// The calling thread's loop, owned by whoever called enter().
thread_local loop *current_loop = nullptr;

// The loops of the living isolated threads, oldest first. Never destroyed: threads may outlive the
// library's static objects while the process exits.
struct offered_loops {
    std::mutex lock;
    std::vector<std::shared_ptr<loop>> list;  // guarded by lock
};

offered_loops &offered() {
    static auto *const loops = new offered_loops;
    return *loops;
}

// Keeps what a forked child has of its parent's loop: its memory is never given back, since that
// would go by way of the parent's descriptors.
void keep_for_good(std::shared_ptr<loop> foreign) {
    static auto *const kept = new std::vector<std::shared_ptr<loop>>;
    kept->push_back(std::move(foreign));
}

// libuv looks at its timers before it waits, too. One that falls due just then is gone when the
// wait begins, so the wait has to be called off.
void on_wake_time(uv_timer_t *timer) {
    uv_stop(timer->loop);
}

}  // namespace

std::shared_ptr<loop> loop::create() {
    std::shared_ptr<loop> made(new (std::nothrow) loop);
    if (made == nullptr || uv_loop_init(&made->uv_loop) != 0) {
        return nullptr;
    }
    made->opened = true;
    made->async.data = made.get();
    const int result = uv_async_init(&made->uv_loop, &made->async, [](uv_async_t *handle) {
        static_cast<loop *>(handle->data)->run_tasks();
    });
    if (result != 0) {
        uv_loop_close(&made->uv_loop);
        made->opened = false;
        return nullptr;
    }
    uv_timer_init(&made->uv_loop, &made->wake_timer);
    return made;
}

loop::~loop() {
    close_handles();
}

std::shared_ptr<loop> loop::of_caller() {
    if (current_loop != nullptr) {
        return current_loop->shared_from_this();
    }
    offered_loops &others = offered();
    std::lock_guard<std::mutex> guard(others.lock);
    return others.list.empty() ? nullptr : others.list.front();
}

loop *loop::current() {
    return current_loop;
}

bool loop::is_current() const {
    return current_loop == this;
}

void loop::enter() {
    current_loop = this;
}

void loop::offer_to_others() {
    offered_loops &others = offered();
    std::lock_guard<std::mutex> guard(others.lock);
    others.list.push_back(shared_from_this());
}

void loop::withdraw_offer() {
    offered_loops &others = offered();
    std::lock_guard<std::mutex> guard(others.lock);
    others.list.erase(std::remove_if(others.list.begin(), others.list.end(),
                                     [this](const auto &other) { return other.get() == this; }),
                      others.list.end());
}

bool loop::post(std::function<void()> task) {
    std::lock_guard<std::mutex> guard(mutex);
    if (ended) {
        return false;
    }
    tasks.push_back(std::move(task));
    uv_async_send(&async);
    return true;
}

void loop::run_tasks() {
    {
        std::lock_guard<std::mutex> guard(mutex);
        running_tasks.swap(tasks);
    }
    for (auto &task : running_tasks) {
        run_guarded("a task", task);
    }
    running_tasks.clear();
}

bool loop::add_user(std::shared_ptr<loop_user> user) {
    std::lock_guard<std::mutex> guard(mutex);
    if (ending) {
        return false;
    }
    users.push_back(std::move(user));
    return true;
}

void loop::remove_user(const loop_user *user) {
    std::shared_ptr<loop_user> removed;  // let go of without the lock
    std::lock_guard<std::mutex> guard(mutex);
    auto at = std::find_if(users.begin(), users.end(),
                           [user](const auto &other) { return other.get() == user; });
    if (at != users.end()) {
        removed = std::move(*at);
        users.erase(at);
    }
}

bool loop::arm(const std::shared_ptr<timer> &item, std::uint64_t first_ms) {
    bool earliest = false;
    if (!timers.arm(item, first_ms * ns_per_ms, &earliest)) {
        return false;
    }
    if (earliest && !is_current()) {
        std::lock_guard<std::mutex> guard(mutex);
        if (!ended) {
            uv_async_send(&async);
        }
    }
    return true;
}

void loop::disarm(timer *item, bool wait) {
    timers.disarm(item, wait && !is_current());
}

// libuv counts in whole milliseconds of the same clock: rounded up, so that the wait never ends
// before the timer is due.
void loop::set_wake_time(std::uint64_t due_ns) {
    const std::uint64_t due_ms = (due_ns + ns_per_ms - 1) / ns_per_ms;
    const std::uint64_t now_ms = uv_now(&uv_loop);
    uv_timer_start(&wake_timer, on_wake_time, due_ms > now_ms ? due_ms - now_ms : 0, 0);
}

int loop::turn() {
    if (turning) {
        return -1;
    }
    turning = true;
    bool wait = !nowait;
    std::uint64_t due = 0;
    if (wait && timers.next_due(&due)) {
        wait = due > now_ns();
        if (wait) {
            set_wake_time(due);
        }
    } else {
        uv_timer_stop(&wake_timer);
    }
    uv_run(&uv_loop, wait ? UV_RUN_ONCE : UV_RUN_NOWAIT);
    run_guarded("the run of the timers", [this] { timers.run_due(); });
    turning = false;
    return 0;
}

void loop::end_users() {
    std::unique_lock<std::mutex> guard(mutex);
    ending = true;
    while (!users.empty()) {
        const std::shared_ptr<loop_user> user = users.front();
        guard.unlock();
        run_guarded("the end of a user", [&user] { user->on_loop_end(); });
        remove_user(user.get());
        guard.lock();
    }
}

void loop::close_handles() {
    if (!opened) {
        return;
    }
    opened = false;
    uv_close(reinterpret_cast<uv_handle_t *>(&async), nullptr);
    uv_close(reinterpret_cast<uv_handle_t *>(&wake_timer), nullptr);
    uv_run(&uv_loop, UV_RUN_DEFAULT);
    uv_loop_close(&uv_loop);
}

void loop::end() {
    if (!is_in_own_process()) {
        keep_for_good(shared_from_this());
        current_loop = nullptr;
        return;
    }
    withdraw_offer();
    timers.end();
    end_users();
    {
        std::lock_guard<std::mutex> guard(mutex);
        ended = true;
    }
    run_tasks();
    close_handles();
    if (current_loop == this) {
        current_loop = nullptr;
    }
}

}  // namespace kze_ev
