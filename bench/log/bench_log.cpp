// What a log call costs: switched off, switched on, and the question between the two.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "vrdbase.h"

namespace {

void check_alone(benchmark::State &state) {
    error_output_set_level(3);
    for (auto _ : state)
        benchmark::DoNotOptimize(error_output_check(4));
}

void switched_off(benchmark::State &state) {
    error_output_set_level(3);
    int value = 7;
    for (auto _ : state) {
        benchmark::DoNotOptimize(value);
        kze_log(4, "response_mgr_msg: %d!", value);
    }
}

// A record of `range` bytes of text, written to a file of the thread's own or of all threads.
void switched_on(benchmark::State &state, const std::string &directory) {
    error_output_set_level(3);
    autolog_init(directory.c_str(), 5);
    const std::string text(static_cast<size_t>(state.range(0)), 'x');
    for (auto _ : state)
        kze_log(3, "%s", text.c_str());
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

int main(int argc, char **argv) {
    char name[] = "/tmp/kze_bench_log_XXXXXX";
    if (mkdtemp(name) == nullptr)
        return 1;
    const std::string directory = name;
    benchmark::RegisterBenchmark("check_alone", check_alone);
    benchmark::RegisterBenchmark("switched_off", switched_off);
    benchmark::RegisterBenchmark("switched_off/two_threads", switched_off)->Threads(2);
    benchmark::RegisterBenchmark("switched_on", switched_on, directory)
        ->Arg(40)
        ->Arg(400)
        ->Arg(4000);
    benchmark::RegisterBenchmark("switched_on/one_file", switched_on, directory)
        ->Arg(40)
        ->Threads(2);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(directory);
}
