/*
 * What reaches the engine and the gateway while requests pour in. It is a shared library of its
 * own: the plug-in closes the test libraries, and the test goes on asking.
 */
#ifndef KZEMDLMGR_TESTS_COMPONENT_PLUGIN_LOAD_STAGE_H
#define KZEMDLMGR_TESTS_COMPONENT_PLUGIN_LOAD_STAGE_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "engine/qd_client.h"

namespace load_stage {

// What an engine call brought: a coordinate order, a rule text or an analysis.
enum class call_kind : int { linkage = 1, append = 2, hunting = 3, rules = 4, analysis = 5 };

struct arrival {
    call_kind kind;
    std::uint64_t digest;  // of all bytes
    std::uint32_t size;
};

__attribute__((visibility("default"))) std::uint64_t digest_of(std::string_view bytes);

// The name of the gateway that lets no memory grow, and of the engine's client: modules of these
// tests. Threads: safe from any thread.
class __attribute__((visibility("default"))) engine {
  public:
    static engine &instance();

    // ---- for tests ----

    // As at the beginning, with room for so many arrivals.
    void reset(std::size_t room);
    // Each call of the task thread takes this long from now on.
    void set_call_time(std::chrono::milliseconds time) { call_ms = static_cast<int>(time.count()); }
    // The call that comes next doesn't return until it is let go; so the queue fills up exactly.
    void hold_calls();
    void let_calls_go();
    // Waits until the task thread is in a call; false after the deadline.
    bool await_call();

    std::vector<arrival> arrivals() const;
    std::size_t arrival_count() const;
    // Waits for at least so many; false after the deadline.
    bool await_arrivals(std::size_t count) const;
    // Answers that the engine still owes for rules and analyses.
    std::size_t callbacks_due() const;
    // Buffers of the engine that did not come back.
    int buffers_out() const { return buffers; }
    std::size_t gateway_sends(int type) const { return sends[static_cast<std::size_t>(type)]; }
    // From the next subscription to the stop one more thread of the client delivers this credible
    // event, again and again.
    void deliver_again_and_again(std::string credible_event);
    std::size_t deliveries() const { return delivered; }

    // ---- for the test libraries ----

    void start();
    void stop();
    int call(call_kind kind, const char *data, unsigned int len);
    // Runs it on the engine's thread a little later, by when the call that asks for it has
    // returned.
    void call_back(std::function<void()> what);
    void subscribe_credible(qd_data_cb callback, void *context);
    char *new_buffer(std::size_t size);
    void free_buffer(void *buffer);
    int gateway_take(int type);

  private:
    engine() = default;
    ~engine() = default;

    void routine();
    void deliver_events(qd_data_cb callback, void *context);

    std::atomic<int> call_ms{0};
    std::atomic<int> buffers{0};
    std::atomic<std::size_t> sends[11] = {};
    std::atomic<std::size_t> delivered{0};

    mutable std::mutex mutex;  // guards everything below; no callback runs under it
    mutable std::condition_variable changed;
    bool held = false;
    bool in_call = false;
    std::vector<arrival> arrived;
    std::thread thread;
    std::thread deliverer;
    std::string event;  // empty: no deliverer
    bool ends = false;
    struct job {
        std::chrono::steady_clock::time_point due;
        std::function<void()> run;
    };
    std::deque<job> jobs;
    std::size_t due = 0;
};

}  // namespace load_stage

#endif
