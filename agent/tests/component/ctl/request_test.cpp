/* kzectl request and kzectl ioa, as a script uses them, against a stand-in for the plug-in. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <nlohmann/json.hpp>

#include "agent/tests/component/gateway/gateway_library.h"
#include "tests/support/command_run.h"
#include "tests/support/ipc_test.h"

namespace kze_test {
namespace {

using namespace std::string_literals;
using nlohmann::json;
using testing::HasSubstr;

command_run kzectl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KZECTL);
    return run_command(arguments);
}

std::string response(int code) {
    const std::string text = "{\"resp_code\":" + std::to_string(code) + ", \"resp_msg\":\"\"}";
    return "3200\0\0\0\0\0\2\0\0\0\0\0\0\0\0\0"s + static_cast<char>(text.size()) + text;
}

class ctl_request : public ipc_fixture {
  protected:
    void SetUp() override { tree.write("bin/kze_agent", ""); }

    /* The plug-in's stand-in answers each request with these bytes. */
    void answer_with(std::function<std::string(const incoming &)> answer) {
        plugin_ = std::make_unique<test_endpoint>(
            loop_, "agt_rpt", [this, answer = std::move(answer)](const incoming &request) {
                requests_.push_back(request);
                const std::string bytes = answer(request);
                vrd_ipc_response(request.ipc, request.from, request.id, request.cmd, bytes.data(),
                                 static_cast<unsigned int>(bytes.size()));
            });
    }
    void answer_with_code(int code) {
        answer_with([code](const incoming &) { return response(code); });
    }
    std::vector<incoming> requests() {
        std::vector<incoming> all;
        loop_.call([&] { all = requests_; });
        return all;
    }

    void TearDown() override {
        plugin_.reset();
        loop_.stop();
    }

  private:
    loop_thread loop_;
    std::vector<incoming> requests_; /* the loop's thread */
    std::unique_ptr<test_endpoint> plugin_;
};

TEST_F(ctl_request, each_kind_goes_out_under_its_command_framed_where_it_is_to_be) {
    answer_with_code(0);
    const std::string header = "3200\0\0\0\0\0\1\0\0\0\0\0\0\0\0\0\5"s;
    const std::vector<std::tuple<std::string, unsigned int, std::string>> kinds = {
        {"linkage", 1004, "order"},
        {"append", 1005, "order"},
        {"hunting", 1002, header + "order"},
        {"ioa", 102, header + "order"},
        {"lkganal", 1010, "order"}};
    for (const auto &[kind, cmd, body] : kinds) {
        const command_run result = kzectl({"request", kind, "--text", "order"});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_THAT(result.out, HasSubstr("KZEMM_TRACE_OK")) << kind;
        ASSERT_FALSE(requests().empty());
        EXPECT_EQ(requests().back().cmd, cmd) << kind;
        EXPECT_TRUE(requests().back().body == body) << kind;
    }
    EXPECT_EQ(requests().size(), kinds.size());
}

TEST_F(ctl_request, a_body_comes_from_a_file_from_standard_input_or_is_empty) {
    answer_with_code(0);
    const std::string bytes = "\0\1\xFF bytes"s;
    tree.write("order.bin", bytes);
    const std::string file = tree.path("order.bin").string();
    EXPECT_EQ(kzectl({"request", "linkage", file}).status, 0);
    EXPECT_TRUE(requests().back().body == bytes);
    EXPECT_EQ(
        run_command({"/bin/sh", "-c", "'" KZECTL "' request append - <'" + file + "'"}).status, 0);
    EXPECT_TRUE(requests().back().body == bytes);
    EXPECT_EQ(kzectl({"request", "lkganal", "--text", ""}).status, 0);
    EXPECT_EQ(requests().back().body, "");
    EXPECT_EQ(kzectl({"request", "hunting", "--raw", file}).status, 0);
    EXPECT_TRUE(requests().back().body == bytes);
}

TEST_F(ctl_request, a_rule_set_is_built_from_its_identifier_and_its_text) {
    answer_with_code(0);
    tree.write("rules.txt", "rule \"1\"\nrule 2\n");
    EXPECT_EQ(kzectl({"request", "ioa", "--rules-id", "set-7", "--rules-file",
                      tree.path("rules.txt").string()})
                  .status,
              0);
    json set = json::parse(requests().back().body.substr(20));
    EXPECT_EQ(set, json({{"rulesId", "set-7"}, {"rulesInfo", "rule \"1\"\nrule 2\n"}}));
    EXPECT_EQ(kzectl({"request", "ioa", "--rules-id", "set-8", "--rules", "text"}).status, 0);
    set = json::parse(requests().back().body.substr(20));
    EXPECT_EQ(set, json({{"rulesId", "set-8"}, {"rulesInfo", "text"}}));
}

