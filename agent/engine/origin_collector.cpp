#include "agent/engine/origin_collector.h"

#include <algorithm>

#include "agent/engine/process_snapshot.h"
#include "vrdbase.h"

namespace kze::engine {

void origin_collector::start() {
    thread_ = std::thread(&origin_collector::run, this);
}

void origin_collector::stop() {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        stopping_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void origin_collector::order(const std::vector<std::uint32_t> &clients) {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        ordered_.insert(clients.begin(), clients.end());
    }
    changed_.notify_one();
}

void origin_collector::run() {
    autolog_init("@/../var/log/qd_agent", 5);
    process_snapshot snapshot;
    std::unique_lock<std::mutex> guard(lock_);
    for (;;) {
        changed_.wait(guard, [this] { return stopping_ || !ordered_.empty(); });
        if (stopping_) {
            return;
        }
        const std::vector<std::uint32_t> clients(ordered_.begin(), ordered_.end());
        ordered_.clear();
        guard.unlock();
        deliver_(snapshot.take(), clients);
        guard.lock();
    }
}

std::size_t cut_at_line(std::string &text, std::size_t limit) {
    if (text.size() <= limit) {
        return 0;
    }
    const std::size_t end = limit == 0 ? std::string::npos : text.rfind('\n', limit - 1);
    const std::size_t kept = end == std::string::npos ? 0 : end + 1;
    const auto behind = text.begin() + static_cast<std::ptrdiff_t>(kept);
    auto lost = static_cast<std::size_t>(std::count(behind, text.end(), '\n'));
    if (text.back() != '\n') {
        ++lost;
    }
    text.resize(kept);
    return lost;
}

}  // namespace kze::engine
