// The request to the disposal service: what is in it, in which order, and how it is framed.

#include <random>

#include "tests/unit/credible_event.h"

using fakes::at;
using fakes::log_lines;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using credible::add_action;
using credible::add_process;
using credible::event;
using credible::event_action;
using credible::expect_request_of;
using credible::kze_respdsp_alert_info;
using credible::parsed_request;

constexpr int web = 1;

class kzemm_dispose_request_test : public dispose_test {
  protected:
    static std::string build(const kzav_trace_info &info) {
        std::string out = "before";
        EXPECT_TRUE(build_auto_dispose_pbdata(info, out));
        return out;
    }

    static std::vector<uint64_t> pids(const kze_respdsp_alert_info &alert) {
        std::vector<uint64_t> result;
        for (const auto &process : alert.proc_info()) {
            result.push_back(process.pid());
        }
        return result;
    }
};

// ---- the content ----

TEST_F(kzemm_dispose_request_test, has_the_defined_fields_and_nothing_else) {
    const kzav_trace_info info = credible::event_of_one_process(web);
    const auto request = parsed_request(build(info));
    EXPECT_EQ(request.agent_id(), "agent 7");
    ASSERT_EQ(request.alert_info_size(), 1);
    const kze_respdsp_alert_info &alert = request.alert_info(0);
    EXPECT_EQ(alert.alert_id(), "alert 1");
    EXPECT_EQ(alert.type(), kzerespdsppl_re::DSP_TYPE_DISPOSE);
    EXPECT_EQ(alert.source(), kzerespdsppl_re::DSP_SOURCE_AGENT);
    EXPECT_FALSE(alert.auto_clean_quar());
    EXPECT_FALSE(alert.is_force_dsp());
    EXPECT_EQ(alert.opr_type(), kzerespdsppl_re::DSP_OPR_UNKNOW);
    EXPECT_EQ(alert.task_type(), kzerespdsppl_re::DSP_TASK_TYPE_AUTO);
    ASSERT_EQ(alert.proc_info_size(), 1);
    EXPECT_EQ(alert.proc_info(0).pid(), 1234U);
    EXPECT_EQ(alert.proc_info(0).create_time(), 1700000001234U);
    EXPECT_EQ(alert.proc_info(0).process_path(), "/usr/bin/p1234");
    EXPECT_EQ(alert.proc_info(0).md5(), "md5 of 1234");
    expect_request_of(info, build(info));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_dispose_request_test, takes_over_nothing_that_it_does_not_name) {
    kzav_trace_info info = credible::event_of_one_process(web);
    info.set_task_id("task of the event");
    info.mutable_credible_event()->mutable_rule()->set_rule_desc("description");
    event_action &action = *info.mutable_credible_event()->mutable_rule()->mutable_match_action(0);
    action.set_op_time(99);
    action.add_file_create_list()->set_node_id(7);
    action.mutable_process_list(0)->set_process_user("user");
    action.mutable_process_list(0)->set_thread_tid(5);
    expect_request_of(info, build(info));
}

TEST_F(kzemm_dispose_request_test, leaves_empty_what_the_event_does_not_say) {
    kzav_trace_info info = event(web);
    info.clear_agent_id();
    event_action &action = add_action(info, "");
    action.add_alert_node_id(0);
    action.add_process_list();
    expect_request_of(info, build(info));
    EXPECT_EQ(parsed_request(build(info)).alert_info(0).proc_info_size(), 1);
}

TEST_F(kzemm_dispose_request_test, takes_over_numbers_of_any_size) {
    kzav_trace_info info = event(web);
    event_action &action = add_action(info, "alert");
    for (const uint64_t node : {uint64_t{0}, UINT64_MAX, uint64_t{1} << 63}) {
        action.add_alert_node_id(node);
        add_process(action, node, UINT64_MAX - node);
        action.mutable_process_list(action.process_list_size() - 1)->set_process_createtime(-5);
    }
    const std::string request = build(info);
    expect_request_of(info, request);
    EXPECT_EQ(parsed_request(request).alert_info(0).proc_info(0).create_time(), UINT64_MAX - 4);
}

TEST_F(kzemm_dispose_request_test, has_an_entry_with_its_own_task_for_each_action_in_order) {
    kzav_trace_info info = event(web);
    for (const char *const alert : {"b", "a", "b"}) {
        event_action &action = add_action(info, alert);
        action.add_alert_node_id(7);
        add_process(action, 7, 10);
    }
    const auto request = parsed_request(build(info));
    ASSERT_EQ(request.alert_info_size(), 3);
    EXPECT_EQ(request.alert_info(0).alert_id(), "b");
    EXPECT_EQ(request.alert_info(1).alert_id(), "a");
    EXPECT_EQ(request.alert_info(2).alert_id(), "b");
    EXPECT_NE(request.alert_info(0).task_id(), request.alert_info(1).task_id());
    EXPECT_NE(request.alert_info(0).task_id(), request.alert_info(2).task_id());
    expect_request_of(info, build(info));
}

