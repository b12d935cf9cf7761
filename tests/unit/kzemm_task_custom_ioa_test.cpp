// Custom rules on their way to the engine, its verdict, and what the console hears of it.

#include <gmock/gmock.h>
#include <jansson.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <thread>

#include "datapath/kzemm_task.h"
#include "tests/fakes/fake_engine.h"
#include "tests/fakes/fake_gateway.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/inspectors.h"
#include "tests/fakes/latch.h"
#include "tests/fakes/plugin_test.h"
#include "tests/unit/json_faults.h"

using fakes::at;
using fakes::gateway_sends;
using fakes::log_lines;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr char update_by_data[] = "x_client_engine_update_by_data";
constexpr int decode_any = 4;
constexpr int result_type = 8;

struct free_deleter {
    void operator()(char *text) const { free(text); }
};
using text_ptr = std::unique_ptr<char, free_deleter>;

// A request's frame: its numbers are in network order.
std::string request_frame(const std::string &body) {
    std::string frame("3200\0\0\0\0\0\1\0\0\0\0\0\0", 16);
    for (int shift = 24; shift >= 0; shift -= 8) {
        frame.push_back(static_cast<char>(body.size() >> shift & 0xFF));
    }
    return frame + body;
}

// A frame for the gateway: protocol type 2, in this host's order.
std::string gateway_frame(const std::string &text) {
    std::string frame("3200\0\0\0\0\2\0\0\0\0\0\0\0", 16);
    for (int shift = 0; shift < 32; shift += 8) {
        frame.push_back(static_cast<char>(text.size() >> shift & 0xFF));
    }
    return frame + text;
}

std::string result_text(const std::string &agent, int result, const std::string &rule_id) {
    return "{\n\t\"agentId\":\t" + agent + ",\n\t\"res\":\t" + std::to_string(result) +
           ",\n\t\"rulesId\":\t\"" + rule_id + "\"\n}";
}

std::string result_text(int result, const std::string &rule_id) {
    return result_text("4711", result, rule_id);
}

// What the parser itself says of a text.
std::string parse_error(const std::string &text) {
    json_error_t error = {};
    json_t *const parsed = json_loadb(text.data(), text.size(), decode_any, &error);
    json_decref(parsed);
    return error.text;
}

class kzemm_task_custom_ioa_test : public plugin_test {
  protected:
    using fields = kzemm_task_inspector;

    void SetUp() override {
        plugin_test::SetUp();
        load_libraries();
    }

    int deal(const std::string &body) {
        const std::string frame = request_frame(body);
        return task.deal_customioa_task(frame.data(), static_cast<unsigned int>(frame.size()));
    }

    // The engine's verdict, on a thread of its own.
    void verdict(int ret, _engine_type type = ENGINE_CUSTOM_IOA) {
        std::thread engine([&] { kzemm_task::engine_upd_by_data_cb(type, ret, &task); });
        engine.join();
    }

    void write_stored_id(const std::string &id) const {
        write_file("config/kzectmrule.ini", "[ioa]\nruleid=" + id + "\n");
    }

    std::string stored_file() const { return read_file("config/kzectmrule.ini"); }

    static std::string &stored_id() { return kzemm_config_inspector::ctmioa_rule_id(); }

    static std::vector<testing::Matcher<const fakes::record &>> sent_lines(
        const std::string &text) {
        return {at(3, "agent id:4711"), at(3, "custom ioa ret json encode:" + text),
                at(3, "custom ioa result json msg:" + text), at(3, "send data to thtgw success")};
    }

    void expect_refused(const std::string &body, const std::string &expected_line) {
        SCOPED_TRACE(body);
        fakes::clear_journal();
        EXPECT_EQ(deal(body), -1);
        EXPECT_THAT(log_lines(), ElementsAre(at(1, expected_line)));
        EXPECT_THAT(fakes::engine_texts(), IsEmpty());
        EXPECT_THAT(gateway_sends(), IsEmpty()) << "the console hears nothing";
        EXPECT_EQ(fields::cur_rule_id(task), "");
    }

    kzemm_task task;
};

