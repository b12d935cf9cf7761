/* The engine's parts by themselves: its records, its settings file, its snapshots. */
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <thread>

#include "agent/common/md5.h"
#include "agent/engine/engine_protocol.h"
#include "agent/engine/engine_settings.h"
#include "agent/engine/left_requests.h"
#include "agent/engine/origin_collector.h"
#include "agent/engine/process_snapshot.h"
#include "agent/tests/component/engine/engine_tree.h"
#include "engine/qd_client.h"
#include "tests/support/child_process.h"

namespace engine_test {
namespace {

using kze::engine::cut_at_line;
using kze::engine::engine_settings;
using kze::engine::process_snapshot;
using kze::engine::record;
using kze::engine::text_of_bytes;

/* ---- records ---- */

TEST(EngineRecord, has_the_bytes_that_the_format_page_shows) {
    record from;
    from.what = static_cast<std::uint32_t>(kze::engine::engine_call::coordinate);
    from.client = 0x01020304;
    from.first = QD_TRACE_HUNTING;
    from.payload = "ab";
    const std::string bytes("\x01\0\0\0\x0b\0\0\0\x04\x03\x02\x01\x03\0\0\0\0\0\0\0\x02\0\0\0ab",
                            26);
    EXPECT_EQ(kze::engine::encode_record(from), bytes);
}

TEST(EngineRecord, comes_back_as_it_was) {
    record from;
    from.what = 19;
    from.client = UINT32_MAX;
    from.first = INT_MIN;
    from.second = -1;
    from.payload = std::string_view("\0x", 2);
    const std::string bytes = kze::engine::encode_record(from);
    const auto back = kze::engine::decode_record(bytes.data(), 26);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->what, 19U);
    EXPECT_EQ(back->client, UINT32_MAX);
    EXPECT_EQ(back->first, INT_MIN);
    EXPECT_EQ(back->second, -1);
    EXPECT_EQ(back->payload, from.payload);
}

TEST(EngineRecord, is_refused_when_it_is_not_whole) {
    const std::string good = kze::engine::encode_record({1, 2, 3, 4, "payload"});
    const auto size = static_cast<unsigned int>(good.size());
    ASSERT_TRUE(kze::engine::decode_record(good.data(), size));
    for (unsigned int cut = 0; cut < size; ++cut) {
        EXPECT_FALSE(kze::engine::decode_record(good.data(), cut)) << cut;
    }
    EXPECT_FALSE(kze::engine::decode_record((good + "x").data(), size + 1));
    EXPECT_FALSE(kze::engine::decode_record(nullptr, 0));
    std::string other_version = good;
    other_version[0] = 2;
    EXPECT_FALSE(kze::engine::decode_record(other_version.data(), size));
}

TEST(EngineRecord, holds_as_much_as_a_message_does) {
    const std::string largest(kze::engine::payload_limit, 'p');
    EXPECT_EQ(kze::engine::encode_record({1, 2, 3, 4, largest}).size(), 16U << 20);
    EXPECT_EQ(kze::engine::encode_record({1, 2, 3, 4, largest + "p"}), "");
}

TEST(EngineRecord, names_lead_to_their_numbers_and_back) {
    for (std::uint32_t number = 1; number <= kze::engine::engine_call_count; ++number) {
        const auto call = static_cast<kze::engine::engine_call>(number);
        EXPECT_EQ(kze::engine::call_of_name(kze::engine::call_name(call)), call);
    }
    for (std::uint32_t number = 1; number <= kze::engine::event_kind_count; ++number) {
        const auto kind = static_cast<kze::engine::event_kind>(number);
        EXPECT_EQ(kze::engine::event_of_name(kze::engine::event_name(kind)), kind);
    }
    EXPECT_FALSE(kze::engine::call_of_name("x_client_free"));
    EXPECT_FALSE(kze::engine::event_of_name(""));
}

/* ---- settings ---- */

class EngineSettings : public ::testing::Test {
  protected:
    std::string file() const { return tree.path("var/lib/qd_agent.json"); }
    std::string error_of(const json &request) {
        return settings.apply(request).value("error", std::string());
    }
    kze_test::temp_tree tree;
    engine_settings settings{(tree.path("var/lib/qd_agent.json")).string()};
};

TEST_F(EngineSettings, begin_empty_and_make_no_file) {
    EXPECT_FALSE(settings.take("x_client_start"));
    EXPECT_EQ(settings.version("ioc"), "1.0");
    EXPECT_EQ(settings.version("other"), "");
    EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_F(EngineSettings, are_there_for_the_next_process) {
    EXPECT_EQ(error_of({{"op", "answer"},
                        {"call", "x_client_start"},
                        {"code", -3},
                        {"value", 8},
                        {"delay_ms", 20},
                        {"times", 2}}),
              "");
    EXPECT_EQ(error_of({{"op", "version"}, {"type", "md"}, {"version", "4"}}), "");
    engine_settings other(file());
    const auto answer = other.take("x_client_start");
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->code, -3);
    EXPECT_EQ(answer->value, 8);
    EXPECT_EQ(answer->delay_ms, 20U);
    EXPECT_EQ(answer->times, 2U);
    EXPECT_FALSE(answer->never);
    EXPECT_EQ(other.version("md"), "4");
    const auto permissions = std::filesystem::status(file()).permissions();
    EXPECT_EQ(permissions,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(EngineSettings, count_the_uses_of_an_answer_over_processes) {
    ASSERT_EQ(
        error_of({{"op", "answer"}, {"call", "x_client_start"}, {"never", true}, {"times", 3}}),
        "");
    EXPECT_TRUE(settings.take("x_client_start"));
    engine_settings next(file());
    EXPECT_TRUE(next.take("x_client_start"));
    EXPECT_TRUE(next.take("x_client_start"));
    EXPECT_FALSE(next.take("x_client_start"));
    EXPECT_FALSE(engine_settings(file()).take("x_client_start"));
}

TEST_F(EngineSettings, keep_an_answer_without_a_number_of_times_until_it_is_cleared) {
    ASSERT_EQ(error_of({{"op", "answer"}, {"call", "x_client_start"}, {"refuse", true}}), "");
    ASSERT_EQ(error_of({{"op", "answer"}, {"call", "x_client_stop"}, {"code", 1}}), "");
    for (int use = 0; use < 10; ++use) {
        ASSERT_TRUE(settings.take("x_client_start"));
    }
    EXPECT_EQ(settings.take("x_client_start")->code, -8);
    ASSERT_EQ(error_of({{"op", "clear"}, {"call", "x_client_start"}}), "");
    EXPECT_FALSE(settings.take("x_client_start"));
    EXPECT_TRUE(settings.take("x_client_stop"));
    ASSERT_EQ(error_of({{"op", "clear"}}), "");
    EXPECT_FALSE(settings.take("x_client_stop"));
}

TEST_F(EngineSettings, lose_no_change_of_threads_that_write_together) {
    ASSERT_EQ(error_of({{"op", "answer"}, {"call", "x_client_start"}, {"code", 1}, {"times", 400}}),
              "");
    std::vector<std::thread> users;
    for (int user = 0; user < 4; ++user) {
        users.emplace_back([this] {
            for (int use = 0; use < 100; ++use) {
                EXPECT_TRUE(settings.take("x_client_start"));
            }
        });
    }
    for (std::thread &user : users) {
        user.join();
    }
    EXPECT_FALSE(settings.take("x_client_start"));
    EXPECT_FALSE(engine_settings(file()).take("x_client_start"));
}

TEST_F(EngineSettings, are_changed_by_requests_that_were_left_each_once_and_in_order) {
    const std::string left = file() + kze::engine::left_suffix;
    const auto taken = [&] {
        std::vector<json> all;
        kze::engine::take_left_requests(left, [&](const json &each) { all.push_back(each); });
        return all;
    };
    EXPECT_EQ(taken(), std::vector<json>());
    EXPECT_FALSE(std::filesystem::exists(left));
    EXPECT_EQ(kze::engine::leave_request(left, {{"op", "one"}}), "");
    std::ofstream(left, std::ios::app) << "{\"cut\":"; /* by a full disk */
    EXPECT_EQ(kze::engine::leave_request(left, {{"op", "two"}}), "");
    EXPECT_EQ(taken(), (std::vector<json>{{{"op", "one"}}, {{"op", "two"}}}));
    EXPECT_EQ(taken(), std::vector<json>());
    tree.write("var/lib/a_file", "");
    EXPECT_NE(kze::engine::leave_request(tree.path("var/lib/a_file/x"), {}), "");
}

TEST_F(EngineSettings, lose_no_request_that_is_left_while_others_are_taken) {
    const std::string left = file() + kze::engine::left_suffix;
    constexpr int each_leaves = 200;
    std::vector<std::thread> leaving;
    for (int i = 0; i < 2; ++i) {
        leaving.emplace_back([&] {
            for (int n = 0; n < each_leaves; ++n) {
                EXPECT_EQ(kze::engine::leave_request(left, {{"op", n}}), "");
            }
        });
    }
    int taken = 0;
    EXPECT_TRUE(kze_test::eventually([&] {
        kze::engine::take_left_requests(left, [&](const json &) { ++taken; });
        return taken == 2 * each_leaves;
    })) << taken;
    for (std::thread &each : leaving) {
        each.join();
    }
}

TEST_F(EngineSettings, check_what_is_asked_without_changing_anything) {
    EXPECT_EQ(engine_settings::check({{"op", "version"}, {"type", "ioc"}, {"version", "2"}}), "");
    EXPECT_NE(engine_settings::check({{"op", "version"}, {"type", "x"}, {"version", "2"}}), "");
    EXPECT_NE(engine_settings::check({{"op", "push"}}), "");
    EXPECT_EQ(settings.version("ioc"), "1.0");
}

TEST_F(EngineSettings, refuse_what_is_not_meant_and_say_why) {
    const json answer = {{"op", "answer"}, {"call", "x_client_start"}};
    const auto with = [&](const char *key, const json &value) {
        json request = answer;
        request[key] = value;
        return error_of(request);
    };
    EXPECT_NE(error_of({{"op", "answer"}, {"call", "start"}, {"code", 1}}).find("x_client_start"),
              std::string::npos);
    EXPECT_EQ(error_of({{"op", "answer"}, {"code", 1}}), "\"call\" must be there, as a text");
    EXPECT_NE(error_of(answer).find("say how to answer"), std::string::npos);
    EXPECT_NE(with("code", "1").find("whole number"), std::string::npos);
    EXPECT_NE(with("code", 2147483648).find("whole number"), std::string::npos);
    EXPECT_NE(with("code", UINT64_MAX).find("whole number"), std::string::npos);
    EXPECT_NE(with("code", 1.5).find("whole number"), std::string::npos);
    EXPECT_NE(with("delay_ms", -1).find("from 0 to 600000"), std::string::npos);
    EXPECT_EQ(with("delay_ms", 600000), "");
    EXPECT_NE(with("delay_ms", 600001).find("from 0 to 600000"), std::string::npos);
    EXPECT_NE(with("never", 1).find("true or false"), std::string::npos);
    EXPECT_NE(
        error_of({{"op", "answer"}, {"call", "x_client_start"}, {"refuse", true}, {"code", 1}})
            .find("stands alone"),
        std::string::npos);
    EXPECT_EQ(with("cod", 1), "no member \"cod\" is known here");
    EXPECT_NE(error_of({{"op", "version"}, {"type", "x"}, {"version", "1"}}).find("ioc ioa md"),
              std::string::npos);
    const auto version = [&](const std::string &text) {
        return error_of({{"op", "version"}, {"type", "ioc"}, {"version", text}});
    };
    EXPECT_NE(version(""), "");
    EXPECT_NE(version("1 0"), "");
    EXPECT_EQ(version(std::string(64, '1')), "");
    EXPECT_NE(version(std::string(65, '1')), "");
    EXPECT_NE(error_of({{"op", "other"}}), "");
    EXPECT_NE(error_of(json::array()), "");
    EXPECT_FALSE(engine_settings::is_settings_request({{"op", 1}}));
    EXPECT_FALSE(engine_settings::is_settings_request(json::array()));
    EXPECT_FALSE(engine_settings::is_settings_request({{"op", "status"}}));
}

TEST_F(EngineSettings, refuse_members_that_a_call_can_not_have_or_not_together) {
    const auto error = [&](const std::string &call, json members) {
        members["op"] = "answer";
        members["call"] = call;
        return error_of(members);
    };
    const std::string by_data = "x_client_engine_update_by_data";
    EXPECT_EQ(error("x_client_start", {{"callback_delay_ms", 1}}),
              "x_client_start has no callback");
    EXPECT_EQ(error("x_client_engine_update", {{"callback_never", true}}),
              "x_client_engine_update has no callback");
    EXPECT_EQ(error("x_client_coordinate", {{"callback_type", 1}}),
              "the callback of x_client_coordinate is told no engine type");
    EXPECT_EQ(error(by_data, {{"unwritten", true}}),
              by_data + " has no out-parameter to leave unwritten");
    EXPECT_EQ(error("x_client_get_drive_state", {{"unwritten", true}, {"value", 1}}),
              "\"unwritten\" and \"value\" exclude one another");
    for (const json &other : {json{{"code", -1}}, json{{"refuse", true}}, json{{"never", true}}}) {
        json members = other;
        members["callback_delay_ms"] = 5;
        EXPECT_EQ(error(by_data, members),
                  "a call that fails or gets no answer has no callback either");
    }
    for (const json &other :
         {json{{"callback_delay_ms", 5}}, json{{"callback_type", 5}}, json{{"value", 5}}}) {
        json members = other;
        members["callback_never"] = true;
        EXPECT_EQ(error(by_data, members),
                  "a callback that never comes has no delay, type or value");
    }
    EXPECT_EQ(error("x_client_start", {{"code", 1}, {"for_type", 1}}),
              "x_client_start has no type as its first argument");
    EXPECT_NE(error(by_data, {{"for_type", 7}}).find("say how to answer"), std::string::npos);
    EXPECT_EQ(error(by_data, {{"callback_delay_ms", 600000}, {"callback_type", -1}}), "");
    EXPECT_NE(error(by_data, {{"callback_delay_ms", 600001}}).find("from 0 to 600000"),
              std::string::npos);
}

TEST_F(EngineSettings, keep_every_member_for_the_next_process) {
    ASSERT_EQ(error_of({{"op", "answer"},
                        {"call", "x_client_engine_update_by_data"},
                        {"callback_delay_ms", 20},
                        {"callback_type", 3},
                        {"for_type", 7}}),
              "");
    ASSERT_EQ(
        error_of({{"op", "answer"}, {"call", "x_client_coordinate"}, {"callback_never", true}}),
        "");
    ASSERT_EQ(
        error_of({{"op", "answer"}, {"call", "x_client_set_drive_switch"}, {"unwritten", true}}),
        "");
    ASSERT_EQ(error_of({{"op", "drive"}, {"drive", INT_MIN}, {"collect", INT_MAX}}), "");
    engine_settings other(file());
    EXPECT_EQ(other.describe(), settings.describe());
    EXPECT_FALSE(other.take("x_client_engine_update_by_data", 8));
    const auto answer = other.take("x_client_engine_update_by_data", 7);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->callback_delay_ms, 20U);
    EXPECT_EQ(answer->callback_type, 3);
    EXPECT_TRUE(other.take("x_client_coordinate", 2)->callback_never);
    EXPECT_TRUE(other.take("x_client_set_drive_switch", 1)->unwritten);
    EXPECT_EQ(other.drive_state(0), INT_MIN);
    EXPECT_EQ(other.drive_state(1), INT_MAX);
}

TEST_F(EngineSettings, count_no_use_of_an_answer_that_is_for_another_type) {
    ASSERT_EQ(error_of({{"op", "answer"},
                        {"call", "x_client_engine_update"},
                        {"code", -8},
                        {"for_type", 1},
                        {"times", 1}}),
              "");
    EXPECT_FALSE(settings.take("x_client_engine_update", 2));
    EXPECT_TRUE(settings.take("x_client_engine_update", 1));
    EXPECT_FALSE(settings.take("x_client_engine_update", 1));
}

TEST_F(EngineSettings, keep_how_a_version_rises_for_as_many_loads_as_was_set) {
    ASSERT_EQ(
        error_of({{"op", "rise"}, {"type", "ioc"}, {"to", "9.9"}, {"after_ms", 5}, {"times", 2}}),
        "");
    engine_settings other(file());
    EXPECT_FALSE(other.take_rise("ioa"));
    for (int use = 0; use < 2; ++use) {
        const auto rise = other.take_rise("ioc");
        ASSERT_TRUE(rise);
        EXPECT_EQ(rise->to, "9.9");
        EXPECT_EQ(rise->after_ms, 5U);
        EXPECT_FALSE(rise->never);
    }
    EXPECT_FALSE(other.take_rise("ioc"));
    ASSERT_EQ(error_of({{"op", "rise"}, {"type", "md"}, {"never", true}}), "");
    for (int use = 0; use < 5; ++use) {
        EXPECT_TRUE(settings.take_rise("md")->never);
    }
    ASSERT_EQ(error_of({{"op", "rise"}, {"type", "md"}}), "");
    EXPECT_FALSE(settings.take_rise("md"));
}

TEST_F(EngineSettings, refuse_a_rise_or_a_drive_state_that_is_not_meant) {
    const auto rise = [&](json members) {
        members["op"] = "rise";
        return error_of(members);
    };
    EXPECT_NE(rise({{"type", "x"}}).find("ioc ioa md"), std::string::npos);
    EXPECT_NE(rise({{"type", "ioc"}, {"after_ms", -1}}).find("from 0 to 600000"),
              std::string::npos);
    EXPECT_NE(rise({{"type", "ioc"}, {"to", ""}}).find("\"to\" must be"), std::string::npos);
    EXPECT_EQ(rise({{"type", "ioc"}, {"never", true}, {"to", "2.0"}}),
              "\"never\" excludes \"to\" and \"after_ms\"");
    EXPECT_EQ(rise({{"type", "ioc"}, {"after", 1}}), "no member \"after\" is known here");
    EXPECT_EQ(error_of({{"op", "drive"}}), "say which state: \"drive\" or \"collect\", or both");
    EXPECT_NE(error_of({{"op", "drive"}, {"drive", "on"}}).find("whole number"), std::string::npos);
    EXPECT_EQ(error_of({{"op", "drive"}, {"driver", 1}}), "no member \"driver\" is known here");
    EXPECT_EQ(settings.drive_state(0), 0);
}

TEST_F(EngineSettings, raise_a_version_but_let_it_fall_only_where_it_may) {
    using kze::engine::is_version_below;
    EXPECT_TRUE(is_version_below("5.9", "5.10"));
    EXPECT_TRUE(is_version_below("1.999", "2.0"));
    EXPECT_FALSE(is_version_below("2.0", "2.0"));
    EXPECT_TRUE(is_version_below("9", "10"));
    EXPECT_TRUE(is_version_below("none", "0.1"));
    EXPECT_EQ(settings.raise_version("ioc", "5.10", false), "");
    EXPECT_EQ(settings.raise_version("ioc", "5.9", false), "");
    EXPECT_EQ(settings.version("ioc"), "5.10");
    EXPECT_EQ(settings.raise_version("ioc", "5.9", true), "");
    EXPECT_EQ(settings.version("ioc"), "5.9");
}

TEST_F(EngineSettings, take_a_broken_file_as_none_and_its_valid_parts_where_it_has_some) {
    for (const char *text : {"", "{", "[]", "7", "\xff", "{\"answers\":7,\"versions\":[]}"}) {
        tree.write("var/lib/qd_agent.json", text);
        engine_settings fresh(file());
        EXPECT_FALSE(fresh.take("x_client_start")) << text;
        EXPECT_EQ(fresh.version("ioc"), "1.0") << text;
    }
    tree.write("var/lib/qd_agent.json",
               R"({"answers":{"nothing":{"code":1},"x_client_stop":{"code":"a"},)"
               R"("x_client_start":{"code":5}},"versions":{"ioc":"2.1","ioa":3,"other":"9"}})");
    engine_settings partly(file());
    EXPECT_FALSE(partly.take("x_client_stop"));
    EXPECT_EQ(partly.take("x_client_start")->code, 5);
    EXPECT_EQ(partly.version("ioc"), "2.1");
    EXPECT_EQ(partly.version("ioa"), "1");
}

TEST_F(EngineSettings, say_why_they_can_not_be_saved_and_stay_as_they_were) {
    tree.write("var/lib", "a file where a directory should be");
    EXPECT_NE(error_of({{"op", "answer"}, {"call", "x_client_start"}, {"code", 1}}).find("var/lib"),
              std::string::npos);
    EXPECT_FALSE(settings.take("x_client_start"));
}

/* ---- snapshots ---- */

TEST(EngineSnapshot, text_that_is_utf8_stays_as_it_is) {
    bool escaped = false;
    for (const std::string &text : {std::string(), std::string("a\\b\x7f\n"), std::string("\0", 1),
                                    std::string("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80")}) {
        EXPECT_EQ(text_of_bytes(text, escaped), text);
    }
    EXPECT_FALSE(escaped);
}

TEST(EngineSnapshot, bytes_that_are_not_utf8_are_escaped_and_backslashes_with_them) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"\xff", "\\xff"},
        {"a\\\xff", "a\\\\\\xff"},
        {"\xc3\xa4\x80", "\xc3\xa4\\x80"},
        {"\xc3", "\\xc3"},                            /* cut off */
        {"\xc0\xaf", "\\xc0\\xaf"},                   /* overlong */
        {"\xe0\x80\xaf", "\\xe0\\x80\\xaf"},          /* overlong */
        {"\xf0\x80\x80\xaf", "\\xf0\\x80\\x80\\xaf"}, /* overlong */
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},          /* surrogate */
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"}, /* beyond the last code point */
        {"\xf8\x88\x80\x80\x80", "\\xf8\\x88\\x80\\x80\\x80"},
    };
    for (const auto &[bytes, text] : rows) {
        bool escaped = false;
        EXPECT_EQ(text_of_bytes(bytes, escaped), text);
        EXPECT_TRUE(escaped);
    }
}

