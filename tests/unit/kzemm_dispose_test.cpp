// What becomes of a credible event: why it is refused, when it goes up as it came, how it goes up
// marked, and what stays done when a later step fails.

#include "datapath/kzemm_dispose.h"

#include <climits>

#include "tests/unit/credible_event.h"

using fakes::at;
using fakes::log_lines;
using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using credible::event;
using credible::event_of_one_process;
using credible::marked;

constexpr int web = 1;
constexpr int phishing = 2;

const auto start_line = at(4, "start do auto dispose");
const auto valid_line = at(4, "check auto dispose data valid end");
const auto switch_end_line = at(4, "check auto dispose switch end");
const auto web_on_line = at(3, "get web credible event, check switch: dispose_web_switch[1]");
const auto gateway_line = at(3, "send data to thtgw success");
const auto no_scene_line = at(2, "get unknow credible event scene.");
const auto invalid_line = at(2, "data for auto dispose is invalid");
const auto bad_frame_line = at(2, "credible(auto dispose) subscription data invalid");
const auto bad_header_line = at(2, "check msg header failed, cmd: 10001");
const auto bad_message_line = at(2, "parse qd_engine_sub_credible data to proto failed");
const auto disabled_line = at(3, "credible scene dispose is disabled.");

auto framed(size_t payload_size) {
    return at(4, "string data add module header done, data len: " + std::to_string(payload_size));
}

using kzemm_dispose_test = dispose_test;

// Of the order to the service, which is made when the event has gone up: its frame, its context.
void fail_allocation_of_order(unsigned int nth) {
    fakes::at_record(fakes::what::log, "send credible data to thtgw success",
                     [nth] { fakes::fail_allocation(nth); });
}

// ---- what is refused ----

TEST_F(kzemm_dispose_test, refuses_null) {
    EXPECT_FALSE(do_auto_dispose(nullptr, 40, ipc, addr));
    expect_nothing_sent();
    EXPECT_THAT(log_lines(), ElementsAre(start_line, at(2, "qd_engine_sub_credible data is null")));
}

TEST_F(kzemm_dispose_test, refuses_data_of_length_0) {
    std::string frame = wire::frame(event_of_one_process(web).SerializeAsString());
    EXPECT_FALSE(do_auto_dispose(frame.data(), 0, ipc, addr));
    expect_nothing_sent();
    EXPECT_THAT(log_lines(), ElementsAre(start_line, at(2, "qd_engine_sub_credible data is null")));
}

TEST_F(kzemm_dispose_test, refuses_a_frame_with_another_version) {
    std::string frame = wire::frame(event_of_one_process(web).SerializeAsString());
    frame[0] = '4';
    EXPECT_FALSE(dispose_bytes(frame));
    expect_nothing_sent();
    EXPECT_THAT(log_lines(), ElementsAre(start_line, at(2, _), bad_header_line, bad_frame_line));
}

TEST_F(kzemm_dispose_test, refuses_a_frame_with_another_protocol) {
    for (const char protocol : {'\0', '\2'}) {
        fakes::clear_journal();
        std::string frame = wire::frame(event_of_one_process(web).SerializeAsString());
        frame[8] = protocol;
        EXPECT_FALSE(dispose_bytes(frame));
        expect_nothing_sent();
        EXPECT_THAT(log_lines(),
                    ElementsAre(start_line, at(2, _), bad_header_line, bad_frame_line));
    }
}

TEST_F(kzemm_dispose_test, refuses_a_frame_whose_length_is_not_its_own) {
    const std::string payload = event_of_one_process(web).SerializeAsString();
    for (const int difference : {-1, 1, 1000}) {
        fakes::clear_journal();
        const auto claimed = static_cast<int>(payload.size()) + difference;
        EXPECT_FALSE(dispose_bytes(wire::header(static_cast<uint32_t>(claimed), false) + payload));
        expect_nothing_sent();
        EXPECT_THAT(log_lines(),
                    ElementsAre(start_line, at(2, _), bad_header_line, bad_frame_line));
    }
}

TEST_F(kzemm_dispose_test, refuses_a_frame_in_network_order) {
    EXPECT_FALSE(dispose_bytes(wire::frame(event_of_one_process(web).SerializeAsString(), true)));
    expect_nothing_sent();
    EXPECT_THAT(log_lines(), ElementsAre(start_line, at(2, _), bad_header_line, bad_frame_line));
}

