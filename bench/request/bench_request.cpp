// What the plug-in's handling of a management request costs beside the IPC layer. Requests to real
// endpoints are answered in turn
//   - by a handler that sends a ready response of the same size: what the IPC layer costs,
//   - by the plug-in's handler (check, switch, copy, queue, response frame), the queue emptied now
//     and then by hand: what handling costs,
//   - by the plug-in's handler with its task thread, whose engine does nothing: with the kernel's
//     part in waking a thread that sleeps, mostly on another core.
// The loop waits for requests instead of pausing between its turns, so its grain is not in the
// times. Requester and endpoints are two processes of one core, the task thread is on the others.
//
//   bench_request [--check]     --check: exit 1 when handling is above its limit
#include <endian.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "config/kzemm_config.h"
#include "datapath/kzemm_task.h"
#include "engine/kzemm_loader.h"
#include "plugin/kzemm_work.h"
#include "vrdbase.h"
#include "vrdcl_ev.h"
#include "vrdipc.h"

struct kzemm_config_inspector {
    static void turn_all_on() {
        kzemm_config &config = kzemm_config::get_instance();
        config.hunting_switch = config.linkage_switch = true;
        config.ioa_switch = config.collect_switch = true;
        config.task_queue_size = 100;
    }
};

struct kzemm_task_inspector {
    // A queue that takes tasks and whose entries stay.
    static void run_without_thread(kzemm_task &task) { task.running = true; }
};

struct kzemm_work_inspector : kzemm_work {
    using kzemm_work::on_ipc_request;
    static void give_task(kzemm_work &work, kzemm_task *task) { work.task = task; }
};

