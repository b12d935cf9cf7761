// What the upgrade relay costs: ordering names, a pass over a directory of which nothing goes to
// the engine, and a pass that brings it 100 packs.
//
// Memory, processes and files are real; the engine, the log (errors only) and time are the fakes of
// the unit tests, so that no wait for the engine is waited for. The tree is made in the directory
// for temporary files (TMPDIR). Each round works on names of its own, which no branch prediction
// has learned.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench/upgrade/held_memory.h"
#include "engine/kzemm_loader.h"
#include "tests/fakes/fake_engine.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/plugin_test.h"
#include "tests/fakes/virtual_time.h"
#include "tests/support/temp_tree.h"
#include "upgrade/kzemm_upgrade.h"

namespace {

namespace fs = std::filesystem;
using clock_type = std::chrono::steady_clock;
using names_type = std::vector<std::string>;

constexpr size_t packs_in_work = 100;
constexpr size_t names_in_sum = 400000;  // over all rounds of a measurement

double seconds_since(clock_type::time_point begun) {
    return std::chrono::duration<double>(clock_type::now() - begun).count();
}

std::string version(std::mt19937 &random, unsigned int least_major) {
    return std::to_string(least_major + random() % 1000) + "." + std::to_string(random() % 100000);
}

// Names that differ by their number where nothing reads it.
std::string full_name(std::mt19937 &random, size_t number) {
    return "ioc_full_" + version(random, 0) + "." + std::to_string(number) + ".tgz";
}

std::string incremental_name(std::mt19937 &random, size_t number, unsigned int least_major = 0) {
    return "ioc_inc_" + std::to_string(number) + ".0-" + version(random, least_major) + "].tgz";
}

names_type incremental_names(std::mt19937 &random, size_t count) {
    names_type names;
    for (size_t i = 0; i < count; ++i) {
        names.push_back(incremental_name(random, i));
    }
    return names;
}

// A quarter each: full packs, incremental packs that may be obsolete, those above every full pack,
// and names of neither form.
names_type mixed_names(std::mt19937 &random, size_t count) {
    names_type names;
    for (size_t i = 0; i < count; i += 4) {
        names.push_back(full_name(random, i));
        names.push_back(incremental_name(random, i));
        names.push_back(incremental_name(random, i + 1, 1000));
        names.push_back("ioc_other_" + std::to_string(i) + ".tgz");
    }
    std::shuffle(names.begin(), names.end(), random);
    return names_type(names);  // its texts lie in memory one behind the other, as in a listing
}

using make_names_fn = names_type (*)(std::mt19937 &, size_t);

void show_cost_of_name(benchmark::State &state, double names) {
    state.counters["name"] = benchmark::Counter(
        names, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["peak"] =
        benchmark::Counter(static_cast<double>(most_held_memory()), benchmark::Counter::kDefaults,
                           benchmark::Counter::kIs1024);
}

void order(benchmark::State &state, make_names_fn make_names) {
    const auto count = static_cast<size_t>(state.range(0));
    std::mt19937 random(count);
    std::vector<names_type> rounds;
    for (size_t i = 0; i < std::max<size_t>(names_in_sum / count, 1); ++i) {
        rounds.push_back(make_names(random, count));
    }
    size_t round = 0;
    watch_held_memory();
    for (auto _ : state) {
        ioc_list list;
        names_type delete_names;
        CUpgradeRelay::reorder_update(rounds[round], list, delete_names);
        benchmark::DoNotOptimize(list.size());
        round = (round + 1) % rounds.size();
    }
    show_cost_of_name(state, static_cast<double>(count));
}

// The tree of one measurement, with the engine at a version.
class agent {
  public:
    explicit agent(const std::string &engine_version) {
        fs::create_directories(rules());
        setenv("KZE_AGENT_HOME", tree.path("bin").c_str(), 1);
        reset_fakes();
        fakes::set_log_level(1);
        kzemm_loader::get_instance().init();
        fakes::set_engine_version(ENGINE_IOC, engine_version);
    }
    ~agent() {
        kzemm_loader::get_instance().uninit();
        reset_fakes();
        unsetenv("KZE_AGENT_HOME");
    }
    agent(const agent &) = delete;
    agent &operator=(const agent &) = delete;

    std::string rules() const { return tree.path("hlthreat_rule"); }
    size_t files_left() const {
        return static_cast<size_t>(
            std::distance(fs::directory_iterator(rules()), fs::directory_iterator()));
    }

  private:
    kze_test::temp_tree tree;
};

// Every pack is obsolete or older than the engine's version, and goes; names of neither form stay.
void pass_without_work(benchmark::State &state) {
    const agent host("5000.0");
    const auto count = static_cast<size_t>(state.range(0));
    std::mt19937 random(count);
    CUpgradeRelay relay;
    for (auto _ : state) {
        for (const std::string &name : mixed_names(random, count)) {
            std::ofstream(host.rules() + "/" + name);
        }
        watch_held_memory();
        const auto begun = clock_type::now();
        if (relay.upgrade_ioc_handle() != 0 || host.files_left() != count / 4) {
            state.SkipWithError("the pass failed");
        }
        state.SetIterationTime(seconds_since(begun));
        fs::remove_all(host.rules());
        fs::create_directory(host.rules());
    }
    show_cost_of_name(state, static_cast<double>(count));
    if (!fakes::engine_calls("x_client_engine_update").empty()) {
        state.SkipWithError("a pack went to the engine");
    }
}

// A full pack 1.0 and incremental ones from 1.1 on, each with its rules.
void write_packs(const std::string &directory) {
    for (size_t i = 0; i < packs_in_work; ++i) {
        const std::string number = std::to_string(i);
        const std::string name = i == 0 ? "ioc_full_1.0" : "ioc_inc_1.0-1." + number + "]";
        std::ofstream(directory + "/" + name + ".json") << "{\"version\":\"1." << number << "\"}\n";
        const std::string command = "cd '" + directory + "' && tar -czf '" + name + ".tgz' '" +
                                    name + ".json' && rm '" + name + ".json'";
        if (system(command.c_str()) != 0) {
            abort();
        }
    }
}

void pass_with_100_packs(benchmark::State &state) {
    const agent host("0.0");
    unsigned int next_minor = 0;  // what the engine's version rises to
    fakes::on_engine_call("x_client_engine_update", [&](const fakes::engine_call &) {
        fakes::set_engine_version(ENGINE_IOC, "1." + std::to_string(next_minor++));
    });
    double virtual_seconds = 0;
    CUpgradeRelay relay;
    for (auto _ : state) {
        write_packs(host.rules());
        fakes::set_engine_version(ENGINE_IOC, "0.0");
        next_minor = 0;
        fakes::forget_engine_calls();
        watch_held_memory();
        const fakes::microseconds begun_virtual = fakes::now_us();
        const auto begun = clock_type::now();
        const int result = relay.upgrade_ioc_handle();
        state.SetIterationTime(seconds_since(begun));
        virtual_seconds = static_cast<double>(fakes::now_us() - begun_virtual) / 1e6;
        if (result != 0 || host.files_left() != 0 ||
            fakes::engine_calls("x_client_engine_update").size() != packs_in_work) {
            state.SkipWithError("the pass left work");
        }
    }
    show_cost_of_name(state, packs_in_work);
    state.counters["virtual_s"] = virtual_seconds;
}

}  // namespace

int main(int argc, char **argv) {
    const std::vector<std::int64_t> sizes = {100, 1000, 10000, 100000};
    benchmark::RegisterBenchmark("order/mixed", order, mixed_names)->ArgsProduct({sizes});
    benchmark::RegisterBenchmark("order/all_apply", order, incremental_names)->ArgsProduct({sizes});
    benchmark::RegisterBenchmark("pass_without_work", pass_without_work)
        ->ArgsProduct({sizes})
        ->UseManualTime()
        ->Iterations(3)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("pass_with_100_packs", pass_with_100_packs)
        ->UseManualTime()
        ->Iterations(3)
        ->Unit(benchmark::kMillisecond);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