std::vector<json> lines_of(const std::string &snapshot) {
    std::vector<json> lines;
    std::size_t at = 0;
    while (at < snapshot.size()) {
        const std::size_t end = snapshot.find('\n', at);
        lines.push_back(json::parse(snapshot.substr(at, end - at)));
        at = end + 1;
    }
    return lines;
}

json line_of(const std::string &snapshot, pid_t process) {
    for (const json &line : lines_of(snapshot)) {
        if (line.at("pid") == process) {
            return line;
        }
    }
    return json::object();
}

/* `cat` under any name and with any arguments; it waits for its input's end. */
class waiting_program {
  public:
    waiting_program(const std::string &path, const std::vector<std::string> &arguments)
        : child_([&] {
              std::filesystem::copy_file("/usr/bin/cat", path);
              std::vector<std::string> command = {path, "-"};
              command.insert(command.end(), arguments.begin(), arguments.end());
              return command;
          }()) {
        child_.write_line("runs"); /* and when the line comes back, it runs that program */
        EXPECT_EQ(child_.read_line(), "runs");
    }
    pid_t pid() const { return child_.pid(); }

  private:
    kze_test::child_process child_;
};

TEST(EngineSnapshot, shows_a_process_as_the_kernel_does) {
    const kze_test::temp_tree tree;
    const std::string path = tree.path("a (b) c").string();
    const auto before = std::chrono::system_clock::now();
    const waiting_program program(path, {"", "two words", "a\\b"});
    const json line = line_of(process_snapshot().take(), program.pid());
    ASSERT_FALSE(line.empty());
    EXPECT_EQ(line.at("ppid"), getpid());
    EXPECT_EQ(line.at("name"), "a (b) c");
    EXPECT_EQ(line.at("uid"), getuid());
    EXPECT_EQ(line.at("path"), path);
    EXPECT_EQ(line.at("md5"), kze::md5_of_file(path));
    EXPECT_EQ(line.at("command_line"), (json{path, "-", "", "two words", "a\\b"}));
    const auto started = line.at("start_time").get<std::int64_t>();
    EXPECT_NEAR(static_cast<double>(started),
                static_cast<double>(std::chrono::system_clock::to_time_t(before)), 3);
    EXPECT_GT(line.at("start_ticks").get<std::uint64_t>(), 0U);
    EXPECT_EQ(line.size(), 10U) << line;
}

