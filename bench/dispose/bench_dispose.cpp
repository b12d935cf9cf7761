// A credible event from its delivery to both sends, against the plain way of doing it: a message on
// the heap, two serializations to strings, two framed copies, processes searched one by one.
//
// Both ways get the same event in one run. What counts are blocks of calls of the same way, of
// which the first are not counted: each way then works with the memory that it left itself, and
// the engine's buffer, which is neither's cost, stays the same. The last column has the two in
// turn, from the engine's callback to its return, each with a new buffer that it gives back: there
// each also tidies up what the other left in the allocator. Beside them stands the bare cost of one
// parsing and one serialization. Building the order is measured alone as well.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/kept_memory.h"
#include "config/kzemm_config.h"
#include "datapath/kzemm_dispose.h"
#include "engine/kzemm_loader.h"
#include "new/kzerespdsppl_re.pb.h"
#include "plugin/kzemm_work.h"
#include "vrdbase.h"

struct kzemm_work_inspector : kzemm_work {
    using kzemm_work::qd_eng_sub_credible_cb;
};

struct kzemm_config_inspector {
    static void turn_dispose_on() { kzemm_config::get_instance().dispose_web_switch = true; }
};

namespace {

auto_dispose_ipc_ctx *s_sent = nullptr;

}  // namespace

// In place of the IPC layer's: the request is taken at no cost, and answered after the measurement.
int vrd_ipc_make_request(vrd_ipc_st *, const vrd_addr_st *, unsigned int, const char *,
                         unsigned int, vrd_ipc_reply_cb, void *context, unsigned int) {
    s_sent = static_cast<auto_dispose_ipc_ctx *>(context);
    return 0;
}

