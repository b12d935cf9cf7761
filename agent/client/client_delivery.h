/* The thread on which a client's callbacks run. */
#ifndef KZE_AGENT_CLIENT_CLIENT_DELIVERY_H
#define KZE_AGENT_CLIENT_CLIENT_DELIVERY_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace kze::engine {

/*
 * Runs one thing after the other on a thread of its own. Safe from any thread; the object lives
 * until its thread has been joined.
 */
class client_delivery {
  public:
    client_delivery() = default;
    ~client_delivery();
    client_delivery(const client_delivery &) = delete;
    client_delivery &operator=(const client_delivery &) = delete;

    /* Starts the thread. False when there is none to be had. */
    bool start();
    /* Queues what is to run; weight is what it takes of memory. Dropped once close was called. */
    void post(std::function<void()> what, std::size_t weight);
    /* The weight of what is queued. */
    std::size_t queued() const;
    /* Drops what is queued; nothing begins to run any more. Doesn't wait. */
    void close();
    /* Waits for the end of the thread, and so of what it runs. False on that thread itself, which
     * goes on to its end. */
    bool join();
    /* Whether the calling thread is this one's. */
    bool is_current() const;
    /* Whether the calling thread is that of a delivery that was closed. */
    static bool current_is_closed();

  private:
    struct item {
        std::function<void()> what;
        std::size_t weight;
    };
    void run();

    std::thread thread_;
    mutable std::mutex lock_;
    std::condition_variable changed_;
    std::deque<item> items_; /* guarded by lock_, as all below */
    std::size_t queued_ = 0;
    bool closed_ = false;
};

}  // namespace kze::engine

#endif
