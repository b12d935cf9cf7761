// The messages as the plug-in uses them: which bytes they read and write, and what survives a round
// trip.

#include <gmock/gmock.h>

#include <string>

#include "new/kzerespdsppl_re.pb.h"
#include "tests/support/wire_bytes.h"
#include "trace.pb.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using kzav_trace::kzav_trace_info;
using kzerespdsppl_re::kze_respdsp_dns_log;

TEST(messages_test, reads_and_writes_an_event_byte_for_byte) {
    const std::string process = wire::number(1, 7) + wire::number(2, 1234) + wire::bytes(4, "/p") +
                                wire::bytes(5, "md5") + wire::number(13, 99);
    const std::string action = wire::bytes(1, "alert") +
                               wire::bytes(2, wire::varint(7) + wire::varint(300)) +
                               wire::bytes(4, process);
    const std::string rule = wire::number(6, 2) + wire::bytes(9, action);
    const std::string bytes = wire::bytes(1, "agent") + wire::number(5, 9) +
                              wire::bytes(17, wire::bytes(6, rule) + wire::number(10, 1));
    kzav_trace_info info;
    ASSERT_TRUE(info.ParseFromString(bytes));
    EXPECT_EQ(info.agent_id(), "agent");
    EXPECT_EQ(info.cmd(), kzav_trace::TRACE_CMD_CREDIBLE_EVENT);
    EXPECT_EQ(info.credible_event().disposal_state(), kzav_trace::DISPOSAL_STATE_UNHANDLED);
    EXPECT_EQ(info.credible_event().rule().scene(), kzav_trace::EVENT_PHISHING);
    ASSERT_EQ(info.credible_event().rule().match_action_size(), 1);
    const kzav_trace::event_action &read = info.credible_event().rule().match_action(0);
    EXPECT_EQ(read.alert_id(), "alert");
    EXPECT_THAT(read.alert_node_id(), ElementsAre(7, 300));
    ASSERT_EQ(read.process_list_size(), 1);
    EXPECT_EQ(read.process_list(0).node_id(), 7U);
    EXPECT_EQ(read.process_list(0).process_id(), 1234U);
    EXPECT_EQ(read.process_list(0).process_path(), "/p");
    EXPECT_EQ(read.process_list(0).process_md5(), "md5");
    EXPECT_EQ(read.process_list(0).process_createtime(), 99);
    EXPECT_EQ(info.SerializeAsString(), bytes);
}

TEST(messages_test, reads_alert_nodes_one_by_one_as_well) {
    kzav_trace::event_action action;
    ASSERT_TRUE(action.ParseFromString(wire::number(2, 7) + wire::bytes(2, wire::varint(8)) +
                                       wire::number(2, 7)));
    EXPECT_THAT(action.alert_node_id(), ElementsAre(7, 8, 7));
}

TEST(messages_test, writes_a_request_byte_for_byte) {
    kzerespdsppl_re::kze_respdsp_icdt_req request;
    request.set_agent_id("agent");
    kzerespdsppl_re::kze_respdsp_alert_info &alert = *request.add_alert_info();
    alert.set_alert_id("alert");
    alert.set_task_id("task");
    alert.set_type(kzerespdsppl_re::DSP_TYPE_DISPOSE);
    alert.set_source(kzerespdsppl_re::DSP_SOURCE_AGENT);
    alert.set_auto_clean_quar(true);
    alert.set_is_force_dsp(true);
    alert.set_opr_type(static_cast<kzerespdsppl_re::DSP_OPR_TYPE>(1));
    alert.set_task_type(kzerespdsppl_re::DSP_TASK_TYPE_AUTO);
    kzerespdsppl_re::kze_respdsp_res_process &process = *alert.add_proc_info();
    process.set_pid(1);
    process.set_create_time(2);
    process.set_process_path("3");
    process.set_md5("4");
    process.set_time(5);
    process.set_process_name("6");
    process.set_process_cmdline("7");
    const std::string process_bytes =
        wire::number(1, 1) + wire::number(2, 2) + wire::bytes(3, "3") + wire::bytes(4, "4") +
        wire::number(5, 5) + wire::bytes(6, "6") + wire::bytes(7, "7");
    EXPECT_EQ(request.SerializeAsString(),
              wire::bytes(1, "agent") +
                  wire::bytes(2, wire::bytes(1, "alert") + wire::bytes(2, "task") +
                                     wire::bytes(3, process_bytes) + wire::number(4, 1) +
                                     wire::number(5, 5) + wire::number(6, 1) + wire::number(7, 1) +
                                     wire::number(8, 1) + wire::number(9, 1)));
}

