// The two schemas as they are declared: names, numbers, types, labels and the order of all of them.

#include <gmock/gmock.h>
#include <google/protobuf/descriptor.pb.h>

#include <fstream>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using google::protobuf::DescriptorProto;
using google::protobuf::FieldDescriptorProto;
using google::protobuf::FileDescriptorProto;

FileDescriptorProto schema(const std::string &name) {
    google::protobuf::FileDescriptorSet set;
    std::ifstream file(KZE_SCHEMAS, std::ios::binary);
    EXPECT_TRUE(set.ParseFromIstream(&file));
    for (const FileDescriptorProto &each : set.file()) {
        if (each.name() == name) {
            return each;
        }
    }
    ADD_FAILURE() << "no schema " << name;
    return {};
}

const FileDescriptorProto &trace() {
    static const FileDescriptorProto file = schema("trace.proto");
    return file;
}

const FileDescriptorProto &dispatch() {
    static const FileDescriptorProto file = schema("new/kzerespdsppl_re.proto");
    return file;
}

template <typename declarations>
std::string names(const declarations &all) {
    std::string text;
    for (const auto &each : all) {
        text += (text.empty() ? "" : " ") + each.name();
    }
    return text;
}

std::string type_of(const FieldDescriptorProto &field) {
    switch (field.type()) {
        case FieldDescriptorProto::TYPE_STRING:
            return "string";
        case FieldDescriptorProto::TYPE_BYTES:
            return "bytes";
        case FieldDescriptorProto::TYPE_FIXED32:
            return "fixed32";
        case FieldDescriptorProto::TYPE_UINT64:
            return "uint64";
        case FieldDescriptorProto::TYPE_INT64:
            return "int64";
        case FieldDescriptorProto::TYPE_UINT32:
            return "uint32";
        case FieldDescriptorProto::TYPE_INT32:
            return "int32";
        case FieldDescriptorProto::TYPE_BOOL:
            return "bool";
        default:
            return field.type_name().substr(field.type_name().rfind('.') + 1);
    }
}

// The fields of a message in the order of their declaration.
std::vector<std::string> fields(const FileDescriptorProto &file, const std::string &message) {
    std::vector<std::string> result;
    for (const DescriptorProto &each : file.message_type()) {
        for (const FieldDescriptorProto &field : each.field()) {
            if (each.name() == message) {
                const bool repeated = field.label() == FieldDescriptorProto::LABEL_REPEATED;
                result.push_back((repeated ? "repeated " : "") + type_of(field) + " " +
                                 field.name() + " " + std::to_string(field.number()));
            }
        }
    }
    return result;
}

std::vector<std::string> values(const FileDescriptorProto &file, const std::string &enumeration) {
    std::vector<std::string> result;
    for (const auto &each : file.enum_type()) {
        for (const auto &value : each.value()) {
            if (each.name() == enumeration) {
                result.push_back(value.name() + " " + std::to_string(value.number()));
            }
        }
    }
    return result;
}

// The field of a message that has this name.
std::string field(const FileDescriptorProto &file, const std::string &message,
                  const std::string &name) {
    for (const std::string &each : fields(file, message)) {
        if (each.find(" " + name + " ") != std::string::npos) {
            return each;
        }
    }
    return "";
}

void expect_plain(const FileDescriptorProto &file, const std::string &package) {
    EXPECT_EQ(file.package(), package);
    EXPECT_EQ(file.syntax(), "proto3");
    EXPECT_THAT(file.dependency(), IsEmpty());
    EXPECT_FALSE(file.has_options());
    EXPECT_EQ(file.service_size(), 0);
    EXPECT_EQ(file.extension_size(), 0);
    for (const DescriptorProto &message : file.message_type()) {
        EXPECT_EQ(message.nested_type_size() + message.enum_type_size(), 0) << message.name();
        EXPECT_EQ(message.reserved_range_size(), 0) << message.name();
        EXPECT_FALSE(message.has_options()) << message.name();
        for (const FieldDescriptorProto &each : message.field()) {
            EXPECT_FALSE(each.has_options() || each.has_default_value() || each.proto3_optional())
                << message.name() << "." << each.name();
        }
    }
}

// ---- the trace schema ----

