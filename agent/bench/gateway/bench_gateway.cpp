/*
 * How fast the gateway accepts, and whether what it accepted is in the journal afterwards.
 *
 * "accept" fills half of the queue as fast as it goes: the cost of a send as its caller sees it.
 * "lasting" sends for two seconds (or 1 GiB) and waits a millisecond whenever it is refused: what
 * the journal's disk can take. The tree is made in the directory for temporary files (TMPDIR).
 * Exits with 1 when the journal holds anything but what was accepted.
 */
#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "agent/gateway/gateway.h"
#include "agent/gateway/journal.h"
#include "engine/qd_client.h"
#include "tests/support/temp_tree.h"

namespace {

using clock_type = std::chrono::steady_clock;

constexpr std::uint64_t queue_bytes = 64U << 20;
constexpr std::uint64_t queue_records = 100000;
constexpr std::uint64_t lasting_bytes = std::uint64_t{1} << 30;
constexpr std::chrono::seconds lasting_time{2};

struct rate {
    std::uint64_t sends = 0;
    std::uint64_t refusals = 0;
    double seconds = 0;
};

/* The gateway, opened for one measurement. */
class gateway {
  public:
    gateway() : handle_(dlopen(GATEWAY_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {
        if (handle_ == nullptr) {
            std::fprintf(stderr, "%s\n", dlerror());
            std::exit(2);
        }
        send_ = reinterpret_cast<kzethtgw_async_send_fn>(dlsym(handle_, "kzethtgw_async_send"));
    }
    ~gateway() { dlclose(handle_); }
    gateway(const gateway &) = delete;
    gateway &operator=(const gateway &) = delete;
    bool send(const std::string &data) const {
        return send_(KZEMM_DATA_ALARM, data.data(), static_cast<unsigned int>(data.size())) ==
               GATEWAY_ACCEPTED;
    }

  private:
    void *handle_;
    kzethtgw_async_send_fn send_;
};

/* Runs the same on that many threads at once and measures from the first to the last. */
template <typename body_type>
rate on_threads(unsigned int threads, const body_type &body) {
    std::vector<rate> parts(threads);
    std::vector<std::thread> running;
    std::atomic<bool> go{false};
    for (rate &part : parts) {
        running.emplace_back([&] {
            while (!go) {
            }
            body(part);
        });
    }
    const auto start = clock_type::now();
    go = true;
    for (std::thread &thread : running) {
        thread.join();
    }
    rate total;
    total.seconds = std::chrono::duration<double>(clock_type::now() - start).count();
    for (const rate &part : parts) {
        total.sends += part.sends;
        total.refusals += part.refusals;
    }
    return total;
}

rate measure_accept(const gateway &library, const std::string &data, unsigned int threads) {
    const std::uint64_t records =
        std::min(queue_bytes / 2 / data.size(), queue_records / 2) / threads;
    return on_threads(threads, [&](rate &part) {
        for (std::uint64_t i = 0; i < records; ++i) {
            library.send(data) ? ++part.sends : ++part.refusals;
        }
    });
}

rate measure_lasting(const gateway &library, const std::string &data, unsigned int threads) {
    const auto end = clock_type::now() + lasting_time;
    const std::uint64_t records = lasting_bytes / data.size() / threads;
    return on_threads(threads, [&](rate &part) {
        while (part.sends < records && clock_type::now() < end) {
            if (library.send(data)) {
                ++part.sends;
            } else {
                ++part.refusals;
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    });
}

/* Measures and returns whether the journal holds what was accepted. */
template <typename measure_type>
bool run(const char *name, const measure_type &measure, std::size_t size, unsigned int threads) {
    const kze_test::temp_tree tree;
    tree.write("config/gateway.ini", "[gateway]\njournal_bytes = 1099511627776\n");
    rate measured;
    const std::string data(size, 'x');
    auto closing = clock_type::now();
    {
        const gateway library;
        library.send(data); /* starts the thread */
        measured = measure(library, data, threads);
        closing = clock_type::now();
    }
    const double drain = std::chrono::duration<double>(clock_type::now() - closing).count();
    kze::record_reader journal(tree.path("var/lib/gateway.db"), kze::gateway::journal_form);
    const auto counts = journal.numbers(kze::gateway::counters_table);
    const auto newest = journal.newest_id();
    const auto expected = static_cast<std::int64_t>(measured.sends + 1);
    const bool complete =
        counts && newest == expected && counts->at(GATEWAY_COUNT_ACCEPTED) == expected &&
        counts->at(GATEWAY_COUNT_STORED_BYTES) == expected * static_cast<std::int64_t>(size);
    const double per_second = static_cast<double>(measured.sends) / measured.seconds;
    std::printf(
        "%-8s %8zu B %u threads %10.0f sends/s %9.1f MB/s %8llu refused "
        "%6.2f s to close  journal %s\n",
        name, size, threads, per_second, per_second * static_cast<double>(size) / 1e6,
        static_cast<unsigned long long>(measured.refusals), drain,
        complete ? "complete" : "INCOMPLETE");
    std::fflush(stdout);
    return complete;
}

}  // namespace

int main() {
    bool complete = true;
    for (const std::size_t size :
         {std::size_t{100}, std::size_t{4} << 10, std::size_t{64} << 10, std::size_t{1} << 20}) {
        for (const unsigned int threads : {1U, 4U}) {
            complete &= run("accept", measure_accept, size, threads);
            complete &= run("lasting", measure_lasting, size, threads);
        }
    }
    return complete ? 0 : 1;
}
