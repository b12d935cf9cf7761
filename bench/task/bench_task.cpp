// What the task queue costs: tasks a second from the producer through the task thread to an engine
// that does nothing, and the time of add_task by the number of entries that are there.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "config/kzemm_config.h"
#include "datapath/kzemm_task.h"
#include "engine/kzemm_loader.h"
#include "vrdbase.h"

struct kzemm_config_inspector {
    static void set_queue_size(unsigned int size) {
        kzemm_config::get_instance().task_queue_size = size;
    }
};

struct kzemm_task_inspector {
    // A queue that takes tasks and whose entries stay.
    static void run_without_thread(kzemm_task &task) { task.running = true; }
    static void drop_last(kzemm_task &task) {
        task.task_list.back()->release();
        task.task_list.pop_back();
    }
    static std::size_t size(const kzemm_task &task) {
        kze_mutex_lock(task.mutex);
        const std::size_t entries = task.task_list.size();
        kze_mutex_unlock(task.mutex);
        return entries;
    }
};

namespace {

using std::chrono::steady_clock;

constexpr unsigned int body_size = 1024;
constexpr int adds = 20000;
constexpr int warm_up = 1000;
constexpr int runs = 7;
constexpr unsigned int queue_limit = 100;
constexpr unsigned int tasks_in_run = 100000;

kzemm::task_info *make_task(KZEMM_TASK_TYPE type) {
    static const std::string body(body_size, 'x');
    auto *const made =
        new (std::nothrow) kzemm::task_info(type, body.data(), body_size, nullptr, nullptr);
    if (made == nullptr) {
        std::exit(2);
    }
    made->add_reference();
    return made;
}

double percentile(std::vector<double> &times, double share) {
    const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(times.size() - 1));
    std::nth_element(times.begin(), times.begin() + at, times.end());
    return times[static_cast<std::size_t>(at)];
}

void must_be(int code, int expected) {
    if (code != expected) {
        std::fprintf(stderr, "bench_task: add_task gave %d instead of %d\n", code, expected);
        std::exit(2);
    }
}

// Adds to a queue that has so many entries of type 1, each time the same number.
void measure_add(const char *what, KZEMM_TASK_TYPE type, unsigned int entries, unsigned int limit) {
    kzemm_config_inspector::set_queue_size(limit);
    kzemm_task queue;
    kzemm_task_inspector::run_without_thread(queue);
    while (kzemm_task_inspector::size(queue) < entries) {
        must_be(queue.add_task(make_task(KZEMM_TASK_LINKAGE)), KZEMM_TRACE_OK);
    }
    std::vector<double> times;
    for (int i = 0; i < warm_up + adds; ++i) {
        kzemm::task_info *const task = make_task(type);
        const auto begin = steady_clock::now();
        const int code = queue.add_task(task);
        const auto end = steady_clock::now();
        must_be(code, entries < limit ? KZEMM_TRACE_OK : KZEMM_TRACE_QUEUE_FULL);
        if (code == KZEMM_TRACE_OK) {
            kzemm_task_inspector::drop_last(queue);
        } else {
            task->release();
        }
        if (i >= warm_up) {
            times.push_back(std::chrono::duration<double, std::nano>(end - begin).count());
        }
    }
    queue.clear_task_list();
    std::printf("%-34s %7u %9.0f %9.0f\n", what, entries, percentile(times, 0.5),
                percentile(times, 0.99));
}

// Tasks a second, made, queued, run and released. The producer waits for room in the queue.
double measure_throughput() {
    kzemm_task queue;
    if (queue.init() != 0) {
        std::exit(2);
    }
    const auto begin = steady_clock::now();
    for (unsigned int i = 0; i < tasks_in_run; ++i) {
        while (kzemm_task_inspector::size(queue) == queue_limit) {
            std::this_thread::yield();
        }
        must_be(queue.add_task(make_task(KZEMM_TASK_LINKAGE)), KZEMM_TRACE_OK);
    }
    queue.terminate_task_thread();
    const std::chrono::duration<double> spent = steady_clock::now() - begin;
    const std::size_t left = kzemm_task_inspector::size(queue);
    queue.uninit();
    return static_cast<double>(tasks_in_run - left) / spent.count();
}

void report_throughput(int level) {
    error_output_set_level(level);
    std::vector<double> rates;
    for (int i = 0; i < runs; ++i) {
        rates.push_back(measure_throughput());
    }
    std::printf("%9d %12.0f %12.0f %12.0f\n", level, percentile(rates, 0.5),
                *std::min_element(rates.begin(), rates.end()),
                *std::max_element(rates.begin(), rates.end()));
    std::fflush(stdout);
}

std::string make_tree() {
    std::string path = std::filesystem::temp_directory_path() / "bench_task.XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        std::perror("mkdtemp");
        std::exit(2);
    }
    for (const char *directory : {"/bin", "/lib", "/agent_plugins"}) {
        std::filesystem::create_directory(path + directory);
    }
    std::filesystem::create_symlink(STUB_ENGINE_CLIENT, path + "/lib/libqdccl.so");
    std::filesystem::create_symlink(STUB_GATEWAY, path + "/agent_plugins/libkzethtgw.3.so");
    setenv("KZE_AGENT_HOME", (path + "/bin").c_str(), 1);
    return path;
}

}  // namespace

int main() {
    const std::string tree = make_tree();
    if (kzemm_loader::get_instance().init() != 0) {
        std::fprintf(stderr, "bench_task: the stub libraries can't be loaded\n");
        return 1;
    }
    std::printf("Tasks a second through the queue (%u bytes each, a limit of %u, %d runs)\n",
                body_size, queue_limit, runs);
    std::printf("%9s %12s %12s %12s\n", "log level", "median", "least", "most");
    kzemm_config_inspector::set_queue_size(queue_limit);
    report_throughput(1);
    report_throughput(3);

    error_output_set_level(1);
    std::printf("\nOne add_task, its log calls switched off, in ns\n");
    std::printf("%-34s %7s %9s %9s\n", "", "entries", "median", "p99");
    for (const unsigned int entries : {5U, 50U, 99U}) {
        measure_add("type 1, put behind them", KZEMM_TASK_LINKAGE, entries, queue_limit);
    }
    for (const unsigned int entries : {5U, 50U, 99U}) {
        measure_add("type 3, looking for an older one", KZEMM_TASK_HUNTING, entries, queue_limit);
    }
    measure_add("type 1, refused", KZEMM_TASK_LINKAGE, queue_limit, queue_limit);
    error_output_set_level(3);
    measure_add("type 1, log level 3", KZEMM_TASK_LINKAGE, 50, queue_limit);
    kzemm_loader::get_instance().uninit();
    std::filesystem::remove_all(tree);
    return 0;
}
