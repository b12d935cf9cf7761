// Many clients at once, their requests valid and broken, against the real plug-in with the real
// base libraries. KZE_LOAD_REQUESTS in the environment is the number of requests; without it there
// are as many as fit into every run.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <unordered_map>
#include <vector>

#include "tests/component/plugin/load_clients.h"
#include "tests/component/plugin/load_log.h"
#include "tests/component/plugin/load_stage.h"
#include "tests/component/plugin/plugin_test.h"
#include "tests/support/process_state.h"
#include "tests/support/wire_bytes.h"

using kze_test::eventually;
using load_stage::arrival;
using load_stage::call_kind;
using load_stage::engine;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr unsigned int client_count = 16;
constexpr unsigned int window = 64;
constexpr unsigned int queue_size = 100;
constexpr unsigned int requests_of_every_run = SANITIZED ? 8000 : 16000;
[[maybe_unused]] constexpr size_t flat_heap = 512 * 1024;  // sanitizers have a heap of their own

constexpr char made[] = "new task info";
constexpr char freed[] = "free task info";
constexpr char full[] = "task queue is full, size: 100";
constexpr char full_of_any_size[] = "task queue is full";
constexpr char stopped[] = "kzemm_work stopped";

std::string superseded(int type) {
    return "task queue has exist " + std::to_string(type) + " task, remove old task";
}

unsigned int requests_of_this_run() {
    const char *const wanted = getenv("KZE_LOAD_REQUESTS");
    return wanted == nullptr ? requests_of_every_run
                             : static_cast<unsigned int>(strtoul(wanted, nullptr, 10));
}

size_t heap_in_use() {
    return mallinfo2().uordblks;
}

