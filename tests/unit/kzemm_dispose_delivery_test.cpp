// A delivered event from the engine's call on: for every way without a request to the service, what
// was sent and how the log ends; for all, that the engine's buffer goes back once and not before
// its time.

#include "plugin/kzemm_work.h"

#include <algorithm>
#include <set>
#include <thread>

#include "tests/fakes/fake_engine.h"
#include "tests/unit/credible_event.h"

using fakes::at;
using fakes::log_lines;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const std::string good = wire::frame(credible::event_of_one_process(1).SerializeAsString());

std::string with_bad_header() {
    std::string frame = good;
    frame[0] = 'x';
    return frame;
}

std::string with_cmd_3() {
    kzav_trace_info info = credible::event_of_one_process(1);
    info.set_cmd(kzav_trace::TRACE_CMD_THREAT_DETECT);
    return wire::frame(info.SerializeAsString());
}

std::string without_a_rule() {
    kzav_trace_info info = credible::event_of_one_process(1);
    info.mutable_credible_event()->clear_rule();
    return wire::frame(info.SerializeAsString());
}

std::string without_actions(int scene) {
    return wire::frame(credible::event(scene).SerializeAsString());
}

enum class goes_up { not_at_all, as_it_came, marked };

struct way {
    const char *name;
    bool web;
    bool phishing;
    std::string frame;
    unsigned int failing_allocation;  // which one of the order to the service; 0: none
    goes_up event;
    std::vector<std::pair<int, std::string>> last_lines;
};

const std::pair<int, std::string> failed = {2, "do auto dispose failed"};
const std::pair<int, std::string> sent = {3, "send data to thtgw success"};

const std::vector<way> ways = {
    {"both_switches_off",
     false,
     false,
     good,
     0,
     goes_up::as_it_came,
     {{3, "auto dispose is disabled, only send to thtgw"}, sent}},
    {"both_switches_off_and_no_event",
     false,
     false,
     "no event",
     0,
     goes_up::as_it_came,
     {{3, "auto dispose is disabled, only send to thtgw"}, sent}},
    {"empty",
     true,
     true,
     "",
     0,
     goes_up::not_at_all,
     {{2, "qd_engine_sub_credible data is null"}, failed}},
    {"bad_header",
     true,
     true,
     with_bad_header(),
     0,
     goes_up::not_at_all,
     {{2, "credible(auto dispose) subscription data invalid"}, failed}},
    {"no_message",
     true,
     true,
     wire::frame("\xFF\xFF"),
     0,
     goes_up::not_at_all,
     {{2, "parse qd_engine_sub_credible data to proto failed"}, failed}},
    {"other_command",
     true,
     true,
     with_cmd_3(),
     0,
     goes_up::not_at_all,
     {{2, "get wrong qd_eng_sub_credible_cb data cmd: 3"},
      {2, "data for auto dispose is invalid"},
      failed}},
    {"no_rule",
     true,
     true,
     without_a_rule(),
     0,
     goes_up::not_at_all,
     {{2, "get unknow credible event scene."}, {2, "data for auto dispose is invalid"}, failed}},
    {"scene_0",
     true,
     true,
     without_actions(0),
     0,
     goes_up::not_at_all,
     {{2, "get unknow credible event scene."}, {2, "data for auto dispose is invalid"}, failed}},
    {"switch_of_the_scene_off",
     false,
     true,
     good,
     0,
     goes_up::as_it_came,
     {{4, "check auto dispose switch end"}, {3, "credible scene dispose is disabled."}, sent}},
    {"scene_3",
     true,
     true,
     without_actions(3),
     0,
     goes_up::as_it_came,
     {{4, "check auto dispose switch end"}, {3, "credible scene dispose is disabled."}, sent}},
    {"no_action",
     true,
     true,
     without_actions(2),
     0,
     goes_up::marked,
     {{3, "no action need dispose."},
      {2, "build auto dispose pbdata failed."},
      {1, "send_event_to_autodsp failed"},
      failed}},
    {"no_memory_for_the_context",
     true,
     true,
     good,
     2,
     goes_up::marked,
     {{2, "new auto dispose ipc ctx failed"}, {1, "send_event_to_autodsp failed"}, failed}},
};

class kzemm_dispose_delivery_test : public dispose_test, public testing::WithParamInterface<way> {
  protected:
    void SetUp() override {
        dispose_test::SetUp();
        kzemm_work_inspector::ipc(work) = ipc;
        kzemm_work_inspector::rpdsp_addr(work) = addr;
    }