TEST(trace_schema_test, is_a_plain_file_of_its_package) {
    expect_plain(trace(), "kzav_trace");
    EXPECT_EQ(trace().message_type_size(), 56);
    EXPECT_EQ(trace().enum_type_size(), 14);
    for (const DescriptorProto &message : trace().message_type()) {
        EXPECT_EQ(message.oneof_decl_size(), 0) << message.name();
    }
}

TEST(trace_schema_test, declares_its_messages_in_order) {
    EXPECT_EQ(names(trace().message_type()),
              "string_ex append_cmd_cfg kzav_file_detect threat_alert dup_alert threat_proc_node "
              "threat_rule threat_event threat_detect_cfg process_invoke_total_num process_vertex "
              "processexit_vertex remotethread_vertex reg_create_vertex reg_delete_vertex "
              "reg_set_vertex dns_query_vertex wmi_binding_vertex wmi_consumer_vertex "
              "wmi_filter_vertex account_create_vertex account_logon_vertex service_create_vertex "
              "service_update_vertex service_delete_vertex port_listen_vertex file_create_vertex "
              "file_delete_vertex file_rename_vertex file_modify_vertex file_open_vertex "
              "symbols_link_vertex named_pipe_vertex file_modify_time_vertex net_connect_vertex "
              "schtasks_vertex image_load image_driver api_vertex container_socket_vertex "
              "container_sys_connect_vertex fd_info_vertex container_ptrace_vertex "
              "container_userfaultfd_vertex container_core_pattern_vertex behavior_edge user_event "
              "device_info kzav_trace_event kzav_process_query event_action kzav_event_rule "
              "virus_info kzav_avscan_event kzav_credible_event kzav_trace_info");
}

TEST(trace_schema_test, declares_its_enumerations_in_order) {
    EXPECT_EQ(names(trace().enum_type()),
              "KZAV_TRACE_EVENT_TYPE TREE_APPEND_TYPE TRACE_CMD KZAV_RISK_LEVEL KZAV_FILE_TYPE "
              "KZAV_RISK_TYPE KZAV_RULE_STATUS THREAT_TYPE DETECT_RULE_TYPE ERROR_CODE QUERY_TYPE "
              "KZAV_EVENT_SCENE KZAV_PROC_TYPE KZAV_DISPOSAL_STATE");
}

TEST(trace_schema_test, declares_the_envelope) {
    EXPECT_THAT(
        fields(trace(), "kzav_trace_info"),
        ElementsAre("string agent_id 1", "string task_id 2", "string user_id 3", "string opr 4",
                    "TRACE_CMD cmd 5", "string cmd_hash 6", "ERROR_CODE err_code 7",
                    "threat_alert threat 8", "append_cmd_cfg append_cfg 9",
                    "threat_detect_cfg detect_cfg 10", "kzav_trace_event trace_event 11",
                    "string db_guid 12", "repeated dup_alert dup_alerts 13", "string alert_json 14",
                    "kzav_process_query process_query 15", "repeated string_ex trace_tags_exs 16",
                    "kzav_credible_event credible_event 17", "kzav_avscan_event avscan_event 18"));
}

TEST(trace_schema_test, declares_the_scenes_and_the_disposal_states) {
    EXPECT_THAT(values(trace(), "KZAV_EVENT_SCENE"),
                ElementsAre("EVENT_UNKNOW 0", "EVENT_WEB 1", "EVENT_PHISHING 2"));
    EXPECT_THAT(values(trace(), "KZAV_DISPOSAL_STATE"),
                ElementsAre("DISPOSAL_STATE_UNKNOW 0", "DISPOSAL_STATE_UNHANDLED 1",
                            "DISPOSAL_STATE_AUTO_DISPOSING 2", "DISPOSAL_STATE_AUTO_DISPOSED 3"));
    EXPECT_THAT(values(trace(), "KZAV_PROC_TYPE"),
                ElementsAre("PROC_TYPE_UNKNOWN 0", "PROC_TYPE_WEB 1", "PROC_TYPE_CAHT 2",
                            "PROC_TYPE_MAIL 3"));
}