using deal_customioa_task_test = kzemm_task_custom_ioa_test;

const std::string good_body = R"({"rulesId":"id-1","rulesInfo":"the rules"})";

// ---- deal_customioa_task ----

TEST_F(deal_customioa_task_test, hands_the_rules_to_the_engine_and_then_takes_their_identifier) {
    fields::cur_rule_id(task) = "before";
    std::string during_the_call;
    fakes::on_engine_call(update_by_data, [&](const fakes::engine_call &) {
        during_the_call = fields::cur_rule_id(task);
    });
    EXPECT_EQ(deal(good_body), 0);
    EXPECT_EQ(during_the_call, "before");
    EXPECT_EQ(fields::cur_rule_id(task), "id-1");
    ASSERT_THAT(fakes::engine_calls(), SizeIs(1));
    const fakes::engine_call call = fakes::engine_calls()[0];
    EXPECT_EQ(call.text, "x_client_engine_update_by_data(7, 9 bytes)");
    EXPECT_EQ(call.data, "the rules");
    EXPECT_TRUE(fakes::is_callback(call.callback, kzemm_task::engine_upd_by_data_cb));
    EXPECT_EQ(call.context, &task);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "json parse custom ioa success,rule id:id-1, ioa_data len:9"),
                            at(3, "invoke engine update by data success")));
    EXPECT_THAT(gateway_sends(), IsEmpty()) << "the result comes with the engine's verdict";
}

TEST_F(deal_customioa_task_test, passes_the_rules_on_unchanged) {
    EXPECT_EQ(deal(R"({"more":1,"rulesInfo":"{\"a\":\t\"ä\u20ac\"}\n","x":[],"rulesId":"7"})"), 0);
    EXPECT_EQ(fakes::engine_calls()[0].data, "{\"a\":\t\"ä€\"}\n");
    EXPECT_EQ(fields::cur_rule_id(task), "7");
}

TEST_F(deal_customioa_task_test, passes_large_rules_on_whole) {
    const std::string rules(1000000, 'r');
    EXPECT_EQ(deal(R"({"rulesId":"1","rulesInfo":")" + rules + "\"}"), 0);
    EXPECT_EQ(fakes::engine_calls()[0].data, rules);
}

TEST_F(deal_customioa_task_test, refuses_empty_parameters) {
    const char data[] = "text";
    char pointer[32] = {};
    snprintf(pointer, sizeof(pointer), "%p", static_cast<const void *>(data));
    EXPECT_EQ(task.deal_customioa_task(nullptr, 4), -1);
    EXPECT_EQ(task.deal_customioa_task(nullptr, 0), -1);
    EXPECT_EQ(task.deal_customioa_task(data, 0), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(1, "param error,data:(nil),length:4"),
                            at(1, "param error,data:(nil),length:0"),
                            at(1, std::string("param error,data:") + pointer + ",length:0")));
    EXPECT_THAT(fakes::engine_texts(), IsEmpty());
    EXPECT_THAT(gateway_sends(), IsEmpty());
}

TEST_F(deal_customioa_task_test, believes_the_header_and_not_the_length) {
    const std::string frame = request_frame(good_body);
    EXPECT_EQ(task.deal_customioa_task(frame.data(), 1), 0);
    const std::string with_more = request_frame(good_body) + " and more";
    EXPECT_EQ(
        task.deal_customioa_task(with_more.data(), static_cast<unsigned int>(with_more.size())), 0);
    EXPECT_THAT(fakes::engine_calls(), SizeIs(2));
}

TEST_F(deal_customioa_task_test, drops_zero_bytes_at_the_end) {
    EXPECT_EQ(deal(good_body + std::string(3, '\0')), 0);
    EXPECT_EQ(deal(good_body + std::string(1, '\0')), 0);
    EXPECT_EQ(fakes::engine_calls()[0].data, "the rules");
}

TEST_F(deal_customioa_task_test, refuses_a_body_of_zero_bytes_alone_and_none_at_all) {
    const std::string expected = "load msg_json failed, err: " + parse_error("");
    for (const unsigned int size : {0U, 1U, 3U, 5000U}) {
        expect_refused(std::string(size, '\0'), expected);
    }
}

