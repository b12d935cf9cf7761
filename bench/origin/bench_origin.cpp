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
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "bench/origin/telemetry.h"
#include "config/kzemm_config.h"
#include "engine/kzemm_loader.h"
#include "plugin/kzemm_work.h"
#include "vrdbase.h"

struct kzemm_config_inspector {
    static void turn_report_on() { kzemm_config::get_instance().report_switch = true; }
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

// Microseconds of one bare call; out_size becomes the compressed size.
double bare_call(const char *data, size_t size, std::vector<Bytef> &out, uLongf &out_size) {
    char *copy = fresh_copy(data, size);
    out_size = out.size();
    const double begun = now_us();
    if (compress(out.data(), &out_size, reinterpret_cast<const Bytef *>(copy), size) != Z_OK) {
        abort();
    }
    const double spent = now_us() - begun;
    __real_free(copy);
    return spent;
}

// Microseconds of one delivery, which releases the buffer.
double delivery(const char *data, size_t size) {
    char *copy = fresh_copy(data, size);
    const double begun = now_us();
    kzemm_work::qd_origin_cb(copy, static_cast<unsigned int>(size), nullptr);
    return now_us() - begun;
}

void measure(const std::string &corpus, size_t size) {
    const size_t step = (corpus.size() - size) / buffers_each;
    std::vector<Bytef> out(compressBound(size));
    std::vector<double> bare;
    std::vector<double> whole;
    std::vector<double> ratios;
    long faults = 0;
    size_t most_held = 0;
    double most_share = 0;
    const size_t warm_up = 8;
    for (size_t i = 0; i < buffers_each + warm_up; ++i) {
        const char *data = corpus.data() + (i % buffers_each) * step;
        double bare_us = 0;
        double whole_us = 0;
        uLongf compressed_size = 0;
        const bool bare_first = i % 2 == 0;  // neither side always runs second
        if (bare_first) {
            bare_us = bare_call(data, size, out, compressed_size);
        }
        held = 0;
        peak = 0;
        const long faults_before = page_faults();
        whole_us = delivery(data, size);
        const long faults_of_call = page_faults() - faults_before;
        if (!bare_first) {
            bare_us = bare_call(data, size, out, compressed_size);
        }
        if (i < warm_up) {
            continue;
        }
        faults += faults_of_call;
        // The delivered buffer, its bound and the frame: what may be held at most.
        const size_t allowed = size + compressBound(size) + compressed_size + frame_header_size;
        most_held = std::max(most_held, peak.load() + size);
        most_share = std::max(
            most_share, static_cast<double>(peak.load() + size) / static_cast<double>(allowed));
        bare.push_back(bare_us);
        whole.push_back(whole_us);
        ratios.push_back(whole_us / bare_us);
    }
    const double bare_median = median(bare);
    const double whole_median = median(whole);
    const double allowed = static_cast<double>(compressBound(size) + size);  // buffer and bound
    printf("%9zu  %11.1f  %11.1f  %6.3f  %6.3f  %8.1f  %9.1f  %9zu  %9.4f\n", size, bare_median,
           whole_median, whole_median / bare_median, median(ratios),
           static_cast<double>(size) / whole_median, static_cast<double>(faults) / buffers_each,
           most_held, most_share);
    fflush(stdout);
}

}  // namespace

int main() {
    setenv("KZE_AGENT_HOME", BENCH_HOME, 1);
    kzemm_config_inspector::turn_report_on();
    if (kzemm_loader::get_instance().init() != 0) {
        fprintf(stderr, "the stub libraries are not in " BENCH_HOME "/..\n");
        return 1;
    }
    const std::string corpus = make_telemetry(corpus_size, 1);
    printf("Origin data: the callback against compress() alone; %zu distinct buffers a size\n",
           buffers_each);
    printf("%9s  %11s  %11s  %6s  %6s  %8s  %9s  %9s  %9s\n", "bytes", "bare us", "callback us",
           "ratio", "paired", "MB/s", "faults", "peak held", "of allowed");
    std::thread engine_thread([&corpus] {
        for (size_t size = 1024; size <= size_t{8} << 20; size *= 2) {
            measure(corpus, size);
        }
    });
    engine_thread.join();
    kzemm_loader::get_instance().uninit();
    return 0;
}
