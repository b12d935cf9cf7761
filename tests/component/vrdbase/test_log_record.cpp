// One record: its line, its text, its level.
#include <gmock/gmock.h>

#include <cerrno>
#include <ctime>
#include <regex>

#include "log_test.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;

namespace {

class LogRecord : public LogTest {
  protected:
    // The text of the one record that `work` writes.
    template <typename Work>
    std::string text_of(Work work) {
        log(work);
        const auto lines = lines_of(file());
        EXPECT_EQ(lines.size(), 1U);
        const std::string &line = lines.empty() ? std::string() : lines[0];
        const size_t begin = line.find("f.cpp:1 ");
        return begin == std::string::npos ? "no record: " + line : line.substr(begin + 8);
    }

    std::string escaped(const std::string &text) {
        return text_of([&] { error_output(1, "f.cpp", 1, "%s", text.c_str()); });
    }
};

}  // namespace

TEST_F(LogRecord, holds_local_time_level_thread_source_and_text_in_one_line) {
    pid_t thread = 0;
    const time_t before = time(nullptr);
    log([&] {
        thread = gettid();
        error_output(1, "kzemm_work.cpp", 42, "start step %d failed: %s", 3, "no ipc");
    });
    const time_t after = time(nullptr);

    const auto lines = lines_of(file());
    ASSERT_EQ(lines.size(), 1U);
    const std::regex form(R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)\.\d{6} ERROR (\d+) )"
                          R"(kzemm_work\.cpp:42 start step 3 failed: no ipc)");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(lines[0], match, form)) << lines[0];
    EXPECT_EQ(match[2], std::to_string(thread));
    tm local{};
    ASSERT_NE(strptime(match[1].str().c_str(), "%Y-%m-%d %H:%M:%S", &local), nullptr);
    local.tm_isdst = -1;
    const time_t written = mktime(&local);
    EXPECT_LE(before, written);
    EXPECT_LE(written, after);
}

TEST_F(LogRecord, names_each_level_and_takes_one_outside_the_range_for_the_nearest) {
    log([] {
        for (int level = -1; level <= 5; ++level)
            error_output(level, "f.cpp", 1, "x");
    });
    const char *const words[] = {"FATAL", "FATAL", "ERROR", "WARN", "INFO", "DEBUG", "DEBUG"};
    const auto lines = lines_of(file());
    ASSERT_EQ(lines.size(), 7U);
    for (size_t i = 0; i < lines.size(); ++i)
        EXPECT_THAT(lines[i], HasSubstr(std::string(" ") + words[i] + " "));
}

TEST_F(LogRecord, escapes_a_line_end_so_that_data_cant_forge_a_line) {
    EXPECT_EQ(escaped("a\n2024-01-01 00:00:00.000000 FATAL 1 f.cpp:1 forged\r"),
              "a\\n2024-01-01 00:00:00.000000 FATAL 1 f.cpp:1 forged\\r");
}

TEST_F(LogRecord, escapes_what_could_steer_a_terminal) {
    EXPECT_EQ(escaped("\x1b[2J\x07\x7f\t\x01"), "\\x1b[2J\\x07\\x7f\\t\\x01");
}

TEST_F(LogRecord, escapes_c1_controls_in_utf8_and_as_single_bytes) {
    EXPECT_EQ(escaped("\xc2\x9b"
                      "31m \x9b"
                      "31m \xc2\x85"),
              "\\xc2\\x9b31m \\x9b31m \\xc2\\x85");
}

TEST_F(LogRecord, escapes_the_first_and_the_last_c1_control) {
    EXPECT_EQ(escaped("\xc2\x80 \xc2\x9f"), "\\xc2\\x80 \\xc2\\x9f");
}

TEST_F(LogRecord, escapes_the_line_and_paragraph_separators_of_unicode) {
    EXPECT_EQ(escaped("a\xe2\x80\xa8 b\xe2\x80\xa9"), "a\\xe2\\x80\\xa8 b\\xe2\\x80\\xa9");
}