TEST_F(deal_customioa_task_test, refuses_what_is_no_json) {
    for (const std::string &body :
         {std::string("{"), std::string("no json"), good_body + "x",
          good_body + std::string(1, '\0') + "x", std::string(R"({"rulesId":"1",})"),
          std::string(1, '\0') + good_body, std::string("{\"rulesId\":\"\xff\"}")}) {
        ASSERT_NE(parse_error(body), "");
        expect_refused(body, "load msg_json failed, err: " + parse_error(body));
    }
}

TEST_F(deal_customioa_task_test, refuses_json_that_is_no_object) {
    for (const char *const body : {"[]", "1", "null", "true", "\"text\"", R"(["rulesId"])"}) {
        ASSERT_EQ(parse_error(body), "") << "it is JSON";
        expect_refused(body, "load msg_json failed, err: ");
    }
}

TEST_F(deal_customioa_task_test, refuses_an_identifier_that_is_no_text) {
    for (const char *const value : {"1", "null", "true", "[]", "{}"}) {
        expect_refused(std::string(R"({"rulesInfo":"r","rulesId":)") + value + "}",
                       "json judge failed rulesId");
    }
    expect_refused(R"({"rulesInfo":"r"})", "json judge failed rulesId");
    expect_refused(R"({"rulesInfo":"r","rulesid":"1"})", "json judge failed rulesId");
    expect_refused("{}", "json judge failed rulesId");
}

TEST_F(deal_customioa_task_test, refuses_rules_that_are_no_text) {
    for (const char *const value : {"1", "null", "true", "[]", "{}"}) {
        expect_refused(std::string(R"({"rulesId":"1","rulesInfo":)") + value + "}",
                       "json judge failed rulesInfo");
    }
    expect_refused(R"({"rulesId":"1"})", "json judge failed rulesInfo");
    expect_refused(R"({"rulesId":""})", "json judge failed rulesInfo");
}

TEST_F(deal_customioa_task_test, refuses_an_empty_text) {
    expect_refused(R"({"rulesId":"","rulesInfo":"abc"})", "ioa rule len:3, rule_id len:0");
    expect_refused(R"({"rulesId":"abcd","rulesInfo":""})", "ioa rule len:0, rule_id len:4");
    expect_refused(R"({"rulesId":"","rulesInfo":""})", "ioa rule len:0, rule_id len:0");
}

TEST_F(deal_customioa_task_test, a_refusal_keeps_the_identifiers) {
    fields::cur_rule_id(task) = "before";
    stored_id() = "stored";
    for (const char *const body : {"", "[]", "{}", R"({"rulesId":"","rulesInfo":""})"}) {
        EXPECT_EQ(deal(body), -1);
    }
    EXPECT_EQ(fields::cur_rule_id(task), "before");
    EXPECT_EQ(stored_id(), "stored");
}

TEST_F(deal_customioa_task_test, reports_rules_that_the_engine_does_not_take) {
    fields::cur_rule_id(task) = "before";
    fakes::engine_returns(update_by_data, {-8});
    EXPECT_EQ(deal(good_body), -1);
    const std::string text = result_text(-4, "id-1");
    std::vector<testing::Matcher<const fakes::record &>> expected = {
        at(3, "json parse custom ioa success,rule id:id-1, ioa_data len:9"),
        at(1, "invoke engine update by data failed:-8")};
    for (const auto &each : sent_lines(text)) {
        expected.push_back(each);
    }
    EXPECT_THAT(log_lines(), testing::ElementsAreArray(expected));
    ASSERT_THAT(gateway_sends(), SizeIs(1));
    EXPECT_EQ(gateway_sends()[0].type, result_type);
    EXPECT_EQ(gateway_sends()[0].data, gateway_frame(text));
    EXPECT_EQ(fields::cur_rule_id(task), "before");
}

