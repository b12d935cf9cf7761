#include "agent/ctl/views/credible_record.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <cstdint>
#include <set>
#include <utility>
#include <vector>

#include "trace.pb.h"

namespace kze::ctl {
namespace {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedInputStream;
using kzav_trace::event_action;
using kzav_trace::kzav_credible_event;
using kzav_trace::kzav_event_rule;
using kzav_trace::kzav_trace_info;
using kzav_trace::process_vertex;
using kzav_trace::threat_alert;
using nlohmann::json;

/* The fields of a message that its schema knows: 1 to the highest. Constant. */
struct known_fields {
    int highest;
    std::vector<std::pair<int, const known_fields *>> messages; /* those that are looked into */
};

const known_fields known_process{process_vertex::kSshLoginIpFieldNumber, {}};
const known_fields known_alert{threat_alert::kRuleFieldNumber, {}};
const known_fields known_action{event_action::kOpTimeFieldNumber,
                                {{event_action::kProcessListFieldNumber, &known_process}}};
const known_fields known_rule{kzav_event_rule::kMatchActionFieldNumber,
                              {{kzav_event_rule::kMatchActionFieldNumber, &known_action}}};
const known_fields known_event{kzav_credible_event::kDisposalStateFieldNumber,
                               {{kzav_credible_event::kAlertFieldNumber, &known_alert},
                                {kzav_credible_event::kRuleFieldNumber, &known_rule}}};
const known_fields known_info{kzav_trace_info::kAvscanEventFieldNumber,
                              {{kzav_trace_info::kCredibleEventFieldNumber, &known_event}}};

const known_fields *find_message(const known_fields &known, int number) {
    for (const auto &[of, message] : known.messages) {
        if (of == number) {
            return message;
        }
    }
    return nullptr;
}

/* The bytes of fields that the schema doesn't know; of a message that was parsed before, for the
 * library for small programs doesn't tell. */
std::size_t unknown_bytes(std::string_view bytes, const known_fields &known) {
    CodedInputStream input(reinterpret_cast<const std::uint8_t *>(bytes.data()),
                           static_cast<int>(bytes.size()));
    std::size_t unknown = 0;
    for (;;) {
        const int begin = input.CurrentPosition();
        const std::uint32_t tag = input.ReadTag();
        if (tag == 0) {
            return unknown;
        }
        const int number = WireFormatLite::GetTagFieldNumber(tag);
        const known_fields *message = find_message(known, number);
        std::uint32_t length = 0;
        if (message != nullptr &&
            WireFormatLite::GetTagWireType(tag) == WireFormatLite::WIRETYPE_LENGTH_DELIMITED) {
            input.ReadVarint32(&length);
            const auto at = static_cast<std::size_t>(input.CurrentPosition());
            unknown += unknown_bytes(bytes.substr(at, length), *message);
            input.Skip(static_cast<int>(length));
        } else if (!WireFormatLite::SkipField(&input, tag)) {
            return unknown;
        }
        if (number > known.highest) {
            unknown += static_cast<std::size_t>(input.CurrentPosition() - begin);
        }
    }
}

std::string name_or_number(const std::string &name, int number) {
    return name.empty() ? std::to_string(number) : name;
}

json process_json(const process_vertex &process, const std::set<std::uint64_t> &named) {
    return {{"node_id", process.node_id()},
            {"alert", named.count(process.node_id()) != 0},
            {"pid", process.process_id()},
            {"create_time", process.process_createtime()},
            {"path", process.process_path()},
            {"md5", process.process_md5()},
            {"command_line", process.process_commandline()},
            {"user", process.process_user()}};
}

json action_json(const event_action &action) {
    json nodes = json::array();
    std::set<std::uint64_t> named;
    for (const std::uint64_t node : action.alert_node_id()) {
        nodes.push_back(node);
        named.insert(node);
    }
    json processes = json::array();
    for (const process_vertex &process : action.process_list()) {
        processes.push_back(process_json(process, named));
    }
    return {{"alert_id", action.alert_id()},
            {"op_time", action.op_time()},
            {"alert_nodes", std::move(nodes)},
            {"processes", std::move(processes)}};
}

json alert_json(const threat_alert &alert) {
    return {{"guid", alert.alert_guid()},
            {"name", alert.alert_name()},
            {"risk_level", static_cast<int>(alert.risk_level())},
            {"risk_level_name", name_or_number(kzav_trace::KZAV_RISK_LEVEL_Name(alert.risk_level()),
                                               alert.risk_level())}};
}

void add_rule(const kzav_event_rule &rule, json &event) {
    event["scene"] = static_cast<int>(rule.scene());
    event["scene_name"] =
        name_or_number(kzav_trace::KZAV_EVENT_SCENE_Name(rule.scene()), rule.scene());
    event["rule"] = {{"id", rule.rule_id()}, {"name", rule.rule_name()}};
    event["actions"] = json::array();
    for (const event_action &action : rule.match_action()) {
        event["actions"].push_back(action_json(action));
    }
}

void add_event(const kzav_credible_event &from, json &event) {
    event["disposal_state"] = static_cast<int>(from.disposal_state());
    event["disposal_state_name"] = name_or_number(
        kzav_trace::KZAV_DISPOSAL_STATE_Name(from.disposal_state()), from.disposal_state());
    event["match_process"] = from.match_process();
    event["detect_time"] = from.detect_time();
    event["alerts"] = json::array();
    for (const threat_alert &alert : from.alert()) {
        event["alerts"].push_back(alert_json(alert));
    }
    add_rule(from.rule(), event);
}

std::string counted(std::size_t count, const std::string &one, const std::string &many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::size_t process_count(const json &event) {
    std::size_t count = 0;
    for (const json &action : event["actions"]) {
        count += action["processes"].size();
    }
    return count;
}

std::string text_of(const json &object, const char *member) {
    return printable(object[member].get<std::string>());
}

}  // namespace

std::optional<json> read_credible(std::string_view body) {
    kzav_trace_info info;
    if (!info.ParseFromArray(body.data(), static_cast<int>(body.size()))) {
        return std::nullopt;
    }
    json event = {{"agent_id", info.agent_id()},
                  {"cmd", static_cast<int>(info.cmd())},
                  {"cmd_name", name_or_number(kzav_trace::TRACE_CMD_Name(info.cmd()), info.cmd())}};
    add_event(info.credible_event(), event);
    event["unknown_bytes"] = unknown_bytes(body, known_info);
    return event;
}

std::string credible_text(const json &event) {
    return text_of(event, "disposal_state_name") + ", " + text_of(event, "scene_name") + ", " +
           counted(event["actions"].size(), "action", "actions") + ", " +
           counted(process_count(event), "process", "processes");
}

void add_credible_rows(const json &event, table &head) {
    head.add({{"Agent", look::faint}, {text_of(event, "agent_id")}});
    head.add({{"Command", look::faint}, {text_of(event, "cmd_name")}});
    head.add({{"Scene", look::faint}, {text_of(event, "scene_name")}});
    head.add({{"Disposal", look::faint}, {text_of(event, "disposal_state_name"), look::accent}});
    head.add({{"Rule", look::faint},
              {text_of(event["rule"], "id") + ", " + text_of(event["rule"], "name")}});
    for (const json &alert : event["alerts"]) {
        head.add({{"Alert", look::faint},
                  {text_of(alert, "guid") + ", " + text_of(alert, "name") + ", " +
                   text_of(alert, "risk_level_name")}});
    }
    head.add({{"Unknown", look::faint},
              {counted(event["unknown_bytes"], "byte", "bytes") +
               " of fields that the schema doesn't know"}});
}

void print_credible_actions(const json &event, const output &out) {
    for (const json &action : event["actions"]) {
        out.line("Action of alert " + text_of(action, "alert_id") + ", " +
                 counted(action["processes"].size(), "process", "processes"));
        table rows;
        rows.add_heads({"NODE", "PID", "CREATED", "PART", "MD5", "PATH", "COMMAND LINE"});
        for (const json &process : action["processes"]) {
            const bool alert = process["alert"];
            rows.add({{process["node_id"].dump(), look::faint},
                      {process["pid"].dump(), look::strong},
                      {process["create_time"].dump(), look::faint},
                      {alert ? "alert" : "context", alert ? look::warning : look::faint},
                      {text_of(process, "md5"), look::faint},
                      {text_of(process, "path")},
                      {text_of(process, "command_line")}});
        }
        rows.print(out, 2);
    }
}

}  // namespace kze::ctl
