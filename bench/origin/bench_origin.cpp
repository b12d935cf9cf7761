// The whole of the origin callback against a bare compress() of the same bytes.
//
// For each size, distinct buffers go through both, call by call in turn. Each call gets a fresh
// buffer of its own, filled just before; the bare call compresses into one buffer that is kept.
// Runs on a thread of its own, as the engine client's deliveries do.

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "bench/kept_memory.h"
#include "bench/origin/telemetry.h"
#include "config/kzemm_config.h"
#include "engine/kzemm_loader.h"
#include "plugin/kzemm_work.h"
#include "vrdbase.h"

struct kzemm_config_inspector {
    static void turn_report_on() { kzemm_config::get_instance().report_switch = true; }
};

struct kzemm_work_inspector : kzemm_work {
    using kzemm_work::qd_origin_cb;
};

namespace {

// Bytes that the plug-in's own code holds, and the most that it held. What zlib allocates inside
// compress() is not counted: the bare call needs the same.
std::atomic<size_t> held{0};
std::atomic<size_t> peak{0};

void count_allocation(void *block) {
    const size_t now = held += malloc_usable_size(block);
    peak = std::max(peak.load(), now);
}

void count_release(void *block) {
    held -= malloc_usable_size(block);
}

}  // namespace

extern "C" {
void *__real_malloc(size_t size);
void __real_free(void *block);

void *__wrap_malloc(size_t size) {
    void *block = __real_malloc(size);
    count_allocation(block);
    return block;
}

void __wrap_free(void *block) {
    count_release(block);
    __real_free(block);
}
}

void *operator new[](size_t size, const std::nothrow_t &) noexcept {
    void *block = __real_malloc(size);
    count_allocation(block);
    return block;
}

void operator delete[](void *block) noexcept {
    count_release(block);
    __real_free(block);
}

void operator delete[](void *block, size_t) noexcept {
    operator delete[](block);
}

