// What kze_log does with its arguments, against a log of the test's own in place of the library's.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "vrdbase.h"

namespace {

int current_level = 3;
std::vector<int> asked;
std::vector<std::string> written;

class LogMacro : public ::testing::Test {
  protected:
    LogMacro() {
        current_level = 3;
        asked.clear();
        written.clear();
    }
};

int evaluations = 0;

int counted() {
    return ++evaluations;
}

}  // namespace

int error_output_check(int level) {
    asked.push_back(level);
    return level <= current_level;
}

void error_output(int level, const char *source_file, int line, const char *format, ...) {
    char text[200];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    written.push_back(std::to_string(level) + " " + source_file + ":" + std::to_string(line) + " " +
                      text);
}

TEST_F(LogMacro, passes_level_base_name_line_and_arguments) {
    kze_log(2, "invalid cmd: %d", 7);
    const int line = __LINE__ - 1;
    EXPECT_EQ(written, std::vector<std::string>{"2 test_log_macro.cpp:" + std::to_string(line) +
                                                " invalid cmd: 7"});
    EXPECT_EQ(asked, std::vector<int>{2});
}

TEST_F(LogMacro, takes_a_text_without_arguments) {
    kze_log(1, "init ipc failed");
    ASSERT_EQ(written.size(), 1U);
    EXPECT_NE(written[0].find(" init ipc failed"), std::string::npos);
}

TEST_F(LogMacro, evaluates_no_argument_when_the_level_is_off) {
    evaluations = 0;
    kze_log(4, "%d", counted());
    EXPECT_EQ(evaluations, 0);
    EXPECT_TRUE(written.empty());
    EXPECT_EQ(asked, std::vector<int>{4});
}

TEST_F(LogMacro, evaluates_each_argument_and_the_level_once_when_the_level_is_on) {
    evaluations = 0;
    kze_log(counted(), "%d", counted());
    EXPECT_EQ(evaluations, 2);
    EXPECT_EQ(written.size(), 1U);
}

TEST_F(LogMacro, writes_level_0_without_asking) {
    current_level = -1;
    kze_log(0, "ini file load failed");
    EXPECT_TRUE(asked.empty());
    EXPECT_EQ(written.size(), 1U);
}

TEST_F(LogMacro, is_one_statement) {
    if (current_level == 4)
        kze_log(1, "never");
    else
        kze_log(1, "written");
    ASSERT_EQ(written.size(), 1U);
    EXPECT_NE(written[0].find(" written"), std::string::npos);
}