TEST_F(deal_customioa_task_test, a_refusal_that_cannot_be_reported_is_lost) {
    fakes::engine_returns(update_by_data, {2});
    fakes::gateway_returns(-1);
    EXPECT_EQ(deal(good_body), -1);
    EXPECT_THAT(log_lines(), Contains(at(1, "send_ctmdata_to_gw failed")));
    EXPECT_THAT(gateway_sends(), SizeIs(1)) << "it is not tried again";
}

// ---- the engine's verdict ----

using ctmioa_verdict_test = kzemm_task_custom_ioa_test;

TEST_F(ctmioa_verdict_test, success_stores_the_identifier_and_is_reported) {
    write_stored_id("0");
    EXPECT_EQ(deal(good_body), 0);
    fakes::clear_journal();
    verdict(0);
    const std::string text = result_text(0, "id-1");
    std::vector<testing::Matcher<const fakes::record &>> expected = {
        at(3, "custom ioa update callback ret:0, cur rule id:id-1"),
        at(3, "update ruleid success")};
    for (const auto &each : sent_lines(text)) {
        expected.push_back(each);
    }
    EXPECT_THAT(log_lines(), testing::ElementsAreArray(expected));
    EXPECT_EQ(stored_id(), "id-1");
    EXPECT_THAT(stored_file(), testing::HasSubstr("id-1"));
    ASSERT_THAT(gateway_sends(), SizeIs(1));
    EXPECT_EQ(gateway_sends()[0].type, result_type);
    EXPECT_EQ(gateway_sends()[0].data, gateway_frame(text));
}

TEST_F(ctmioa_verdict_test, a_failure_is_reported_and_stores_nothing) {
    write_stored_id("0");
    const std::string file = stored_file();
    stored_id() = "0";
    EXPECT_EQ(deal(good_body), 0);
    fakes::clear_journal();
    verdict(-16);
    const std::string text = result_text(-3, "id-1");
    std::vector<testing::Matcher<const fakes::record &>> expected = {
        at(3, "custom ioa update callback ret:-16, cur rule id:id-1")};
    for (const auto &each : sent_lines(text)) {
        expected.push_back(each);
    }
    EXPECT_THAT(log_lines(), testing::ElementsAreArray(expected));
    EXPECT_EQ(gateway_sends()[0].data, gateway_frame(text));
    EXPECT_EQ(stored_id(), "0");
    EXPECT_EQ(stored_file(), file);
    EXPECT_EQ(fields::cur_rule_id(task), "id-1") << "until the next update";
}

TEST_F(ctmioa_verdict_test, another_engine_type_is_ignored) {
    fields::cur_rule_id(task) = "id";
    for (const _engine_type type :
         {ENGINE_IOC, ENGINE_IOA, ENGINE_COLLECT, ENGINE_ABNORMAL_SCAN, ENGINE_BRUTEFORCE_SSH}) {
        verdict(0, type);
        verdict(-1, type);
    }
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_THAT(gateway_sends(), IsEmpty());
    EXPECT_EQ(stored_id(), "");
}

TEST_F(ctmioa_verdict_test, an_identifier_that_cannot_be_stored_is_reported_as_success) {
    stored_id() = "before";
    EXPECT_EQ(deal(good_body), 0);
    fakes::clear_journal();
    verdict(0);
    const std::string text = result_text(0, "id-1");
    std::vector<testing::Matcher<const fakes::record &>> expected = {
        at(3, "custom ioa update callback ret:0, cur rule id:id-1"), at(0, "ini file load failed"),
        at(1, "set custom ioa ruleid to file failed")};
    for (const auto &each : sent_lines(text)) {
        expected.push_back(each);
    }
    EXPECT_THAT(log_lines(), testing::ElementsAreArray(expected));
    EXPECT_EQ(gateway_sends()[0].data, gateway_frame(text));
    EXPECT_EQ(stored_id(), "before");
}

TEST_F(ctmioa_verdict_test, a_file_that_cannot_be_saved_is_reported_as_success) {
    write_stored_id("0");
    fakes::ini_save_fails(-5);
    EXPECT_EQ(deal(good_body), 0);
    verdict(0);
    EXPECT_THAT(log_lines(), Contains(at(1, "set custom ioa ruleid to file failed")));
    EXPECT_THAT(gateway_sends(), SizeIs(1));
}

