#include "agent/client/client_delivery.h"

#include <system_error>
#include <utility>

namespace kze::engine {
namespace {

thread_local client_delivery *current = nullptr;

}  // namespace

client_delivery::~client_delivery() {
    close();
    join();
}

bool client_delivery::start() {
    try {
        thread_ = std::thread(&client_delivery::run, this);
    } catch (const std::system_error &) {
        return false;
    }
    return true;
}

void client_delivery::post(std::function<void()> what, std::size_t weight) {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (closed_) {
            return;
        }
        items_.push_back({std::move(what), weight});
        queued_ += weight;
    }
    changed_.notify_one();
}

std::size_t client_delivery::queued() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return queued_;
}

void client_delivery::close() {
    std::deque<item> dropped;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        closed_ = true;
        items_.swap(dropped);
        queued_ = 0;
    }
    changed_.notify_one();
}

bool client_delivery::join() {
    if (is_current()) {
        return false;
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    return true;
}

bool client_delivery::is_current() const {
    return thread_.get_id() == std::this_thread::get_id();
}

bool client_delivery::current_is_closed() {
    if (current == nullptr) {
        return false;
    }
    const std::lock_guard<std::mutex> guard(current->lock_);
    return current->closed_;
}

void client_delivery::run() {
    current = this;
    std::unique_lock<std::mutex> guard(lock_);
    for (;;) {
        changed_.wait(guard, [this] { return closed_ || !items_.empty(); });
        if (closed_) {
            return;
        }
        const item next = std::move(items_.front());
        items_.pop_front();
        queued_ -= next.weight;
        guard.unlock();
        next.what();
        guard.lock();
    }
}

}  // namespace kze::engine