TEST_F(kzemm_dispose_request_test, has_new_tasks_each_time_it_is_built) {
    const kzav_trace_info info = credible::event_of_one_process(web);
    EXPECT_NE(credible::tasks_of(build(info)), credible::tasks_of(build(info)));
}

// ---- which processes, in which order ----

TEST_F(kzemm_dispose_request_test, follows_the_order_of_the_alert_nodes_before_the_processes) {
    kzav_trace_info info = event(web);
    event_action &action = add_action(info, "alert");
    action.add_alert_node_id(7);
    action.add_alert_node_id(8);
    add_process(action, 8, 80);
    add_process(action, 7, 70);
    EXPECT_THAT(pids(parsed_request(build(info)).alert_info(0)), ElementsAre(70, 80));
}

TEST_F(kzemm_dispose_request_test, keeps_all_processes_of_a_node_in_their_order) {
    kzav_trace_info info = event(web);
    event_action &action = add_action(info, "alert");
    action.add_alert_node_id(7);
    for (const uint64_t pid : {uint64_t{3}, uint64_t{1}, uint64_t{3}, uint64_t{2}}) {
        add_process(action, 7, pid);
        add_process(action, 6, pid + 100);
    }
    EXPECT_THAT(pids(parsed_request(build(info)).alert_info(0)), ElementsAre(3, 1, 3, 2));
}

TEST_F(kzemm_dispose_request_test, repeats_the_processes_of_a_node_that_stands_twice) {
    kzav_trace_info info = event(web);
    event_action &action = add_action(info, "alert");
    for (const uint64_t node : {uint64_t{7}, uint64_t{8}, uint64_t{7}}) {
        action.add_alert_node_id(node);
    }
    add_process(action, 7, 1);
    add_process(action, 8, 2);
    add_process(action, 7, 3);
    EXPECT_THAT(pids(parsed_request(build(info)).alert_info(0)), ElementsAre(1, 3, 2, 1, 3));
}

TEST_F(kzemm_dispose_request_test, keeps_an_action_that_no_process_belongs_to) {
    kzav_trace_info info = event(web);
    add_process(add_action(info, "no node"), 7, 1);
    add_action(info, "no process").add_alert_node_id(7);
    event_action &other = add_action(info, "other node");
    other.add_alert_node_id(8);
    add_process(other, 7, 1);
    const std::string built = build(info);
    const auto request = parsed_request(built);
    ASSERT_EQ(request.alert_info_size(), 3);
    for (const kze_respdsp_alert_info &alert : request.alert_info()) {
        EXPECT_EQ(alert.proc_info_size(), 0) << alert.alert_id();
    }
    expect_request_of(info, built);
}

TEST_F(kzemm_dispose_request_test, looks_for_processes_within_the_action_only) {
    kzav_trace_info info = event(web);
    add_action(info, "first").add_alert_node_id(7);
    event_action &second = add_action(info, "second");
    second.add_alert_node_id(8);
    add_process(second, 7, 1);
    add_process(second, 8, 2);
    const auto request = parsed_request(build(info));
    EXPECT_THAT(pids(request.alert_info(0)), IsEmpty());
    EXPECT_THAT(pids(request.alert_info(1)), ElementsAre(2));
}

struct action_sizes {
    int nodes;
    int processes;
};

class kzemm_dispose_search_test : public kzemm_dispose_request_test,
                                  public testing::WithParamInterface<action_sizes> {};

INSTANTIATE_TEST_SUITE_P(
    , kzemm_dispose_search_test,
    testing::Values(action_sizes{1, 1}, action_sizes{1, 2000}, action_sizes{2000, 1},
                    action_sizes{3, 5}, action_sizes{10, 10}, action_sizes{16, 16},
                    action_sizes{15, 64}, action_sizes{32, 32}, action_sizes{33, 31},
                    action_sizes{64, 64}, action_sizes{100, 100}, action_sizes{127, 129},
                    action_sizes{300, 1000}, action_sizes{1000, 10000}),
    [](const auto &each) {
        return std::to_string(each.param.nodes) + "_by_" + std::to_string(each.param.processes);
    });