TEST_F(ctmioa_verdict_test, an_empty_identifier_is_stored_and_not_reported) {
    write_stored_id("before");
    stored_id() = "before";
    verdict(0);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "custom ioa update callback ret:0, cur rule id:"),
                                         at(3, "update ruleid success")));
    EXPECT_EQ(stored_id(), "");
    EXPECT_THAT(gateway_sends(), IsEmpty());
    fakes::clear_journal();
    verdict(-1);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "custom ioa update callback ret:-1, cur rule id:")));
    EXPECT_THAT(gateway_sends(), IsEmpty());
}

TEST_F(ctmioa_verdict_test, a_verdict_from_within_the_call_sees_the_identifier_before) {
    write_stored_id("0");
    fields::cur_rule_id(task) = "before";
    fakes::on_engine_call(update_by_data, [this](const fakes::engine_call &) { verdict(0); });
    EXPECT_EQ(deal(good_body), 0);
    EXPECT_EQ(stored_id(), "before");
    ASSERT_THAT(gateway_sends(), SizeIs(1));
    EXPECT_EQ(gateway_sends()[0].data, gateway_frame(result_text(0, "before")));
    EXPECT_EQ(fields::cur_rule_id(task), "id-1");
}

TEST_F(ctmioa_verdict_test, two_updates_that_overlap_are_reported_under_the_newer_identifier) {
    write_stored_id("0");
    EXPECT_EQ(deal(R"({"rulesId":"old","rulesInfo":"r"})"), 0);
    EXPECT_EQ(deal(R"({"rulesId":"new","rulesInfo":"r"})"), 0);
    verdict(0);
    EXPECT_EQ(stored_id(), "new");
    verdict(-7);
    ASSERT_THAT(gateway_sends(), SizeIs(2));
    EXPECT_EQ(gateway_sends()[0].data, gateway_frame(result_text(0, "new")));
    EXPECT_EQ(gateway_sends()[1].data, gateway_frame(result_text(-5, "new")));
}

// The engine is asked to call back after it took the rules, but may be quicker than the return. The
// identifiers differ in length and in every byte, so that no mixture of two looks like one of them.
TEST_F(ctmioa_verdict_test, a_verdict_while_the_identifier_is_taken_tells_the_one_or_the_other) {
    constexpr int rounds = 200;
    const std::string ids[] = {"the identifier of a rule set " + std::string(60, 'a'), "b"};
    fields::cur_rule_id(task) = ids[1];
    for (int round = 0; round < rounds; ++round) {
        const std::string &older = ids[(round + 1) % 2];
        const std::string &newer = ids[round % 2];
        std::thread engine;
        fakes::on_engine_call(update_by_data, [&](const fakes::engine_call &) {
            engine = std::thread([this] { verdict(-1); });
        });
        EXPECT_EQ(deal(R"({"rulesId":")" + newer + R"(","rulesInfo":"r"})"), 0);
        engine.join();
        ASSERT_THAT(gateway_sends(), SizeIs(1));
        EXPECT_THAT(gateway_sends()[0].data, testing::AnyOf(gateway_frame(result_text(-2, older)),
                                                            gateway_frame(result_text(-2, newer))));
        EXPECT_EQ(fields::cur_rule_id(task), newer);
        fakes::reset_gateway();
    }
}