TEST_F(LogRecord, escapes_bytes_that_arent_utf8) {
    EXPECT_EQ(escaped("cut \xe4\xb8"), "cut \\xe4\\xb8");
}

TEST_F(LogRecord, escapes_utf8_that_is_overlong_a_surrogate_or_too_large) {
    EXPECT_EQ(
        escaped("\xc0\x8a \xe0\x80\x8a \xf0\x80\x80\x8a \xed\xa0\x80 \xf4\x90\x80\x80"),
        "\\xc0\\x8a \\xe0\\x80\\x8a \\xf0\\x80\\x80\\x8a \\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80");
}

TEST_F(LogRecord, leaves_printable_characters_of_every_length_as_they_are) {
    const std::string text =
        "path \\n 'x' \"y\" ~ \xc2\xa0 \xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80 \xdf\xbf";
    EXPECT_EQ(escaped(text), text);
}

TEST_F(LogRecord, writes_only_the_base_name_of_the_source_and_escapes_it) {
    log([] { error_output(1, "/some/where/a\nb.cpp", 7, "x"); });
    EXPECT_THAT(lines_of(file()), ::testing::ElementsAre(EndsWith(" a\\nb.cpp:7 x")));
}

TEST_F(LogRecord, stands_with_a_dash_for_a_missing_source) {
    log([] { error_output(1, nullptr, 7, "x"); });
    EXPECT_THAT(lines_of(file()), ::testing::ElementsAre(EndsWith(" -:7 x")));
}

TEST_F(LogRecord, survives_a_missing_format) {
    const char *volatile format = nullptr;
    EXPECT_EQ(text_of([&] { error_output(1, "f.cpp", 1, format, 0); }), "(null)");
}

TEST_F(LogRecord, survives_arguments_that_cant_be_formatted) {
    const wchar_t unencodable[] = {static_cast<wchar_t>(0x7fffffff), 0};
    EXPECT_EQ(text_of([&] { error_output(1, "f.cpp", 1, "%ls\n", unencodable); }),
              "(not formattable) %ls\\n");
}

TEST_F(LogRecord, keeps_a_text_of_64_kib_whole) {
    const std::string text(64 * 1024, 'x');
    EXPECT_EQ(escaped(text), text);
}

TEST_F(LogRecord, cuts_a_text_of_one_byte_more_with_a_mark) {
    const std::string text(64 * 1024, 'x');
    EXPECT_EQ(escaped(text + "y"), text + " [cut, 65537 bytes]");
}

TEST_F(LogRecord, keeps_texts_around_the_size_of_its_first_buffer_whole) {
    for (const size_t size : {1022U, 1023U, 1024U, 1025U}) {
        const std::string text(size, 'x');
        EXPECT_EQ(escaped(text), text);
        write_content(file(), "");  // emptied for the next one
    }
}

TEST_F(LogRecord, leaves_errno_as_it_was_and_can_show_it) {
    const std::string text = text_of([] {
        errno = ENOTTY;
        error_output(1, "f.cpp", 1, "%m");
        EXPECT_EQ(errno, ENOTTY);
    });
    EXPECT_EQ(text, strerror(ENOTTY));
}

TEST_F(LogRecord, of_the_bus_has_levels_of_its_own_and_no_source) {
    log([] {
        for (int level = 0; level <= 3; ++level)
            kze_log_output(level, "[PID:%-5d]\tlevel %d", 1, level);
    });
    EXPECT_THAT(lines_of(file()),
                ::testing::ElementsAre(EndsWith(" -:0 [PID:1    ]\\tlevel 0"), HasSubstr(" WARN "),
                                       HasSubstr(" INFO "), HasSubstr(" DEBUG ")));
    EXPECT_THAT(lines_of(file())[0], HasSubstr(" ERROR "));
}

TEST_F(LogRecord, of_the_bus_is_dropped_when_its_level_is_off) {
    log([] {
        error_output_set_level(1);
        kze_log_output(1, "a warning, which is off");
        kze_log_output(0, "an error, which is on");
    });
    EXPECT_THAT(lines_of(file()), ::testing::ElementsAre(EndsWith("an error, which is on")));
}
