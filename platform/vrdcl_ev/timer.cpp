#include "platform/vrdcl_ev/timer.h"

#include <utility>

#include "platform/vrdcl_ev/guard.h"

namespace kze_ev {

bool timer_queue::arm(const std::shared_ptr<timer> &item, std::uint64_t first_ns,
                      bool *earliest_out) {
    std::lock_guard<std::mutex> guard(mutex);
    if (ended) {
        return false;
    }
    item->due_ns = now_ns() + first_ns;
    item->armed = true;
    const auto place = armed_timers.emplace(item->due_ns, item);
    *earliest_out = place == armed_timers.begin();
    return true;
}

void timer_queue::remove_queued(timer *item) {
    auto range = armed_timers.equal_range(item->due_ns);
    for (auto at = range.first; at != range.second; ++at) {
        if (at->second.get() == item) {
            armed_timers.erase(at);
            return;
        }
    }
}

void timer_queue::disarm(timer *item, bool wait) {
    std::unique_lock<std::mutex> guard(mutex);
    if (item->armed) {
        item->armed = false;
        remove_queued(item);
    }
    if (wait) {
        callback_done.wait(guard, [item] { return !item->running; });
    }
}

bool timer_queue::next_due(std::uint64_t *due_ns_out) {
    std::lock_guard<std::mutex> guard(mutex);
    if (armed_timers.empty()) {
        return false;
    }
    *due_ns_out = armed_timers.begin()->first;
    return true;
}

void timer_queue::rearm(queue::node_type node) {
    timer &item = *node.mapped();
    if (!item.armed || item.period_ns == 0 || ended) {
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
    armed_timers.insert(std::move(node));
}

void timer_queue::run_due() {
    std::unique_lock<std::mutex> guard(mutex);
    if (armed_timers.empty()) {
        return;
    }
    const std::uint64_t now = now_ns();
    while (!armed_timers.empty() && armed_timers.begin()->first <= now) {
        ready.emplace_back();  // may throw, while nothing is lost yet
        ready.back() = armed_timers.extract(armed_timers.begin());
    }
    for (auto &node : ready) {
        const std::shared_ptr<timer> item = node.mapped();
        if (!item->armed) {
            continue;
        }
        item->running = true;
        guard.unlock();
        run_guarded("a timer's callback", [&item] { item->callback(&item->record); });
        guard.lock();
        item->running = false;
        callback_done.notify_all();
        rearm(std::move(node));
    }
    ready.clear();
}

void timer_queue::end() {
    queue dropped;
    std::lock_guard<std::mutex> guard(mutex);
    ended = true;
    for (auto &entry : armed_timers) {
        entry.second->armed = false;
    }
    dropped.swap(armed_timers);
}

}  // namespace kze_ev