TEST(EngineSnapshot, escapes_arguments_that_are_not_utf8_and_says_so) {
    const kze_test::temp_tree tree;
    const waiting_program program(tree.path("program").string(), {"\xff\\"});
    const json line = line_of(process_snapshot().take(), program.pid());
    ASSERT_FALSE(line.empty());
    EXPECT_EQ(line.at("command_line").at(2), "\\xff\\\\");
    EXPECT_EQ(line.at("escaped"), json{"command_line"});
}

TEST(EngineSnapshot, cuts_arguments_at_32_kib_and_says_so) {
    const kze_test::temp_tree tree;
    const std::string path = tree.path("program").string();
    const std::size_t rest = 32U * 1024U - path.size() - 1 - 2;
    {
        /* With the 0 behind it the last argument ends exactly at the bound. */
        const waiting_program fits(path, {std::string(rest - 1, 'x')});
        const json line = line_of(process_snapshot().take(), fits.pid());
        EXPECT_EQ(line.at("command_line").at(2).get<std::string>().size(), rest - 1);
        EXPECT_FALSE(line.contains("command_line_cut"));
    }
    std::filesystem::remove(path);
    const waiting_program longer(path, {std::string(rest, 'x')});
    const json line = line_of(process_snapshot().take(), longer.pid());
    EXPECT_EQ(line.at("command_line").at(2).get<std::string>().size(), rest);
    EXPECT_EQ(line.at("command_line_cut"), true);
}