TEST_F(kzemm_dispose_test, refuses_less_than_a_header) {
    EXPECT_FALSE(dispose_bytes(wire::header(0, false).substr(0, 19)));
    expect_nothing_sent();
    EXPECT_THAT(log_lines(), ElementsAre(start_line, at(2, _), bad_header_line, bad_frame_line));
}

TEST_F(kzemm_dispose_test, refuses_what_is_no_message) {
    const std::string whole = event_of_one_process(web).SerializeAsString();
    const std::string no_messages[] = {
        std::string(12, '\xFF'),
        whole.substr(0, whole.size() - 1),
        whole + wire::varint(20 << 3 | 2) + "\x05" + "abcd",
        whole + wire::varint(20 << 3 | 7),
        whole + wire::varint(20 << 3 | 4),
        whole + wire::bytes(1, "\xC3\x28"),
    };
    for (const std::string &payload : no_messages) {
        fakes::clear_journal();
        EXPECT_FALSE(dispose_bytes(wire::frame(payload)));
        expect_nothing_sent();
        EXPECT_THAT(log_lines(), ElementsAre(start_line, bad_message_line));
    }
}

TEST_F(kzemm_dispose_test, refuses_another_command) {
    for (const int cmd : {0, 3, 8, 10, 77, -1}) {
        fakes::clear_journal();
        kzav_trace_info info = event_of_one_process(web);
        info.set_cmd(static_cast<kzav_trace::TRACE_CMD>(cmd));
        EXPECT_FALSE(dispose(info));
        expect_nothing_sent();
        EXPECT_THAT(log_lines(), ElementsAre(start_line,
                                             at(2, "get wrong qd_eng_sub_credible_cb data cmd: " +
                                                       std::to_string(cmd)),
                                             invalid_line));
    }
}

TEST_F(kzemm_dispose_test, refuses_an_empty_message_for_its_command) {
    EXPECT_FALSE(dispose_bytes(wire::frame("")));
    expect_nothing_sent();
    EXPECT_THAT(log_lines(),
                ElementsAre(start_line, at(2, "get wrong qd_eng_sub_credible_cb data cmd: 0"),
                            invalid_line));
}

TEST_F(kzemm_dispose_test, refuses_an_event_without_a_scene) {
    kzav_trace_info no_event = event_of_one_process(web);
    no_event.clear_credible_event();
    kzav_trace_info empty_event = no_event;
    empty_event.mutable_credible_event();
    kzav_trace_info no_rule = event_of_one_process(web);
    no_rule.mutable_credible_event()->clear_rule();
    kzav_trace_info empty_rule = no_rule;
    empty_rule.mutable_credible_event()->mutable_rule();
    const kzav_trace_info infos[] = {no_event, empty_event, no_rule, empty_rule,
                                     event_of_one_process(0)};
    for (const kzav_trace_info &info : infos) {
        fakes::clear_journal();
        EXPECT_FALSE(dispose(info));
        expect_nothing_sent();
        EXPECT_THAT(log_lines(), ElementsAre(start_line, no_scene_line, invalid_line));
    }
}

TEST_F(kzemm_dispose_test, finds_an_empty_message_without_a_scene) {
    kzav_trace_info none;
    EXPECT_FALSE(check_auto_dispose_enable(none));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(2, "get unknow credible event scene: 0"), switch_end_line));
    fakes::clear_journal();
    EXPECT_FALSE(check_auto_dispose_data_valid(none));
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "get wrong qd_eng_sub_credible_cb data cmd: 0")));
}

// ---- what goes up as it came ----

struct unmarked {
    const char *name;
    bool web_on;
    bool phishing_on;
    int scene;
    int level;
    const char *line;
};

class kzemm_dispose_unmarked_test : public dispose_test,
                                    public testing::WithParamInterface<unmarked> {};

INSTANTIATE_TEST_SUITE_P(
    , kzemm_dispose_unmarked_test,
    testing::Values(
        unmarked{"web_with_phishing_on", false, true, web, 3,
                 "get web credible event, check switch: dispose_web_switch[0]"},
        unmarked{"phishing_with_web_on", true, false, phishing, 3,
                 "get phishing credible event, check switch: dispose_phishing_switch[0]"},
        unmarked{"both_off", false, false, web, 3,
                 "get web credible event, check switch: dispose_web_switch[0]"},
        unmarked{"scene_3", true, true, 3, 2, "get unknow credible event scene: 3"},
        unmarked{"scene_below_0", true, true, -1, 2, "get unknow credible event scene: -1"},
        unmarked{"the_greatest_scene", true, true, 2147483647, 2,
                 "get unknow credible event scene: 2147483647"}),
    [](const auto &each) { return each.param.name; });

