/* The modules' fields: what is stored, what is answered, what a user may give. */
#include <gtest/gtest.h>

#include "agent/central_config/modules.h"
#include "tests/support/temp_tree.h"

namespace kze::config {
namespace {

using fields = std::vector<std::pair<std::string, std::string>>;
using names = std::vector<std::string>;

class Modules : public ::testing::Test {
  protected:
    void put(const std::string &module, const std::string &key, const std::string &text) {
        ASSERT_EQ(of.set(module, key, {VALUE_STRING, text}), STORE_OK) << of.problem();
    }
    module_content content(const char *module) {
        module_content found;
        EXPECT_EQ(read_module(of, *find_module(module), found), STORE_OK) << of.problem();
        return found;
    }
    /* How the value of one flag is answered. */
    std::string answered(const char *module, const char *field, const std::string &stored) {
        put(std::string("/mgr/") + module, std::string("/") + field, stored);
        for (const auto &[name, value] : content(module).fields) {
            if (name == field) {
                return value;
            }
        }
        return "absent";
    }

    kze_test::temp_tree tree;
    store of{tree.path("config/kzacfgc").string()};
};

TEST_F(Modules, there_are_the_four_of_the_console) {
    names all;
    for (const module_description &module : modules()) {
        all.emplace_back(module.name);
    }
    EXPECT_EQ(all, (names{"abnormal_login", "anti_bfa", "trust_ip", "base_drive"}));
    EXPECT_EQ(find_module("abnormal"), nullptr);
    EXPECT_EQ(find_module(""), nullptr);
}

TEST_F(Modules, text_counts_as_true_by_the_rule_of_single_values) {
    for (const char *text : {"", "t", "tr", "tru", "true", "1"}) {
        EXPECT_TRUE(counts_as_true(text)) << text;
    }
    for (const char *text : {"false", "0", "TRUE", "truee", "10", "x", " true", "2", "yes"}) {
        EXPECT_FALSE(counts_as_true(text)) << text;
    }
    EXPECT_TRUE(counts_as_true(std::string_view("1\0x", 3)));
}

TEST_F(Modules, flag_is_answered_in_the_words_of_its_module) {
    for (const char *text : {"", "true", "1"}) {
        EXPECT_EQ(answered("abnormal_login", "abnormal_scan_enable", text), "1") << text;
        EXPECT_EQ(answered("anti_bfa", "ssh_enable", text), "true") << text;
        EXPECT_EQ(answered("base_drive", "collect_enable", text), "1") << text;
    }
    for (const char *text : {"false", "0", "10", "truex", "TRUE"}) {
        EXPECT_EQ(answered("abnormal_login", "abnormal_scan_enable", text), "0") << text;
        EXPECT_EQ(answered("anti_bfa", "ssh_enable", text), "false") << text;
        EXPECT_EQ(answered("base_drive", "collect_enable", text), "0") << text;
    }
}

TEST_F(Modules, texts_are_answered_as_they_are_stored) {
    put("/mgr/abnormal_login", "/config", "1");
    put("/mgr/trust_ip", "/white_ip", " {\"a\":[1]}\n");
    EXPECT_EQ(content("abnormal_login").fields, (fields{{"config", "1"}}));
    EXPECT_EQ(content("trust_ip").fields, (fields{{"white_ip", " {\"a\":[1]}\n"}}));
}

TEST_F(Modules, what_is_not_stored_and_what_is_no_string_is_left_out_and_named) {
    put("/mgr/anti_bfa", "/enable", "true");
    put("/mgr/anti_bfa", "/another_key", "x");
    ASSERT_EQ(of.set("/mgr/anti_bfa", "/ssh_enable", {VALUE_BOOLEAN, "true"}), STORE_OK);
    const module_content found = content("anti_bfa");
    EXPECT_EQ(found.fields, (fields{{"enable", "true"}}));
    EXPECT_EQ(found.missing, names{"config"});
    EXPECT_EQ(found.no_text, names{"ssh_enable"});
}

TEST_F(Modules, store_that_is_not_there_gives_no_fields_and_a_broken_one_a_failure) {
    EXPECT_EQ(content("base_drive").fields, fields());
    tree.write("config/kzacfgc/store.json", "{");
    module_content found;
    found.missing = {"untouched"};
    EXPECT_EQ(read_module(of, *find_module("base_drive"), found), STORE_BROKEN);
    EXPECT_EQ(found.missing, names{"untouched"});
}

TEST_F(Modules, user_gives_flags_as_true_false_1_or_0_and_they_are_stored_as_words) {
    const module_field &flag = *find_module("base_drive")->find("enable");
    std::string stored = "untouched";
    for (const char *wrong : {"", "on", "TRUE", "2", "10"}) {
        EXPECT_EQ(check_field(flag, wrong, stored), "enable is true, false, 1 or 0") << wrong;
    }
    EXPECT_EQ(stored, "untouched");
    for (const auto &[given, kept] :
         fields{{"true", "true"}, {"1", "true"}, {"false", "false"}, {"0", "false"}}) {
        EXPECT_EQ(check_field(flag, given, stored), "");
        EXPECT_EQ(stored, kept);
    }
}

TEST_F(Modules, users_trust_list_must_be_a_json_object_and_rules_a_text) {
    const module_field &list = *find_module("trust_ip")->find("white_ip");
    const module_field &rules = *find_module("anti_bfa")->find("config");
    std::string stored = "untouched";
    EXPECT_EQ(check_field(list, "[1]", stored), "white_ip is a JSON object");
    EXPECT_EQ(check_field(list, "{", stored).rfind("white_ip is a JSON object: line 1", 0), 0U);
    EXPECT_NE(check_field(rules, std::string("a\0b", 3), stored), "");
    EXPECT_EQ(stored, "untouched");
    EXPECT_EQ(check_field(list, " {} ", stored), "");
    EXPECT_EQ(stored, " {} ");
    EXPECT_EQ(check_field(rules, "any\ntext", stored), "");
    EXPECT_EQ(stored, "any\ntext");
}

TEST_F(Modules, several_values_are_stored_at_once_or_none_of_them) {
    EXPECT_EQ(of.set({{"/mgr/a", "/x", {VALUE_STRING, "1"}}, {"/mgr/a", "/y", {VALUE_NULL, "x"}}}),
              STORE_BAD_ARGUMENT);
    std::vector<store_entry> all;
    ASSERT_EQ(of.list(all), STORE_OK);
    EXPECT_TRUE(all.empty());
    EXPECT_EQ(
        of.set({{"/mgr/a", "/x", {VALUE_STRING, "1"}}, {"/mgr/b", "/y", {VALUE_STRING, "2"}}}),
        STORE_OK);
    ASSERT_EQ(of.list(all), STORE_OK);
    EXPECT_EQ(all.size(), 2U);
}

}  // namespace
}  // namespace kze::config
