/* The messages of the management requests as bytes. */
#include "agent/ctl/core/request_message.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "agent/ctl/views/ioa_report.h"

namespace kze::ctl {
namespace {

using namespace std::string_literals;

std::string response(const std::string &text) {
    return "3200\0\0\0\0\0\2\0\0\0\0\0\0\0\0\0"s + static_cast<char>(text.size()) + text;
}

TEST(request_frame, is_a_header_of_twenty_bytes_with_big_endian_numbers_and_the_body) {
    EXPECT_EQ(request_frame("hello"), "3200\0\0\0\0\0\1\0\0\0\0\0\0\0\0\0\5hello"s);
    EXPECT_EQ(request_frame(""), "3200\0\0\0\0\0\1\0\0\0\0\0\0\0\0\0\0"s);
    EXPECT_EQ(request_frame(std::string(0x010203, 'x')).substr(16, 4), "\0\1\2\3"s);
}

TEST(rule_set_text, is_an_object_with_both_texts_whatever_characters_they_have) {
    const std::string rules = "a \"quoted\"\\ line\nand another\t\x01";
    const auto set = nlohmann::json::parse(rule_set_text("set \"7\"", rules));
    EXPECT_EQ(set.size(), 2U);
    EXPECT_EQ(set["rulesId"], "set \"7\"");
    EXPECT_EQ(set["rulesInfo"], rules);
}

TEST(rule_set_text, is_empty_for_bytes_that_are_no_utf_8) {
    EXPECT_EQ(rule_set_text("7", "\xFF\xFE"), "");
    EXPECT_EQ(rule_set_text("\xC3", "rules"), "");
}

TEST(read_response, takes_every_code_from_the_plug_ins_text) {
    for (int code = 0; code <= 4; ++code) {
        const response_code read = read_response(
            response("{\"resp_code\":" + std::to_string(code) + ", \"resp_msg\":\"\"}"));
        ASSERT_TRUE(read.code) << read.problem;
        EXPECT_EQ(*read.code, code);
        EXPECT_NE(response_name(code), nullptr);
        EXPECT_NE(response_meaning(code), nullptr);
    }
    EXPECT_STREQ(response_name(0), "KZEMM_TRACE_OK");
    EXPECT_STREQ(response_name(4), "KZEMM_TRACE_FAILED");
    EXPECT_EQ(response_name(-1), nullptr);
    EXPECT_EQ(response_name(5), nullptr);
    EXPECT_EQ(response_meaning(5), nullptr);
}

TEST(read_response, has_a_problem_and_no_code_for_each_defect) {
    const std::string good = response("{\"resp_code\":0, \"resp_msg\":\"\"}");
    for (std::size_t size = 0; size < good.size(); ++size) {
        EXPECT_FALSE(read_response(good.substr(0, size)).code) << size;
        EXPECT_NE(read_response(good.substr(0, size)).problem, "") << size;
    }
    EXPECT_FALSE(read_response(good + " ").code);
    for (const std::size_t at : {0U, 3U, 6U, 7U, 8U, 9U, 16U, 19U, 20U}) {
        std::string bad = good;
        bad[at] = static_cast<char>(bad[at] ^ 0x7F);
        EXPECT_FALSE(read_response(bad).code) << at;
        EXPECT_NE(read_response(bad).problem, "") << at;
    }
    for (const char *text : {"", "{}", "[0]", "0", "{\"resp_code\":\"0\"}", "{\"resp_code\":0.5}",
                             "{\"resp_code\":4294967296}"}) {
        EXPECT_FALSE(read_response(response(text)).code) << text;
    }
}

TEST(ioa_report, is_read_from_a_result_and_from_a_hello) {
    const auto result = read_ioa_report(8, R"({"agentId": 4000000000, "res": -4, "rulesId": "7"})");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->agent_id, 4000000000);
    EXPECT_EQ(result->res, -4);
    EXPECT_EQ(ioa_report_text(*result), "rules \"7\" refused, res -4");
    const auto hello = read_ioa_report(9, R"({"agentId": 1, "rulesId": "0"})");
    ASSERT_TRUE(hello);
    EXPECT_FALSE(hello->res);
    EXPECT_EQ(ioa_report_text(*hello), "no rules yet");
    const auto later = read_ioa_report(9, R"({"agentId": 1, "rulesId": "7"})");
    ASSERT_TRUE(later);
    EXPECT_EQ(ioa_report_text(*later), "rules \"7\" announced");
}

TEST(ioa_report, is_nothing_in_other_types_and_texts) {
    const char *const good = R"({"agentId": 1, "res": 0, "rulesId": "7"})";
    ASSERT_TRUE(read_ioa_report(8, good));
    EXPECT_FALSE(read_ioa_report(1, good));
    for (const char *text : {"", "[]", "{", R"({"agentId": 1, "rulesId": "7"})",
                             R"({"agentId": 1, "res": 0, "rulesId": 7})",
                             R"({"agentId": "1", "res": 0, "rulesId": "7"})",
                             R"({"agentId": 1, "res": "0", "rulesId": "7"})"}) {
        EXPECT_FALSE(read_ioa_report(8, text)) << text;
    }
}

}  // namespace
}  // namespace kze::ctl