TEST_F(ctl_request, each_code_is_printed_by_its_name_and_has_an_exit_status_of_its_own) {
    const std::vector<std::pair<std::string, int>> codes = {{"KZEMM_TRACE_OK", 0},
                                                            {"KZEMM_TRACE_QUEUE_FULL", 11},
                                                            {"KZEMM_TRACE_NO_PERMISSION", 12},
                                                            {"KZEMM_TRACE_INVALID", 13},
                                                            {"KZEMM_TRACE_FAILED", 14},
                                                            {"code 5", 1}};
    std::atomic<int> code{-1};
    answer_with([&code](const incoming &) { return response(code); });
    for (const auto &[name, status] : codes) {
        requests(); /* what changes here was read before */
        ++code;
        const command_run result = kzectl({"request", "append", "--text", "order"});
        EXPECT_EQ(result.status, status) << name;
        EXPECT_EQ(result.out.substr(0, name.size()), name);
        const command_run program = kzectl({"--json", "request", "append", "--text", "order"});
        EXPECT_EQ(program.status, status) << name;
        const json value = json::parse(program.out);
        EXPECT_EQ(value["ok"], status == 0);
        EXPECT_EQ(value["status"], status);
        EXPECT_EQ(value["responses"], json({{{"code", code.load()}, {"name", name}, {"count", 1}}}))
            << program.out;
    }
}

TEST_F(ctl_request, many_at_once_are_counted_by_their_codes_and_the_first_refusal_decides) {
    int answered = 0;
    answer_with([&answered](const incoming &) { return response(answered++ < 7 ? 0 : 1); });
    const command_run result =
        kzectl({"--json", "request", "linkage", "--text", "order", "--count", "10"});
    EXPECT_EQ(result.status, 11);
    EXPECT_EQ(json::parse(result.out)["responses"],
              json({{{"code", 0}, {"name", "KZEMM_TRACE_OK"}, {"count", 7}},
                    {{"code", 1}, {"name", "KZEMM_TRACE_QUEUE_FULL"}, {"count", 3}}}));
    const command_run text = kzectl({"request", "linkage", "--text", "order", "--count", "2"});
    EXPECT_THAT(text.out, HasSubstr("2 KZEMM_TRACE_QUEUE_FULL"));
    EXPECT_EQ(requests().size(), 12U);
}

TEST_F(ctl_request, a_body_that_is_too_long_in_its_frame_is_refused_with_its_size) {
    tree.write("long.bin", std::string(VRD_IPC_MAX_BODY - 19, 'x'));
    const command_run result = kzectl({"request", "hunting", tree.path("long.bin").string()});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr("16777197 bytes of body in a frame"));
}

TEST_F(ctl_request, of_many_at_once_one_without_a_response_leaves_the_codes_of_the_others) {
    loop_thread loop;
    std::atomic<int> come{0};
    const test_endpoint plugin(loop, "agt_rpt", [&come](const incoming &request) {
        const std::string bytes = response(0);
        if (come++ != 1) {
            vrd_ipc_response(request.ipc, request.from, request.id, request.cmd, bytes.data(),
                             static_cast<unsigned int>(bytes.size()));
        }
    });
    const command_run result = kzectl(
        {"--json", "request", "linkage", "--text", "order", "--count", "4", "--timeout", "1"});
    EXPECT_EQ(result.status, 4);
    const json value = json::parse(result.out);
    EXPECT_EQ(value["ok"], false);
    EXPECT_EQ(value["error"], "the plug-in gave no response within 1 s");
    EXPECT_EQ(value["responses"], json({{{"code", 0}, {"name", "KZEMM_TRACE_OK"}, {"count", 3}}}));
    EXPECT_EQ(value["without_code"],
              json({{{"error", "the plug-in gave no response within 1 s"}, {"count", 1}}}));
    come = 0;
    const command_run text =
        kzectl({"request", "linkage", "--text", "order", "--count", "3", "--timeout", "1"});
    EXPECT_EQ(text.status, 4);
    EXPECT_EQ(text.out,
              "2 KZEMM_TRACE_OK: it is queued\n"
              "1 without a code: the plug-in gave no response within 1 s\n");
}

