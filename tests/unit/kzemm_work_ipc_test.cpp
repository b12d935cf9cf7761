// The endpoint and its peers, the requests with their answers, and one-way messages.

#include <ostream>

#include "tests/unit/request_test.h"
#include "vrdaux.h"

using fakes::at;
using fakes::ipc_responses;
using fakes::log_lines;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

using line = testing::Matcher<const fakes::record &>;

constexpr unsigned int request_id = 0xFEDCBA98;

class kzemm_work_ipc_test : public request_test {
  protected:
    void SetUp() override {
        request_test::SetUp();
        endpoint = vrd_ipc_create("test", 0);
        switch_all(true);
        fakes::clear_journal();
    }

    void TearDown() override {
        vrd_ipc_destroy(endpoint);
        request_test::TearDown();
    }

    static void switch_all(bool on) {
        config::ioa_switch() = on;
        config::hunting_switch() = on;
        config::linkage_switch() = on;
        config::collect_switch() = on;
    }

    void request(unsigned int cmd, const std::string &data) {
        work.handle_ipc_request(endpoint, fakes::ipc_peer(), request_id, cmd, data.data(),
                                static_cast<unsigned int>(data.size()));
    }

    void message(unsigned int cmd, const std::string &data) {
        work.handle_ipc_recv_msg(endpoint, fakes::ipc_peer(), cmd, data.data(),
                                 static_cast<unsigned int>(data.size()));
    }

    static std::string response_text(int code) {
        return "{\"resp_code\":" + std::to_string(code) + ", \"resp_msg\":\"\"}";
    }

    // Exactly one answer went out: to this request, and with this code.
    void expect_response(unsigned int cmd, int code) {
        ASSERT_THAT(ipc_responses(), SizeIs(1));
        const fakes::ipc_response sent = ipc_responses()[0];
        EXPECT_EQ(sent.ipc, endpoint);
        EXPECT_EQ(sent.addr, fakes::ipc_peer());
        EXPECT_EQ(sent.request_id, request_id);
        EXPECT_EQ(sent.cmd, cmd);
        EXPECT_EQ(sent.data, frame(response_text(code), 2));
    }

    static line received(unsigned int cmd) {
        return at(3, "receive request cmd: " + std::to_string(cmd));
    }

    static line no_permission(unsigned int cmd) {
        return at(2, "check permission failed, cmd: " + std::to_string(cmd));
    }

    // The two lines behind which each request ends.
    static std::vector<line> answered(unsigned int cmd, int code) {
        return {
            at(3, "exec cmd: " + std::to_string(cmd) + ", response code: " + std::to_string(code)),
            at(4, "response_mgr_msg: 3200!")};
    }

    // A request's lines, from its arrival to its answer.
    static std::vector<line> lines_of(unsigned int cmd, const std::vector<line> &between,
                                      int code) {
        std::vector<line> result = {received(cmd)};
        result.insert(result.end(), between.begin(), between.end());
        const std::vector<line> end = answered(cmd, code);
        result.insert(result.end(), end.begin(), end.end());
        return result;
    }

    vrd_ipc_st *endpoint = nullptr;
};

struct command {
    unsigned int cmd;
    bool &(*own_switch)();
    bool framed;  // the message is a frame, which is checked; else it must not be empty
    int type;
    bool wrapped;  // the task gets a frame around the message
};

void PrintTo(const command &each, std::ostream *out) {
    *out << each.cmd;
}

const command commands[] = {
    {102, kzemm_config_inspector::ioa_switch, true, 4, false},
    {1002, kzemm_config_inspector::hunting_switch, true, 3, false},
    {1004, kzemm_config_inspector::linkage_switch, false, 1, true},
    {1005, kzemm_config_inspector::ioa_switch, false, 2, true},
    {1010, kzemm_config_inspector::collect_switch, false, 5, false},
};

class kzemm_work_command_test : public kzemm_work_ipc_test,
                                public testing::WithParamInterface<command> {
  protected:
    // A valid message of this command.
    static std::string valid() { return GetParam().framed ? frame("order") : "order"; }

    // The lines of do_trace for a message that is queued.
    static std::vector<line> lines_of_queuing() {
        const std::string type = std::to_string(GetParam().type);
        const size_t size = GetParam().framed || GetParam().wrapped ? 25 : 5;
        std::vector<line> result;
        if (GetParam().type == 5) {
            result.push_back(at(3, "get lkganal msg success!"));
        }
        result.push_back(at(3, "task info, type: " + type + ", size: " + std::to_string(size)));
        result.push_back(at(3, "new task info"));
        result.push_back(at(3, "add task done, task type: " + type));
        return result;
    }
};

