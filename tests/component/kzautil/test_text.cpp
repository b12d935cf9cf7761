// Bounded text operations and the number that varies with the time.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "kzautil.h"

TEST(BoundedFormat, gives_the_text_and_its_length) {
    char out[8];
    EXPECT_EQ(kze_str_snprintf(out, sizeof out, "%02X-%s", 10U, "abc"), 6);
    EXPECT_STREQ(out, "0A-abc");
}

TEST(BoundedFormat, cuts_at_the_buffers_end_terminates_and_says_what_it_would_have_needed) {
    char out[8] = "xxxxxxx";
    EXPECT_EQ(kze_str_snprintf(out, 4, "%s", "abcdef"), 6);
    EXPECT_STREQ(out, "abc");
    EXPECT_EQ(out[4], 'x');
    EXPECT_EQ(kze_str_snprintf(out, 1, "%s", "abcdef"), 6);
    EXPECT_STREQ(out, "");
}

TEST(BoundedFormat, writes_nothing_without_room) {
    char out = 'x';
    EXPECT_EQ(kze_str_snprintf(&out, 0, "%d", 12), 2);
    EXPECT_EQ(out, 'x');
    EXPECT_EQ(kze_str_snprintf(nullptr, 10, "%d", 123), 3);
}

TEST(BoundedFormat, of_what_cant_be_formatted_is_empty) {
    const wchar_t unencodable[] = {static_cast<wchar_t>(0x7fffffff), 0};
    char out[8] = "xxxxxxx";
    EXPECT_EQ(kze_str_snprintf(out, sizeof out, "a%ls", unencodable), -1);
    EXPECT_STREQ(out, "");
    const char *volatile format = nullptr;
    out[0] = 'x';
    EXPECT_EQ(kze_str_snprintf(out, sizeof out, format, 0), -1);
    EXPECT_STREQ(out, "");
}

TEST(BoundedCopy, gives_the_text_and_the_length_of_its_source) {
    char out[8];
    EXPECT_EQ(kze_str_strlcpy(out, "abc", sizeof out), 3U);
    EXPECT_STREQ(out, "abc");
}

TEST(BoundedCopy, cuts_at_the_buffers_end_and_terminates) {
    char out[8] = "xxxxxxx";
    EXPECT_EQ(kze_str_strlcpy(out, "abcd", 4), 4U);
    EXPECT_STREQ(out, "abc");
    EXPECT_EQ(out[4], 'x');
    EXPECT_EQ(kze_str_strlcpy(out, "abcd", 5), 4U);
    EXPECT_STREQ(out, "abcd");
    EXPECT_EQ(kze_str_strlcpy(out, "abcd", 1), 4U);
    EXPECT_STREQ(out, "");
}

TEST(BoundedCopy, writes_nothing_without_room) {
    char out = 'x';
    EXPECT_EQ(kze_str_strlcpy(&out, "abc", 0), 3U);
    EXPECT_EQ(out, 'x');
    EXPECT_EQ(kze_str_strlcpy(nullptr, "abc", 10), 3U);
}

TEST(BoundedCopy, takes_null_for_an_empty_text) {
    char out[4] = "xxx";
    EXPECT_EQ(kze_str_strlcpy(out, nullptr, sizeof out), 0U);
    EXPECT_STREQ(out, "");
}

TEST(NumberByTime, is_never_negative_and_hardly_ever_the_same) {
    std::set<int> numbers;
    for (int i = 0; i < 1000; ++i) {
        numbers.insert(kze_rand_by_time());
        ASSERT_GE(*numbers.begin(), 0);
    }
    EXPECT_GT(numbers.size(), 900U);
}
