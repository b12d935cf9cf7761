// The central configuration client, and the reading of its values.

#include <gmock/gmock.h>

#include <set>
#include <utility>

#include "config/kzemm_config.h"
#include "tests/fakes/fake_central_config.h"
#include "tests/fakes/fake_libraries.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/inspectors.h"
#include "tests/fakes/plugin_test.h"

using fakes::at;
using fakes::log_lines;
using fakes::what;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using inspector = kzemm_config_inspector;

constexpr unsigned int value_size = 30;

kzemm_config &config() {
    return kzemm_config::get_instance();
}

std::vector<std::string> everything() {
    return fakes::texts({what::log, what::library, what::config});
}

// ---- the client library ----

class kzemm_config_client_test : public plugin_test {
  protected:
    void expect_nothing_is_held() const {
        EXPECT_FALSE(inspector::cfgc_initialized());
        EXPECT_FALSE(inspector::has_library());
        EXPECT_FALSE(inspector::has_table());
        EXPECT_FALSE(inspector::has_client());
        EXPECT_EQ(fakes::open_handles(), 0U);
        EXPECT_EQ(fakes::config_open().tables, 0U);
        EXPECT_EQ(fakes::config_open().clients, 0U);
    }
};

TEST_F(kzemm_config_client_test, opens_the_library_then_makes_the_table_and_the_client) {
    EXPECT_EQ(config().init_cfgc(), 0);
    EXPECT_TRUE(inspector::cfgc_initialized());
    EXPECT_THAT(fakes::opened_paths(), ElementsAre(in_tree("bin/../lib/libkzacfgc.so")));
    EXPECT_THAT(fakes::looked_up(fakes::config_library),
                ElementsAre("DllNewObject", "DllDestroyObject"));
    EXPECT_THAT(everything(), ElementsAre("init cfgc", "open libkzacfgc.so", "DllNewObject",
                                          "NewClient cfgc_ctr " + in_tree("bin/../config/kzacfgc"),
                                          "init cfgc succeed"));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "init cfgc"), at(3, "init cfgc succeed")));
}

TEST_F(kzemm_config_client_test, warns_of_a_second_init_and_makes_nothing) {
    ASSERT_EQ(config().init_cfgc(), 0);
    fakes::clear_journal();
    EXPECT_EQ(config().init_cfgc(), 0);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "init cfgc"), at(2, "cfgc is already initialized")));
    EXPECT_EQ(fakes::times_opened(fakes::config_library), 1U);
    EXPECT_EQ(fakes::config_open().clients, 1U);
}

TEST_F(kzemm_config_client_test, fails_without_the_library) {
    fakes::library_missing(fakes::config_library);
    EXPECT_EQ(config().init_cfgc(), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "init cfgc"), at(1, "failed to initialize cfgc")));
    EXPECT_THAT(fakes::looked_up(fakes::config_library), IsEmpty());
    expect_nothing_is_held();
}

class kzemm_config_export_test : public kzemm_config_client_test,
                                 public testing::WithParamInterface<const char *> {};

INSTANTIATE_TEST_SUITE_P(, kzemm_config_export_test,
                         testing::Values("DllNewObject", "DllDestroyObject"),
                         [](const auto &each) { return each.param; });

TEST_P(kzemm_config_export_test, is_needed) {
    fakes::symbol_missing(fakes::config_library, GetParam());
    EXPECT_EQ(config().init_cfgc(), -1);
    EXPECT_THAT(everything(), ElementsAre("init cfgc", "open libkzacfgc.so", "close libkzacfgc.so",
                                          "failed to initialize cfgc"));
    EXPECT_THAT(fakes::looked_up(fakes::config_library),
                ElementsAre("DllNewObject", "DllDestroyObject"));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "init cfgc"), at(1, "failed to initialize cfgc")));
    expect_nothing_is_held();
}

TEST_F(kzemm_config_client_test, fails_when_only_the_second_lookup_tells_of_a_failure) {
    fakes::symbol_found_with_code(fakes::config_library, "DllNewObject", 7);
    EXPECT_EQ(config().init_cfgc(), 0) << "the first result is not kept";
    config().uninit_cfgc();

    fakes::symbol_found_with_code(fakes::config_library, "DllDestroyObject", 7);
    fakes::clear_journal();
    EXPECT_EQ(config().init_cfgc(), -1);
    EXPECT_THAT(everything(),
                ElementsAre("init cfgc", "open libkzacfgc.so", "DllNewObject", "DllDestroyObject",
                            "close libkzacfgc.so", "failed to initialize cfgc"));
    expect_nothing_is_held();
}