// Nodes from a small set stand several times; from a wide one hardly ever; those of the last set
// differ in their upper bits only.
TEST_P(kzemm_dispose_search_test, finds_what_a_loop_within_a_loop_finds) {
    std::mt19937_64 random(20250101);
    const auto [nodes, processes] = GetParam();
    const auto wide = static_cast<uint64_t>(nodes + processes);
    for (const uint64_t range : {wide / 3 + 1, wide, 8 * wide}) {
        for (const int shift : {0, 32}) {
            kzav_trace_info info = event(web);
            event_action &action = add_action(info, "alert");
            for (int i = 0; i < nodes; ++i) {
                action.add_alert_node_id(random() % range << shift);
            }
            for (int i = 0; i < processes; ++i) {
                add_process(action, random() % range << shift, static_cast<uint64_t>(i) + 1);
            }
            expect_request_of(info, build(info));
        }
    }
}

TEST_F(kzemm_dispose_request_test, finds_what_a_loop_within_a_loop_finds_in_random_events) {
    std::mt19937_64 random(4711);
    for (int round = 0; round < 400; ++round) {
        kzav_trace_info info = event(web);
        const uint64_t actions = 1 + random() % 4;
        for (uint64_t i = 0; i < actions; ++i) {
            event_action &action = add_action(info, "alert " + std::to_string(i));
            const uint64_t range = 1 + random() % 80;
            for (uint64_t left = random() % 70; left != 0; --left) {
                action.add_alert_node_id(random() % range);
            }
            for (uint64_t left = random() % 70; left != 0; --left) {
                add_process(action, random() % range, random() % 32768);
            }
        }
        expect_request_of(info, build(info));
        ASSERT_FALSE(HasFailure()) << "round " << round;
    }
}

// ---- what cannot be built ----

TEST_F(kzemm_dispose_request_test, is_not_built_without_an_event_or_a_rule) {
    kzav_trace_info no_event = event(web);
    no_event.clear_credible_event();
    kzav_trace_info empty_event = no_event;
    empty_event.mutable_credible_event();
    kzav_trace_info no_rule = event(web);
    no_rule.mutable_credible_event()->clear_rule();
    const kzav_trace_info *const infos[] = {&kzav_trace_info::default_instance(), &no_event,
                                            &empty_event, &no_rule};
    for (const kzav_trace_info *const info : infos) {
        fakes::clear_journal();
        std::string out;
        EXPECT_FALSE(build_auto_dispose_pbdata(*info, out));
        EXPECT_THAT(log_lines(), ElementsAre(at(2, "trace_info data invalid")));
    }
}

TEST_F(kzemm_dispose_request_test, is_not_built_without_an_action) {
    kzav_trace_info empty_rule = event(web);
    empty_rule.mutable_credible_event()->mutable_rule()->Clear();
    const kzav_trace_info infos[] = {event(web), empty_rule};
    for (const kzav_trace_info &info : infos) {
        fakes::clear_journal();
        std::string out;
        EXPECT_FALSE(build_auto_dispose_pbdata(info, out));
        EXPECT_THAT(log_lines(), ElementsAre(at(3, "no action need dispose.")));
    }
}

TEST_F(kzemm_dispose_request_test, is_not_sent_when_it_cannot_be_built) {
    const _module_header header = {};
    kzav_trace_info no_rule = event(web);
    no_rule.mutable_credible_event()->clear_rule();
    EXPECT_FALSE(send_event_to_autodsp(no_rule, &header, ipc, addr));
    expect_nothing_sent();
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "trace_info data invalid"),
                                         at(2, "build auto dispose pbdata failed.")));
}

// ---- how it goes out ----

TEST_F(kzemm_dispose_request_test, goes_to_the_service_in_network_order) {
    const kzav_trace_info info = credible::event_of_one_process(web);
    ASSERT_TRUE(dispose(info));
    ASSERT_THAT(fakes::ipc_requests(), SizeIs(1));
    const fakes::ipc_request sent = fakes::ipc_requests()[0];
    EXPECT_EQ(sent.ipc, ipc);
    EXPECT_EQ(sent.addr, addr);
    EXPECT_EQ(sent.cmd, 10001U);
    EXPECT_EQ(sent.time_limit, 15U);
    EXPECT_EQ(sent.callback, on_auto_dispose_cb);
    ASSERT_GE(sent.data.size(), 20U);
    EXPECT_EQ(sent.data.substr(0, 16), std::string("3200\x11\x12\x13\x14\0\x01"
                                                   "abcdef",
                                                   16));
    EXPECT_EQ(sent.data.substr(16, 4),
              wire::integer(static_cast<uint32_t>(sent.data.size() - 20), 4, true));
    expect_request_of(info, wire::payload(sent.data));
    answer_the_request();
}

