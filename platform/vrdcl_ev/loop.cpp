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
    if (made == nullptr || uv_loop_init(&made->uv_) != 0) {
        return nullptr;
    }
    made->opened_ = true;
    made->async_.data = made.get();
    const int result = uv_async_init(&made->uv_, &made->async_, [](uv_async_t *handle) {
        static_cast<loop *>(handle->data)->run_tasks();
    });
    if (result != 0) {
        uv_loop_close(&made->uv_);
        made->opened_ = false;
        return nullptr;
    }
    uv_timer_init(&made->uv_, &made->wake_timer_);
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
    std::lock_guard<std::mutex> guard(lock_);
    if (ended_) {
        return false;
    }
    tasks_.push_back(std::move(task));
    uv_async_send(&async_);
    return true;
}

void loop::run_tasks() {
    {
        std::lock_guard<std::mutex> guard(lock_);
        running_tasks_.swap(tasks_);
    }
    for (auto &task : running_tasks_) {
        run_guarded("a task", task);
    }
    running_tasks_.clear();
}

bool loop::add_user(std::shared_ptr<loop_user> user) {
    std::lock_guard<std::mutex> guard(lock_);
    if (ending_) {
        return false;
    }
    users_.push_back(std::move(user));
    return true;
}

void loop::remove_user(const loop_user *user) {
    std::shared_ptr<loop_user> removed;  // let go of without the lock
    std::lock_guard<std::mutex> guard(lock_);
    auto at = std::find_if(users_.begin(), users_.end(),
                           [user](const auto &other) { return other.get() == user; });
    if (at != users_.end()) {
        removed = std::move(*at);
        users_.erase(at);
    }
}

bool loop::arm(const std::shared_ptr<timer> &item, std::uint64_t first_ms) {
    bool earliest = false;
    if (!timers_.arm(item, first_ms * ns_per_ms, &earliest)) {
        return false;
    }
    if (earliest && !is_current()) {
        std::lock_guard<std::mutex> guard(lock_);
        if (!ended_) {
            uv_async_send(&async_);
        }
    }
    return true;
}

void loop::disarm(timer *item, bool wait) {
    timers_.disarm(item, wait && !is_current());
}

// libuv counts in whole milliseconds of the same clock: rounded up, so that the wait never ends
// before the timer is due.
void loop::set_wake_time(std::uint64_t due_ns) {
    const std::uint64_t due_ms = (due_ns + ns_per_ms - 1) / ns_per_ms;
    const std::uint64_t now_ms = uv_now(&uv_);
    uv_timer_start(&wake_timer_, on_wake_time, due_ms > now_ms ? due_ms - now_ms : 0, 0);
}

int loop::turn() {
    if (turning_) {
        return -1;
    }
    turning_ = true;
    bool wait = !nowait_;
    std::uint64_t due = 0;
    if (wait && timers_.next_due(&due)) {
        wait = due > now_ns();
        if (wait) {
            set_wake_time(due);
        }
    } else {
        uv_timer_stop(&wake_timer_);
    }
    uv_run(&uv_, wait ? UV_RUN_ONCE : UV_RUN_NOWAIT);
    run_guarded("the run of the timers", [this] { timers_.run_due(); });
    turning_ = false;
    return 0;
}

void loop::end_users() {
    std::unique_lock<std::mutex> guard(lock_);
    ending_ = true;
    while (!users_.empty()) {
        const std::shared_ptr<loop_user> user = users_.front();
        guard.unlock();
        run_guarded("the end of a user", [&user] { user->on_loop_end(); });
        remove_user(user.get());
        guard.lock();
    }
}

void loop::close_handles() {
    if (!opened_) {
        return;
    }
    opened_ = false;
    uv_close(reinterpret_cast<uv_handle_t *>(&async_), nullptr);
    uv_close(reinterpret_cast<uv_handle_t *>(&wake_timer_), nullptr);
    uv_run(&uv_, UV_RUN_DEFAULT);
    uv_loop_close(&uv_);
}

void loop::end() {
    if (!is_in_own_process()) {
        keep_for_good(shared_from_this());
        current_loop = nullptr;
        return;
    }
    withdraw_offer();
    timers_.end();
    end_users();
    {
        std::lock_guard<std::mutex> guard(lock_);
        ended_ = true;
    }
    run_tasks();
    close_handles();
    if (current_loop == this) {
        current_loop = nullptr;
    }
}

}  // namespace kze_ev
