#include "credible_fuzz.h"

#include <google/protobuf/stubs/logging.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "config/kzemm_config.h"
#include "datapath/kzemm_dispose.h"
#include "datapath/kzemm_gateway.h"
#include "tests/support/wire_bytes.h"
#include "vrdbase.h"
#include "vrdipc.h"

struct kzemm_config_inspector {
    static void set(bool web, bool phishing) {
        kzemm_config &config = kzemm_config::get_instance();
        config.dispose_web_switch = web;
        config.dispose_phishing_switch = phishing;
    }
};

struct vrd_ipc_st {};
struct vrd_addr_st {};

namespace {

constexpr uint32_t greatest_payload = 0xA00000;
constexpr uint64_t most_processes = 100000;
constexpr unsigned int most_tries = 4;

struct request {
    std::string frame;
    vrd_ipc_reply_cb callback;
    void *context;
};

std::vector<std::pair<int, std::string>> s_lines;
std::vector<std::string> s_sent_up;
std::vector<request> s_requests;
vrd_ipc_st s_ipc;
vrd_addr_st s_addr;

void require(bool good, const char *rule) {
    if (good) {
        return;
    }
    fprintf(stderr, "broken: %s\n", rule);
    for (const auto &[level, text] : s_lines) {
        fprintf(stderr, "  line %d: %s\n", level, text.c_str());
    }
    abort();
}

void require_last_line(int level, const std::string &text) {
    require(!s_lines.empty() && s_lines.back() == std::make_pair(level, text),
            ("the last line is: " + text).c_str());
}

bool is_frame(const std::string &frame) {
    if (frame.size() < wire::header_size || frame.size() - wire::header_size > greatest_payload) {
        return false;
    }
    const auto size = static_cast<uint32_t>(frame.size() - wire::header_size);
    return frame.compare(0, 4, "3200") == 0 &&
           frame.compare(8, 2, wire::integer(1, 2, false)) == 0 &&
           frame.compare(16, 4, wire::integer(size, 4, false)) == 0;
}

// What should become of an event, and the line that tells of a refusal.
struct expectation {
    event_fate fate;
    const char *line;
    kzav_trace_info info;
};

expectation expected(const std::string &frame, const event_setting &setting) {
    expectation result = {event_fate::refused, "qd_engine_sub_credible data is null", {}};
    if (frame.empty()) {
        return result;
    }
    result.line = "credible(auto dispose) subscription data invalid";
    if (!is_frame(frame)) {
        return result;
    }
    result.line = "parse qd_engine_sub_credible data to proto failed";
    if (!result.info.ParseFromString(wire::payload(frame))) {
        return result;
    }
    result.line = "data for auto dispose is invalid";
    const int scene = result.info.credible_event().rule().scene();
    if (result.info.cmd() != 9 || scene == 0) {
        return result;
    }
    if ((scene != 1 || !setting.web) && (scene != 2 || !setting.phishing)) {
        result.fate = event_fate::unmarked;
        return result;
    }
    const bool empty = result.info.credible_event().rule().match_action().empty();
    result.fate = empty ? event_fate::undisposed : event_fate::disposed;
    return result;
}

// The frame of a payload under a copy of this header.
std::string framed_like(const std::string &header, const std::string &payload, bool net_order) {
    return header.substr(0, 8) + wire::integer(1, 2, net_order) + header.substr(10, 6) +
           wire::integer(static_cast<uint32_t>(payload.size()), 4, net_order) + payload;
}

// The request as it should be, made with the identifiers of tasks of the one that was sent.
std::string request_for(const kzav_trace_info &info,
                        const kzerespdsppl_re::kze_respdsp_icdt_req &sent) {
    std::string text = wire::plain_bytes(1, info.agent_id());
    std::set<std::string> tasks;
    int position = 0;
    for (const auto &action : info.credible_event().rule().match_action()) {
        const std::string task = sent.alert_info(position++).task_id();
        require(task.size() == 32 && task.find_first_not_of("0123456789ABCDEF") == task.npos,
                "a task has an identifier");
        require(tasks.insert(task).second, "a task has its own identifier");
        std::string alert = wire::plain_bytes(1, action.alert_id()) + wire::bytes(2, task);
        for (const uint64_t node : action.alert_node_id()) {
            for (const auto &each : action.process_list()) {
                if (each.node_id() == node) {
                    const auto created = static_cast<uint64_t>(each.process_createtime());
                    alert += wire::bytes(3, wire::plain_number(1, each.process_id()) +
                                                wire::plain_number(2, created) +
                                                wire::plain_bytes(3, each.process_path()) +
                                                wire::plain_bytes(4, each.process_md5()));
                }
            }
        }
        text +=
            wire::bytes(2, alert + wire::number(4, 1) + wire::number(5, 5) + wire::number(9, 1));
    }
    return text;
}

void require_request(const std::string &header, const kzav_trace_info &info) {
    require(s_requests.size() == 1, "one request is made");
    const std::string &frame = s_requests[0].frame;
    kzerespdsppl_re::kze_respdsp_icdt_req sent;
    require(sent.ParseFromString(wire::payload(frame)), "the request is a message");
    require(sent.alert_info_size() == info.credible_event().rule().match_action_size(),
            "each action has its entry");
    require(frame == framed_like(header, request_for(info, sent), true), "the request is exact");
    require_last_line(3,
                      "send auto dispose task to rpdsp, data len: " + std::to_string(frame.size()));
}

// Ends the tries as the setting says; the last of them releases what belongs to the request.
void answer(const event_setting &setting) {
    const unsigned int failing = std::min(setting.failing_tries, most_tries);
    for (unsigned int i = 0; i < failing; ++i) {
        require(s_requests.size() == i + 1, "a failing try is repeated");
        const request last = s_requests.back();
        last.callback(-1, 10001, nullptr, 0, last.context);
    }
    if (failing == most_tries) {
        require_last_line(2, "auto dispose task to rpdsp failed by 3 times, stop retry");
    } else {
        require(s_requests.size() == failing + 1, "there is a try to answer");
        const request last = s_requests.back();
        last.callback(setting.last_status, 10001, "reply", 5, last.context);
        require_last_line(
            3, "auto dispose task to rpdsp success, retry time: " + std::to_string(failing));
    }
    for (const request &each : s_requests) {
        require(each.frame == s_requests[0].frame && each.context == s_requests[0].context,
                "all tries are the same");
    }
}

uint64_t named_processes(const std::string &payload) {
    kzav_trace_info info;
    uint64_t sum = 0;
    if (info.ParseFromString(payload)) {
        for (const auto &action : info.credible_event().rule().match_action()) {
            sum += static_cast<uint64_t>(action.alert_node_id_size()) *
                   static_cast<uint64_t>(action.process_list_size());
        }
    }
    return sum;
}

}  // namespace