TEST(trace_schema_test, has_versions_of_different_types) {
    EXPECT_THAT(field(trace(), "threat_event", "version"), testing::StartsWith("int64 "));
    EXPECT_THAT(field(trace(), "threat_rule", "version"), testing::StartsWith("string "));
    EXPECT_EQ(field(trace(), "kzav_event_rule", "version"), "string version 8");
    EXPECT_EQ(field(trace(), "threat_alert", "rule"), "kzav_event_rule rule 35");
    EXPECT_EQ(field(trace(), "threat_alert", "alert_rule"), "repeated threat_rule alert_rule 11");
}

TEST(trace_schema_test, leaves_gaps_in_the_numbers_of_a_virus) {
    std::vector<int> numbers;
    for (const DescriptorProto &message : trace().message_type()) {
        for (const FieldDescriptorProto &each : message.field()) {
            if (message.name() == "virus_info") {
                numbers.push_back(each.number());
            }
        }
    }
    EXPECT_THAT(numbers, ElementsAre(1, 3, 5, 6, 7, 9, 10, 11, 21));
}

TEST(trace_schema_test, has_vertices_and_edges_of_their_own_types) {
    const FileDescriptorProto &file = trace();
    EXPECT_EQ(field(file, "behavior_edge", "type"), "KZAV_TRACE_EVENT_TYPE type 5");
    EXPECT_EQ(field(file, "behavior_edge", "major_opr"), "KZAV_TRACE_EVENT_TYPE major_opr 10");
    EXPECT_EQ(field(file, "behavior_edge", "minor_opr"), "KZAV_TRACE_EVENT_TYPE minor_opr 12");
    EXPECT_EQ(field(file, "process_vertex", "invoke_total_num"),
              "process_invoke_total_num invoke_total_num 15");
    EXPECT_EQ(field(file, "process_vertex", "last_id"), "process_invoke_total_num last_id 16");
    EXPECT_EQ(field(file, "process_vertex", "process_id"), "uint64 process_id 2");
    EXPECT_EQ(field(file, "process_vertex", "process_createtime"), "int64 process_createtime 13");
    EXPECT_EQ(field(file, "processexit_vertex", "process_pid"), "int64 process_pid 2");
    EXPECT_EQ(field(file, "remotethread_vertex", "process_create_time"),
              "uint64 process_create_time 3");
    for (const auto &[name, type] : std::vector<std::pair<std::string, std::string>>{
             {"object_taskcreate", "schtasks_vertex "},
             {"object_processcreate", "process_vertex "},
             {"subject_process", "process_vertex "},
             {"object_cont_pattern", "container_core_pattern_vertex "},
             {"object_cont_sysconnect", "container_sys_connect_vertex "}}) {
        EXPECT_THAT(field(file, "threat_event", name), testing::StartsWith(type));
    }
    EXPECT_THAT(field(file, "kzav_trace_event", "container_core_sysconnect_list"),
                testing::StartsWith("repeated container_sys_connect_vertex "));
    EXPECT_THAT(field(file, "kzav_trace_event", "api_invoke_list"),
                testing::StartsWith("repeated api_vertex "));
    for (const std::string &each : fields(file, "threat_event")) {
        EXPECT_NE(each.find("api_vertex"), 0U) << each;
    }
}

TEST(trace_schema_test, declares_a_file_type_before_or_behind_the_highlights) {
    const auto place = [](const std::string &message, const std::string &name) {
        const std::vector<std::string> all = fields(trace(), message);
        for (size_t i = 0; i < all.size(); ++i) {
            if (all[i].find(" " + name + " ") != std::string::npos) {
                return i;
            }
        }
        ADD_FAILURE() << message << " has no " << name;
        return all.size();
    };
    const size_t highlight = place("file_modify_vertex", "highlight");
    EXPECT_GT(place("file_modify_vertex", "file_type"), highlight);
    EXPECT_GT(place("file_modify_vertex", "file_permissions"), highlight);
    EXPECT_GT(place("file_modify_vertex", "file_size"), highlight);
    EXPECT_LT(place("file_open_vertex", "file_type"), place("file_open_vertex", "highlight"));
}

// ---- the schema of the disposal service ----

TEST(dispatch_schema_test, is_a_plain_file_of_its_package) {
    expect_plain(dispatch(), "kzerespdsppl_re");
    EXPECT_EQ(dispatch().message_type_size(), 24);
    EXPECT_EQ(dispatch().enum_type_size(), 10);
}

