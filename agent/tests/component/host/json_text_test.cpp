/* Parsing of JSON from outside. */
#include "agent/common/json_text.h"

#include <gtest/gtest.h>

namespace {

std::string problem_of(const std::string &text) {
    std::string problem;
    EXPECT_FALSE(kze::parse_json(text, problem)) << text.substr(0, 100);
    return problem;
}

TEST(json_text, a_good_text_is_parsed) {
    std::string problem;
    const auto parsed = kze::parse_json(R"({"a": [1, "b"]})", problem);
    ASSERT_TRUE(parsed);
    EXPECT_EQ((*parsed)["a"][1], "b");
    EXPECT_EQ(problem, "");
}

TEST(json_text, a_bad_text_is_told_by_line_and_column) {
    EXPECT_EQ(problem_of("{\n  \"a\": 1,\n  \"b\" 2\n}"), "line 3, column 7: not valid JSON");
    EXPECT_EQ(problem_of("x"), "line 1, column 1: not valid JSON");
    EXPECT_EQ(problem_of("{\"a\": 1"), "line 1, column 8: not valid JSON");
    EXPECT_EQ(problem_of("\"\xff\""), "line 1, column 2: not valid JSON");
    EXPECT_EQ(problem_of(""), "line 1, column 1: not valid JSON");
}

TEST(json_text, a_zero_byte_does_not_hide_what_follows) {
    EXPECT_EQ(problem_of(std::string("{}\0", 3)), "line 1, column 3: not valid JSON");
    EXPECT_EQ(problem_of(std::string("{}\n\0{", 5)), "line 2, column 1: not valid JSON");
    EXPECT_EQ(problem_of(std::string("{\"a\0\": 1}", 9)), "line 1, column 4: not valid JSON");
}

TEST(json_text, a_number_that_no_type_holds_is_told) {
    EXPECT_NE(problem_of("1e999").find("1e999"), std::string::npos);
}

TEST(json_text, depth_counts_up_to_its_bound) {
    const auto nested = [](int depth) {
        return std::string(static_cast<std::size_t>(depth), '[') +
               std::string(static_cast<std::size_t>(depth), ']');
    };
    std::string problem;
    EXPECT_TRUE(kze::parse_json(nested(kze::json_depth_bound - 1), problem));
    EXPECT_TRUE(kze::parse_json(nested(kze::json_depth_bound), problem));
    EXPECT_EQ(problem_of(nested(kze::json_depth_bound + 1)),
              "arrays and objects lie deeper than 64");
    EXPECT_EQ(problem_of(nested(1000000)), "arrays and objects lie deeper than 64");
}

TEST(number_in, takes_whole_numbers_within_its_bounds_only) {
    using kze::number_in;
    EXPECT_EQ(number_in(-2, -2, 3), -2);
    EXPECT_EQ(number_in(3U, -2, 3), 3);
    EXPECT_EQ(number_in(-3, -2, 3), std::nullopt);
    EXPECT_EQ(number_in(4U, -2, 3), std::nullopt);
    EXPECT_EQ(number_in(INT64_MIN, INT64_MIN, INT64_MAX), INT64_MIN);
    EXPECT_EQ(number_in(INT64_MAX, INT64_MIN, INT64_MAX), INT64_MAX);
    EXPECT_EQ(number_in(UINT64_MAX, INT64_MIN, INT64_MAX), std::nullopt);
    for (const nlohmann::json &other :
         {nlohmann::json(), nlohmann::json(1.0), nlohmann::json(true), nlohmann::json("1"),
          nlohmann::json::array(), nlohmann::json::object()}) {
        EXPECT_EQ(number_in(other, -2, 3), std::nullopt) << other;
    }
}

}  // namespace
