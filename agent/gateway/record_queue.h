/* The gateway's bounded queue, between the threads that send and the one that writes. */
#ifndef KZE_AGENT_GATEWAY_RECORD_QUEUE_H
#define KZE_AGENT_GATEWAY_RECORD_QUEUE_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "agent/gateway/gateway.h"
#include "agent/gateway/settings.h"

namespace kze::gateway {

/* One accepted buffer: the gateway's own copy. */
struct record {
    std::int64_t accepted_us = 0; /* microseconds since 1970, UTC */
    int type = 0;
    unsigned int size = 0;
    std::unique_ptr<char[]> data;
};

/*
 * What is taken by the writer still counts against the bounds until the writer gives its room back,
 * so that they bound the memory and not just the queue.
 * add, tell_of_full_journal, close and closing may be called from any thread; take, pause and
 * give_back by the one writer.
 */
class record_queue {
  public:
    explicit record_queue(const settings &limits);

    /* Copies the data and appends it. Returns a gateway_result: accepted, queue or
     * journal full, or no memory. */
    int add(int type, const char *data, unsigned int size);
    /* Wakes the writer after such a refusal; it finds what was counted before this. */
    void tell_of_full_journal();

    /*
     * Waits for records or for word of a full journal, then up to commit_ms for others to join them
     * (not while the queue fills up), and moves all of them into the batch, which is empty. Comes
     * back with an empty batch after such word, and when the queue is closed and empty.
     */
    void take(std::vector<record> &batch);
    /* Waits for that long, or until the queue is closed. */
    void pause(std::chrono::milliseconds time);
    /* Makes room again for the records from first up to last. */
    void give_back(const record *first, const record *last);
    /* The same for records that are in the journal now, which then holds so many bytes. */
    void stored(const record *first, const record *last, std::uint64_t journal_bytes);

    /* Refuses what comes from now on and wakes the writer. */
    void close();
    bool closing() const;

  private:
    gateway_result reserve(unsigned int size);
    bool filling_up() const;
    void release(const record *first, const record *last);

    const settings limits_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    /* All of these are guarded by mutex_. */
    std::vector<record> records_;
    std::uint64_t used_bytes_ = 0;
    std::uint64_t used_records_ = 0;
    std::uint64_t journal_bytes_ = 0; /* in the journal, as the writer said last */
    bool journal_refused_ = false;    /* since the writer looked last */
    bool closing_ = false;
};

}  // namespace kze::gateway

#endif