TEST(dispatch_schema_test, has_two_choices_in_the_log_of_names_only) {
    for (const DescriptorProto &message : dispatch().message_type()) {
        EXPECT_EQ(names(message.oneof_decl()),
                  message.name() == "kze_respdsp_dns_log" ? "local_ip remote_ip" : "")
            << message.name();
    }
    EXPECT_EQ(field(dispatch(), "kze_respdsp_dns_log", "l_v4"), "fixed32 l_v4 5");
    EXPECT_EQ(field(dispatch(), "kze_respdsp_dns_log", "l_v6"), "bytes l_v6 6");
    EXPECT_EQ(field(dispatch(), "kze_respdsp_dns_log", "r_v4"), "fixed32 r_v4 7");
    EXPECT_EQ(field(dispatch(), "kze_respdsp_dns_log", "r_v6"), "bytes r_v6 8");
}

TEST(dispatch_schema_test, declares_its_messages_in_order) {
    EXPECT_EQ(names(dispatch().message_type()),
              "kze_respdsp_dns_log kze_respdsp_dns_blk kze_respdsp_resp kze_respdsp_req_item "
              "kze_respdsp_req kze_respdsp_alert_info kze_respdsp_icdt_req "
              "kze_respdsp_res_process kze_respdsp_res_file kze_respdsp_res_dns "
              "kze_respdsp_res_reg kze_respdsp_res_tasksch kze_respdsp_res_wmi "
              "kze_respdsp_res_bitsjob kze_respdsp_res_account kze_respdsp_hips_ip "
              "kze_respdsp_res_opr kze_respdsp_res_item kze_respdsp_result "
              "kze_resp_analyze_res_item kze_resp_analyze_result kze_respdsp_task_status "
              "kze_respdsp_req_task_counts kze_respdsp_resp_task_counts");
}

TEST(dispatch_schema_test, declares_its_enumerations_in_order) {
    EXPECT_EQ(names(dispatch().enum_type()),
              "DSP_CMD DSP_OPR_TYPE DSP_PROTOCOL DSP_LOG_TYPE DSP_TYPE DSP_TASK_STATUS "
              "DSP_ERROR_CODE DSP_OPR_SOURCE DNSAction DSP_TASK_TYPE");
    EXPECT_THAT(
        values(dispatch(), "DSP_TASK_TYPE"),
        ElementsAre("DSP_TASK_TYPE_UNKOWN 0", "DSP_TASK_TYPE_AUTO 1", "DSP_TASK_TYPE_MANU 2"));
}

TEST(dispatch_schema_test, declares_the_request) {
    EXPECT_THAT(fields(dispatch(), "kze_respdsp_icdt_req"),
                ElementsAre("string agent_id 1", "repeated kze_respdsp_alert_info alert_info 2"));
    EXPECT_THAT(
        fields(dispatch(), "kze_respdsp_alert_info"),
        ElementsAre("string alert_id 1", "string task_id 2",
                    "repeated kze_respdsp_res_process proc_info 3", "DSP_TYPE type 4",
                    "DSP_OPR_SOURCE source 5", "bool auto_clean_quar 6", "bool is_force_dsp 7",
                    "DSP_OPR_TYPE opr_type 8", "DSP_TASK_TYPE task_type 9"));
}

TEST(dispatch_schema_test, declares_fields_out_of_the_order_of_their_numbers) {
    EXPECT_THAT(fields(dispatch(), "kze_respdsp_res_process"),
                ElementsAre("uint64 pid 1", "uint64 create_time 2", "string process_path 3",
                            "string process_name 6", "string process_cmdline 7", "string md5 4",
                            "uint64 time 5"));
    EXPECT_THAT(
        fields(dispatch(), "kze_respdsp_req_item"),
        ElementsAre("string task_id 1", "string trace_id 9", "string task_data 2",
                    "DSP_TYPE type 3", "DSP_OPR_SOURCE source 4", "bool auto_clean_quar 5",
                    "bool is_force_dsp 6", "DSP_OPR_TYPE opr_type 7", "DSP_TASK_TYPE task_type 8"));
}

}  // namespace