// The gateway stands still while it is told the outcome of an update: neither the next verdict, nor
// the next request, nor the end of the queue waits for it.
TEST_F(ctmioa_verdict_test, nobody_waits_for_a_gateway_that_stands_still) {
    write_stored_id("0");
    auto queue = std::make_unique<kzemm_task>();
    const auto deal_with = [&](const std::string &body) {
        const std::string frame = request_frame(body);
        return queue->deal_customioa_task(frame.data(), static_cast<unsigned int>(frame.size()));
    };
    ASSERT_EQ(deal_with(good_body), 0);
    fakes::latch in_gateway;
    fakes::latch go_on;
    fakes::on_gateway_send([&] {
        fakes::on_gateway_send(nullptr);
        in_gateway.open();
        EXPECT_TRUE(go_on.wait());
    });
    std::thread first(
        [&, user = queue.get()] { kzemm_task::engine_upd_by_data_cb(ENGINE_CUSTOM_IOA, 0, user); });
    ASSERT_TRUE(in_gateway.wait());

    EXPECT_EQ(deal_with(R"({"rulesId":"newer","rulesInfo":"r"})"), 0);
    kzemm_task::engine_upd_by_data_cb(ENGINE_CUSTOM_IOA, 0, queue.get());
    EXPECT_EQ(stored_id(), "newer");
    EXPECT_THAT(gateway_sends(), SizeIs(2));
    queue.reset();

    go_on.open();
    first.join();
    EXPECT_THAT(log_lines().back(), at(3, "send data to thtgw success"));
}

// Nor is anything held while the file is saved.
TEST_F(ctmioa_verdict_test, nobody_waits_for_a_file_that_is_slow_to_save) {
    write_stored_id("0");
    EXPECT_EQ(deal(good_body), 0);
    std::string dealt_meanwhile;
    fakes::on_ini_save([&] {
        fakes::on_ini_save(nullptr);
        std::thread other([&] {
            EXPECT_EQ(deal(R"({"rulesId":"newer","rulesInfo":"r"})"), 0);
            dealt_meanwhile = fields::cur_rule_id(task);
        });
        other.join();
    });
    verdict(0);
    EXPECT_EQ(dealt_meanwhile, "newer");
    EXPECT_EQ(stored_id(), "id-1") << "a verdict is about the update of its time";
}

// ---- report_ctmioa_info ----

using report_ctmioa_info_test = kzemm_task_custom_ioa_test;

TEST_F(report_ctmioa_info_test, sends_the_result_with_this_hosts_number) {
    fakes::set_hostid(UINT_MAX);
    _customioa_info info = {2, "a \"b\""};
    EXPECT_EQ(task.report_ctmioa_info(info), 0);
    EXPECT_EQ(info.ret, -6);
    const std::string text = result_text("4294967295", -6, R"(a \"b\")");
    ASSERT_THAT(gateway_sends(), SizeIs(1));
    EXPECT_EQ(gateway_sends()[0].type, result_type);
    EXPECT_EQ(gateway_sends()[0].data, gateway_frame(text));
    EXPECT_THAT(log_lines(), Contains(at(3, "agent id:4294967295")));
}

// One worked example, whose every byte is written out.
TEST_F(report_ctmioa_info_test, sends_these_65_bytes) {
    fakes::set_hostid(1);
    _customioa_info info = {0, "7"};
    EXPECT_EQ(task.report_ctmioa_info(info), 0);
    EXPECT_EQ(gateway_sends()[0].data, std::string("3200\0\0\0\0"
                                                   "\x02\0\0\0\0\0\0\0"
                                                   "\x2d\0\0\0"
                                                   "{\n\t\"agentId\":\t1,"
                                                   "\n\t\"res\":\t0,"
                                                   "\n\t\"rulesId\":\t\"7\"\n}",
                                                   20 + 45));
}

TEST_F(report_ctmioa_info_test, says_nothing_without_an_identifier) {
    _customioa_info info = {-16, ""};
    EXPECT_EQ(task.report_ctmioa_info(info), -1);
    EXPECT_EQ(info.ret, -16) << "not translated";
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_THAT(gateway_sends(), IsEmpty());
}

TEST_F(report_ctmioa_info_test, tells_of_a_gateway_that_refuses) {
    for (const int code : {-1, 1}) {
        fakes::clear_journal();
        fakes::gateway_returns(code);
        _customioa_info info = {5, "id"};
        EXPECT_EQ(task.report_ctmioa_info(info), -1);
        const std::string text = result_text(-1, "id");
        EXPECT_THAT(log_lines(),
                    ElementsAre(at(3, "agent id:4711"), at(3, "custom ioa ret json encode:" + text),
                                at(3, "custom ioa result json msg:" + text),
                                at(1, "send data to kzethtgw failed, type: 8"),
                                at(1, "send_ctmdata_to_gw failed")));
    }
    EXPECT_THAT(gateway_sends(), SizeIs(2)) << "each is sent once";
}