TEST(EngineSnapshot, knows_an_executable_that_was_deleted_and_one_that_only_looks_so) {
    const kze_test::temp_tree tree;
    const std::string path = tree.path("program").string();
    const std::string look_alike = tree.path("program (deleted)").string();
    const waiting_program deleted(path, {});
    const waiting_program there(look_alike, {});
    const auto digest = kze::md5_of_file(path);
    std::filesystem::remove(path);
    const std::string snapshot = process_snapshot().take();
    const json line = line_of(snapshot, deleted.pid());
    EXPECT_EQ(line.at("path"), path);
    EXPECT_EQ(line.at("deleted"), true);
    EXPECT_EQ(line.at("md5"), digest);
    const json other = line_of(snapshot, there.pid());
    EXPECT_EQ(other.at("path"), look_alike);
    EXPECT_FALSE(other.contains("deleted"));
}

TEST(EngineSnapshot, sees_that_the_executable_of_a_later_process_has_another_content) {
    const kze_test::temp_tree tree;
    const std::string path = tree.path("program").string();
    process_snapshot snapshot;
    std::string first;
    {
        const waiting_program program(path, {});
        first = line_of(snapshot.take(), program.pid()).at("md5");
        EXPECT_EQ(line_of(snapshot.take(), program.pid()).at("md5"), first);
    }
    std::filesystem::remove(path);
    std::filesystem::copy_file("/usr/bin/cat", path);
    std::ofstream(path, std::ios::app) << "other";
    const std::string moved = path + "2";
    std::filesystem::rename(path, moved);
    kze_test::child_process program({moved, "-"});
    program.write_line("runs");
    EXPECT_EQ(program.read_line(), "runs");
    const json second = line_of(snapshot.take(), program.pid()).at("md5");
    EXPECT_NE(second, first);
    EXPECT_EQ(second, kze::md5_of_file(moved));
}

