/* The gateway's own thread: takes what is queued to the journal. */
#ifndef KZE_AGENT_GATEWAY_WRITER_THREAD_H
#define KZE_AGENT_GATEWAY_WRITER_THREAD_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "agent/gateway/journal_writer.h"
#include "agent/gateway/record_queue.h"
#include "agent/gateway/settings.h"

namespace kze::gateway {

/* Refusals that no transaction has counted yet. Any thread. */
struct refusal_counts {
    std::atomic<std::uint64_t> invalid{0};
    std::atomic<std::uint64_t> full{0};
};

/*
 * Tells the first event of a kind at once and later ones as sums, ten seconds apart.
 * One thread at a time.
 */
class summed_events {
  public:
    void add(std::uint64_t count) { untold_ += count; }
    /* How many to tell of now; 0 for nothing. */
    std::uint64_t due();
    /* How many haven't been told of. */
    std::uint64_t rest();

  private:
    std::uint64_t untold_ = 0;
    std::chrono::steady_clock::time_point next_{};
};

/*
 * Owned by the library's state; start, stop and the destructor belong to one thread at a time, all
 * else to the thread itself.
 */
class writer_thread {
  public:
    writer_thread(const settings &chosen, record_queue &queue, refusal_counts &refusals);
    ~writer_thread();
    writer_thread(const writer_thread &) = delete;
    writer_thread &operator=(const writer_thread &) = delete;

    /* Returns once the thread runs, with its log open; false when there can be none. */
    bool start();
    /* Closes the queue, has what is in it written and ends the thread. */
    void stop();

  private:
    void run(std::promise<void> &running);
    void write_batch();
    void written(std::size_t count);
    void not_written();
    void wait_to_retry();
    void look_at_journal();
    void note_refusals();
    bool out_of_time();
    void drop_rest();
    void collect_refusals();
    void last_words();

    const settings settings_;
    record_queue &queue_;
    refusal_counts &refusals_;
    std::thread thread_;

    journal_writer journal_;
    std::vector<record> batch_;
    std::size_t next_ = 0; /* the first record of batch_ that isn't written */
    count_deltas deltas_;
    std::uint64_t failed_attempts_ = 0; /* since the last success */
    std::chrono::steady_clock::time_point closing_since_{};
    summed_events failures_;
    summed_events full_;
};

}  // namespace kze::gateway

#endif