TEST_F(kzemm_config_client_test, fails_when_there_is_no_table) {
    fakes::config_new_object_returns(-1, false);
    EXPECT_EQ(config().init_cfgc(), -1);
    EXPECT_THAT(everything(), ElementsAre("init cfgc", "open libkzacfgc.so", "DllNewObject",
                                          "close libkzacfgc.so", "failed to initialize cfgc"));
    expect_nothing_is_held();
}

TEST_F(kzemm_config_client_test, destroys_the_table_that_came_with_a_failure) {
    fakes::config_new_object_returns(-1, true);
    EXPECT_EQ(config().init_cfgc(), -1);
    EXPECT_THAT(everything(),
                ElementsAre("init cfgc", "open libkzacfgc.so", "DllNewObject", "DllDestroyObject",
                            "close libkzacfgc.so", "failed to initialize cfgc"));
    expect_nothing_is_held();
}

TEST_F(kzemm_config_client_test, takes_a_positive_result_as_success) {
    fakes::config_new_object_returns(1);
    EXPECT_EQ(config().init_cfgc(), 0);
    EXPECT_TRUE(inspector::cfgc_initialized());
}

TEST_F(kzemm_config_client_test, fails_when_success_came_without_a_table) {
    fakes::config_new_object_returns(0, false);
    EXPECT_EQ(config().init_cfgc(), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "init cfgc"), at(1, "failed to initialize cfgc")));
    expect_nothing_is_held();
}

class kzemm_config_table_test : public kzemm_config_client_test,
                                public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(position, kzemm_config_table_test, testing::Range(0, 52),
                         [](const auto &each) { return std::to_string(each.param); });

TEST_P(kzemm_config_table_test, may_lack_positions_4_9_14_and_16_and_no_other) {
    const std::set<int> optional = {4, 9, 14, 16};
    fakes::config_drop_entry(GetParam());
    if (optional.count(GetParam()) != 0) {
        EXPECT_EQ(config().init_cfgc(), 0);
        EXPECT_TRUE(inspector::cfgc_initialized());
        return;
    }
    EXPECT_EQ(config().init_cfgc(), -1);
    EXPECT_THAT(everything(),
                ElementsAre("init cfgc", "open libkzacfgc.so", "DllNewObject", "DllDestroyObject",
                            "close libkzacfgc.so", "failed to initialize cfgc"));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "init cfgc"), at(1, "failed to initialize cfgc")));
    expect_nothing_is_held();
}

TEST_F(kzemm_config_client_test, may_lack_all_optional_positions_at_once) {
    for (const int position : {4, 9, 14, 16}) {
        fakes::config_drop_entry(position);
    }
    EXPECT_EQ(config().init_cfgc(), 0);
}

TEST_F(kzemm_config_client_test, releases_everything_when_the_client_is_refused) {
    fakes::config_refuses_client();
    EXPECT_EQ(config().init_cfgc(), -1);
    EXPECT_THAT(everything(), ElementsAre("init cfgc", "open libkzacfgc.so", "DllNewObject",
                                          "NewClient cfgc_ctr " + in_tree("bin/../config/kzacfgc"),
                                          "failed to create cfgc client", "DllDestroyObject",
                                          "close libkzacfgc.so"));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "init cfgc"), at(1, "failed to create cfgc client")));
    expect_nothing_is_held();
}

TEST_F(kzemm_config_client_test, works_at_a_later_init_when_the_first_failed) {
    fakes::library_missing(fakes::config_library);
    ASSERT_EQ(config().init_cfgc(), -1);
    fakes::library_works(fakes::config_library);
    EXPECT_EQ(config().init_cfgc(), 0);
    EXPECT_TRUE(inspector::cfgc_initialized());
}

TEST_F(kzemm_config_client_test, is_released_in_the_order_client_table_library) {
    ASSERT_EQ(config().init_cfgc(), 0);
    fakes::clear_journal();
    config().uninit_cfgc();
    EXPECT_THAT(everything(), ElementsAre("DeleteClient", "DllDestroyObject", "close libkzacfgc.so",
                                          "uninit cfgc succeed"));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "uninit cfgc succeed")));
    expect_nothing_is_held();
}

TEST_F(kzemm_config_client_test, may_be_released_when_it_was_never_made_and_twice) {
    config().uninit_cfgc();
    ASSERT_EQ(config().init_cfgc(), 0);
    config().uninit_cfgc();
    fakes::clear_journal();
    config().uninit_cfgc();
    EXPECT_THAT(everything(), ElementsAre("uninit cfgc succeed"));
}

// ---- one value ----

// The client is there from the beginning; the store is empty.
class kzemm_config_value_test : public plugin_test {
  protected:
    void SetUp() override {
        plugin_test::SetUp();
        ASSERT_EQ(config().init_cfgc(), 0);
        fakes::clear_journal();
    }