namespace {

constexpr size_t buffers_each = 256;
constexpr size_t frame_header_size = 20;
constexpr size_t corpus_size = size_t{64} << 20;

double now_us() {
    return std::chrono::duration<double, std::micro>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

long page_faults() {
    rusage usage = {};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_minflt;
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

char *fresh_copy(const char *data, size_t size) {
    // Not through the counted malloc: the delivered buffer is the engine's.
    auto *copy = static_cast<char *>(__real_malloc(size));
    if (copy == nullptr) {
        abort();
    }
    memcpy(copy, data, size);
    return copy;
}

// What one call cost.
struct cost {
    double us;
    long faults;
};

template <typename call>
cost measure_call(const call &run) {
    const long faults = page_faults();
    const double begun = now_us();
    run();
    const double spent = now_us() - begun;
    return {spent, page_faults() - faults};
}

// One bare call; out_size becomes the compressed size.
cost bare_call(const char *data, size_t size, std::vector<Bytef> &out, uLongf &out_size) {
    char *copy = fresh_copy(data, size);
    out_size = out.size();
    const cost spent = measure_call([&] {
        if (compress(out.data(), &out_size, reinterpret_cast<const Bytef *>(copy), size) != Z_OK) {
            abort();
        }
    });
    __real_free(copy);
    return spent;
}

// One delivery, which releases the buffer.
cost delivery(const char *data, size_t size) {
    char *copy = fresh_copy(data, size);
    held = 0;
    peak = 0;
    return measure_call([&] {
        kzemm_work_inspector::qd_origin_cb(copy, static_cast<unsigned int>(size), nullptr);
    });
}

double median_of(const std::vector<cost> &costs, double (*field)(const cost &)) {
    std::vector<double> values;
    std::transform(costs.begin(), costs.end(), std::back_inserter(values), field);
    return median(values);
}

double us_of(const cost &each) {
    return each.us;
}

double faults_of(const cost &each) {
    return static_cast<double>(each.faults);
}

void measure(const std::string &corpus, size_t size) {
    const size_t step = (corpus.size() - size) / buffers_each;
    std::vector<Bytef> out(compressBound(size));
    std::vector<cost> bare;
    std::vector<cost> whole;
    std::vector<double> ratios;
    size_t most_held = 0;
    double most_share = 0;
    const size_t warm_up = 8;
    for (size_t i = 0; i < buffers_each + warm_up; ++i) {
        const char *data = corpus.data() + (i % buffers_each) * step;
        uLongf compressed_size = 0;
        cost bare_cost = {};
        cost whole_cost = {};
        if (i % 2 == 0) {  // neither side always runs second
            bare_cost = bare_call(data, size, out, compressed_size);
            whole_cost = delivery(data, size);
        } else {
            whole_cost = delivery(data, size);
            bare_cost = bare_call(data, size, out, compressed_size);
        }
        if (i < warm_up) {
            continue;
        }
        bare.push_back(bare_cost);
        whole.push_back(whole_cost);
        ratios.push_back(whole_cost.us / bare_cost.us);
        // The delivered buffer, its bound and the frame: what may be held at most.
        const size_t allowed = size + compressBound(size) + compressed_size + frame_header_size;
        const size_t held_by_call = peak.load() + size;
        most_held = std::max(most_held, held_by_call);
        most_share =
            std::max(most_share, static_cast<double>(held_by_call) / static_cast<double>(allowed));
    }
    const double bare_us = median_of(bare, us_of);
    const double whole_us = median_of(whole, us_of);
    printf("%9zu %10.1f %11.1f %6.3f %6.3f %7.1f %11.0f %15.0f %10zu %10.4f\n", size, bare_us,
           whole_us, whole_us / bare_us, median(ratios), static_cast<double>(size) / whole_us,
           median_of(bare, faults_of), median_of(whole, faults_of), most_held, most_share);
    fflush(stdout);
}

}  // namespace

// Usage: bench_origin [--default-malloc] [BYTES...]; without sizes, from 1 KB to 8 MB in doublings.
// Memory is kept as the reference host keeps it, or as the C library does by default.
int main(int argc, char **argv) {
    setenv("KZE_AGENT_HOME", BENCH_HOME, 1);
    std::vector<size_t> sizes;
    bool default_malloc = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--default-malloc") == 0) {
            default_malloc = true;
        } else {
            sizes.push_back(strtoul(argv[i], nullptr, 10));
        }
    }
    if (!default_malloc) {
        keep_freed_memory();
    }
    if (sizes.empty()) {
        for (size_t size = 1024; size <= size_t{8} << 20; size *= 2) {
            sizes.push_back(size);
        }
    }
    if (std::any_of(sizes.begin(), sizes.end(),
                    [](size_t size) { return size == 0 || size > corpus_size / 2; })) {
        fprintf(stderr, "a size is a number of bytes from 1 to %zu\n", corpus_size / 2);
        return 2;
    }
    kzemm_config_inspector::turn_report_on();
    if (kzemm_loader::get_instance().init() != 0) {
        fprintf(stderr, "the stub libraries are not in " BENCH_HOME "/..\n");
        return 1;
    }
    const std::string corpus = make_telemetry(corpus_size, 1);
    printf("Origin data: the callback against compress() alone; %zu distinct buffers a size; %s\n",
           buffers_each,
           default_malloc ? "memory as the C library keeps it" : "memory as the host keeps it");
    printf("%9s %10s %11s %6s %6s %7s %11s %15s %10s %10s\n", "bytes", "bare us", "callback us",
           "ratio", "paired", "MB/s", "bare faults", "callback faults", "peak held", "of allowed");
    std::thread engine_thread([&corpus, &sizes] {
        for (const size_t size : sizes) {
            measure(corpus, size);
        }
    });
    engine_thread.join();
    kzemm_loader::get_instance().uninit();
    return 0;
}
