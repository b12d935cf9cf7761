#include "agent/ctl/core/credible_event.h"

#include <pwd.h>
#include <sys/stat.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <array>
#include <chrono>

#include "agent/common/byte_text.h"
#include "agent/common/md5.h"
#include "agent/common/module_frame.h"
#include "agent/common/process_files.h"
#include "agent/ctl/core/failure.h"
#include "trace.pb.h"
#include "vrdbase.h"

namespace kze::ctl {
namespace {

using kzav_trace::event_action;
using kzav_trace::kzav_credible_event;
using kzav_trace::kzav_event_rule;
using kzav_trace::kzav_trace_info;
using kzav_trace::process_vertex;

constexpr std::size_t command_line_limit = 32 * 1024;

std::string new_uuid() {
    uuid_t bytes;
    uuid_generate_random(bytes);
    std::array<char, UUID_STR_LEN> text;
    uuid_unparse_lower(bytes, text.data());
    return text.data();
}

std::int64_t now_ms() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

/* Merges fields that no schema of today has: a number, and a text that can be looked for. */
void add_unknown_fields(google::protobuf::MessageLite &to) {
    constexpr char text[] = "a field of tomorrow";
    std::string fields(
        "\xC0\x3E\x2A" /* field 1000, a varint: 42 */
        "\xCA\x3E",
        5); /* field 1001, a text */
    fields.push_back(static_cast<char>(sizeof(text) - 1));
    to.MergeFromString(fields + text);
}

std::string text_of(const std::string &bytes) {
    bool escaped = false;
    return text_of_bytes(bytes, escaped);
}

std::string command_line_of(int directory) {
    std::string bytes = read_file_at(directory, "cmdline", command_line_limit).value_or("");
    while (!bytes.empty() && bytes.back() == '\0') {
        bytes.pop_back();
    }
    std::replace(bytes.begin(), bytes.end(), '\0', ' ');
    return text_of(bytes);
}

std::string user_of(int directory) {
    struct stat info {};
    std::vector<char> buffer(16 * 1024);
    passwd entry{};
    passwd *found = nullptr;
    const bool known = ::fstat(directory, &info) == 0 &&
                       ::getpwuid_r(info.st_uid, &entry, buffer.data(), buffer.size(), &found) == 0;
    return known && found != nullptr ? text_of(found->pw_name) : std::string();
}

/* Fills a vertex from the live process and gives its parent's id; -1 when it isn't there. */
std::int64_t fill_process(std::uint64_t pid, process_vertex &vertex) {
    const descriptor directory = open_process(pid);
    const auto stat = directory.valid() ? read_process_stat(directory.get()) : std::nullopt;
    if (!stat || stat->state == 'Z') {
        return -1;
    }
    const descriptor executable = open_executable(directory.get());
    vertex.set_process_id(pid);
    vertex.set_process_guid(new_uuid());
    vertex.set_process_path(text_of(read_executable_path(directory.get()).bytes));
    vertex.set_process_commandline(command_line_of(directory.get()));
    vertex.set_process_user(user_of(directory.get()));
    vertex.set_process_createtime(static_cast<std::int64_t>(stat->start_ticks));
    vertex.set_thread_tid(static_cast<std::int64_t>(pid));
    if (executable.valid()) {
        vertex.set_process_md5(md5_of_descriptor(executable.get()).value_or(""));
    }
    add_unknown_fields(vertex);
    return stat->ppid;
}

/* Adds the process, which is to be disposed of, and its parent, which is there to be seen. */
void add_process(event_action &action, std::uint64_t pid, bool reused, std::uint64_t &node) {
    process_vertex &process = *action.add_process_list();
    process.set_node_id(++node);
    const std::int64_t parent = fill_process(pid, process);
    if (parent < 0) {
        throw failure(exit_not_there, "there is no process " + std::to_string(pid));
    }
    if (reused) {
        process.set_process_createtime(std::max<std::int64_t>(1, process.process_createtime() - 1));
    }
    action.add_alert_node_id(node);
    process_vertex started_by;
    if (parent > 0 && fill_process(static_cast<std::uint64_t>(parent), started_by) >= 0) {
        started_by.set_node_id(++node);
        auto &edge = *action.add_edge_list();
        edge.set_edge_id(node);
        edge.set_table_index_begin(node);
        edge.set_table_index_end(node - 1);
        edge.set_time(action.op_time());
        edge.set_type(kzav_trace::KZAV_TRACE_PROCESS);
        *action.add_process_list() = started_by;
    }
}

void fill_rule(const credible_options &options, kzav_event_rule &rule) {
    rule.set_rule_id("CE-1001");
    rule.set_internal_id("1001");
    rule.set_rule_name("a process that a web server has no reason to start");
    rule.set_rule_desc("raised by hand for the processes named on the command line");
    rule.set_match_type(kzav_trace::PROC_TYPE_WEB);
    rule.set_scene(static_cast<kzav_trace::KZAV_EVENT_SCENE>(options.scene));
    rule.set_version("1");
    for (unsigned int i = 0; i < options.actions; ++i) {
        event_action &action = *rule.add_match_action();
        action.set_alert_id("alert-" + std::to_string(i + 1));
        action.set_op_time(now_ms());
    }
    std::uint64_t node = 0;
    for (std::size_t i = 0; i < options.pids.size(); ++i) {
        const int action = static_cast<int>(i % options.actions);
        add_process(*rule.mutable_match_action(action), options.pids[i], options.reused, node);
    }
}

void fill_event(const credible_options &options, kzav_credible_event &event) {
    fill_rule(options, *event.mutable_rule());
    event.set_event_score(90);
    event.set_dispose_score(80);
    event.set_detect_time(now_ms());
    event.set_engine_ver("1.0");
    event.set_engine_rule_ver("1");
    event.set_disposal_state(kzav_trace::DISPOSAL_STATE_UNHANDLED);
    const auto &actions = event.rule().match_action();
    if (!actions.empty() && !actions[0].process_list().empty()) {
        event.set_match_process(actions[0].process_list(0).process_path());
    }
    for (const event_action &action : actions) {
        auto &alert = *event.add_alert();
        alert.set_alert_guid(action.alert_id());
        alert.set_alert_name("unexpected process");
        alert.set_risk_level(kzav_trace::KZAV_RISK_LEVEL_HIGH);
        alert.set_alert_new_time(action.op_time());
        alert.set_alert_count(1);
    }
    add_unknown_fields(event);
}

void spoil_event(const std::string &defect, kzav_trace_info &info) {
    if (defect == "cmd") {
        info.set_cmd(kzav_trace::TRACE_CMD_THREAT_DETECT);
    } else if (defect == "no-rule") {
        info.mutable_credible_event()->clear_rule();
    } else if (defect == "no-scene") {
        info.mutable_credible_event()->mutable_rule()->set_scene(kzav_trace::EVENT_UNKNOW);
    } else if (defect == "no-action") {
        info.mutable_credible_event()->mutable_rule()->clear_match_action();
    }
}

void spoil_frame(const std::string &defect, std::string &frame) {
    if (defect == "version") {
        frame[0] = '9';
    } else if (defect == "length") {
        frame.pop_back();
    } else if (defect == "empty") {
        frame.resize(module_header_size - 1);
    }
}

}  // namespace

const std::vector<std::string> credible_defects = {"version", "length",  "empty",    "body",
                                                   "cmd",     "no-rule", "no-scene", "no-action"};

std::string credible_frame(const credible_options &options) {
    kzav_trace_info info;
    info.set_agent_id(std::to_string(vrd_get_hostid()));
    info.set_task_id(new_uuid());
    info.set_cmd(kzav_trace::TRACE_CMD_CREDIBLE_EVENT);
    fill_event(options, *info.mutable_credible_event());
    add_unknown_fields(info);
    spoil_event(options.malformed, info);
    std::string body = info.SerializeAsString();
    if (options.malformed == "body") {
        body.resize(body.size() / 2);
    }
    std::string frame = module_frame(body, module_request, byte_order::little_endian);
    spoil_frame(options.malformed, frame);
    return frame;
}

}  // namespace kze::ctl
