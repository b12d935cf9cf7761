/*
 * Credible events for the tests of auto disposal, and the service's request as it should be.
 */
#ifndef KZEMDLMGR_TESTS_UNIT_CREDIBLE_EVENT_H
#define KZEMDLMGR_TESTS_UNIT_CREDIBLE_EVENT_H

#include <gmock/gmock.h>

#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "datapath/kzemm_dispose.h"
#include "new/kzerespdsppl_re.pb.h"
#include "tests/fakes/fake_gateway.h"
#include "tests/fakes/fake_ipc.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/inspectors.h"
#include "tests/fakes/plugin_test.h"
#include "tests/support/wire_bytes.h"

namespace credible {

using kzav_trace::event_action;
using kzerespdsppl_re::kze_respdsp_alert_info;
using kzerespdsppl_re::kze_respdsp_icdt_req;

inline void add_process(event_action &action, uint64_t node, uint64_t pid) {
    kzav_trace::process_vertex &process = *action.add_process_list();
    process.set_node_id(node);
    process.set_process_id(pid);
    process.set_process_createtime(1700000000000 + static_cast<int64_t>(pid % 1000000));
    process.set_process_path("/usr/bin/p" + std::to_string(pid));
    process.set_process_md5("md5 of " + std::to_string(pid));
    process.set_process_commandline("p --all");
    process.set_process_guid("guid");
}

inline event_action &add_action(kzav_trace_info &info, const std::string &alert) {
    event_action &action = *info.mutable_credible_event()->mutable_rule()->add_match_action();
    action.set_alert_id(alert);
    return action;
}

// An event of a scene without actions.
inline kzav_trace_info event(int scene) {
    kzav_trace_info info;
    info.set_agent_id("agent 7");
    info.set_cmd(kzav_trace::TRACE_CMD_CREDIBLE_EVENT);
    info.mutable_credible_event()->set_match_process("p");
    info.mutable_credible_event()->set_disposal_state(kzav_trace::DISPOSAL_STATE_UNHANDLED);
    kzav_trace::kzav_event_rule &rule = *info.mutable_credible_event()->mutable_rule();
    rule.set_rule_id("rule 1");
    rule.set_scene(static_cast<kzav_trace::KZAV_EVENT_SCENE>(scene));
    return info;
}

// One with an action on one process.
inline kzav_trace_info event_of_one_process(int scene) {
    kzav_trace_info info = event(scene);
    event_action &action = add_action(info, "alert 1");
    action.add_alert_node_id(7);
    add_process(action, 7, 1234);
    return info;
}

inline kze_respdsp_icdt_req parsed_request(const std::string &bytes) {
    kze_respdsp_icdt_req request;
    EXPECT_TRUE(request.ParseFromString(bytes));
    return request;
}

// The bytes of a request to the service for an event, with these identifiers of tasks.
inline std::string expected_request(const kzav_trace_info &info,
                                    const std::vector<std::string> &tasks) {
    std::string request = wire::plain_bytes(1, info.agent_id());
    size_t at = 0;
    for (const event_action &action : info.credible_event().rule().match_action()) {
        std::string alert = wire::plain_bytes(1, action.alert_id());
        alert += wire::bytes(2, tasks.at(at++));
        for (const uint64_t node : action.alert_node_id()) {
            for (const kzav_trace::process_vertex &each : action.process_list()) {
                if (each.node_id() == node) {
                    const auto created = static_cast<uint64_t>(each.process_createtime());
                    alert += wire::bytes(3, wire::plain_number(1, each.process_id()) +
                                                wire::plain_number(2, created) +
                                                wire::plain_bytes(3, each.process_path()) +
                                                wire::plain_bytes(4, each.process_md5()));
                }
            }
        }
        alert += wire::number(4, 1) + wire::number(5, 5) + wire::number(9, 1);
        request += wire::bytes(2, alert);
    }
    return request;
}

inline std::vector<std::string> tasks_of(const std::string &request) {
    std::vector<std::string> tasks;
    const kze_respdsp_icdt_req parsed = parsed_request(request);
    for (const kze_respdsp_alert_info &alert : parsed.alert_info()) {
        tasks.push_back(alert.task_id());
    }
    return tasks;
}

// That a request has every field of the event that it should have and no other byte.
inline void expect_request_of(const kzav_trace_info &info, const std::string &request) {
    const std::vector<std::string> tasks = tasks_of(request);
    ASSERT_EQ(tasks.size(), static_cast<size_t>(info.credible_event().rule().match_action_size()));
    EXPECT_THAT(tasks, testing::Each(testing::MatchesRegex("[0-9A-F]{32}")));
    EXPECT_EQ(std::set<std::string>(tasks.begin(), tasks.end()).size(), tasks.size());
    EXPECT_TRUE(request == expected_request(info, tasks)) << "the bytes differ";
}

// The event as it goes up marked.
inline std::string marked(kzav_trace_info info) {
    info.mutable_credible_event()->set_disposal_state(kzav_trace::DISPOSAL_STATE_AUTO_DISPOSING);
    return info.SerializeAsString();
}

}  // namespace credible

// A worker's endpoint, the service's address and both switches on. A test answers the requests that
// it causes: what belongs to one that is in flight would be left.
class dispose_test : public plugin_test {
  protected:
    void SetUp() override {
        plugin_test::SetUp();
        load_libraries();
        set_switches(true, true);
        ipc = vrd_ipc_create("agt_rpt", 0);
        addr = vrd_addr_create("agt_rpdsp", 0, 0);
        fakes::clear_journal();
    }

    void TearDown() override {
        vrd_addr_destroy(addr);
        vrd_ipc_destroy(ipc);
        plugin_test::TearDown();
    }

    static void set_switches(bool web, bool phishing) {
        kzemm_config_inspector::dispose_web_switch() = web;
        kzemm_config_inspector::dispose_phishing_switch() = phishing;
    }

    // From memory of its own at an odd address, so that a read beyond it is seen.
    bool dispose_bytes(const std::string &frame) {
        std::vector<char> bytes(frame.size() + 1);
        memcpy(bytes.data() + 1, frame.data(), frame.size());
        const bool result =
            do_auto_dispose(bytes.data() + 1, static_cast<unsigned int>(frame.size()), ipc, addr);
        EXPECT_EQ(std::string(bytes.data() + 1, frame.size()), frame) << "the event was changed";
        return result;
    }

    bool dispose(const kzav_trace_info &info) {
        return dispose_bytes(wire::frame(info.SerializeAsString()));
    }

    // The one frame that went to the gateway; empty when there is none or several.
    static std::string sent_event() {
        const std::vector<fakes::gateway_send> sends = fakes::gateway_sends();
        EXPECT_THAT(sends, testing::SizeIs(1));
        return sends.size() == 1 && sends[0].type == 10 ? sends[0].data : std::string();
    }

    static void expect_nothing_sent() {
        EXPECT_THAT(fakes::gateway_sends(), testing::IsEmpty());
        EXPECT_THAT(fakes::ipc_requests(), testing::IsEmpty());
        EXPECT_THAT(fakes::ipc_sends(), testing::IsEmpty());
    }

    // Ends the request that is in flight.
    static void answer_the_request() {
        ASSERT_THAT(fakes::ipc_requests(), testing::SizeIs(1));
        fakes::ipc_answer(fakes::ipc_requests()[0], "");
    }

    vrd_ipc_st *ipc = nullptr;
    vrd_addr_st *addr = nullptr;
};

#endif
