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
 * threads make at the same time are within the bounds as well. What waits has its room in the
 * journal too: nothing is accepted that would have to be thrown away for want of it. */
gateway_result record_queue::reserve(unsigned int size) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (closing_ || used_records_ >= limits_.queue_records ||
        size > limits_.queue_bytes - used_bytes_) {
        return GATEWAY_QUEUE_FULL;
    }
    if (journal_bytes_ + used_bytes_ + size > limits_.journal_bytes) {
        return GATEWAY_JOURNAL_FULL;
    }
    used_bytes_ += size;
    ++used_records_;
    return GATEWAY_ACCEPTED;
}

bool record_queue::filling_up() const {
    return used_bytes_ > limits_.queue_bytes / 4 || used_records_ > limits_.queue_records / 4;
}

int record_queue::add(int type, const char *data, unsigned int size) {
    if (const gateway_result refused = reserve(size)) {
        return refused;
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

void record_queue::tell_of_full_journal() {
    const std::lock_guard<std::mutex> lock(mutex_);
    journal_refused_ = true;
    changed_.notify_one();
}

void record_queue::take(std::vector<record> &batch) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return closing_ || journal_refused_ || !records_.empty(); });
    journal_refused_ = false;
    if (records_.empty()) {
        return;
    }
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
    release(first, last);
}

void record_queue::stored(const record *first, const record *last, std::uint64_t journal_bytes) {
    const std::lock_guard<std::mutex> lock(mutex_);
    release(first, last);
    journal_bytes_ = journal_bytes;
}

/* With the lock held. */
void record_queue::release(const record *first, const record *last) {
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
