/* The formats of the engine's rule files. */
#include "agent/common/rule_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <random>

#include "tests/support/process_state.h"
#include "tests/support/temp_tree.h"

namespace kze_test {
namespace {

using kze::parse_rule_file;
using kze::rule_file;
using kze::rule_kind;
using ::testing::HasSubstr;

/* What speaks against a text; empty when it is read. */
std::string problem_of(rule_kind kind, const std::string &text) {
    std::string problem;
    const bool is_read = parse_rule_file(kind, text, problem).has_value();
    EXPECT_EQ(is_read, problem.empty()) << problem;
    return problem;
}

std::string ioc(const std::string &version, const std::string &kind, const std::string &list) {
    return R"({"version": )" + version + R"(, "kind": )" + kind + R"(, "indicators": )" + list +
           "}";
}

TEST(rule_files, an_ioc_file_tells_its_version_its_kind_and_its_indicators) {
    std::string problem;
    const auto file = parse_rule_file(
        rule_kind::ioc, ioc("\"5.1\"", "\"incremental\"", R"(["domain:a.example","ip:::1"])"),
        problem);
    ASSERT_TRUE(file) << problem;
    EXPECT_EQ(file->version, "5.1");
    EXPECT_FALSE(file->full);
    EXPECT_EQ(file->rules, (std::vector<std::string>{"domain:a.example", "ip:::1"}));
}

TEST(rule_files, ioa_and_md_files_begin_with_their_version_and_may_have_comments) {
    std::string problem;
    const auto ioa = parse_rule_file(rule_kind::ioa,
                                     "# by hand\nversion=12\n\nrule=a: b = c\nrule=d\n", problem);
    ASSERT_TRUE(ioa) << problem;
    EXPECT_EQ(ioa->version, "12");
    EXPECT_EQ(ioa->rules, (std::vector<std::string>{"a: b = c", "d"}));
    const auto md = parse_rule_file(rule_kind::md, "version=7\nName.A:4d5A\n#x\na:b:00", problem);
    ASSERT_TRUE(md) << problem;
    EXPECT_EQ(md->rules, (std::vector<std::string>{"Name.A:4d5A", "a:b:00"}));
}

TEST(rule_files, what_is_written_is_read_as_the_same) {
    for (const rule_file &file :
         {rule_file{rule_kind::ioc, "0.2147483647", true, {"url:http://a.example/\"\\\xc3\xa4"}},
          rule_file{rule_kind::ioc, "3.0", false, {}},
          rule_file{rule_kind::ioa, "4294967295", true, {"version=2", "rule=#"}},
          rule_file{rule_kind::md, "0", true, {"N:00ff"}}}) {
        std::string problem;
        const auto read = parse_rule_file(file.kind, kze::rule_file_text(file), problem);
        ASSERT_TRUE(read) << problem;
        EXPECT_EQ(read->version, file.version);
        EXPECT_EQ(read->full, file.full);
        EXPECT_EQ(read->rules, file.rules);
    }
}

TEST(rule_files, a_problem_says_where_and_what) {
    const std::vector<std::tuple<rule_kind, std::string, std::string>> cases = {
        {rule_kind::ioc, "", "not valid JSON"},
        {rule_kind::ioc, "[]", "no JSON object"},
        {rule_kind::ioc, "{}", "no text \"version\""},
        {rule_kind::ioc, ioc("5", "\"full\"", "[]"), "no text \"version\""},
        {rule_kind::ioc, ioc("\"5\"", "\"full\"", "[]"), "is no <major>.<minor>"},
        {rule_kind::ioc, ioc("\"5.2147483648\"", "\"full\"", "[]"), "is no <major>.<minor>"},
        {rule_kind::ioc, ioc("\"-1.2\"", "\"full\"", "[]"), "is no <major>.<minor>"},
        {rule_kind::ioc, ioc("\"05.1\"", "\"full\"", "[]"), "is no <major>.<minor>"},
        {rule_kind::ioc, ioc("\"5.1\"", "\"other\"", "[]"), "neither \"full\" nor"},
        {rule_kind::ioc, ioc("\"5.1\"", "\"full\"", "{}"), "no array \"indicators\""},
        {rule_kind::ioc, ioc("\"5.1\"", "\"full\"", "[1]"), "indicator 1: no text"},
        {rule_kind::ioc, ioc("\"5.1\"", "\"full\"", R"(["ip:1","host:a"])"),
         "indicator 2: not an indicator"},
        {rule_kind::ioc, ioc("\"5.1\"", "\"full\"", R"(["ip:\n"])"), "control characters"},
        {rule_kind::ioa, "", "is no number"},
        {rule_kind::ioa, "rule=a\n", "line 1: the version comes first"},
        {rule_kind::ioa, "version=4294967296\n", "line 1: version"},
        {rule_kind::ioa, "version=1\nrule=a\nversion=2\n", "line 3: not a rule"},
        {rule_kind::ioa, "version=1\nrule=\n", "line 2: a rule of 0 bytes"},
        {rule_kind::md, "version=1\n\nabc\n", "line 3: not a pattern"},
        {rule_kind::md, "version=1\nabc:123\n", "not a pattern"},
        {rule_kind::md, "version=1\n:12\n", "not a pattern"},
        {rule_kind::md, "version=1\nabc:\n", "not a pattern"},
        {rule_kind::md, "version=1\r\nabc:12\r\n", "is no number"},
    };
    for (const auto &[kind, text, expected] : cases) {
        EXPECT_THAT(problem_of(kind, text), HasSubstr(expected)) << text;
    }
}

TEST(rule_files, a_problem_shows_no_control_characters_and_no_endless_text) {
    const std::string problem =
        problem_of(rule_kind::ioa, "version=1\n\x1b[31m" + std::string(5000, 'x'));
    EXPECT_LT(problem.size(), 200U);
    EXPECT_EQ(problem.find('\x1b'), std::string::npos);
}

TEST(rule_files, a_rule_has_up_to_1024_bytes) {
    const std::string version = "version=1\nrule=";
    EXPECT_EQ(problem_of(rule_kind::ioa, version + std::string(1024, 'a')), "");
    EXPECT_THAT(problem_of(rule_kind::ioa, version + std::string(1025, 'a')),
                HasSubstr("1025 bytes"));
}

TEST(rule_files, a_file_has_up_to_100000_rules) {
    std::string lines = "version=1\n";
    std::string list = "[\"ip:1\"";
    for (std::size_t i = 1; i < kze::rules_bound; ++i) {
        lines += "a:00\n";
        list += ",\"ip:1\"";
    }
    EXPECT_EQ(problem_of(rule_kind::md, lines + "a:00\n"), "");
    EXPECT_THAT(problem_of(rule_kind::md, lines + "a:00\na:00\n"), HasSubstr("more than 100000"));
    EXPECT_EQ(problem_of(rule_kind::ioc, ioc("\"1.1\"", "\"full\"", list + "]")), "");
    EXPECT_THAT(problem_of(rule_kind::ioc, ioc("\"1.1\"", "\"full\"", list + ",\"ip:1\"]")),
                HasSubstr("more than 100000"));
}

TEST(rule_files, a_file_has_up_to_16_mebibytes) {
    const temp_tree tree;
    const std::string head = "version=1\n#";
    tree.write("rules", head + std::string(kze::rule_file_bytes_bound - head.size(), 'x'));
    std::string problem;
    EXPECT_TRUE(read_rule_file(rule_kind::ioa, tree.path("rules").string(), problem)) << problem;
    tree.write("rules", head + std::string(kze::rule_file_bytes_bound - head.size() + 1, 'x'));
    EXPECT_FALSE(read_rule_file(rule_kind::ioa, tree.path("rules").string(), problem));
    EXPECT_THAT(problem, HasSubstr("longer than 16777216 bytes"));
}

TEST(rule_files, only_a_regular_file_is_read_and_nothing_stays_open) {
    const temp_tree tree;
    const std::size_t before = descriptor_count();
    const std::string pipe = tree.path("pipe").string();
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (const std::string &path : {pipe, tree.path("var").string()}) {
        std::string problem;
        EXPECT_FALSE(read_rule_file(rule_kind::md, path, problem));
        EXPECT_EQ(problem, path + ": no regular file");
    }
    std::string problem;
    EXPECT_FALSE(read_rule_file(rule_kind::md, tree.path("none").string(), problem));
    EXPECT_THAT(problem, HasSubstr("No such file"));
    EXPECT_EQ(descriptor_count(), before);
}

TEST(rule_files, damaged_files_are_refused_or_read_but_never_do_harm) {
    std::mt19937 random(20240521);
    const std::string sound[] = {
        kze::rule_file_text({rule_kind::ioc, "5.0", true, {"ip:192.0.2.1", "domain:a.example"}}),
        kze::rule_file_text({rule_kind::ioa, "12", true, {"a b c", "d"}}),
        kze::rule_file_text({rule_kind::md, "7", true, {"N:00ff", "M:0102"}})};
    const rule_kind kinds[] = {rule_kind::ioc, rule_kind::ioa, rule_kind::md};
    std::size_t refused = 0;
    for (int round = 0; round < 30000; ++round) {
        const std::size_t which = random() % 3;
        std::string text = sound[which];
        for (std::size_t changes = random() % 3 + 1; changes != 0; --changes) {
            text[random() % text.size()] = static_cast<char>(random() & 0xFFU);
        }
        text.resize(text.size() - random() % 3);
        refused += problem_of(kinds[which], text).empty() ? 0 : 1;
    }
    EXPECT_GT(refused, 1000U);
}

TEST(rule_files, the_example_rule_files_are_sound) {
    const std::vector<std::pair<rule_kind, std::string>> examples = {
        {rule_kind::ioc, "ioc_full_5.0.json"},
        {rule_kind::ioa, "linux_kzedbd.cfg"},
        {rule_kind::md, "linux_kzemsi.ptn"}};
    for (const auto &[kind, name] : examples) {
        std::string problem;
        const auto file = read_rule_file(kind, std::string(KZE_DATA) + "/rules/" + name, problem);
        ASSERT_TRUE(file) << problem;
        EXPECT_FALSE(file->rules.empty()) << name;
    }
}

}  // namespace
}  // namespace kze_test