namespace {

constexpr std::size_t body_size = 1024;
constexpr int rounds = 40;  // of each kind, taking turns
constexpr int exchanges_in_round = 1000;
constexpr int warm_up = 100;  // exchanges before each round, not counted
constexpr double limit_us = 5;
constexpr char plugin_name[] = "agt_rpt";
constexpr char queue_name[] = "queue";     // the same without a task thread
constexpr char ready_name[] = "ready";     // answers without the plug-in
constexpr unsigned int cmd_empty = 1;      // of a one-way message to it: empty the queue
constexpr int exchanges_until_empty = 50;  // the limit is 100

struct kind {
    const char *name;
    unsigned int cmd;
    bool framed;
    const char *body_begins;
    int code;
};

constexpr kind kinds[] = {
    {"linkage", 1004, false, "", 0}, {"append", 1005, false, "", 0},
    {"hunting", 1002, true, "", 0},  {"ioa", 102, true, "{\"rulesId\":\"7\",\"rulesInfo\":\"", 0},
    {"lkganal", 1010, false, "", 0}, {"invalid", 1002, false, "", 3}};

[[noreturn]] void fail(const char *what) {
    std::perror(what);
    std::exit(2);
}

double now_us() {
    return std::chrono::duration<double, std::micro>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The calling thread's cores: the first one of those allowed, or all others where there are any.
void stay_on(bool first) {
    static const cpu_set_t allowed = [] {
        cpu_set_t cores;
        CPU_ZERO(&cores);
        if (sched_getaffinity(0, sizeof cores, &cores) != 0) {
            fail("sched_getaffinity");
        }
        return cores;
    }();
    int core = 0;
    while (!CPU_ISSET(core, &allowed)) {
        ++core;
    }
    cpu_set_t chosen = allowed;
    CPU_CLR(core, &chosen);
    if (first || CPU_COUNT(&chosen) == 0) {
        CPU_ZERO(&chosen);
        CPU_SET(core, &chosen);
    }
    if (sched_setaffinity(0, sizeof chosen, &chosen) != 0) {
        fail("sched_setaffinity");
    }
}

std::string frame_of(uint16_t proto_type, const std::string &body) {
    const uint16_t type = htobe16(proto_type);
    const uint32_t length = htobe32(static_cast<uint32_t>(body.size()));
    std::string frame(20, '\0');
    frame.replace(0, 4, "3200");
    std::memcpy(frame.data() + 8, &type, sizeof type);
    std::memcpy(frame.data() + 16, &length, sizeof length);
    return frame + body;
}

std::string request_of(const kind &of) {
    std::string body = of.body_begins;
    body.append(body_size - body.size() - (body.empty() ? 0 : 2), 'x');
    body += *of.body_begins == '\0' ? "" : "\"}";
    return of.framed ? frame_of(1, body) : body;
}

std::string response_of(int code) {
    return frame_of(2, "{\"resp_code\":" + std::to_string(code) + ", \"resp_msg\":\"\"}");
}

// ---- the endpoints' process ----

void answer_ready(vrd_ipc_st *ipc, vrd_addr_st *from, unsigned int id, unsigned int cmd,
                  const char *, unsigned int, void *context) {
    const std::string &response = *static_cast<const std::string *>(context);
    vrd_ipc_response(ipc, from, id, cmd, response.data(),
                     static_cast<unsigned int>(response.size()));
}

// The body is the log level from then on.
void empty_queue(vrd_ipc_st *, vrd_addr_st *, unsigned int, const char *data, unsigned int len,
                 void *queue) {
    error_output_set_level(std::atoi(std::string(data, len).c_str()));
    static_cast<kzemm_task *>(queue)->clear_task_list();
}

[[noreturn]] void serve(int ready_fd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    kzemm_config_inspector::turn_all_on();
    static kzemm_work with_thread;
    static kzemm_work with_queue;
    static kzemm_task task;
    static kzemm_task queue;
    static std::string response = response_of(0);
    kzemm_work_inspector::give_task(with_thread, &task);
    kzemm_work_inspector::give_task(with_queue, &queue);
    kzemm_task_inspector::run_without_thread(queue);
    stay_on(false);
    if (kzemm_loader::get_instance().init() != 0 || task.init() != 0) {
        std::_Exit(2);
    }
    stay_on(true);
    cl_ev_loop_nowait(0);
    vrd_ipc_st *const plugin = vrd_ipc_create(plugin_name, 0);
    vrd_ipc_st *const queue_only = vrd_ipc_create(queue_name, 0);
    vrd_ipc_st *const ready = vrd_ipc_create(ready_name, 0);
    if (plugin == nullptr || queue_only == nullptr || ready == nullptr ||
        vrd_ipc_on_request(plugin, kzemm_work_inspector::on_ipc_request, &with_thread) != 0 ||
        vrd_ipc_on_request(queue_only, kzemm_work_inspector::on_ipc_request, &with_queue) != 0 ||
        vrd_ipc_msg_recv(queue_only, empty_queue, &queue) != 0 ||
        vrd_ipc_on_request(ready, answer_ready, &response) != 0 || write(ready_fd, "r", 1) != 1) {
        std::_Exit(2);
    }
    for (;;) {
        cl_event_loop_once();
    }
}

// ---- the requester ----

class requester {
  public:
    requester() : ipc_(vrd_ipc_create_temp("bench_client", 0)) {}
    ~requester() { vrd_ipc_destroy(ipc_); }
    requester(const requester &) = delete;
    requester &operator=(const requester &) = delete;

    // False when the queue was full: the task thread's core is busy with something else.
    bool exchange(const vrd_addr_st *with, unsigned int cmd, const std::string &request,
                  const std::string &expected) {
        answered_ = false;
        const auto size = static_cast<unsigned int>(request.size());
        if (vrd_ipc_make_request(ipc_, with, cmd, request.data(), size, on_reply, this, 60) != 0) {
            fail("vrd_ipc_make_request");
        }
        while (!answered_) {
            cl_event_loop_once();
        }
        static const std::string full = response_of(1);
        if (answer_ != expected && answer_ != full) {
            std::fprintf(stderr, "bench_request: command %u was answered with \"%s\"\n", cmd,
                         answer_.size() > 20 ? answer_.c_str() + 20 : "");
            std::exit(2);
        }
        return answer_ == expected;
    }
    vrd_ipc_st *ipc() const { return ipc_; }

  private:
    static void on_reply(int status, unsigned int, const char *data, unsigned int len,
                         void *context) {
        if (status < 0) {
            std::fprintf(stderr, "bench_request: %s\n", vrd_ipc_strerror(status));
            std::exit(2);
        }
        auto &self = *static_cast<requester *>(context);
        self.answer_.assign(data, len);
        self.answered_ = true;
    }

    vrd_ipc_st *ipc_;
    bool answered_ = false;
    std::string answer_;
};

// One of the three ways to be answered, with its times so far.
struct way {
    const vrd_addr_st *peer;
    bool wants_emptying;
    std::vector<double> times;
};

void measure_round(requester &by, way &to, unsigned int cmd, const std::string &request,
                   const std::string &expected, const std::string &level) {
    for (int counted = -warm_up; counted < exchanges_in_round;) {
        if (to.wants_emptying && counted % exchanges_until_empty == 0) {
            vrd_ipc_send(by.ipc(), to.peer, cmd_empty, level.data(),
                         static_cast<unsigned int>(level.size()));
        }
        const double begin = now_us();
        if (!by.exchange(to.peer, cmd, request, expected)) {
            usleep(1000);  // what is queued runs meanwhile
            continue;
        }
        if (counted++ >= 0) {
            to.times.push_back(now_us() - begin);
        }
    }
}

double percentile(std::vector<double> &times, double share) {
    const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(times.size() - 1));
    std::nth_element(times.begin(), times.begin() + at, times.end());
    return times[static_cast<std::size_t>(at)];
}

// The peers of the three ways.
struct peers {
    const vrd_addr_st *ready;
    const vrd_addr_st *queue;
    const vrd_addr_st *plugin;
};

// The median that handling adds.
double measure_kind(requester &by, const peers &to, const kind &what, const std::string &level) {
    const std::string request = request_of(what);
    const std::string response = response_of(what.code);
    way ready{to.ready, false, {}};
    way queue{to.queue, true, {}};
    way plugin{to.plugin, false, {}};
    for (int i = 0; i < rounds; ++i) {
        measure_round(by, ready, what.cmd, request, response_of(0), level);
        measure_round(by, queue, what.cmd, request, response, level);
        measure_round(by, plugin, what.cmd, request, response, level);
    }
    const double ipc = percentile(ready.times, 0.5);
    const double added = percentile(queue.times, 0.5) - ipc;
    std::printf("%-8s %8.2f %8.2f %9.2f %12.2f    %8.2f %8.2f\n", what.name, ipc,
                percentile(queue.times, 0.5), added, percentile(plugin.times, 0.5) - ipc,
                percentile(ready.times, 0.99), percentile(queue.times, 0.99));
    std::fflush(stdout);
    return added;
}

bool measure_level(requester &by, const peers &to, const char *level) {
    std::printf("log level %s: times in us of a request of %zu bytes and its response\n", level,
                body_size);
    std::printf("%-8s %8s %8s %9s %12s    %8s %8s\n", "request", "ipc", "plug-in", "handling",
                "and wake-up", "ipc p99", "p99");
    bool within = true;
    for (const kind &each : kinds) {
        const double added = measure_kind(by, to, each, level);
        within = within && (added <= limit_us || each.code != 0);
    }
    return within;
}

bool measure() {
    requester by;
    vrd_addr_st *const ready = vrd_addr_create(ready_name, 0, 0);
    vrd_addr_st *const queue = vrd_addr_create(queue_name, 0, 0);
    vrd_addr_st *const plugin = vrd_addr_create(plugin_name, 0, 0);
    // A valid request logs nothing at level 2, and five lines and more at level 3.
    const bool within = measure_level(by, {ready, queue, plugin}, "2");
    measure_level(by, {ready, queue, plugin}, "3");
    for (vrd_addr_st *each : {ready, queue, plugin}) {
        vrd_addr_destroy(each);
    }
    std::printf("limit of what handling a valid request adds, log calls apart: %.0f us: %s\n",
                limit_us, within ? "kept" : "EXCEEDED");
    return within;
}

std::string make_tree() {
    std::string path = std::filesystem::temp_directory_path() / "bench_request.XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        fail("mkdtemp");
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

int main(int argc, char **argv) {
    const bool check = argc == 2 && std::strcmp(argv[1], "--check") == 0;
    if (argc > 1 && !check) {
        std::fprintf(stderr, "usage: bench_request [--check]\n");
        return 2;
    }
    const std::string tree = make_tree();
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) {
        fail("pipe2");
    }
    const pid_t server = fork();
    if (server < 0) {
        fail("fork");
    }
    if (server == 0) {
        serve(ready[1]);
    }
    close(ready[1]);
    char byte;
    bool within = false;
    if (read(ready[0], &byte, 1) == 1) {
        stay_on(true);
        cl_ev_loop_nowait(0);
        within = measure();
    } else {
        std::fprintf(stderr, "bench_request: the endpoints' process failed\n");
    }
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
    std::filesystem::remove_all(tree);
    return check && !within ? 1 : 0;
}