INSTANTIATE_TEST_SUITE_P(, kzemm_work_command_test, testing::ValuesIn(commands),
                         [](const auto &each) { return std::to_string(each.param.cmd); });

struct broken {
    const char *name;
    std::string data;
    const char *reason;
};

void PrintTo(const broken &each, std::ostream *out) {
    *out << each.name;
}

std::string with(std::string text, size_t position, const std::string &bytes) {
    return text.replace(position, bytes.size(), bytes);
}

const std::string good_frame = std::string("3200\0\0\0\0\0\1\0\0\0\0\0\0\0\0\0\5", 20) + "order";

const broken broken_frames[] = {
    {"no_bytes", "", "invalid message, data_size:0"},
    {"half_a_header", good_frame.substr(0, 19), "invalid message, data_size:19"},
    {"a_byte_missing", good_frame.substr(0, 24), "invalid message, data_size:24, msg_len:5"},
    {"a_byte_too_many", good_frame + "!", "invalid message, data_size:26, msg_len:5"},
    {"length_in_host_order", with(good_frame, 16, std::string("\5\0\0\0", 4)),
     "invalid message, data_size:25, msg_len:83886080"},
    {"another_version", with(good_frame, 0, "3201"), "invalid version massage header:[3 2 0 1]"},
    {"the_type_of_answers", with(good_frame, 9, "\2"), "unknow proto type, proto type: 2"},
};

class kzemm_work_broken_frame_test : public kzemm_work_ipc_test,
                                     public testing::WithParamInterface<broken> {};

INSTANTIATE_TEST_SUITE_P(, kzemm_work_broken_frame_test, testing::ValuesIn(broken_frames),
                         [](const auto &each) { return std::string(each.param.name); });

class kzemm_work_unknown_command_test : public kzemm_work_ipc_test,
                                        public testing::WithParamInterface<unsigned int> {};

INSTANTIATE_TEST_SUITE_P(, kzemm_work_unknown_command_test,
                         testing::Values(0U, 5U, 7U, 101U, 103U, 1001U, 1003U, 1006U, 1009U, 1011U,
                                         10000U, 0x80000000U, 0xFFFFFFFFU));

// The line of an unknown command, which shows the number with its sign.
line invalid_cmd(unsigned int cmd) {
    return at(2, "invalid cmd: " + std::to_string(static_cast<int>(cmd)));
}

}  // namespace

// ---- init_ipc and uninit_ipc ----

TEST_F(kzemm_work_ipc_test, init_makes_the_endpoint_and_then_the_two_addresses) {
    EXPECT_EQ(work.init_ipc(), 0);
    EXPECT_THAT(fakes::texts({fakes::what::log, fakes::what::ipc}),
                ElementsAre("init ipc", "create agt_rpt 0", "address agt_lkg 1 0",
                            "address agt_rpdsp 0 0", "init ipc succeed"));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "init ipc"), at(3, "init ipc succeed")));
    EXPECT_EQ(fields::ipc(work), fakes::ipc_by_name("agt_rpt"));
    EXPECT_EQ(fields::lkg_addr(work), fakes::addr_by_name("agt_lkg"));
    EXPECT_EQ(fields::rpdsp_addr(work), fakes::addr_by_name("agt_rpdsp"));
}

TEST_F(kzemm_work_ipc_test, without_an_endpoint_init_makes_no_address) {
    fakes::ipc_create_fails("agt_rpt");
    EXPECT_EQ(work.init_ipc(), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "init ipc"), at(1, "create ipc agt_rpt failed")));
    EXPECT_THAT(fakes::texts({fakes::what::ipc}), ElementsAre("create agt_rpt 0"));
    EXPECT_EQ(fields::ipc(work), nullptr);
}