TEST_F(report_ctmioa_info_test, tells_of_a_message_that_cannot_be_built) {
    _customioa_info info = {0, "id"};
    const json_faults faults(1);
    EXPECT_EQ(task.report_ctmioa_info(info), -1);
    EXPECT_TRUE(json_faults::happened());
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "agent id:4711"), at(0, "create json obj failed"),
                                         at(1, "build custom ioa json msg failed")));
    EXPECT_THAT(gateway_sends(), IsEmpty());
}

// ---- ctmioa_ret_trans ----

TEST_F(kzemm_task_custom_ioa_test, the_engines_values_become_the_consoles) {
    const std::pair<int, int> rows[] = {
        {0, 0},   {-16, -3}, {-8, -4}, {-7, -5}, {2, -6},  {-17, -2},     {-15, -2},
        {-9, -2}, {-6, -2},  {-5, -2}, {-4, -2}, {-3, -2}, {-2, -2},      {-1, -2},
        {1, -1},  {3, -1},   {5, -1},  {7, -1},  {8, -1},  {16, -1},      {INT_MIN, -2},
        {4, -1},  {6, -1},   {17, -1}, {15, -1}, {9, -1},  {INT_MAX, -1}, {-10, -2},
    };
    for (const auto &[engine, console] : rows) {
        _customioa_info info = {engine, "id"};
        task.ctmioa_ret_trans(info);
        EXPECT_EQ(info.ret, console) << engine;
        EXPECT_EQ(info.rule_id, "id");
    }
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_task_custom_ioa_test, the_console_gets_the_translated_values) {
    write_stored_id("0");
    const std::pair<int, int> rows[] = {{-8, -4}, {2, -6}, {5, -1}, {-9, -2}};
    for (const auto &[engine, console] : rows) {
        fakes::reset_gateway();
        fakes::engine_returns(update_by_data, {engine});
        EXPECT_EQ(deal(good_body), -1);
        EXPECT_EQ(gateway_sends()[0].data, gateway_frame(result_text(console, "id-1")));
        fakes::reset_gateway();
        EXPECT_EQ(deal(good_body), 0);
        verdict(engine);
        EXPECT_EQ(gateway_sends()[0].data, gateway_frame(result_text(console, "id-1")));
    }
}

// ---- build_cusioa_json_msg ----

TEST_F(kzemm_task_custom_ioa_test, a_result_message_is_built_from_what_it_is_given) {
    _customioa_info info = {-12345, "id"};
    char *text = nullptr;
    EXPECT_EQ(task.build_cusioa_json_msg(info, &text), 0);
    const text_ptr owned(text);
    EXPECT_EQ(text, result_text(-12345, "id"));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "agent id:4711"),
                                         at(3, std::string("custom ioa ret json encode:") + text)));
}

TEST_F(kzemm_task_custom_ioa_test, a_result_message_needs_a_place_to_go) {
    _customioa_info info = {0, "id"};
    EXPECT_EQ(task.build_cusioa_json_msg(info, nullptr), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "str is null pointer")));
}

TEST_F(kzemm_task_custom_ioa_test, a_missing_object_is_told_of_whatever_the_level_is) {
    fakes::set_log_level(-1);
    _customioa_info info = {0, "id"};
    char *text = nullptr;
    const json_faults faults(1);
    EXPECT_EQ(task.build_cusioa_json_msg(info, &text), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(0, "create json obj failed")));
}