    void TearDown() override {
        EXPECT_EQ(fakes::config_open().values, 0U) << "every value is freed";
        plugin_test::TearDown();
    }

    // What get_cfgc_val makes of the key "/k" of the module "/m".
    std::string value(unsigned int size) {
        std::string buffer(64, '\0');
        EXPECT_EQ(config().get_cfgc_val("/m", "/k", size, buffer.data()), 0);
        return buffer.c_str();
    }

    void expect_no_value() {
        char buffer[value_size] = "as it was";
        EXPECT_EQ(config().get_cfgc_val("/m", "/k", sizeof(buffer), buffer), -1);
        EXPECT_STREQ(buffer, "as it was");
    }
};

const auto unreadable = at(1, "cfgc GetValue failed, module: /m, key: /k, err: no such value.");

TEST_F(kzemm_config_value_test, is_read_by_module_and_key) {
    fakes::config_set("/m", "/k", "a text");
    EXPECT_EQ(value(value_size), "a text");
    EXPECT_THAT(fakes::config_reads(), ElementsAre("GetValue /m /k"));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_config_value_test, is_cut_to_one_character_less_than_the_buffer) {
    for (const size_t length : {28U, 29U, 30U, 31U, 50U}) {
        const std::string text = std::string(length - 1, 'a') + "z";
        fakes::config_set("/m", "/k", text);
        EXPECT_EQ(value(value_size), text.substr(0, 29)) << length;
    }
    EXPECT_EQ(value(5), "aaaa");
}

TEST_F(kzemm_config_value_test, may_be_empty) {
    fakes::config_set("/m", "/k", "");
    EXPECT_EQ(value(value_size), "");
}

TEST_F(kzemm_config_value_test, counts_with_any_result_that_is_not_negative) {
    fakes::config_set("/m", "/k", "a text");
    fakes::config_get_returns("/m", "/k", 7, true);
    EXPECT_EQ(value(value_size), "a text");
}

TEST_F(kzemm_config_value_test, is_missing_with_a_negative_result) {
    expect_no_value();
    EXPECT_THAT(log_lines(), ElementsAre(unreadable));
}

TEST_F(kzemm_config_value_test, is_freed_when_it_comes_with_a_negative_result) {
    fakes::config_set("/m", "/k", "a text");
    fakes::config_get_returns("/m", "/k", -7, true);
    expect_no_value();
    EXPECT_THAT(log_lines(), ElementsAre(unreadable));
    EXPECT_THAT(fakes::config_errors(), ElementsAre(-7)) << "the text is that of the result";
}

TEST_F(kzemm_config_value_test, is_missing_when_success_brings_none) {
    fakes::config_get_returns("/m", "/k", 3, false);
    expect_no_value();
    EXPECT_THAT(log_lines(), ElementsAre(unreadable));
    EXPECT_THAT(fakes::config_errors(), ElementsAre(3)) << "the text is that of the result";
}

TEST_F(kzemm_config_value_test, must_be_a_string) {
    for (const int type : {0, 1, 2, 4, -3}) {
        fakes::config_set("/m", "/k", "a text");
        fakes::config_set_type("/m", "/k", type);
        fakes::clear_journal();
        expect_no_value();
        EXPECT_THAT(log_lines(),
                    ElementsAre(at(1, "value type: " + std::to_string(type) + " error")));
    }
}

TEST_F(kzemm_config_value_test, must_have_a_text) {
    fakes::config_set("/m", "/k", "a text");
    fakes::config_set_null_text("/m", "/k");
    expect_no_value();
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "convert cfgc value to string failed")));
}

// ---- one boolean ----

TEST_F(kzemm_config_value_test, is_true_for_each_beginning_of_true_and_for_1_alone) {
    const std::pair<const char *, bool> cases[] = {
        {"", true},
        {"t", true},
        {"tr", true},
        {"tru", true},
        {"true", true},
        {"1", true},
        {"truee", false},
        {"true ", false},
        {"trues", false},
        {"TRUE", false},
        {"True", false},
        {"T", false},
        {"tx", false},
        {"rue", false},
        {"10", false},
        {"11", false},
        {"1 ", false},
        {"01", false},
        {"0", false},
        {"2", false},
        {"false", false},
        {"f", false},
        {"yes", false},
        {"on", false},
        {" true", false},
        {" ", false},
        {"truetruetruetruetruetruetruetrue", false},
        {"1111111111111111111111111111111111", false},
    };
    for (const auto &[text, expected] : cases) {
        SCOPED_TRACE(std::string("\"") + text + "\"");
        fakes::config_set("/m", "/k", text);
        for (const bool dflt : {true, false}) {
            fakes::clear_journal();
            bool out = !expected;
            EXPECT_EQ(config().get_cfgc_switch(out, "/k", "/m", dflt), 0);
            EXPECT_EQ(out, expected);
            EXPECT_THAT(log_lines(), ElementsAre(at(3, std::string("get from cfgc switch[/k]: ") +
                                                           (expected ? "1." : "0."))));
        }
    }
}