TEST_F(kzemm_work_ipc_test, without_the_linkage_address_init_fails_and_leaves_the_endpoint) {
    fakes::addr_create_fails("agt_lkg");
    EXPECT_EQ(work.init_ipc(), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "init ipc"), at(1, "Create address handle failed!\n")));
    EXPECT_THAT(fakes::texts({fakes::what::ipc}),
                ElementsAre("create agt_rpt 0", "address agt_lkg 1 0"));
    EXPECT_NE(fields::ipc(work), nullptr);
    EXPECT_EQ(fields::lkg_addr(work), nullptr);
    EXPECT_EQ(fields::rpdsp_addr(work), nullptr);
}

TEST_F(kzemm_work_ipc_test, without_the_disposal_address_init_fails_and_leaves_the_others) {
    fakes::addr_create_fails("agt_rpdsp");
    EXPECT_EQ(work.init_ipc(), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "init ipc"), at(1, "create ipc address agt_rpdsp failed")));
    EXPECT_NE(fields::ipc(work), nullptr);
    EXPECT_NE(fields::lkg_addr(work), nullptr);
    EXPECT_EQ(fields::rpdsp_addr(work), nullptr);
}

TEST_F(kzemm_work_ipc_test, uninit_destroys_the_endpoint_and_then_the_addresses) {
    EXPECT_EQ(work.init_ipc(), 0);
    fakes::clear_journal();
    work.uninit_ipc();
    EXPECT_THAT(fakes::texts({fakes::what::log, fakes::what::ipc}),
                ElementsAre("uninit ipc", "destroy agt_rpt", "destroy address agt_rpdsp",
                            "destroy address agt_lkg"));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "uninit ipc")));
    EXPECT_EQ(fields::ipc(work), nullptr);
    EXPECT_EQ(fields::rpdsp_addr(work), nullptr);
    EXPECT_EQ(fields::lkg_addr(work), nullptr);
}

TEST_F(kzemm_work_ipc_test, uninit_passes_over_what_is_not_there) {
    work.uninit_ipc();
    EXPECT_THAT(fakes::texts({fakes::what::log, fakes::what::ipc}), ElementsAre("uninit ipc"));

    fakes::addr_create_fails("agt_rpdsp");
    EXPECT_EQ(work.init_ipc(), -1);
    fakes::clear_journal();
    work.uninit_ipc();
    work.uninit_ipc();
    EXPECT_THAT(
        fakes::texts({fakes::what::log, fakes::what::ipc}),
        ElementsAre("uninit ipc", "destroy agt_rpt", "destroy address agt_lkg", "uninit ipc"));
}

// ---- register_ipc_cb ----

TEST_F(kzemm_work_ipc_test, requests_are_let_in_before_messages) {
    EXPECT_EQ(work.init_ipc(), 0);
    fakes::clear_journal();
    EXPECT_EQ(work.register_ipc_cb(), 0);
    EXPECT_THAT(fakes::texts({fakes::what::log, fakes::what::ipc}),
                ElementsAre("on request", "on message", "register ipc callback success"));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "register ipc callback success")));
}

TEST_F(kzemm_work_ipc_test, a_refused_request_callback_ends_the_registration) {
    EXPECT_EQ(work.init_ipc(), 0);
    for (const int code : {-9, 3}) {
        fakes::ipc_on_request_returns(code);
        fakes::clear_journal();
        EXPECT_EQ(work.register_ipc_cb(), -1);
        EXPECT_THAT(log_lines(),
                    ElementsAre(at(2, "register ipc_on_request failed, ret " +
                                          std::to_string(code) + ", error: the peer says no")));
        EXPECT_THAT(fakes::texts({fakes::what::ipc}), ElementsAre("on request"));
    }
}

TEST_F(kzemm_work_ipc_test, a_refused_message_callback_fails_the_registration) {
    EXPECT_EQ(work.init_ipc(), 0);
    for (const int code : {-9, 3}) {
        fakes::ipc_msg_recv_returns(code);
        fakes::clear_journal();
        EXPECT_EQ(work.register_ipc_cb(), -1);
        EXPECT_THAT(log_lines(),
                    ElementsAre(at(2, "register on_ipc_recv failed, ret " + std::to_string(code) +
                                          ", error: the peer says no")));
    }
}