// Every allocation fails once. An object that isn't whole counts as none.
TEST_F(kzemm_task_custom_ioa_test, memory_that_runs_out_is_told_of_and_leaves_no_half_message) {
    std::vector<std::string> seen;
    bool happened = true;
    for (unsigned int nth = 1; happened; ++nth) {
        SCOPED_TRACE(nth);
        fakes::clear_journal();
        _customioa_info info = {0, "id"};
        char *text = nullptr;
        int result = 0;
        {
            const json_faults faults(nth);
            result = task.build_cusioa_json_msg(info, &text);
            happened = json_faults::happened();
        }
        const text_ptr owned(text);
        EXPECT_EQ(result, happened ? -1 : 0);
        ASSERT_THAT(log_lines(), SizeIs(2));
        const fakes::record last = log_lines()[1];
        const std::string told = std::to_string(last.level) + " " + last.text;
        if (seen.empty() || seen.back() != told) {
            seen.push_back(told);
        }
    }
    EXPECT_THAT(seen, ElementsAre("0 create json obj failed", "1 cJSON_Print failed",
                                  "3 custom ioa ret json encode:" + result_text(0, "id")));
}

// ---- send_ctmdata_to_gw ----

class send_ctmdata_to_gw_test : public kzemm_task_custom_ioa_test {
  protected:
    int send(int type, const char *data, unsigned int len) {
        return task.send_ctmdata_to_gw(static_cast<KZEMM_DATA_TYPE>(type), data, len);
    }
};

TEST_F(send_ctmdata_to_gw_test, takes_the_types_8_to_10) {
    const std::string text("a\0text", 6);
    for (const int type : {8, 9, 10}) {
        fakes::clear_journal();
        EXPECT_EQ(send(type, text.data(), 6), 0);
        EXPECT_EQ(gateway_sends().back().type, type);
        EXPECT_EQ(gateway_sends().back().data, gateway_frame(text));
        EXPECT_THAT(log_lines(), ElementsAre(at(3, "send data to thtgw success")));
    }
    for (const int type : {7, 11, 0, 5, -1, INT_MAX, INT_MIN}) {
        fakes::clear_journal();
        EXPECT_EQ(send(type, text.data(), 6), -1);
        EXPECT_THAT(log_lines(), ElementsAre(at(2, "type invalid, type: " + std::to_string(type))));
    }
    EXPECT_THAT(gateway_sends(), SizeIs(3));
    EXPECT_EQ(fakes::engine_frees(), 0U);
}

TEST_F(send_ctmdata_to_gw_test, looks_at_the_data_then_the_length_then_the_type) {
    EXPECT_EQ(send(11, nullptr, 0), -1);
    EXPECT_EQ(send(8, nullptr, 4), -1);
    EXPECT_EQ(send(11, "text", 0), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "data is null"), at(2, "data is null"),
                                         at(2, "param is invalid,  length: 0")));
    EXPECT_THAT(gateway_sends(), IsEmpty());
}

TEST_F(send_ctmdata_to_gw_test, tells_of_a_gateway_that_refuses_and_frees_nothing) {
    const text_ptr text(strdup("text"));
    for (const int type : {8, 9, 10}) {
        fakes::clear_journal();
        fakes::gateway_returns(type - 9 == 0 ? 5 : -5);
        EXPECT_EQ(send(type, text.get(), 4), -1);
        EXPECT_THAT(log_lines(), ElementsAre(at(1, "send data to kzethtgw failed, type: " +
                                                       std::to_string(type))));
    }
    EXPECT_THAT(gateway_sends(), SizeIs(3));
    EXPECT_STREQ(text.get(), "text");
    EXPECT_EQ(fakes::engine_frees(), 0U);
}

TEST_F(send_ctmdata_to_gw_test, a_frame_without_memory_never_reaches_the_gateway) {
    fakes::fail_allocation(1);
    EXPECT_EQ(send(8, "some text", 9), -1);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "malloc 29 byte failed")));
    EXPECT_EQ(fakes::count(fakes::what::gateway), 0U);
}

// ---- verdicts around the end ----

TEST_F(send_ctmdata_to_gw_test, a_verdict_for_a_queue_that_has_ended_is_passed_over) {
    std::optional<kzemm_task> queue;
    kzemm_task *const ended = &queue.emplace();
    queue.reset();
    kzemm_task::engine_upd_by_data_cb(static_cast<_engine_type>(7), 0, ended);
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_EQ(fakes::count(fakes::what::gateway), 0U);
}

}  // namespace