size_t resident_bytes() {
    size_t whole = 0;
    size_t resident = 0;
    std::ifstream("/proc/self/statm") >> whole >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

double seconds_since(steady_clock::time_point begun) {
    return std::chrono::duration<double>(steady_clock::now() - begun).count();
}

class plugin_load_test : public plugin_test {
  protected:
    void SetUp() override {
        plugin_test::SetUp();
        install("load_client", client_place);
        install("load_gateway", gateway_place);
        tree.write("config/kzemdlmgr.ini",
                   "[basic]\ntask_queue_size = " + std::to_string(queue_size) + "\n");
        engine::instance().reset(2 * requests_of_this_run());
        const std::string logs = tree.path("var/log/agent/kzemdlmgr").string();
        log = std::make_unique<load_log>(
            std::vector<std::string>{logs + "/kzemdlmgr.log", logs + "/task/task.log"},
            std::vector<std::string>{made, freed, full, full_of_any_size, stopped, superseded(3),
                                     superseded(4), superseded(5)});
    }

    void TearDown() override {
        clients.clear();
        log.reset();
        EXPECT_EQ(engine::instance().buffers_out(), 0);
        plugin_test::TearDown();
    }

    void make_clients(unsigned int room) {
        for (unsigned int number = 0; number < client_count; ++number) {
            clients.push_back(std::make_unique<load_client>(number, window, room));
        }
    }

    bool all_done() const {
        return std::all_of(clients.begin(), clients.end(),
                           [](const auto &each) { return each->done(); });
    }

    void send(unsigned int first, unsigned int last) {
        for (const auto &each : clients) {
            each->send(first, last);
        }
    }

    // The clients are joined by one who speaks no language at all, over and over.
    void send_among_garbage(unsigned int first, unsigned int last) {
        std::mt19937 random(first);
        send(first, last);
        while (!all_done()) {
            std::string garbage(random() % 200, '\0');
            for (char &byte : garbage) {
                byte = static_cast<char>(random());
            }
            const auto peer =
                kze_test::raw_socket::connect_to(tree.path("run/agt_rpt.sock").string());
            peer.send(garbage);
            EXPECT_EQ(shutdown(peer.fd(), SHUT_WR), 0);
            EXPECT_TRUE(peer.ends());
        }
    }

    size_t answered(int code) const {
        size_t number = 0;
        for (const auto &client : clients) {
            number += static_cast<size_t>(
                std::count_if(client->outcomes().begin(), client->outcomes().end(),
                              [code](const request_outcome &each) { return each.code == code; }));
        }
        return number;
    }

    size_t superseded_tasks() const {
        return log->count(superseded(3)) + log->count(superseded(4)) + log->count(superseded(5));
    }

    // Waits until every task that was taken has reached the engine or was superseded, and the
    // engine has answered.
    void await_idle() {
        EXPECT_TRUE(eventually(
            [&] {
                return engine::instance().arrival_count() + superseded_tasks() == answered(0) &&
                       engine::instance().callbacks_due() == 0 &&
                       log->count(freed) == log->count(made);
            },
            std::chrono::seconds(60)))
            << engine::instance().arrival_count() << " arrived, " << superseded_tasks()
            << " superseded, " << answered(0) << " taken, " << log->count(freed) << " freed of "
            << log->count(made);
    }

    void expect_right_codes(unsigned int requests);
    void expect_taken_tasks_in_order();

    std::vector<std::unique_ptr<load_client>> clients;
    std::unique_ptr<load_log> log;
};

// Each of the first requests of each client has one response, with the code that it is to have.
void plugin_load_test::expect_right_codes(unsigned int requests) {
    size_t wrong = 0;
    for (const auto &client : clients) {
        for (unsigned int number = 0; number < requests; ++number) {
            const planned_request planned = plan(client->number(), number);
            const request_outcome &outcome = client->outcomes()[number];
            const bool is_right = planned.valid ? outcome.code == 0 || outcome.code == 1
                                                : outcome.code == planned.code;
            if (outcome.ends != 1 || outcome.status < 0 || !is_right) {
                ++wrong;
                ADD_FAILURE_AT(__FILE__, __LINE__)
                    << "request " << number << " of " << client->number() << ", command "
                    << planned.cmd << ": ended " << outcome.ends << " times, status "
                    << outcome.status << ", code " << outcome.code << " for " << planned.code;
            }
            ASSERT_LT(wrong, 10U);
        }
    }
    // A queue that was said to be full was full.
    EXPECT_EQ(log->count(full), answered(1));
    EXPECT_EQ(log->count(full_of_any_size), answered(1));
}

// What was answered with 0 and not superseded has reached the engine once, whole and in order.
void plugin_load_test::expect_taken_tasks_in_order() {
    struct task {
        const request_outcome *outcome;
        unsigned int client;
        unsigned int number;
        int type;
        int arrivals = 0;
    };
    std::vector<task> taken;
    std::map<std::pair<int, std::uint64_t>, size_t> by_bytes;
    for (const auto &client : clients) {
        for (unsigned int number = 0; number < client->outcomes().size(); ++number) {
            const request_outcome &outcome = client->outcomes()[number];
            if (outcome.code != 0) {
                continue;
            }
            const planned_request planned = plan(client->number(), number);
            by_bytes[{planned.task_type, load_stage::digest_of(planned.engine_gets)}] =
                taken.size();
            taken.push_back({&outcome, client->number(), number, planned.task_type});
        }
    }
    ASSERT_EQ(by_bytes.size(), taken.size()) << "two requests are alike";

    std::uint64_t newest_sent = 0;
    std::uint64_t last_of_type[6] = {};
    unsigned int after[client_count] = {};
    for (const arrival &each : engine::instance().arrivals()) {
        const auto found = by_bytes.find({static_cast<int>(each.kind), each.digest});
        ASSERT_NE(found, by_bytes.end()) << "nobody sent what the engine got";
        task &arrived = taken[found->second];
        ++arrived.arrivals;
        // Of one client in the order in which they were sent; and what was answered before another
        // was sent isn't behind that one.
        ASSERT_GT(arrived.number + 1, after[arrived.client]) << "out of order";
        ASSERT_GT(arrived.outcome->ended, newest_sent) << "out of order";
        after[arrived.client] = arrived.number + 1;
        newest_sent = std::max(newest_sent, arrived.outcome->sent);
        last_of_type[arrived.type] = std::max(last_of_type[arrived.type], arrived.outcome->ended);
    }
    size_t missing[6] = {};
    for (const task &each : taken) {
        ASSERT_LE(each.arrivals, 1) << "twice";
        missing[each.type] += each.arrivals == 0 ? 1 : 0;
        // Whatever supersedes is itself taken, and the last one isn't superseded by anything.
        ASSERT_TRUE(each.arrivals == 1 || each.outcome->sent < last_of_type[each.type]);
    }
    EXPECT_EQ(missing[1], 0U);
    EXPECT_EQ(missing[2], 0U);
    for (const int type : {3, 4, 5}) {
        EXPECT_EQ(missing[type], log->count(superseded(type))) << "type " << type;
    }
}

TEST_F(plugin_load_test, each_request_has_its_one_response_and_each_taken_task_runs_once_in_order) {
    const unsigned int each = requests_of_this_run() / client_count;
    // What analyses come to goes to the linkage service.
    kze_test::loop_thread linkage_loop;
    std::atomic<size_t> linkage_replies{0};
    kze_test::test_endpoint linkage(linkage_loop, "agt_lkg", nullptr,
                                    [&](const kze_test::incoming &) { ++linkage_replies; });
    start();
    make_clients(each + 1);
    size_t heap[2] = {};
    const auto begun = steady_clock::now();
    double in_load = 0;
    for (unsigned int quarter = 0; quarter < 4; ++quarter) {
        // In turn an engine that keeps up and one that lets the queue fill up.
        engine::instance().set_call_time(milliseconds(quarter % 2));
        const auto quarter_begun = steady_clock::now();
        send_among_garbage(each * quarter / 4, each * (quarter + 1) / 4);
        in_load += seconds_since(quarter_begun);
        await_idle();
        heap[quarter / 2] = heap_in_use();
    }
    const double in_all = seconds_since(begun);
    expect_right_codes(each);
    expect_taken_tasks_in_order();

    std::map<call_kind, size_t> arrivals;
    for (const arrival &arrived : engine::instance().arrivals()) {
        ++arrivals[arrived.kind];
    }
    EXPECT_TRUE(eventually([&] { return linkage_replies == arrivals[call_kind::analysis]; }));
    EXPECT_EQ(engine::instance().gateway_sends(8), arrivals[call_kind::rules]);

    // The worker still turns: one more is answered.
    const auto probed = steady_clock::now();
    clients[0]->send(each, each + 1);
    EXPECT_TRUE(eventually([&] { return clients[0]->done(); }));
    const double probe = seconds_since(probed);

    std::uint32_t longest_ms = 0;
    for (const auto &client : clients) {
        for (const request_outcome &outcome : client->outcomes()) {
            longest_ms = std::max(longest_ms, outcome.waited_ms);
        }
    }
    printf("%u requests of %u clients in %.1f s (%.0f a second; %.1f s with the engine's end)\n",
           each * client_count, client_count, in_load, each * client_count / in_load, in_all);
    printf("responses: %zu queued, %zu full, %zu unknown, %zu invalid, %zu failed\n", answered(0),
           answered(1), answered(2), answered(3), answered(4));
    printf(
        "engine: %zu linkage, %zu append, %zu hunting, %zu rules, %zu analyses; %zu superseded\n",
        arrivals[call_kind::linkage], arrivals[call_kind::append], arrivals[call_kind::hunting],
        arrivals[call_kind::rules], arrivals[call_kind::analysis], superseded_tasks());
    printf("longest wait for a response %u ms, afterwards %.0f ms\n", longest_ms, probe * 1000);
    printf("heap after the halves %zu and %zu bytes, resident %.1f MiB\n", heap[0], heap[1],
           static_cast<double>(resident_bytes()) / (1024 * 1024));
#if !SANITIZED
    EXPECT_LT(heap[1], heap[0] + flat_heap) << "memory grows with the requests";
#endif
    linkage.destroy();
    linkage_loop.stop();
    clients.clear();
    ASSERT_EQ(uninit(), 0);
    EXPECT_TRUE(log->await(stopped, 1));
}

TEST_F(plugin_load_test, a_shutdown_under_load_takes_the_running_call_and_frees_what_is_queued) {
    constexpr milliseconds call_time{200};
    constexpr milliseconds whole_queue = queue_size * call_time;
    constexpr unsigned int rounds = SANITIZED ? 4 : 12;
    std::mt19937 random(3);
    milliseconds longest{0};
    for (unsigned int round = 1; round <= rounds; ++round) {
        engine::instance().reset(10000);
        engine::instance().set_call_time(call_time);
        start();
        make_clients(100000);
        send(0, 100000);
        const milliseconds moment(random() % 1000);
        const auto begun = steady_clock::now();
        EXPECT_TRUE(eventually([&] { return steady_clock::now() - begun >= moment; }));
        const auto stopping = steady_clock::now();
        ASSERT_EQ(uninit(), 0);
        const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - stopping);
        longest = std::max(longest, took);
        EXPECT_LT(took, whole_queue / 2) << "at " << moment.count() << " ms";
        EXPECT_TRUE(eventually([&] { return all_done(); }));
        clients.clear();
        EXPECT_TRUE(log->await(stopped, round));
        EXPECT_TRUE(eventually([&] { return log->count(freed) == log->count(made); }))
            << log->count(freed) << " of " << log->count(made) << " tasks were freed";
    }
    printf("longest of %u shutdowns %lld ms, of which %lld ms for the engine call\n", rounds,
           static_cast<long long>(longest.count()), static_cast<long long>(call_time.count()));
}