TEST_F(kzemm_work_ipc_test, what_arrives_at_the_endpoint_reaches_this_worker) {
    EXPECT_EQ(work.init_ipc(), 0);
    EXPECT_EQ(work.register_ipc_cb(), 0);
    fakes::clear_journal();
    EXPECT_TRUE(fakes::ipc_receives_request("agt_rpt", 12, 1004, "order"));
    EXPECT_THAT(queued(), SizeIs(1));
    ASSERT_THAT(ipc_responses(), SizeIs(1));
    EXPECT_EQ(ipc_responses()[0].ipc, fields::ipc(work));
    EXPECT_EQ(ipc_responses()[0].addr, fakes::ipc_peer());
    EXPECT_EQ(ipc_responses()[0].request_id, 12U);
    EXPECT_EQ(ipc_responses()[0].cmd, 1004U);

    fakes::clear_journal();
    EXPECT_TRUE(fakes::ipc_receives_message("agt_rpt", 7, "text"));
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "invalid cmd: 7")));
}

// ---- requests ----

TEST_F(kzemm_work_ipc_test, a_request_without_endpoint_peer_or_data_gets_no_answer) {
    const std::string data = frame("order");
    const auto size = static_cast<unsigned int>(data.size());
    work.handle_ipc_request(nullptr, fakes::ipc_peer(), 1, 1002, data.data(), size);
    work.handle_ipc_request(endpoint, nullptr, 1, 1002, data.data(), size);
    work.handle_ipc_request(endpoint, fakes::ipc_peer(), 1, 1002, nullptr, size);
    const auto invalid = at(2, "params is invalid");
    EXPECT_THAT(log_lines(), ElementsAre(invalid, invalid, invalid));
    EXPECT_THAT(ipc_responses(), IsEmpty());
    EXPECT_THAT(queued(), IsEmpty());
}

TEST_P(kzemm_work_command_test, is_queued_and_answered_with_0) {
    request(GetParam().cmd, valid());
    expect_response(GetParam().cmd, 0);
    EXPECT_THAT(log_lines(), ElementsAreArray(lines_of(GetParam().cmd, lines_of_queuing(), 0)));
    EXPECT_EQ(only_task().get_type(), GetParam().type);
    EXPECT_EQ(data_of_only_task(), GetParam().wrapped ? frame("order") : valid());
}

TEST_P(kzemm_work_command_test, is_answered_behind_its_last_line) {
    request(GetParam().cmd, valid());
    const std::vector<std::string> order = fakes::texts({fakes::what::log, fakes::what::ipc});
    const std::string answer = "response " + std::to_string(GetParam().cmd) + ", " +
                               std::to_string(frame(response_text(0), 2).size());
    EXPECT_EQ(order.back(), answer);
    EXPECT_THAT(order, Contains(answer).Times(1));
}

TEST_P(kzemm_work_command_test, needs_its_own_switch_and_no_other) {
    GetParam().own_switch() = false;
    request(GetParam().cmd, valid());
    expect_response(GetParam().cmd, 2);
    EXPECT_THAT(log_lines(),
                ElementsAreArray(lines_of(GetParam().cmd, {no_permission(GetParam().cmd)}, 2)));
    EXPECT_THAT(queued(), IsEmpty());

    fakes::reset_ipc();
    switch_all(false);
    GetParam().own_switch() = true;
    request(GetParam().cmd, valid());
    expect_response(GetParam().cmd, 0);
}

TEST_P(kzemm_work_command_test, is_checked_before_its_switch) {
    for (const bool on : {true, false}) {
        SCOPED_TRACE(on);
        switch_all(on);
        fakes::reset_ipc();
        fakes::clear_journal();
        request(GetParam().cmd, "");
        expect_response(GetParam().cmd, 3);
        std::vector<line> between;
        if (GetParam().framed) {
            between.push_back(at(2, "invalid message, data_size:0"));
            between.push_back(
                at(2, "check msg header failed, cmd: " + std::to_string(GetParam().cmd)));
        }
        between.push_back(at(2, "msg is invalid"));
        EXPECT_THAT(log_lines(), ElementsAreArray(lines_of(GetParam().cmd, between, 3)));
    }
    EXPECT_THAT(queued(), IsEmpty());
}

TEST_P(kzemm_work_command_test, is_answered_at_once_when_the_queue_is_full) {
    fill_queue(5);
    request(GetParam().cmd, valid());
    expect_response(GetParam().cmd, 1);
    EXPECT_THAT(log_lines(), Contains(at(2, "task queue is full, size: 5")));
    EXPECT_THAT(queued(), SizeIs(5));
}

