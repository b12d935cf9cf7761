// What many starts and stops leave behind, and what a worker with nothing to do costs.

#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "tests/component/plugin/plugin_test.h"
#include "tests/support/process_state.h"
#include "vrdcl_ev.h"

namespace {

// CYCLES is 100, and 1,000 in the debug build. A cycle takes one turn of the worker's loop, a tenth
// of a second.
constexpr size_t cycles = CYCLES;
// Before the memory is measured, so many cycles fill what is kept for reuse.
constexpr size_t warm_up = cycles * 3 / 10;
// The base library keeps its last 256 closed timers.
constexpr size_t kept_timers = 256;

// The memory is not judged with a sanitizer, which keeps freed memory back and looks for leaks
// itself.
constexpr bool sanitized = SANITIZED;
constexpr long allowed_heap_growth = 16L * 1024;       // bytes
constexpr long allowed_resident_growth = 1024 * 1024;  // bytes

long heap_bytes() {
    const auto info = mallinfo2();
    return static_cast<long>(info.uordblks + info.hblkhd);
}

long resident_bytes() {
    long total = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

// How often a thread gave the processor up by itself.
unsigned long long voluntary_switches(pid_t thread) {
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
    unsigned long long value = 0;
    for (std::string word; status >> word;) {
        if (word == "voluntary_ctxt_switches:") {
            status >> value;
        }
    }
    return value;
}

unsigned long long cpu_nanoseconds(pid_t thread) {
    unsigned long long value = 0;
    std::ifstream("/proc/self/task/" + std::to_string(thread) + "/schedstat") >> value;
    return value;
}

using plugin_cycles_test = plugin_test;

TEST_F(plugin_cycles_test, leave_no_memory_no_descriptor_and_no_thread) {
    start();
    for (size_t timer = 0; timer < kept_timers; ++timer) {
        cl_timerplus_close(cl_timerplus_start(
            1000, 0, 1000, [](cl_timerplus *) {}, nullptr));
    }
    stop();
    const size_t descriptors = open_descriptors();
    const size_t threads = kze_test::thread_count();
    long heap = 0;
    long resident = 0;
    for (size_t cycle = 0; cycle < cycles; ++cycle) {
        if (cycle == warm_up) {
            heap = heap_bytes();
            resident = resident_bytes();
        }
        start();
        stop();
        worker_log().forget();
        host_log().forget();
        stage.forget_calls();
        ASSERT_FALSE(HasFailure()) << "in cycle " << cycle;
    }
    const long heap_growth = heap_bytes() - heap;
    const long resident_growth = resident_bytes() - resident;
    printf("%zu cycles; over the last %zu: heap %+ld bytes, resident %+ld bytes\n", cycles,
           cycles - warm_up, heap_growth, resident_growth);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_TRUE(kze_test::threads_become(threads));
    if (!sanitized) {
        EXPECT_LE(heap_growth, allowed_heap_growth);
        EXPECT_LE(resident_growth, allowed_resident_growth);
    }
}

// The costs are printed, and not judged here: they are this machine's.
TEST_F(plugin_cycles_test, an_idle_worker_turns_its_loop_and_asks_nothing_of_anyone) {
    start();
    const pid_t thread = worker_log().records().back().thread;
    stage.forget_calls();
    const auto begin = std::chrono::steady_clock::now();
    const unsigned long long cpu = cpu_nanoseconds(thread);
    const unsigned long long turns = voluntary_switches(thread);
    ASSERT_TRUE(kze_test::eventually([&] { return voluntary_switches(thread) >= turns + 20; }));
    const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - begin);
    EXPECT_TRUE(stage.calls().empty());
    printf("20 turns of an idle worker: %lld ms, %llu microseconds of processor time\n",
           static_cast<long long>(passed.count()), (cpu_nanoseconds(thread) - cpu) / 1000);
    stop();
}

}  // namespace