TEST_F(kzemm_dispose_request_test, goes_out_under_a_copy_of_any_header) {
    _module_header header = {};
    memset(&header, 'x', sizeof(header));
    const kzav_trace_info info = credible::event_of_one_process(web);
    ASSERT_TRUE(send_event_to_autodsp(info, &header, ipc, addr));
    ASSERT_THAT(fakes::ipc_requests(), SizeIs(1));
    const std::string data = fakes::ipc_requests()[0].data;
    EXPECT_EQ(data.substr(0, 20),
              "xxxxxxxx" + wire::integer(1, 2, true) + "xxxxxx" +
                  wire::integer(static_cast<uint32_t>(data.size() - 20), 4, true));
    answer_the_request();
}

TEST_F(kzemm_dispose_request_test, counts_as_sent_whatever_the_ipc_layer_says) {
    for (const int code : {-1, 7}) {
        fakes::reset_ipc();
        fakes::ipc_make_request_returns(code);
        EXPECT_TRUE(dispose(credible::event_of_one_process(web)));
        EXPECT_THAT(log_lines().back().text,
                    testing::StartsWith("send auto dispose task to rpdsp, data len: "));
        answer_the_request();
    }
}

// ---- its size ----

constexpr size_t most = VRD_IPC_MAX_BODY - sizeof(_module_header);

// An action that names as many processes as it has, each so many times.
kzav_trace_info event_of_square(int side, const std::string &path) {
    kzav_trace_info info;
    event_action &action = *info.mutable_credible_event()->mutable_rule()->add_match_action();
    for (int each = 0; each < side; ++each) {
        action.add_alert_node_id(7);
        auto &process = *action.add_process_list();
        process.set_node_id(7);
        process.set_process_path(path);
    }
    return info;
}

TEST_F(kzemm_dispose_request_test, one_that_no_ipc_message_can_carry_is_not_built) {
    std::string out = "before";
    EXPECT_FALSE(build_auto_dispose_pbdata(event_of_square(500, std::string(100, 'p')), out));
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "serialize auto dispose data failed.")));
    EXPECT_EQ(out, "before");
}

TEST_F(kzemm_dispose_request_test, its_bytes_decide) {
    kzav_trace_info info;
    event_action &action = *info.mutable_credible_event()->mutable_rule()->add_match_action();
    action.add_alert_node_id(7);
    for (size_t each = 0; each < 16; ++each) {
        auto &process = *action.add_process_list();
        process.set_node_id(7);
        process.set_process_path(std::string(most / 16 - 100, 'p'));
    }
    std::string out;
    ASSERT_TRUE(build_auto_dispose_pbdata(info, out));
    const size_t left = most - out.size();
    ASSERT_LT(left, 2000U);

    action.mutable_process_list(0)->mutable_process_path()->append(left, 'p');
    EXPECT_TRUE(build_auto_dispose_pbdata(info, out));
    EXPECT_EQ(out.size(), most) << "what was in it is replaced";
    EXPECT_THAT(log_lines(), IsEmpty());

    action.mutable_process_list(0)->mutable_process_path()->append(1, 'p');
    EXPECT_FALSE(build_auto_dispose_pbdata(info, out));
    EXPECT_EQ(out.size(), most);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "serialize auto dispose data failed.")));
}

// What an entry takes beside its texts doesn't count twice.
TEST_F(kzemm_dispose_request_test, all_that_fits_into_a_message_is_built) {
    std::string out;
    EXPECT_TRUE(build_auto_dispose_pbdata(event_of_square(830, std::string(20, 'p')), out));
    EXPECT_LT(out.size(), most);
    EXPECT_GT(out.size(), most - most / 20);
}

TEST_F(kzemm_dispose_request_test, alerts_without_end_are_not_built_either) {
    kzav_trace_info info;
    for (size_t each = 0; each < most / 40; ++each) {
        info.mutable_credible_event()->mutable_rule()->add_match_action();
    }
    std::string out = "before";
    EXPECT_FALSE(build_auto_dispose_pbdata(info, out));
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "serialize auto dispose data failed.")));
}

// An event of the largest size whose order is larger.
TEST_F(kzemm_dispose_request_test, an_order_of_12_megabytes_is_handed_over) {
    kzav_trace_info info = event(web);
    event_action &action = credible::add_action(info, "alert");
    auto &process = *action.add_process_list();
    process.set_node_id(7);
    process.set_process_path(std::string(6U << 20, 'p'));
    action.add_alert_node_id(7);
    action.add_alert_node_id(7);
    const _module_header header = {};
    EXPECT_TRUE(send_event_to_autodsp(info, &header, ipc, addr));
    ASSERT_THAT(fakes::ipc_requests(), SizeIs(1));
    const std::string order = fakes::ipc_requests()[0].data;
    EXPECT_GT(order.size(), 12U << 20);
    credible::expect_request_of(info, wire::payload(order));
    answer_the_request();
}

}  // namespace