int error_output_check(int) {
    return 1;
}

void error_output(int level, const char *, int, const char *format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    s_lines.emplace_back(level, text);
}

const char *vrd_ipc_strerror(int) {
    return "no";
}

int vrd_ipc_make_request(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int cmd,
                         const char *data, unsigned int size, vrd_ipc_reply_cb callback,
                         void *context, unsigned int time_limit) {
    require(ipc == &s_ipc && addr == &s_addr, "a request has its endpoint and its address");
    require(cmd == 10001 && time_limit == 15, "a request has its command and its limit");
    s_requests.push_back({std::string(data, size), callback, context});
    return 0;
}

int send_data_via_gw(KZEMM_DATA_TYPE type, char *data, unsigned int len) {
    require(type == KZEMM_DATA_CREDIBLE, "events go up as such");
    s_sent_up.emplace_back(data, len);
    return -1;
}

event_fate run_event(const std::string &frame, const event_setting &setting) {
    google::protobuf::SetLogHandler(nullptr);  // it would tell of every bad text
    s_lines.clear();
    s_sent_up.clear();
    s_requests.clear();
    kzemm_config_inspector::set(setting.web, setting.phishing);
    const expectation expects = expected(frame, setting);

    // From memory of its own, so that a read beyond it is seen.
    const auto bytes = std::make_unique<char[]>(frame.size());
    memcpy(bytes.get(), frame.data(), frame.size());
    const bool result =
        do_auto_dispose(bytes.get(), static_cast<unsigned int>(frame.size()), &s_ipc, &s_addr);
    require(memcmp(bytes.get(), frame.data(), frame.size()) == 0, "the event is only read");
    require(s_sent_up.size() == (expects.fate == event_fate::refused ? 0 : 1),
            "an event goes up once or not at all");
    require(s_requests.empty() == (expects.fate != event_fate::disposed),
            "a request is made of an event with actions");
    require(
        result == (expects.fate == event_fate::unmarked || expects.fate == event_fate::disposed),
        "the result tells what was done");
    if (expects.fate == event_fate::refused) {
        require_last_line(2, expects.line);
        return expects.fate;
    }
    if (expects.fate == event_fate::unmarked) {
        require_last_line(3, "credible scene dispose is disabled.");
        require(s_sent_up[0] == frame, "what isn't disposed of goes up as it came");
        return expects.fate;
    }
    kzav_trace_info marked = expects.info;
    marked.mutable_credible_event()->set_disposal_state(kzav_trace::DISPOSAL_STATE_AUTO_DISPOSING);
    require(s_sent_up[0] == framed_like(frame, marked.SerializeAsString(), false),
            "the mark is all that differs");
    if (expects.fate == event_fate::undisposed) {
        require_last_line(1, "send_event_to_autodsp failed");
        return expects.fate;
    }
    require_request(frame, expects.info);
    answer(setting);
    return expects.fate;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const unsigned int first = data[0];
    const event_setting setting = {(first & 1) != 0, (first & 2) != 0, first >> 3 & 7,
                                   (first & 0x40) != 0 ? 1 : 0};
    std::string frame(reinterpret_cast<const char *>(data) + 1, size - 1);
    if ((first & 4) != 0) {
        frame = wire::frame(frame);
    }
    if (named_processes(wire::payload(frame)) <= most_processes) {
        run_event(frame, setting);
    }
    return 0;
}