TEST(messages_test, keep_unknown_fields_at_every_depth) {
    const std::string unknown = wire::number(500, 1) + wire::bytes(501, "text") +
                                wire::varint(502 << 3 | 5) + "four" + wire::varint(503 << 3 | 1) +
                                "in eight";
    const std::string rule = wire::number(6, 1) + unknown;
    const std::string bytes =
        wire::number(5, 9) + wire::bytes(17, wire::bytes(6, rule) + unknown) + unknown;
    kzav_trace_info info;
    ASSERT_TRUE(info.ParseFromString(bytes));
    EXPECT_EQ(info.SerializeAsString(), bytes);
}

TEST(messages_test, keep_enumerators_that_they_do_not_know) {
    for (const uint64_t value : {uint64_t{3}, uint64_t{1000}, UINT64_MAX}) {
        const std::string bytes =
            wire::number(5, value) +
            wire::bytes(17, wire::bytes(6, wire::number(5, value) + wire::number(6, value)) +
                                wire::number(10, value));
        kzav_trace_info info;
        ASSERT_TRUE(info.ParseFromString(bytes));
        EXPECT_EQ(static_cast<int>(info.credible_event().rule().scene()), static_cast<int>(value));
        EXPECT_EQ(info.SerializeAsString(), bytes);
    }
}

TEST(messages_test, are_whole_without_the_messages_in_them) {
    const kzav_trace_info info;
    EXPECT_FALSE(info.has_credible_event());
    EXPECT_FALSE(info.credible_event().has_rule());
    EXPECT_EQ(info.credible_event().rule().scene(), kzav_trace::EVENT_UNKNOW);
    EXPECT_THAT(info.credible_event().rule().match_action(), IsEmpty());
    EXPECT_EQ(&info.credible_event(), &kzav_trace::kzav_credible_event::default_instance());
    EXPECT_EQ(info.SerializeAsString(), "");
}

TEST(messages_test, make_the_event_when_its_state_is_written) {
    kzav_trace_info info;
    info.mutable_credible_event()->set_disposal_state(kzav_trace::DISPOSAL_STATE_AUTO_DISPOSING);
    EXPECT_TRUE(info.has_credible_event());
    EXPECT_EQ(info.SerializeAsString(), wire::bytes(17, wire::number(10, 2)));
}

TEST(messages_test, hold_one_form_of_the_local_address) {
    kze_respdsp_dns_log log;
    EXPECT_EQ(log.local_ip_case(), kze_respdsp_dns_log::LOCAL_IP_NOT_SET);
    log.set_l_v4(0x0100007F);
    log.set_r_v4(1);
    log.set_l_v6("sixteen bytes...");
    EXPECT_EQ(log.local_ip_case(), kze_respdsp_dns_log::kLV6);
    EXPECT_EQ(log.l_v4(), 0U);
    EXPECT_EQ(log.r_v4(), 1U) << "the other address is left alone";
    log.set_l_v4(2);
    EXPECT_EQ(log.l_v6(), "");
    EXPECT_EQ(log.local_ip_case(), kze_respdsp_dns_log::kLV4);
    EXPECT_EQ(log.SerializeAsString(), wire::varint(5 << 3 | 5) + wire::integer(2, 4, false) +
                                           wire::varint(7 << 3 | 5) + wire::integer(1, 4, false));
}

TEST(messages_test, hold_one_form_of_the_remote_address) {
    kze_respdsp_dns_log log;
    EXPECT_EQ(log.remote_ip_case(), kze_respdsp_dns_log::REMOTE_IP_NOT_SET);
    log.set_r_v6(std::string("\xFF\0", 2));
    log.set_l_v6("local");
    log.set_r_v4(0);
    EXPECT_EQ(log.remote_ip_case(), kze_respdsp_dns_log::kRV4) << "also when it is 0";
    EXPECT_EQ(log.r_v6(), "");
    EXPECT_EQ(log.l_v6(), "local");
    log.set_r_v6("remote");
    EXPECT_EQ(log.r_v4(), 0U);
    EXPECT_EQ(log.SerializeAsString(), wire::bytes(6, "local") + wire::bytes(8, "remote"));
}

TEST(messages_test, hold_the_last_form_of_an_address_that_was_read) {
    kze_respdsp_dns_log log;
    ASSERT_TRUE(log.ParseFromString(wire::varint(5 << 3 | 5) + "four" + wire::bytes(6, "sixteen")));
    EXPECT_EQ(log.local_ip_case(), kze_respdsp_dns_log::kLV6);
    EXPECT_EQ(log.l_v6(), "sixteen");
}

}  // namespace
