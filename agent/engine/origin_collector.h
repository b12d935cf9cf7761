/* The thread on which the engine takes its snapshots of the host's processes. */
#ifndef KZE_AGENT_ENGINE_ORIGIN_COLLECTOR_H
#define KZE_AGENT_ENGINE_ORIGIN_COLLECTOR_H

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kze::engine {

/*
 * Takes a snapshot for each order and hands it on. Orders that come while one is taken are served
 * together by the next. Safe from any thread; start and stop by one.
 */
class origin_collector {
  public:
    /* Gets a snapshot and the clients it is for; runs on the collector's thread. */
    using deliver =
        std::function<void(std::string snapshot, const std::vector<std::uint32_t> &clients)>;

    explicit origin_collector(deliver to) : deliver_(std::move(to)) {}
    ~origin_collector() { stop(); }
    origin_collector(const origin_collector &) = delete;
    origin_collector &operator=(const origin_collector &) = delete;

    void start();
    /* Ends the thread when the snapshot in hand is done. */
    void stop();
    void order(const std::vector<std::uint32_t> &clients);

  private:
    void run();

    const deliver deliver_;
    std::thread thread_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::set<std::uint32_t> ordered_; /* guarded by lock_ */
    bool stopping_ = false;           /* guarded by lock_ */
};

/*
 * Cuts the text behind its last line that ends within the limit. Returns how many lines (also an
 * unfinished last one) were cut off.
 */
std::size_t cut_at_line(std::string &text, std::size_t limit);

}  // namespace kze::engine

#endif