TEST(EngineSnapshot, stays_whole_while_processes_come_and_go) {
    std::atomic<bool> running{true};
    std::thread spawner([&] {
        while (running) {
            const std::string program = "/usr/bin/true";
            char *arguments[] = {const_cast<char *>(program.c_str()), nullptr};
            pid_t child = 0;
            if (posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments, environ) == 0) {
                waitpid(child, nullptr, 0);
            }
        }
    });
    process_snapshot snapshot;
    const std::size_t descriptors = kze_test::descriptor_count();
    for (int round = 0; round < 100; ++round) {
        const std::vector<json> lines = lines_of(snapshot.take());
        EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                                [](const json &line) { return line.at("pid") == getpid(); }));
    }
    running = false;
    spawner.join();
    EXPECT_EQ(kze_test::descriptor_count(), descriptors);
}

TEST(EngineSnapshot, is_cut_behind_the_last_line_that_fits) {
    const auto cut = [](std::string text, std::size_t limit) {
        const std::size_t lost = cut_at_line(text, limit);
        return std::pair(text, lost);
    };
    using result = std::pair<std::string, std::size_t>;
    EXPECT_EQ(cut("ab\ncd\n", 7), (result{"ab\ncd\n", 0}));
    EXPECT_EQ(cut("ab\ncd\n", 6), (result{"ab\ncd\n", 0}));
    EXPECT_EQ(cut("ab\ncd\n", 5), (result{"ab\n", 1}));
    EXPECT_EQ(cut("ab\ncd\n", 3), (result{"ab\n", 1}));
    EXPECT_EQ(cut("ab\ncd\n", 2), (result{"", 2}));
    EXPECT_EQ(cut("ab\ncd\n", 0), (result{"", 2}));
    EXPECT_EQ(cut("ab\ncd", 4), (result{"ab\n", 1}));
    EXPECT_EQ(cut("abcd", 3), (result{"", 1}));
    EXPECT_EQ(cut("", 0), (result{"", 0}));
}

}  // namespace
}  // namespace engine_test
