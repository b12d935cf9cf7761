#include "platform/vrdcl_ev/timer.h"

#include <utility>

#include "platform/vrdcl_ev/guard.h"

namespace kze_ev {

bool timer_queue::arm(const std::shared_ptr<timer> &item, std::uint64_t first_ns,
                      bool *earliest_out) {
    std::lock_guard<std::mutex> guard(lock_);
    if (ended_) {
        return false;
    }
    item->due_ns = now_ns() + first_ns;
    item->armed = true;
    const auto place = armed_.emplace(item->due_ns, item);
    *earliest_out = place == armed_.begin();
    return true;
}

void timer_queue::remove_queued(timer *item) {
    auto range = armed_.equal_range(item->due_ns);
    for (auto at = range.first; at != range.second; ++at) {
        if (at->second.get() == item) {
            armed_.erase(at);
            return;
        }
    }
}

void timer_queue::disarm(timer *item, bool wait) {
    std::unique_lock<std::mutex> guard(lock_);
    if (item->armed) {
        item->armed = false;
        remove_queued(item);
    }
    if (wait) {
        callback_done_.wait(guard, [item] { return !item->running; });
    }
}

bool timer_queue::next_due(std::uint64_t *due_ns_out) {
    std::lock_guard<std::mutex> guard(lock_);
    if (armed_.empty()) {
        return false;
    }
    *due_ns_out = armed_.begin()->first;
    return true;
}

void timer_queue::rearm(queue::node_type node) {
    timer &item = *node.mapped();
    if (!item.armed || item.period_ns == 0 || ended_) {
        item.armed = false;
        return;
    }
    // Keeps the rhythm, and counts anew from now when periods were missed.
    const std::uint64_t now = now_ns();
    item.due_ns += item.period_ns;
    if (item.due_ns <= now) {
        item.due_ns = now + item.period_ns;
    }
    node.key() = item.due_ns;
    armed_.insert(std::move(node));
}

void timer_queue::run_due() {
    std::unique_lock<std::mutex> guard(lock_);
    if (armed_.empty()) {
        return;
    }
    const std::uint64_t now = now_ns();
    while (!armed_.empty() && armed_.begin()->first <= now) {
        ready_.emplace_back();  // may throw, while nothing is lost yet
        ready_.back() = armed_.extract(armed_.begin());
    }
    for (auto &node : ready_) {
        const std::shared_ptr<timer> item = node.mapped();
        if (!item->armed) {
            continue;
        }
        item->running = true;
        guard.unlock();
        run_guarded("a timer's callback", [&item] { item->callback(&item->record); });
        guard.lock();
        item->running = false;
        callback_done_.notify_all();
        rearm(std::move(node));
    }
    ready_.clear();
}

void timer_queue::end() {
    queue dropped;
    std::lock_guard<std::mutex> guard(lock_);
    ended_ = true;
    for (auto &entry : armed_) {
        entry.second->armed = false;
    }
    dropped.swap(armed_);
}

}  // namespace kze_ev