TEST_P(kzemm_dispose_unmarked_test, goes_up_byte_for_byte_and_to_no_service) {
    set_switches(GetParam().web_on, GetParam().phishing_on);
    const std::string frame =
        wire::frame(event_of_one_process(GetParam().scene).SerializeAsString());
    EXPECT_TRUE(dispose_bytes(frame));
    EXPECT_TRUE(sent_event() == frame);
    EXPECT_THAT(fakes::ipc_requests(), IsEmpty());
    EXPECT_THAT(log_lines(),
                ElementsAre(start_line, valid_line, at(GetParam().level, GetParam().line),
                            switch_end_line, disabled_line, gateway_line));
}

TEST_P(kzemm_dispose_unmarked_test, counts_as_done_when_the_gateway_refuses_it) {
    set_switches(GetParam().web_on, GetParam().phishing_on);
    fakes::gateway_returns(-1);
    EXPECT_TRUE(dispose(event_of_one_process(GetParam().scene)));
    EXPECT_THAT(fakes::gateway_sends(), SizeIs(1));
    EXPECT_THAT(log_lines().back(), at(1, "send data to kzethtgw failed, type: 10"));
}

TEST_F(kzemm_dispose_test, leaves_an_event_that_goes_up_unmarked_as_it_was_encoded) {
    set_switches(false, true);
    // Its fields are in no order, its numbers longer than they must be, and one field stands twice.
    const std::string payload =
        wire::bytes(17, wire::bytes(6, std::string("\x30\x81\x80\x00", 4))) +
        std::string("\x28\x89\x00", 3) + wire::bytes(1, "first") + wire::bytes(1, "second");
    EXPECT_TRUE(dispose_bytes(wire::frame(payload)));
    EXPECT_TRUE(sent_event() == wire::frame(payload));
}

TEST_F(kzemm_dispose_test, looks_at_the_switches_at_each_event) {
    for (const bool on : {true, false, true}) {
        fakes::reset_ipc();
        set_switches(on, false);
        EXPECT_TRUE(dispose(event_of_one_process(web)));
        EXPECT_THAT(fakes::ipc_requests(), SizeIs(on ? 1 : 0));
        if (on) {
            answer_the_request();
        }
    }
    EXPECT_THAT(fakes::gateway_sends(), SizeIs(3));
}

// ---- what goes up marked ----

TEST_F(kzemm_dispose_test, goes_up_marked_and_then_to_the_service) {
    const kzav_trace_info info = event_of_one_process(web);
    ASSERT_TRUE(dispose(info));
    const std::string event_text = marked(info);
    EXPECT_TRUE(sent_event() == wire::frame(event_text));
    ASSERT_THAT(fakes::ipc_requests(), SizeIs(1));
    const std::string request = wire::payload(fakes::ipc_requests()[0].data);
    EXPECT_THAT(log_lines(),
                ElementsAre(start_line, valid_line, web_on_line, switch_end_line,
                            framed(event_text.size()), gateway_line,
                            at(3, "send credible data to thtgw success, data len: " +
                                      std::to_string(event_text.size() + wire::header_size)),
                            framed(request.size()),
                            at(3, "send auto dispose task to rpdsp, data len: " +
                                      std::to_string(request.size() + wire::header_size))));
    EXPECT_THAT(
        fakes::texts({fakes::what::gateway, fakes::what::ipc}),
        ElementsAre("kzethtgw_async_send(10, " +
                        std::to_string(event_text.size() + wire::header_size) + " bytes)",
                    "request 10001, " + std::to_string(request.size() + wire::header_size)));
    answer_the_request();
}

TEST_F(kzemm_dispose_test, needs_the_switch_of_its_own_scene_only) {
    set_switches(false, true);
    const kzav_trace_info info = event_of_one_process(phishing);
    ASSERT_TRUE(dispose(info));
    EXPECT_TRUE(sent_event() == wire::frame(marked(info)));
    EXPECT_THAT(log_lines()[2],
                at(3, "get phishing credible event, check switch: dispose_phishing_switch[1]"));
    answer_the_request();
}