TEST_P(kzemm_work_command_test, fails_without_a_task_thread) {
    queue_fields::running(queue()) = false;
    request(GetParam().cmd, valid());
    expect_response(GetParam().cmd, 4);
    EXPECT_THAT(log_lines(), Contains(at(2, "task thread is not running")));
}

TEST_P(kzemm_work_broken_frame_test, is_refused_with_its_reason_in_both_framed_commands) {
    for (const unsigned int cmd : {102U, 1002U}) {
        fakes::reset_ipc();
        fakes::clear_journal();
        request(cmd, GetParam().data);
        expect_response(cmd, 3);
        EXPECT_THAT(log_lines(), ElementsAreArray(lines_of(
                                     cmd,
                                     {at(2, GetParam().reason),
                                      at(2, "check msg header failed, cmd: " + std::to_string(cmd)),
                                      at(2, "msg is invalid")},
                                     3)));
    }
    EXPECT_THAT(queued(), IsEmpty());
}

TEST_F(kzemm_work_ipc_test, a_frame_that_is_cut_anywhere_is_refused) {
    for (const unsigned int cmd : {102U, 1002U}) {
        for (size_t size = 0; size < good_frame.size(); ++size) {
            SCOPED_TRACE(size);
            fakes::reset_ipc();
            request(cmd, good_frame.substr(0, size));
            expect_response(cmd, 3);
        }
    }
    EXPECT_THAT(queued(), IsEmpty());
}

TEST_F(kzemm_work_ipc_test, a_changed_byte_is_refused_where_the_check_reads_it) {
    for (size_t position = 0; position < good_frame.size(); ++position) {
        SCOPED_TRACE(position);
        std::string changed = good_frame;
        changed[position] = static_cast<char>(~changed[position]);
        const bool read =
            position < 4 || position == 8 || position == 9 || (position >= 16 && position < 20);
        fakes::reset_ipc();
        request(1002, changed);
        expect_response(1002, read ? 3 : 0);
    }
}

TEST_F(kzemm_work_ipc_test, a_frame_without_a_payload_is_a_valid_one) {
    request(1002, frame(""));
    expect_response(1002, 0);
    EXPECT_EQ(data_of_only_task(), frame(""));
}

TEST_F(kzemm_work_ipc_test, the_commands_without_a_frame_take_any_bytes) {
    for (const unsigned int cmd : {1004U, 1005U, 1010U}) {
        fakes::reset_ipc();
        request(cmd, std::string(1, '\0'));
        expect_response(cmd, 0);
    }
    EXPECT_THAT(queued(), SizeIs(3));
}

TEST_P(kzemm_work_unknown_command_test, counts_as_switched_off) {
    request(GetParam(), "order");
    expect_response(GetParam(), 2);
    EXPECT_THAT(log_lines(),
                ElementsAreArray(
                    lines_of(GetParam(), {invalid_cmd(GetParam()), no_permission(GetParam())}, 2)));
    EXPECT_THAT(queued(), IsEmpty());
}

TEST_P(kzemm_work_unknown_command_test, is_refused_first_for_having_no_bytes) {
    request(GetParam(), "");
    expect_response(GetParam(), 3);
    EXPECT_THAT(log_lines(), ElementsAreArray(lines_of(GetParam(), {at(2, "msg is invalid")}, 3)));
}

TEST_F(kzemm_work_ipc_test, the_number_of_the_disposal_request_is_framed_but_unknown_here) {
    request(10001, "order");
    expect_response(10001, 3);
    EXPECT_THAT(log_lines(), Not(Contains(invalid_cmd(10001))));

    fakes::reset_ipc();
    fakes::clear_journal();
    request(10001, frame("order"));
    expect_response(10001, 2);
    EXPECT_THAT(log_lines(),
                ElementsAreArray(lines_of(10001, {invalid_cmd(10001), no_permission(10001)}, 2)));
}

TEST_F(kzemm_work_ipc_test, the_switch_is_read_at_each_request) {
    for (const bool on : {true, false, true}) {
        fakes::reset_ipc();
        config::linkage_switch() = on;
        request(1004, "order");
        expect_response(1004, on ? 0 : 2);
    }
}

// ---- answers ----

