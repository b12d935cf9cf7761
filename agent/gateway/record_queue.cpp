#include "agent/gateway/record_queue.h"

#include <cstring>
#include <new>
#include <utility>

#include "agent/gateway/gateway.h"

namespace kze::gateway {
namespace {

std::int64_t now_us() {
    const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(since_1970).count();
}

}  // namespace

record_queue::record_queue(const settings &limits) : limits_(limits) {}

/* The room is reserved before the copy is made: what is refused costs no copy, and copies that
 * threads make at the same time are within the bound as well. */
bool record_queue::reserve(unsigned int size) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (closing_ || used_records_ >= limits_.queue_records ||
        size > limits_.queue_bytes - used_bytes_) {
        return false;
    }
    used_bytes_ += size;
    ++used_records_;
    return true;
}

bool record_queue::filling_up() const {
    return used_bytes_ > limits_.queue_bytes / 4 || used_records_ > limits_.queue_records / 4;
}

int record_queue::add(int type, const char *data, unsigned int size) {
    if (!reserve(size)) {
        return GATEWAY_QUEUE_FULL;
    }
    record added;
    added.type = type;
    added.size = size;
    added.data.reset(new (std::nothrow) char[size]);
    if (added.data == nullptr) {
        give_back(&added, &added + 1);
        return GATEWAY_NO_MEMORY;
    }
    std::memcpy(added.data.get(), data, size);
    bool wake = false;
    try {
        const std::lock_guard<std::mutex> lock(mutex_);
        added.accepted_us = now_us();
        records_.push_back(std::move(added));
        wake = records_.size() == 1 || filling_up();
    } catch (const std::bad_alloc &) {
        give_back(&added, &added + 1);
        return GATEWAY_NO_MEMORY;
    }
    if (wake) {
        changed_.notify_one();
    }
    return GATEWAY_ACCEPTED;
}

void record_queue::take(std::vector<record> &batch) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return closing_ || !records_.empty(); });
    changed_.wait_for(lock, std::chrono::milliseconds(limits_.commit_ms),
                      [this] { return closing_ || filling_up(); });
    batch.swap(records_);
}

void record_queue::pause(std::chrono::milliseconds time) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, time, [this] { return closing_; });
}

void record_queue::give_back(const record *first, const record *last) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (; first != last; ++first) {
        used_bytes_ -= first->size;
        --used_records_;
    }
}

void record_queue::close() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        closing_ = true;
    }
    changed_.notify_all();
}

bool record_queue::closing() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return closing_;
}

}  // namespace kze::gateway