TEST_F(kzemm_config_value_test, reads_a_boolean_by_key_and_module) {
    bool out = false;
    fakes::config_set("/m", "/k", "true");
    EXPECT_EQ(config().get_cfgc_switch(out, "/k", "/m", false), 0);
    EXPECT_THAT(fakes::config_reads(), ElementsAre("GetValue /m /k"));
}

TEST_F(kzemm_config_value_test, gives_a_boolean_its_default_when_the_read_fails) {
    for (const bool dflt : {true, false}) {
        fakes::clear_journal();
        bool out = !dflt;
        EXPECT_EQ(config().get_cfgc_switch(out, "/k", "/m", dflt), -1);
        EXPECT_EQ(out, dflt);
        EXPECT_THAT(log_lines(),
                    ElementsAre(unreadable, at(2, "get from cfgc failed: switch[/k] module[/m]")));
    }
}

TEST_F(kzemm_config_value_test, gives_a_boolean_its_default_when_the_value_is_of_another_type) {
    fakes::config_set("/m", "/k", "true");
    fakes::config_set_type("/m", "/k", 1);
    bool out = true;
    EXPECT_EQ(config().get_cfgc_switch(out, "/k", "/m", false), -1);
    EXPECT_FALSE(out);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "value type: 1 error"),
                                         at(2, "get from cfgc failed: switch[/k] module[/m]")));
}

// ---- one bit ----

TEST_F(kzemm_config_value_test, tells_whether_a_decimal_number_and_a_mask_meet) {
    const struct {
        const char *text;
        int mask;
        bool expected;
    } cases[] = {
        {"0", 1, false},   {"0", 2, false},  {"1", 1, true},          {"1", 2, false},
        {"2", 1, false},   {"2", 2, true},   {"3", 1, true},          {"3", 2, true},
        {"4", 1, false},   {"4", 2, false},  {"4", 3, false},         {"6", 3, true},
        {"-1", 1, true},   {"-1", 2, true},  {"-2", 1, false},        {"-2", 2, true},
        {"-4", 1, false},  {"-4", 2, false}, {"abc", 1, false},       {"abc", 2, false},
        {"", 1, false},    {"", 2, false},   {"true", 1, false},      {"3abc", 2, true},
        {"0x3", 1, false}, {"03", 2, true},  {"4294967297", 1, true},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(std::string(each.text) + ", mask " + std::to_string(each.mask));
        fakes::config_set("/m", "/k", each.text);
        for (const bool dflt : {true, false}) {
            fakes::clear_journal();
            bool out = !each.expected;
            EXPECT_EQ(config().get_cfgc_bit_switch(out, each.mask, dflt, "/m", "/k"), 1);
            EXPECT_EQ(out, each.expected);
            EXPECT_THAT(
                log_lines(),
                ElementsAre(at(3, "get from cfgc switch[/m:/k:" + std::to_string(each.mask) +
                                      "]: " + (each.expected ? "1." : "0."))));
        }
    }
}

// 29 characters are read, the last of which decides here.
TEST_F(kzemm_config_value_test, cuts_the_number_of_a_bit_after_29_characters) {
    bool out = false;
    fakes::config_set("/m", "/k", std::string(28, '0') + "1");
    EXPECT_EQ(config().get_cfgc_bit_switch(out, 1, false, "/m", "/k"), 1);
    EXPECT_TRUE(out);
    fakes::config_set("/m", "/k", std::string(29, '0') + "1");
    EXPECT_EQ(config().get_cfgc_bit_switch(out, 1, true, "/m", "/k"), 1);
    EXPECT_FALSE(out);
}

TEST_F(kzemm_config_value_test, gives_a_bit_its_default_when_the_read_fails) {
    for (const bool dflt : {true, false}) {
        fakes::clear_journal();
        bool out = !dflt;
        EXPECT_EQ(config().get_cfgc_bit_switch(out, 1, dflt, "/m", "/k"), -1);
        EXPECT_EQ(out, dflt);
        EXPECT_THAT(log_lines(),
                    ElementsAre(unreadable, at(2, "get from cfgc failed: switch[/k] module[/m]")));
    }
}

}  // namespace