namespace {

using kzav_trace::event_action;
using kzav_trace::process_vertex;
using kzerespdsppl_re::kze_respdsp_alert_info;
using kzerespdsppl_re::kze_respdsp_icdt_req;

constexpr size_t header_size = sizeof(_module_header);

double now_us() {
    return std::chrono::duration<double, std::micro>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

template <typename call>
double cost_of(const call &run) {
    const double begun = now_us();
    run();
    return now_us() - begun;
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

std::string hex(unsigned long long number, int digits) {
    char text[65];
    snprintf(text, sizeof(text), "%0*llx", digits, number * 0x9E3779B97F4A7C15ULL);
    return std::string(text).substr(0, static_cast<size_t>(digits));
}

void fill_process(process_vertex &process, unsigned int number) {
    process.set_node_id(1000 + number);
    process.set_process_id(2000 + number);
    process.set_process_guid(hex(number, 16) + hex(number + 1, 16));
    process.set_process_path("/usr/lib/application-" + std::to_string(number % 97) + "/bin/worker");
    process.set_process_md5(hex(number, 16) + hex(number + 7, 16));
    process.set_process_currentdir("/var/lib/application-" + std::to_string(number % 97));
    process.set_process_commandline(process.process_path() +
                                    " --config /etc/application.conf --instance " +
                                    std::to_string(number));
    process.set_process_user("www-data");
    process.set_process_createtime(1795235523000LL + number);
    process.set_thread_tid(2000 + number);
    process.set_login_name("root");
}

// The event's frame: `alerts` actions, which share the processes, each naming ten of its own.
std::string make_frame(unsigned int processes, unsigned int alerts) {
    kzav_trace_info info;
    info.set_agent_id("7d0c1f0a9e5b4a53b7d5c0ffee123456");
    info.set_cmd(kzav_trace::TRACE_CMD_CREDIBLE_EVENT);
    auto *const rule = info.mutable_credible_event()->mutable_rule();
    rule->set_scene(kzav_trace::EVENT_WEB);
    rule->set_rule_name("a web server starts a shell");
    for (unsigned int each = 0; each < alerts; ++each) {
        event_action *const action = rule->add_match_action();
        action->set_alert_id(hex(each, 16));
        for (unsigned int number = each; number < processes; number += alerts) {
            fill_process(*action->add_process_list(), number);
        }
        const auto own = static_cast<unsigned int>(action->process_list_size());
        for (unsigned int number = 0; number < std::min(own, 10U); ++number) {
            action->add_alert_node_id(
                action->process_list(static_cast<int>(number * own / 10 % own)).node_id());
        }
    }
    std::string frame;
    add_msg_header(info.SerializeAsString().data(), static_cast<uint32_t>(info.ByteSizeLong()),
                   frame, 1, 0);
    return frame;
}

void plain_frame(const std::string &payload, const char *header) {
    const malloc_ptr frame(static_cast<char *>(malloc(header_size + payload.size())));
    memcpy(frame.get(), header, header_size);
    memcpy(frame.get() + header_size, payload.data(), payload.size());
    asm volatile("" : : "r"(frame.get()) : "memory");
}

void plain_matches(kze_respdsp_alert_info &alert, const event_action &action) {
    for (const uint64_t wanted : action.alert_node_id()) {
        for (const process_vertex &process : action.process_list()) {
            if (process.node_id() == wanted) {
                auto *const found = alert.add_proc_info();
                found->set_pid(process.process_id());
                found->set_create_time(static_cast<uint64_t>(process.process_createtime()));
                found->set_process_path(process.process_path());
                found->set_md5(process.process_md5());
            }
        }
    }
}

void parse_and_serialize(const std::string &delivered) {
    kzav_trace_info info;
    std::string event;
    if (!info.ParseFromArray(delivered.data() + header_size,
                             static_cast<int>(delivered.size() - header_size)) ||
        !info.SerializeToString(&event)) {
        abort();
    }
}

std::string plain_order(const kzav_trace_info &info) {
    kze_respdsp_icdt_req request;
    request.set_agent_id(info.agent_id());
    for (const event_action &action : info.credible_event().rule().match_action()) {
        auto *const alert = request.add_alert_info();
        alert->set_alert_id(action.alert_id());
        alert->set_task_id(gen_uuid());
        alert->set_type(kzerespdsppl_re::DSP_TYPE_DISPOSE);
        alert->set_source(kzerespdsppl_re::DSP_SOURCE_AGENT);
        alert->set_task_type(kzerespdsppl_re::DSP_TASK_TYPE_AUTO);
        plain_matches(*alert, action);
    }
    std::string order;
    request.SerializeToString(&order);
    return order;
}

void plain_way(char *data, unsigned int len) {
    kzav_trace_info info;
    if (!info.ParseFromArray(data + header_size, static_cast<int>(len - header_size))) {
        abort();
    }
    info.mutable_credible_event()->set_disposal_state(kzav_trace::DISPOSAL_STATE_AUTO_DISPOSING);
    std::string event;
    info.SerializeToString(&event);
    plain_frame(event, data);
    const std::string order = plain_order(info);
    plain_frame(order, data);
}

// The service answers at once.
void end_request() {
    if (s_sent == nullptr) {
        fprintf(stderr, "the event was not handled\n");
        exit(1);
    }
    on_auto_dispose_cb(0, 0, nullptr, 0, s_sent);
    s_sent = nullptr;
}

void own_way(char *data, unsigned int len) {
    do_auto_dispose(data, len, nullptr, nullptr);
    end_request();
}

// The two with the buffer of the engine.
void plain_callback(char *data, unsigned int len) {
    plain_way(data, len);
    free(data);
}

void own_callback(char *data, unsigned int len) {
    static kzemm_work s_work;
    kzemm_work_inspector::qd_eng_sub_credible_cb(data, len, &s_work);
    end_request();
}

struct costs {
    std::vector<double> plain;
    std::vector<double> own;
    std::vector<double>
        ratio;  // of neighbours: a machine that slows down meanwhile changes it little

    void add(double plain_cost, double own_cost) {
        plain.push_back(plain_cost);
        own.push_back(own_cost);
        ratio.push_back(own_cost / plain_cost);
    }
};

// The median of some calls, of which the first few are not counted.
double cost_in_block(void (*way)(char *, unsigned int), std::string &frame) {
    constexpr unsigned int calls = 40;
    constexpr unsigned int not_counted = 8;
    std::vector<double> all;
    for (unsigned int call = 0; call < calls; ++call) {
        const double cost =
            cost_of([&] { way(frame.data(), static_cast<unsigned int>(frame.size())); });
        if (call >= not_counted) {
            all.push_back(cost);
        }
    }
    return median(all);
}

double cost_with_buffer(void (*callback)(char *, unsigned int), const std::string &frame) {
    auto *const data = static_cast<char *>(malloc(frame.size()));
    memcpy(data, frame.data(), frame.size());
    return cost_of([&] { callback(data, static_cast<unsigned int>(frame.size())); });
}

void measure_handling(unsigned int processes, unsigned int alerts) {
    std::string frame = make_frame(processes, alerts);
    const unsigned int blocks = std::max(3U, 20000 / (processes + 100));
    costs blocked;
    for (unsigned int block = 0; block < blocks; ++block) {
        const double plain = cost_in_block(plain_way, frame);
        blocked.add(plain, cost_in_block(own_way, frame));
    }
    costs turned;
    std::vector<double> bare;
    for (unsigned int round = 0; round < blocks * 40; ++round) {
        const double plain = cost_with_buffer(plain_callback, frame);
        turned.add(plain, cost_with_buffer(own_callback, frame));
        bare.push_back(cost_of([&] { parse_and_serialize(frame); }));
    }
    printf("%9u %7u %10zu %10.1f %10.1f %10.1f %7.2f %8.2f\n", processes, alerts, frame.size(),
           median(bare), median(blocked.plain), median(blocked.own), median(blocked.ratio),
           median(turned.ratio));
}

// The order for one action with so many wanted nodes and processes; the nodes are spread over the
// processes.
void measure_order(int nodes, int processes) {
    kzav_trace_info info;
    auto *const rule = info.mutable_credible_event()->mutable_rule();
    event_action *const action = rule->add_match_action();
    for (int number = 0; number < processes; ++number) {
        fill_process(*action->add_process_list(), static_cast<unsigned int>(number));
    }
    for (int number = 0; number < nodes; ++number) {
        action->add_alert_node_id(action->process_list(number * (processes / nodes)).node_id());
    }
    const int rounds = nodes * processes > 100000 ? 40 : 4000;
    costs all;
    for (int round = 0; round < rounds; ++round) {
        std::string by_loop;
        std::string by_index;
        const double plain = cost_of([&] { by_loop = plain_order(info); });
        all.add(plain, cost_of([&] { build_auto_dispose_pbdata(info, by_index); }));
        if (by_loop.empty() || by_loop.size() != by_index.size()) {
            fprintf(stderr, "the two ways differ\n");
            exit(1);
        }
    }
    printf("%9d %9d %10.2f %10.2f %7.3f\n", nodes, processes, median(all.plain), median(all.own),
           median(all.ratio));
}

}  // namespace

// Usage: bench_dispose [--default-malloc]. Memory is kept as the reference host keeps it, or as the
// C library does by default.
int main(int argc, char **argv) {
    setenv("KZE_AGENT_HOME", BENCH_HOME, 1);
    error_output_set_level(0);
    if (argc < 2 || strcmp(argv[1], "--default-malloc") != 0) {
        keep_freed_memory();
    }
    kzemm_config_inspector::turn_dispose_on();
    if (kzemm_loader::get_instance().init() != 0) {
        fprintf(stderr, "the stub libraries are not in " BENCH_HOME "/..\n");
        return 1;
    }
    printf("Credible events: handling against the plain way, medians\n");
    printf("%9s %7s %10s %10s %10s %10s %7s %8s\n", "processes", "alerts", "bytes", "bare us",
           "plain us", "own us", "ratio", "in turn");
    for (const unsigned int processes : {10U, 100U, 1000U, 10000U}) {
        for (const unsigned int alerts : {1U, 10U}) {
            measure_handling(processes, alerts);
        }
    }
    printf("\nOrders: wanted nodes against processes, medians\n");
    printf("%9s %9s %10s %10s %7s\n", "nodes", "processes", "plain us", "own us", "ratio");
    measure_order(10, 10);
    measure_order(10, 1000);
    measure_order(100, 1000);
    measure_order(1000, 10000);
    kzemm_loader::get_instance().uninit();
    return 0;
}