    void deliver(const std::string &frame) {
        kzemm_work_inspector::qd_eng_sub_credible_cb(
            fakes::engine_buffer(frame), static_cast<unsigned int>(frame.size()), &work);
    }

    kzemm_work_inspector work;
};

using kzemm_dispose_ways_test = kzemm_dispose_delivery_test;

INSTANTIATE_TEST_SUITE_P(, kzemm_dispose_ways_test, testing::ValuesIn(ways),
                         [](const auto &each) { return each.param.name; });

TEST_P(kzemm_dispose_ways_test, sends_what_is_defined_and_gives_the_buffer_back_once) {
    const way &param = GetParam();
    set_switches(param.web, param.phishing);
    if (param.failing_allocation != 0) {
        fakes::at_record(fakes::what::log, "send credible data to thtgw success",
                         [&] { fakes::fail_allocation(param.failing_allocation); });
    }
    deliver(param.frame);
    EXPECT_EQ(fakes::allocation_failed(), param.failing_allocation != 0);
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_EQ(fakes::outstanding_engine_buffers(), 0U);

    const std::vector<fakes::gateway_send> sends = fakes::gateway_sends();
    ASSERT_THAT(sends, SizeIs(param.event == goes_up::not_at_all ? 0 : 1));
    if (param.event != goes_up::not_at_all) {
        EXPECT_EQ(sends[0].type, 10);
        EXPECT_EQ(sends[0].data == param.frame, param.event == goes_up::as_it_came);
    }
    EXPECT_THAT(fakes::ipc_requests(), IsEmpty());

    const std::vector<fakes::record> lines = log_lines();
    EXPECT_THAT(lines.front(), at(3, "get qd_eng_sub_credible data"));
    ASSERT_GE(lines.size(), param.last_lines.size());
    const size_t start = lines.size() - param.last_lines.size();
    for (size_t i = 0; i < param.last_lines.size(); ++i) {
        EXPECT_THAT(lines[start + i], at(param.last_lines[i].first, param.last_lines[i].second));
    }
}

TEST_F(kzemm_dispose_delivery_test, ends_with_the_request_when_all_goes_well) {
    unsigned int frees_before = 77;
    fakes::on_ipc_request(
        [&](const fakes::ipc_request &) { frees_before = fakes::engine_frees(); });
    deliver(good);
    EXPECT_EQ(frees_before, 0U) << "the buffer is the plug-in's to the end";
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_THAT(log_lines().back().text,
                testing::StartsWith("send auto dispose task to rpdsp, data len: "));
    answer_the_request();
}

TEST_F(kzemm_dispose_delivery_test, gives_the_buffer_back_before_the_replies) {
    deliver(good);
    for (size_t i = 0; i < 4; ++i) {
        fakes::ipc_fail(fakes::ipc_requests().at(i), -1);
    }
    EXPECT_THAT(fakes::ipc_requests(), SizeIs(4));
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_THAT(log_lines().back(),
                at(2, "auto dispose task to rpdsp failed by 3 times, stop retry"));
}

// The reply may come on another thread before the call that makes the request returns; here it
// comes within that call.
TEST_F(kzemm_dispose_delivery_test, survives_replies_that_come_before_its_calls_return) {
    fakes::on_ipc_request([](const fakes::ipc_request &request) { fakes::ipc_fail(request, -1); });
    deliver(good);
    EXPECT_THAT(fakes::ipc_requests(), SizeIs(4));
    EXPECT_EQ(fakes::engine_frees(), 1U);
    const std::string size = std::to_string(fakes::ipc_requests()[0].data.size());
    std::vector<std::string> texts = fakes::texts({fakes::what::log});
    ASSERT_GE(texts.size(), 9U);
    texts.erase(texts.begin(), texts.end() - 9);
    const std::string no = "auto dispose task to rpdsp failed, err: the peer says no";
    EXPECT_THAT(texts,
                testing::ElementsAre(no, no, no, no,
                                     "auto dispose task to rpdsp failed by 3 times, stop retry",
                                     "send auto dispose task to rpdsp 3 time, data len: " + size,
                                     "send auto dispose task to rpdsp 2 time, data len: " + size,
                                     "send auto dispose task to rpdsp 1 time, data len: " + size,
                                     "send auto dispose task to rpdsp, data len: " + size));
}