TEST_F(kzemm_dispose_test, writes_frames_to_the_gateway_in_host_order) {
    const std::string rule = wire::bytes(6, wire::number(6, 1) + wire::bytes(9, ""));
    const std::string start = wire::bytes(1, "a") + wire::number(5, 9);
    ASSERT_TRUE(dispose_bytes(wire::frame(start + wire::bytes(17, rule))));
    const std::string payload = start + wire::bytes(17, rule + wire::number(10, 2));
    EXPECT_EQ(sent_event(),
              std::string("3200\x11\x12\x13\x14\x01\0abcdef\x10\0\0\0", 20) + payload);
    answer_the_request();
}

TEST_F(kzemm_dispose_test, keeps_unknown_fields_and_unknown_enumerators_of_a_marked_event) {
    const std::string process = wire::number(1, 7) + wire::bytes(99, "vertex");
    const std::string action =
        wire::bytes(2, wire::varint(7)) + wire::bytes(4, process) + wire::number(88, 5);
    const std::string rule = wire::number(5, 41) + wire::number(6, 1) + wire::number(7, 42) +
                             wire::bytes(9, action) + wire::bytes(77, "rule");
    const std::string inner = wire::bytes(6, rule);
    const std::string unknown = wire::number(66, 66) + wire::varint(67 << 3 | 5) + "four" +
                                wire::varint(68 << 3 | 1) + "in eight" + wire::varint(69 << 3 | 3) +
                                wire::number(1, 1) + wire::varint(69 << 3 | 4);
    const std::string start = wire::number(5, 9) + wire::number(7, 4321);
    ASSERT_TRUE(dispose_bytes(wire::frame(start + wire::bytes(17, inner + unknown) + unknown)));
    EXPECT_TRUE(
        sent_event() ==
        wire::frame(start + wire::bytes(17, inner + wire::number(10, 2) + unknown) + unknown));
    answer_the_request();
}

TEST_F(kzemm_dispose_test, overwrites_whatever_state_an_event_came_with) {
    for (const int state : {0, 1, 2, 3, 99}) {
        fakes::reset_gateway();
        fakes::reset_ipc();
        kzav_trace_info info = event_of_one_process(web);
        info.mutable_credible_event()->set_disposal_state(
            static_cast<kzav_trace::KZAV_DISPOSAL_STATE>(state));
        ASSERT_TRUE(dispose(info));
        EXPECT_TRUE(sent_event() == wire::frame(marked(info)));
        answer_the_request();
    }
}

TEST_F(kzemm_dispose_test, goes_to_the_service_though_the_gateway_refuses_it) {
    for (const int result : {-1, 5}) {
        fakes::reset_gateway();
        fakes::reset_ipc();
        fakes::clear_journal();
        fakes::gateway_returns(result);
        EXPECT_TRUE(dispose(event_of_one_process(web)));
        EXPECT_THAT(fakes::gateway_sends(), SizeIs(1)) << "it is sent once";
        EXPECT_THAT(log_lines()[5], at(1, "send data to kzethtgw failed, type: 10"));
        EXPECT_THAT(log_lines()[6].text,
                    testing::StartsWith("send credible data to thtgw success, data len: "));
        answer_the_request();
    }
}

TEST_F(kzemm_dispose_test, keeps_the_mark_when_there_is_nothing_to_dispose_of) {
    const kzav_trace_info info = event(web);
    EXPECT_FALSE(dispose(info));
    EXPECT_TRUE(sent_event() == wire::frame(marked(info)));
    EXPECT_THAT(fakes::ipc_requests(), IsEmpty());
    const size_t size = marked(info).size();
    EXPECT_THAT(log_lines(), ElementsAre(start_line, valid_line, web_on_line, switch_end_line,
                                         framed(size), gateway_line,
                                         at(3, "send credible data to thtgw success, data len: " +
                                                   std::to_string(size + wire::header_size)),
                                         at(3, "no action need dispose."),
                                         at(2, "build auto dispose pbdata failed."),
                                         at(1, "send_event_to_autodsp failed")));
}

// ---- when memory is short ----

TEST_F(kzemm_dispose_test, nothing_goes_out_without_memory_for_the_gateways_frame) {
    const kzav_trace_info info = event_of_one_process(web);
    const size_t size = marked(info).size() + wire::header_size;
    std::string frame = wire::frame(info.SerializeAsString());
    fakes::at_record(fakes::what::log, "check auto dispose switch end",
                     [] { fakes::fail_allocation(1); });
    EXPECT_FALSE(do_auto_dispose(frame.data(), static_cast<unsigned int>(frame.size()), ipc, addr));
    EXPECT_TRUE(fakes::allocation_failed());
    expect_nothing_sent();
    EXPECT_THAT(
        log_lines(),
        ElementsAre(start_line, valid_line, web_on_line, switch_end_line,
                    at(2, "malloc " + std::to_string(size) + " byte for out_data failed"),
                    at(2, "add module header failed"), at(1, "send_event_to_thtgw failed")));
}