TEST_F(ctl_request, what_is_no_response_is_a_failure_with_its_reason) {
    answer_with([](const incoming &) { return "3200"s; });
    const command_run result = kzectl({"request", "append", "--text", "order"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, HasSubstr("the response can't be read: it has 4 bytes"));
}

TEST_F(ctl_request, without_the_plug_in_the_status_says_so) {
    const command_run result = kzectl({"request", "append", "--text", "order"});
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.err, HasSubstr("\"agt_rpt\" isn't there"));
}

TEST_F(ctl_request, a_plug_in_that_gives_no_response_is_waited_for_no_longer_than_told) {
    loop_thread loop;
    const test_endpoint silent(loop, "agt_rpt", [](const incoming &) {});
    const auto begun = std::chrono::steady_clock::now();
    const command_run result = kzectl({"request", "append", "--text", "x", "--timeout", "0.5"});
    EXPECT_EQ(result.status, 4);
    EXPECT_THAT(result.err, HasSubstr("no response within 1 s"));
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(10));
}

TEST_F(ctl_request, command_lines_that_make_no_sense_are_refused_and_send_nothing) {
    answer_with_code(0);
    tree.write("bad.txt", "\xFF");
    tree.write("long.bin", std::string(VRD_IPC_MAX_BODY - 19, 'x')); /* too long in a frame only */
    const std::vector<std::vector<std::string>> wrong = {
        {"linkage"},
        {"linkage", "--text", "a", tree.path("bad.txt").string()},
        {"linkage", tree.path("nothing").string()},
        {"linkage", "--raw", "--text", "a"},
        {"linkage", "--rules-id", "a", "--rules", "b"},
        {"ioa", "--rules-id", "a"},
        {"ioa", "--rules", "a"},
        {"ioa", "--rules-id", "a", "--rules", "b", "--text", "c"},
        {"ioa", "--rules-id", "a", "--rules-file", tree.path("bad.txt").string()},
        {"hunting", tree.path("long.bin").string()},
        {"append", "--text", "a", "--count", "0"},
        {"append", "--text", "a", "--timeout", "-1"},
        {"unknown", "--text", "a"},
        {}};
    for (std::vector<std::string> arguments : wrong) {
        arguments.insert(arguments.begin(), "request");
        const command_run result = kzectl(arguments);
        EXPECT_EQ(result.status, 2) << testing::PrintToString(arguments) << result.err;
    }
    EXPECT_TRUE(requests().empty());
}

std::string report_frame(const std::string &text) {
    return "3200\0\0\0\0\2\0\0\0\0\0\0\0"s + static_cast<char>(text.size()) + "\0\0\0"s + text;
}

class ctl_ioa : public ::testing::Test {
  protected:
    void SetUp() override { tree.write("bin/kze_agent", ""); }

    /* Hands records to the real gateway and closes it, by when they are in its journal. */
    static void record(const std::vector<std::pair<int, std::string>> &records) {
        const gateway_library gateway;
        for (const auto &[type, text] : records) {
            ASSERT_EQ(gateway.send(type, report_frame(text)), 0);
        }
    }

    temp_tree tree;
};

constexpr char first_result[] = "{\n\t\"agentId\":\t9,\n\t\"res\":\t0,\n\t\"rulesId\":\t\"6\"\n}";
constexpr char second_result[] = "{\n\t\"agentId\":\t9,\n\t\"res\":\t-4,\n\t\"rulesId\":\t\"7\"\n}";
constexpr char hello[] = "{\n\t\"agentId\":\t9,\n\t\"rulesId\":\t\"0\"\n}";

TEST_F(ctl_ioa, status_has_the_stored_identifier_the_last_result_and_the_last_hello) {
    tree.write("config/kzectmrule.ini", "[ioa]\nruleid = 6\n");
    record({{9, hello}, {8, first_result}, {8, second_result}});
    const json status = json::parse(kzectl({"--json", "ioa", "status"}).out);
    EXPECT_EQ(status["stored"], "6");
    EXPECT_EQ(status["result"]["res"], -4);
    EXPECT_EQ(status["result"]["rulesId"], "7");
    EXPECT_EQ(status["result"]["record"], 3);
    EXPECT_EQ(status["hello"]["rulesId"], "0");
    EXPECT_EQ(status["hello"]["record"], 1);
    EXPECT_FALSE(status["hello"].contains("res"));
    const std::string text = kzectl({"ioa", "status"}).out;
    EXPECT_THAT(text, HasSubstr("rules \"7\" refused, res -4"));
    EXPECT_THAT(text, HasSubstr("no rules yet"));
}