TEST_F(kzemm_dispose_delivery_test, gives_the_buffer_back_without_memory_to_look_for_processes) {
    kzav_trace_info info = credible::event(1);
    kzav_trace::event_action &action = credible::add_action(info, "alert");
    constexpr size_t processes = 100;
    for (uint64_t node = 0; node < processes; ++node) {
        action.add_alert_node_id(node);
        credible::add_process(action, node, node);
    }
    const std::string frame = wire::frame(info.SerializeAsString());
    // Each block in turn that the order asks for, between the event's way up and its own frame.
    unsigned int failures = 0;
    for (bool fails = true; fails; failures += fails ? 1 : 0) {
        SCOPED_TRACE("behind so many blocks: " + std::to_string(failures));
        fakes::reset_engine();
        fakes::reset_gateway();
        fakes::reset_ipc();
        fakes::clear_journal();
        fakes::forget_hooks();
        fakes::at_record(fakes::what::log, "send credible data to thtgw success", [&] {
            fakes::at_record(fakes::what::log, "string data add module header done",
                             fakes::let_allocations_work);
            fakes::fail_throwing_new(failures + 1);
        });
        deliver(frame);
        fails = fakes::allocation_failed();
        EXPECT_EQ(fakes::engine_frees(), 1U);
        EXPECT_THAT(fakes::gateway_sends(), SizeIs(1)) << "the mark is not taken back";
        EXPECT_THAT(fakes::ipc_requests(), SizeIs(fails ? 0 : 1));
        if (fails) {
            EXPECT_THAT(log_lines().back(), at(2, "do auto dispose failed"));
        } else {
            answer_the_request();
        }
    }
    EXPECT_GE(failures, 1U) << "what the processes are looked for in";
}

// An event of many processes, of which up to 40 are named.
kzav_trace_info event_of(const std::string &agent, uint64_t processes) {
    kzav_trace_info info = credible::event(1);
    info.set_agent_id(agent);
    kzav_trace::event_action &action = credible::add_action(info, "alert of " + agent);
    for (uint64_t node = 0; node < processes; ++node) {
        if (node < 40) {
            action.add_alert_node_id(node * 71 % processes);
        }
        credible::add_process(action, node, node);
    }
    return info;
}

TEST_F(kzemm_dispose_delivery_test, handles_large_and_small_events_one_after_the_other) {
    for (const uint64_t processes : {uint64_t{1}, uint64_t{3000}, uint64_t{2}, uint64_t{40000},
                                     uint64_t{3}, uint64_t{3000}, uint64_t{1}}) {
        fakes::reset_gateway();
        fakes::reset_ipc();
        const kzav_trace_info info = event_of("agent", processes);
        deliver(wire::frame(info.SerializeAsString()));
        EXPECT_TRUE(sent_event() == wire::frame(credible::marked(info)));
        ASSERT_THAT(fakes::ipc_requests(), SizeIs(1));
        credible::expect_request_of(info, wire::payload(fakes::ipc_requests()[0].data));
        answer_the_request();
    }
}

TEST_F(kzemm_dispose_delivery_test, handles_events_of_several_threads_at_once) {
    constexpr int threads = 4;
    constexpr unsigned int events = 40;
    std::vector<kzav_trace_info> infos;
    for (int i = 0; i < threads; ++i) {
        infos.push_back(event_of("agent " + std::to_string(i), 1 + static_cast<uint64_t>(i) * 30));
    }
    std::vector<std::thread> deliverers;
    for (const kzav_trace_info &info : infos) {
        deliverers.emplace_back([this, frame = wire::frame(info.SerializeAsString())] {
            for (unsigned int i = 0; i < events; ++i) {
                deliver(frame);
            }
        });
    }
    for (std::thread &each : deliverers) {
        each.join();
    }
    EXPECT_EQ(fakes::engine_frees(), threads * events);
    std::multiset<std::string> wanted;
    std::multiset<std::string> sent_up;
    for (const kzav_trace_info &info : infos) {
        for (unsigned int i = 0; i < events; ++i) {
            wanted.insert(wire::frame(credible::marked(info)));
        }
    }
    for (const fakes::gateway_send &each : fakes::gateway_sends()) {
        sent_up.insert(each.data);
    }
    EXPECT_TRUE(sent_up == wanted);
    ASSERT_THAT(fakes::ipc_requests(), SizeIs(threads * events));
    for (const fakes::ipc_request &request : fakes::ipc_requests()) {
        const std::string agent = credible::parsed_request(wire::payload(request.data)).agent_id();
        const auto info = std::find_if(infos.begin(), infos.end(), [&agent](const auto &each) {
            return each.agent_id() == agent;
        });
        ASSERT_NE(info, infos.end()) << agent;
        credible::expect_request_of(*info, wire::payload(request.data));
        fakes::ipc_answer(request, "");
    }
}

}  // namespace
