#include "agent/gateway/writer_thread.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <system_error>

#include "agent/gateway/gateway.h"
#include "vrdbase.h"

namespace kze::gateway {
namespace {

using clock = std::chrono::steady_clock;

constexpr std::chrono::seconds sum_period{10};
constexpr std::chrono::milliseconds closing_retry{50};

unsigned long long number(std::uint64_t value) {
    return value;
}

/* The threads of a library must take no signal of the host's; new threads inherit the mask. */
class signals_blocked {
  public:
    signals_blocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~signals_blocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    signals_blocked(const signals_blocked &) = delete;
    signals_blocked &operator=(const signals_blocked &) = delete;

  private:
    sigset_t before_{};
};

}  // namespace

std::uint64_t summed_events::due() {
    const auto now = clock::now();
    if (untold_ == 0 || now < next_) {
        return 0;
    }
    next_ = now + sum_period;
    return rest();
}

std::uint64_t summed_events::rest() {
    const std::uint64_t count = untold_;
    untold_ = 0;
    return count;
}

writer_thread::writer_thread(const settings &chosen, record_queue &queue, refusal_counts &refusals)
    : settings_(chosen), queue_(queue), refusals_(refusals) {}

writer_thread::~writer_thread() {
    stop();
}

/*
 * Waits for the thread's first log record. The library may be closed straight after its first send;
 * the loader then holds its lock until the thread has ended, and what a thread does for the first
 * time (making the log's thread-local state) may need that lock.
 */
bool writer_thread::start() {
    std::promise<void> running;
    std::future<void> is_running = running.get_future();
    try {
        const signals_blocked blocked;
        thread_ = std::thread([this, &running] { run(running); });
    } catch (const std::system_error &failure) {
        kze_log(1, "gateway: no thread for the journal: %s", failure.what());
        return false;
    }
    is_running.wait();
    return true;
}

void writer_thread::stop() {
    queue_.close();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void writer_thread::run(std::promise<void> &running) {
    pthread_setname_np(pthread_self(), "kze_gateway");
    autolog_init(GATEWAY_LOG_PATH, 5);
    kze_log(3, "gateway journal thread started");
    look_at_journal();  // before the first record is let in: it may be full already
    running.set_value();
    for (;;) {
        if (next_ == batch_.size()) {
            batch_.clear();
            next_ = 0;
            queue_.take(batch_);
        }
        if (batch_.empty()) {
            if (queue_.closing()) {
                break;
            }
            note_refusals();
            continue;
        }
        write_batch();
        if (failed_attempts_ != 0) {
            if (out_of_time()) {
                drop_rest();
                break;
            }
            wait_to_retry();
        }
    }
    last_words();
}

void writer_thread::look_at_journal() {
    if (journal_.look()) {
        queue_.stored(nullptr, nullptr, journal_.stored_bytes());
    }
}

/* With nothing to write and a journal that refuses: says so, and sees whether it was emptied. */
void writer_thread::note_refusals() {
    collect_refusals();
    journal_.write_counts(deltas_);
    look_at_journal();
    queue_.pause(std::chrono::milliseconds(settings_.retry_ms));
}

/* Until the library closes, at the longest; from then on in small steps. */
void writer_thread::wait_to_retry() {
    const std::chrono::milliseconds period(settings_.retry_ms);
    if (queue_.closing()) {
        std::this_thread::sleep_for(std::min(period, closing_retry));
    } else {
        queue_.pause(period);
    }
}

void writer_thread::write_batch() {
    collect_refusals();
    while (next_ < batch_.size()) {
        const std::size_t count = journal_.write(batch_, next_, deltas_);
        if (count == 0) {
            not_written();
            return;
        }
        written(count);
    }
}

void writer_thread::written(std::size_t count) {
    const record *first = &batch_[next_];
    queue_.stored(first, first + count, journal_.stored_bytes());
    for (std::size_t i = 0; i < count; ++i) {
        batch_[next_ + i].data.reset();
    }
    next_ += count;
    if (failed_attempts_ != 0) {
        kze_log(2, "gateway journal is written again after %llu failed attempts",
                number(failed_attempts_));
        failed_attempts_ = 0;
        failures_.rest();
    }
}

void writer_thread::not_written() {
    ++failed_attempts_;
    failures_.add(1);
    if (const std::uint64_t count = failures_.due()) {
        kze_log(1, "gateway journal can't be written (attempts: %llu): %s", number(count),
                journal_.problem().c_str());
    }
}

/* Once the library is closing, a disk that can't be written has only so long. */
bool writer_thread::out_of_time() {
    if (!queue_.closing()) {
        return false;
    }
    if (closing_since_ == clock::time_point{}) {
        closing_since_ = clock::now();
    }
    return clock::now() - closing_since_ >= std::chrono::milliseconds(settings_.drain_ms);
}

void writer_thread::drop_rest() {
    std::uint64_t records = batch_.size() - next_;
    batch_.clear();
    queue_.take(batch_);
    records += batch_.size();
    batch_.clear();
    deltas_.lost += records;
    kze_log(1,
            "gateway closes with a journal that can't be written, %llu accepted records lost: %s",
            number(records), journal_.problem().c_str());
}

void writer_thread::collect_refusals() {
    deltas_.refused_invalid += refusals_.invalid.exchange(0);
    const std::uint64_t full = refusals_.full.exchange(0);
    deltas_.refused_full += full;
    full_.add(full);
    if (const std::uint64_t count = full_.due()) {
        kze_log(2, "gateway refused %llu records: the queue or the journal is full", number(count));
    }
}

void writer_thread::last_words() {
    collect_refusals();
    if (const std::uint64_t count = full_.rest()) {
        kze_log(2, "gateway refused %llu records: the queue or the journal is full", number(count));
    }
    const bool anything = deltas_.refused_invalid + deltas_.refused_full + deltas_.lost != 0;
    if (anything && !journal_.write_counts(deltas_)) {
        kze_log(1, "gateway counters not written: %s", journal_.problem().c_str());
    }
    kze_log(3, "gateway journal thread ends");
}

}  // namespace kze::gateway