TEST_F(kzemm_work_ipc_test, an_answer_is_a_frame_of_type_2_around_its_text) {
    for (const int code : {0, 1, 2, 3, 4}) {
        SCOPED_TRACE(code);
        fakes::reset_ipc();
        fakes::clear_journal();
        work.response_mgr_msg(endpoint, fakes::ipc_peer(), request_id, 4321,
                              static_cast<KZEMM_TRACE_ERRORCODE>(code));
        expect_response(4321, code);
        EXPECT_THAT(log_lines(), ElementsAre(at(4, "response_mgr_msg: 3200!")));
    }
    // Byte for byte.
    const std::string expected = std::string("3200\0\0\0\0\0\2\0\0\0\0\0\0\0\0\0\36", 20) +
                                 "{\"resp_code\":4, \"resp_msg\":\"\"}";
    EXPECT_EQ(ipc_responses()[0].data, expected);
}

TEST_F(kzemm_work_ipc_test, an_answer_without_memory_is_not_sent) {
    fakes::fail_allocation(1);
    work.response_mgr_msg(endpoint, fakes::ipc_peer(), request_id, 1004, KZEMM_TRACE_OK);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "malloc 50 byte failed")));
    EXPECT_THAT(ipc_responses(), IsEmpty());
}

TEST_F(kzemm_work_ipc_test, a_request_whose_answer_has_no_memory_is_queued_all_the_same) {
    fakes::at_record(fakes::what::log, "add task done", [] { fakes::fail_allocation(1); });
    request(1004, "order");
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(ipc_responses(), IsEmpty());
    EXPECT_THAT(queued(), SizeIs(1));
}

TEST_F(kzemm_work_ipc_test, an_answer_that_cannot_be_sent_is_forgotten) {
    for (const int code : {-1, 1}) {
        fakes::reset_ipc();
        fakes::clear_journal();
        fakes::ipc_response_returns(code);
        request(7, "order");
        expect_response(7, 2);
        EXPECT_THAT(log_lines(),
                    ElementsAreArray(lines_of(7, {invalid_cmd(7), no_permission(7)}, 2)));
    }
}

// ---- one-way messages ----

TEST_F(kzemm_work_ipc_test, a_message_without_endpoint_peer_or_data_is_dropped) {
    work.handle_ipc_recv_msg(nullptr, fakes::ipc_peer(), 1002, "text", 4);
    work.handle_ipc_recv_msg(endpoint, nullptr, 1002, "text", 4);
    work.handle_ipc_recv_msg(endpoint, fakes::ipc_peer(), 1002, nullptr, 4);
    const auto invalid = at(2, "params is invalid");
    EXPECT_THAT(log_lines(), ElementsAre(invalid, invalid, invalid));
}

TEST_F(kzemm_work_ipc_test, any_message_but_the_notification_is_invalid) {
    switch_all(false);
    for (const unsigned int cmd : {0U, 102U, 1001U, 1003U, 1004U, 1010U, 0xFFFFFFFFU}) {
        fakes::clear_journal();
        message(cmd, frame("order"));
        EXPECT_THAT(log_lines(), ElementsAre(at(2, "invalid cmd: " + std::to_string(cmd))));
    }
    EXPECT_THAT(ipc_responses(), IsEmpty());
    EXPECT_THAT(queued(), IsEmpty());
}

TEST_F(kzemm_work_ipc_test, the_notification_needs_neither_bytes_nor_a_switch) {
    switch_all(false);
    message(1002, "");
    EXPECT_THAT(log_lines(), Contains(at(3, "do cfgc notify success")));
    EXPECT_THAT(log_lines(), Not(Contains(at(2, "msg is invalid"))));
    EXPECT_THAT(ipc_responses(), IsEmpty());
    EXPECT_THAT(queued(), IsEmpty());
}

TEST_F(kzemm_work_ipc_test, the_notification_is_answered_where_it_came_from) {
    xmsg *const changes = xmsg_new("changes");
    EXPECT_EQ(xmsg_add(changes, "trust_ip", 8, "1", 1), 0);
    std::string body(static_cast<size_t>(xmsg_pack_size(changes)), '\0');
    EXPECT_GT(xmsg_pack(changes, body.data(), static_cast<unsigned int>(body.size())), 0);
    xmsg_release(changes);
    message(1002, body);
    ASSERT_THAT(fakes::ipc_requests(), SizeIs(1));
    EXPECT_EQ(fakes::ipc_requests()[0].ipc, endpoint);
    EXPECT_EQ(fakes::ipc_requests()[0].addr, fakes::ipc_peer());
}