// The frame of a credible event of the web scene with one action on one process.
std::string credible_event_frame() {
    const std::string process = wire::number(1, 7) + wire::number(2, 4194305);
    const std::string action =
        wire::bytes(1, "alert") + wire::number(2, 7) + wire::bytes(4, process);
    const std::string rule = wire::number(6, 1) + wire::bytes(9, action);
    return wire::frame(wire::bytes(1, "agent") + wire::number(5, 9) +
                       wire::bytes(17, wire::bytes(6, rule)));
}

// What the IPC layer doesn't take keeps its context for good, by design: one that meets the closed
// endpoint. It stays reachable here, so that the leak checker tells only of others.
std::atomic<size_t> s_refused{0};

void keep_reachable(void *context) {
    static std::mutex s_mutex;
    static auto *const s_kept = new std::vector<void *>;
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_kept->push_back(context);
    ++s_refused;
}

// Events come on the client's thread up to its stop, beyond the end of the endpoint that carries
// the requests for their disposal; and those end on the worker's thread meanwhile, the last ones
// while the endpoint closes.
TEST_F(plugin_load_test, a_shutdown_amid_credible_events_does_no_harm) {
    constexpr unsigned int rounds = 6;
    stage.set_config("/mgr/auto_dispose", "/switch", "1");
    std::mt19937 random(4);
    for (unsigned int round = 1; round <= rounds; ++round) {
        engine::instance().reset(0);
        engine::instance().deliver_again_and_again(credible_event_frame());
        // In turn a service that never answers and none at all.
        kze_test::loop_thread service_loop;
        std::unique_ptr<kze_test::test_endpoint> service;
        std::atomic<size_t> requests{0};
        if (round % 2 == 0) {
            service = std::make_unique<kze_test::test_endpoint>(
                service_loop, "agt_rpdsp", [&](const kze_test::incoming &) { ++requests; });
        }
        start();
        const size_t wanted = 20 + random() % 400;
        EXPECT_TRUE(eventually([&] { return engine::instance().deliveries() >= wanted; }));
        ASSERT_EQ(uninit(), 0);
        EXPECT_TRUE(log->await(stopped, round));
        EXPECT_EQ(engine::instance().gateway_sends(10), engine::instance().deliveries());
        EXPECT_EQ(requests > 0, round % 2 == 0);
        if (service != nullptr) {
            service->destroy();
        }
        service_loop.stop();
    }
    printf("%zu requests met a closed endpoint\n", s_refused.load());
}

