/* libkzethtgw.3.so: the function that accepts, and the library's state. */
#include "agent/gateway/gateway.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "agent/gateway/record_queue.h"
#include "agent/gateway/settings.h"
#include "agent/gateway/writer_thread.h"
#include "engine/qd_client.h"
#include "vrdbase.h"

namespace kze::gateway {
namespace {

constexpr int lowest_type = KZEMM_DATA_ALARM;
constexpr int highest_type = KZEMM_DATA_CREDIBLE;

/* What exists from the first acceptable send on. */
struct started_parts {
    explicit started_parts(refusal_counts &refusals)
        : chosen(load_settings()), queue(chosen), writer(chosen, queue, refusals) {}

    const settings chosen;
    record_queue queue;
    writer_thread writer;
};

/*
 * The library's state. Its destructor runs when the library is closed or the process ends: it has
 * what is queued written, and joins the thread. send may be called from any thread.
 */
class library {
  public:
    ~library();
    int send(int type, const char *data, unsigned int size);

  private:
    int refuse_invalid(gateway_result why);
    started_parts *ensure_started();

    refusal_counts refusals_;
    std::mutex start_mutex_;
    std::unique_ptr<started_parts> owned_;        /* guarded by start_mutex_ */
    bool closed_ = false;                         /* guarded by start_mutex_ */
    std::atomic<started_parts *> parts_{nullptr}; /* owned_, once it runs */
};

library::~library() {
    const std::lock_guard<std::mutex> lock(start_mutex_);
    closed_ = true;
    parts_ = nullptr;
    owned_.reset();
}

int library::refuse_invalid(gateway_result why) {
    ++refusals_.invalid;
    return why;
}

started_parts *library::ensure_started() {
    if (started_parts *running = parts_.load(std::memory_order_acquire)) {
        return running;
    }
    const std::lock_guard<std::mutex> lock(start_mutex_);
    if (closed_ || parts_ != nullptr) {
        return parts_;
    }
    owned_ = std::make_unique<started_parts>(refusals_);
    if (!owned_->writer.start()) {
        owned_.reset();
        return nullptr;
    }
    parts_ = owned_.get();
    return parts_;
}

int library::send(int type, const char *data, unsigned int size) {
    if (data == nullptr) {
        return refuse_invalid(GATEWAY_NULL_DATA);
    }
    if (size == 0) {
        return refuse_invalid(GATEWAY_NO_LENGTH);
    }
    if (type < lowest_type || type > highest_type) {
        return refuse_invalid(GATEWAY_BAD_TYPE);
    }
    started_parts *parts = ensure_started();
    if (parts == nullptr) {
        return GATEWAY_NO_WRITER;
    }
    if (size > parts->chosen.record_bytes || size > parts->chosen.queue_bytes) {
        return refuse_invalid(GATEWAY_TOO_LONG);
    }
    const int result = parts->queue.add(type, data, size);
    if (result != GATEWAY_ACCEPTED) {
        ++refusals_.full;
    }
    if (result == GATEWAY_JOURNAL_FULL) {
        parts->queue.tell_of_full_journal();
    }
    return result;
}

library the_library;

}  // namespace
}  // namespace kze::gateway

extern "C" __attribute__((visibility("default"))) int kzethtgw_async_send(enum KZEMM_DATA_TYPE type,
                                                                          const char *data,
                                                                          unsigned int len) {
    /* Callers of other languages may pass numbers that the enumeration can't hold. */
    int number = 0;
    static_assert(sizeof(number) == sizeof(type), "the enumeration is passed as an int");
    std::memcpy(&number, &type, sizeof(number));
    try {
        return kze::gateway::the_library.send(number, data, len);
    } catch (const std::bad_alloc &) {
        return GATEWAY_NO_MEMORY;
    }
}