TEST_F(ctl_ioa, status_says_what_is_not_there_yet) {
    const command_run result = kzectl({"--json", "ioa", "status"});
    EXPECT_EQ(result.status, 0) << result.out;
    const json status = json::parse(result.out);
    for (const char *each : {"stored", "result", "hello"}) {
        EXPECT_TRUE(status[each].is_null()) << each;
    }
    EXPECT_THAT(kzectl({"ioa", "status"}).out, HasSubstr("none yet"));
}

TEST_F(ctl_ioa, the_gateways_list_tail_and_show_tell_what_its_records_say) {
    record({{9, hello}, {8, second_result}, {1, "an alarm whose text is long enough to be cut"}});
    for (const char *command : {"list", "tail"}) {
        const std::string rows = kzectl({"gateway", command}).out;
        EXPECT_THAT(rows, HasSubstr("ctmioa_hello")) << command;
        EXPECT_THAT(rows, HasSubstr("no rules yet")) << command;
        EXPECT_THAT(rows, HasSubstr("rules \"7\" refused, res -4")) << command;
    }
    const json records = json::parse(kzectl({"--json", "gateway", "list"}).out)["records"];
    EXPECT_EQ(records[0]["report"], json({{"agentId", 9}, {"rulesId", "0"}}));
    EXPECT_EQ(records[1]["report"], json({{"agentId", 9}, {"rulesId", "7"}, {"res", -4}}));
    EXPECT_EQ(records[1]["frame"]["proto_type"], 2);
    EXPECT_EQ(records[1]["frame"]["net_order"], false);
    EXPECT_FALSE(records[2].contains("report"));
    const json shown = json::parse(kzectl({"--json", "gateway", "show", "2"}).out);
    EXPECT_EQ(shown["report"]["res"], -4);
    EXPECT_EQ(shown["text"], second_result);
    EXPECT_THAT(kzectl({"gateway", "show", "2", "--content"}).out, HasSubstr("\"agentId\":\t9"));
}

TEST_F(ctl_ioa, a_row_shows_so_much_of_an_orders_result_that_it_can_be_told_from_others) {
    const std::string result = R"({"bytes":5,"md5":"0123456789abcdef0123456789abcdef","number":7,)";
    const std::string rest = R"("order":"hunting","text":"a long order"})";
    {
        const gateway_library gateway;
        for (const int type : {2, 3, 4}) {
            ASSERT_EQ(gateway.send(type, result + rest), 0);
        }
        ASSERT_EQ(gateway.send(4, "no JSON, so that its beginning must do"), 0);
        ASSERT_EQ(gateway.send(1, result + rest), 0);
    }
    const std::string rows = kzectl({"gateway", "list"}).out;
    const auto first = rows.find(result);
    ASSERT_NE(first, std::string::npos) << rows;
    EXPECT_NE(rows.find(result, rows.find(result, first + 1) + 1), std::string::npos) << rows;
    EXPECT_THAT(rows, testing::Not(HasSubstr("a long order")));
    EXPECT_THAT(rows, HasSubstr("\"no JSON, so that its\" ..."));
    EXPECT_THAT(rows, HasSubstr("\"{\"bytes\":5,\"md5\":\"01\" ..."));
}

TEST_F(ctl_ioa, a_report_of_any_length_is_read_and_a_broken_one_is_shown_as_it_is) {
    const std::string rules(200, 'r');
    record({{8, "no json"}, {8, "{\"agentId\":9,\"res\":0,\"rulesId\":\"" + rules + "\"}"}});
    const json records = json::parse(kzectl({"--json", "gateway", "list"}).out)["records"];
    EXPECT_FALSE(records[0].contains("report"));
    EXPECT_EQ(records[1]["report"]["rulesId"], rules);
    EXPECT_THAT(kzectl({"gateway", "list"}).out, HasSubstr("frame of type 2"));
}

}  // namespace
}  // namespace kze_test