// The task thread of a start once found that it was not running yet, and ended.
TEST_F(plugin_load_test, every_start_serves_its_queue) {
    constexpr unsigned int starts = 12;
    constexpr unsigned int requests = 10;
    size_t tasks = 0;
    for (unsigned int round = 1; round <= starts; ++round) {
        engine::instance().reset(requests);
        start();
        clients.push_back(std::make_unique<load_client>(round, window, requests));
        send(0, requests);
        ASSERT_TRUE(eventually([&] { return all_done(); }));
        ASSERT_GT(answered(0), 0U);
        tasks += answered(0);
        EXPECT_TRUE(log->await(freed, tasks)) << "nobody serves the queue of start " << round;
        clients.clear();
        ASSERT_EQ(uninit(), 0);
        EXPECT_TRUE(log->await(stopped, round));
    }
    EXPECT_EQ(log->count(made), tasks);
    EXPECT_EQ(log->count(freed), tasks);
}

}  // namespace

// Stands before that of the library.
extern "C" __attribute__((visibility("default"))) int vrd_ipc_make_request(
    vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int cmd, const char *data, unsigned int size,
    vrd_ipc_reply_cb callback, void *context, unsigned int time_limit) {
    static const auto s_real =
        reinterpret_cast<decltype(&vrd_ipc_make_request)>(dlsym(RTLD_NEXT, "vrd_ipc_make_request"));
    const int result = s_real(ipc, addr, cmd, data, size, callback, context, time_limit);
    if (result != 0) {
        keep_reachable(context);
    }
    return result;
}