TEST_F(kzemm_dispose_test, keeps_the_mark_without_memory_for_the_services_frame) {
    const kzav_trace_info info = event_of_one_process(web);
    const std::string request = credible::expected_request(info, {std::string(32, 'A')});
    const size_t size = request.size() + wire::header_size;
    std::string frame = wire::frame(info.SerializeAsString());
    fail_allocation_of_order(1);
    EXPECT_FALSE(do_auto_dispose(frame.data(), static_cast<unsigned int>(frame.size()), ipc, addr));
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_TRUE(sent_event() == wire::frame(marked(info)));
    EXPECT_THAT(fakes::ipc_requests(), IsEmpty());
    const std::vector<fakes::record> lines = log_lines();
    ASSERT_THAT(lines, SizeIs(10));
    EXPECT_THAT(lines[7], at(2, "malloc " + std::to_string(size) + " byte for out_data failed"));
    EXPECT_THAT(lines[8], at(2, "add module header failed"));
    EXPECT_THAT(lines[9], at(1, "send_event_to_autodsp failed"));
}

TEST_F(kzemm_dispose_test, keeps_the_mark_without_memory_for_the_requests_context) {
    const kzav_trace_info info = event_of_one_process(web);
    std::string frame = wire::frame(info.SerializeAsString());
    fail_allocation_of_order(2);
    EXPECT_FALSE(do_auto_dispose(frame.data(), static_cast<unsigned int>(frame.size()), ipc, addr));
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_TRUE(sent_event() == wire::frame(marked(info)));
    EXPECT_THAT(fakes::ipc_requests(), IsEmpty());
    const std::vector<fakes::record> lines = log_lines();
    ASSERT_THAT(lines, SizeIs(10));
    EXPECT_THAT(lines[8], at(2, "new auto dispose ipc ctx failed"));
    EXPECT_THAT(lines[9], at(1, "send_event_to_autodsp failed"));
}

// ---- the single steps ----

TEST_F(kzemm_dispose_test, makes_an_event_to_set_the_state_of) {
    kzav_trace_info info;
    size_t size = 0;
    EXPECT_TRUE(set_data_dispose_state(info, kzav_trace::DISPOSAL_STATE_AUTO_DISPOSED, size));
    const std::string bytes = wire::bytes(17, wire::number(10, 3));
    EXPECT_EQ(info.SerializeAsString(), bytes);
    EXPECT_EQ(size, bytes.size());
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_dispose_test, an_event_that_no_buffer_can_hold_fails_before_its_frame_is_made) {
    kzav_trace_info info = event(web);
    info.clear_agent_id();
    constexpr size_t largest = INT_MAX;
    const size_t beside = marked(info).size() + 1 + 5;  // the tag of the text and its length
    info.mutable_agent_id()->resize(largest - beside + 1);
    const _module_header header = {};
    EXPECT_FALSE(send_event_to_thtgw(info, &header));
    expect_nothing_sent();
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "serialize trace info pb data failed."),
                                         at(2, "change data dispose state failed")));
    info.mutable_agent_id()->pop_back();
    size_t size = 0;
    EXPECT_TRUE(set_data_dispose_state(info, kzav_trace::DISPOSAL_STATE_AUTO_DISPOSING, size));
    EXPECT_EQ(size, largest);
}

TEST_F(kzemm_dispose_test, sends_an_event_under_a_copy_of_any_header) {
    _module_header header = {};
    memset(&header, 'x', sizeof(header));
    kzav_trace_info info = event(web);
    EXPECT_TRUE(send_event_to_thtgw(info, &header));
    const std::string payload = marked(info);
    EXPECT_EQ(sent_event(), "xxxxxxxx" + wire::integer(1, 2, false) + "xxxxxx" +
                                wire::integer(static_cast<uint32_t>(payload.size()), 4, false) +
                                payload);
    EXPECT_EQ(info.credible_event().disposal_state(), kzav_trace::DISPOSAL_STATE_AUTO_DISPOSING);
}

}  // namespace
