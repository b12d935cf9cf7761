// The central configuration client, the reading of its values, and the switches derived from them.

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

constexpr char base_collect[] = "/mgr/base_collect";
constexpr char abnormal_login[] = "/mgr/abnormal_login";
constexpr char anti_bfa[] = "/mgr/anti_bfa";
constexpr char auto_dispose[] = "/mgr/auto_dispose";
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

// ---- the switches ----

struct read {
    const char *module;
    const char *key;
};

// What an evaluation reads, in order.
const read reads[] = {
    {base_collect, "/adv_threats"},
    {base_collect, "/enable_actioninfo"},
    {base_collect, "/real_time_data"},
    {"/mgr/global", "/enable_domain_report"},
    {abnormal_login, "/abnormal_ip_login_enable"},
    {abnormal_login, "/abnormal_time_login_enable"},
    {abnormal_login, "/abnormal_scan_enable"},
    {abnormal_login, "/reverseshell_enable"},
    {anti_bfa, "/enable"},
    {anti_bfa, "/ssh_enable"},
    {auto_dispose, "/switch"},
    {auto_dispose, "/switch"},
};

std::vector<std::string> expected_reads() {
    std::vector<std::string> result;
    for (const read &each : reads) {
        result.push_back(std::string("GetValue ") + each.module + " " + each.key);
    }
    return result;
}

// Gives every key a text, the dispose switch a number.
void set_all(const std::string &text, const std::string &dispose) {
    for (const read &each : reads) {
        const bool is_dispose = std::string(each.key) == "/switch";
        fakes::config_set(each.module, each.key, is_dispose ? dispose : text);
    }
}

using numbers = std::set<int>;

// The switches that are on, by their numbers.
numbers switches_on() {
    numbers result;
    for (int number = 0; number <= 31; ++number) {
        if (config().get_switch(static_cast<EMM_SWITCH_TYPE>(number))) {
            result.insert(number);
        }
    }
    return result;
}

numbers operator+(numbers left, const numbers &right) {
    left.insert(right.begin(), right.end());
    return left;
}

// What hangs on "/adv_threats" alone.
const numbers of_adv_threats = {EMM_SWITCH_COLLECT,     EMM_SWITCH_IOA,     EMM_SWITCH_IOC,
                                EMM_SWITCH_HUNTING,     EMM_SWITCH_LINKAGE, EMM_SWITCH_MD,
                                EMM_SWITCH_REVERSESHELL};
const numbers always = {EMM_SWITCH_ORIGIN_FORWARD};
const numbers of_others = {EMM_SWITCH_SUBSCRIBE_EVENT,   EMM_SWITCH_REPORT,
                           EMM_SWITCH_ABNORMAL_IP_LOGIN, EMM_SWITCH_ABNORMAL_TIME_LOGIN,
                           EMM_SWITCH_ABNORMAL_SCAN,     EMM_SWITCH_BRUTEFORCE_GLOBAL,
                           EMM_SWITCH_BRUTEFORCE_SSH};
const numbers of_dispose = {EMM_SWITCH_DISPOSE_WEB, EMM_SWITCH_DISPOSE_PHISHING};

using kzemm_config_switches_test = kzemm_config_value_test;

TEST_F(kzemm_config_switches_test, are_read_in_their_order) {
    set_all("false", "0");
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    EXPECT_EQ(fakes::config_reads(), expected_reads());
}

TEST_F(kzemm_config_switches_test, are_read_anew_at_each_evaluation) {
    set_all("false", "0");
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    EXPECT_THAT(fakes::config_reads(), SizeIs(24));
}

TEST_F(kzemm_config_switches_test, log_an_evaluation_line_by_line) {
    set_all("false", "2");
    fakes::config_set(base_collect, "/adv_threats", "true");
    fakes::config_set(base_collect, "/real_time_data", "1");
    fakes::config_set(abnormal_login, "/abnormal_time_login_enable", "true");
    fakes::config_set(anti_bfa, "/ssh_enable", "true");
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    EXPECT_THAT(
        log_lines(),
        ElementsAre(
            at(3, "get from cfgc switch[/adv_threats]: 1."),
            at(3, "get from cfgc switch[/enable_actioninfo]: 0."),
            at(3, "get from cfgc switch[/real_time_data]: 1."),
            at(3, "get from cfgc switch[/enable_domain_report]: 0."),
            at(3, "get from cfgc switch[/abnormal_ip_login_enable]: 0."),
            at(3, "get from cfgc switch[/abnormal_time_login_enable]: 1."),
            at(3, "get from cfgc switch[/abnormal_scan_enable]: 0."),
            at(3, "get from cfgc switch[/reverseshell_enable]: 0."),
            at(3, "get from cfgc switch[/enable]: 0."),
            at(3, "get from cfgc switch[/ssh_enable]: 1."),
            at(3, "get from cfgc switch[/mgr/auto_dispose:/switch:1]: 0."),
            at(3, "get from cfgc switch[/mgr/auto_dispose:/switch:2]: 1."),
            at(3,
               "adv_threats: 1, report_action_log: 0, botnet: 0, rtd:1, abnormal_ip_login:0, "
               "abnormal_time_login:1 abnormal_scan:0, reverseshell: 0, bruteforce_global: 0, "
               "dispose_web: 0, dispose_phishing: 1"),
            at(3,
               "hunting: 1, link: 1, report: 0, collect: 1, ioa: 1, ioc: 1, real time data:1, "
               "origin forward: 1, abnormal ip login:0, abnormal time login:1, abnormal scan:0, "
               "brutecorce global:0, reverseshell: 1, dispose web:0, dispose phishin:1"),
            at(3, "ssh bruteforce: 1")));
}

TEST_F(kzemm_config_switches_test, log_the_values_that_the_other_test_left_off) {
    set_all("true", "1");
    fakes::config_set(base_collect, "/adv_threats", "false");
    fakes::config_set(base_collect, "/real_time_data", "false");
    fakes::config_set(abnormal_login, "/abnormal_time_login_enable", "false");
    fakes::config_set(anti_bfa, "/ssh_enable", "false");
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    const auto lines = log_lines();
    ASSERT_THAT(lines, SizeIs(15));
    EXPECT_EQ(lines[12].text,
              "adv_threats: 0, report_action_log: 1, botnet: 1, rtd:0, abnormal_ip_login:1, "
              "abnormal_time_login:0 abnormal_scan:1, reverseshell: 1, bruteforce_global: 1, "
              "dispose_web: 1, dispose_phishing: 0");
    EXPECT_EQ(lines[13].text,
              "hunting: 0, link: 0, report: 1, collect: 0, ioa: 0, ioc: 0, real time data:0, "
              "origin forward: 1, abnormal ip login:1, abnormal time login:0, abnormal scan:1, "
              "brutecorce global:1, reverseshell: 0, dispose web:0, dispose phishin:0");
    EXPECT_EQ(lines[14].text, "ssh bruteforce: 0");
}

TEST_F(kzemm_config_switches_test, are_not_evaluated_without_a_client) {
    set_all("true", "3");
    config().uninit_cfgc();
    inspector::report_switch() = true;
    fakes::clear_journal();
    EXPECT_EQ(config().set_engine_swith_value(), -1);
    EXPECT_EQ(switches_on(), numbers{EMM_SWITCH_REPORT});
    EXPECT_THAT(fakes::config_reads(), IsEmpty());
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "cfgc is not initialized")));
}

TEST_F(kzemm_config_switches_test, are_off_until_the_first_evaluation) {
    set_all("true", "3");
    EXPECT_EQ(switches_on(), numbers{});
}

TEST_F(kzemm_config_switches_test, all_survive_when_the_first_key_cannot_be_read) {
    set_all("true", "3");
    ASSERT_EQ(config().set_engine_swith_value(), 0);
    const numbers before = switches_on();
    EXPECT_EQ(before, of_adv_threats + always + of_others + of_dispose);

    set_all("false", "0");
    fakes::config_remove(base_collect, "/adv_threats");
    fakes::clear_journal();
    EXPECT_EQ(config().set_engine_swith_value(), -1);
    EXPECT_EQ(switches_on(), before);
    EXPECT_THAT(fakes::config_reads(), SizeIs(13)) << "one more read, and then no other";
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(1,
                       "cfgc GetValue failed, module: /mgr/base_collect, key: /adv_threats, "
                       "err: no such value."),
                    at(2, "get from cfgc failed: switch[/adv_threats] module[/mgr/base_collect]"),
                    at(1, "get cfgc failed")));
}

TEST_F(kzemm_config_switches_test, stay_off_when_the_very_first_read_fails) {
    EXPECT_EQ(config().set_engine_swith_value(), -1);
    EXPECT_EQ(switches_on(), numbers{});
}

TEST_F(kzemm_config_switches_test, are_not_evaluated_when_the_first_value_is_of_another_type) {
    set_all("true", "3");
    fakes::config_set_type(base_collect, "/adv_threats", 1);
    EXPECT_EQ(config().set_engine_swith_value(), -1);
    EXPECT_EQ(switches_on(), numbers{});
}

// One key of the store, by its place among the reads, and the switches that it alone turns on while
// "/adv_threats" is on.
struct derivation {
    const char *name;
    size_t place;
    numbers switches;
};

class kzemm_config_later_key_test : public kzemm_config_switches_test,
                                    public testing::WithParamInterface<derivation> {};

INSTANTIATE_TEST_SUITE_P(
    , kzemm_config_later_key_test,
    testing::Values(derivation{"enable_actioninfo", 1, {EMM_SWITCH_REPORT}},
                    derivation{"real_time_data", 2, {EMM_SWITCH_SUBSCRIBE_EVENT}},
                    derivation{"enable_domain_report", 3, {}},
                    derivation{"abnormal_ip_login_enable", 4, {EMM_SWITCH_ABNORMAL_IP_LOGIN}},
                    derivation{"abnormal_time_login_enable", 5, {EMM_SWITCH_ABNORMAL_TIME_LOGIN}},
                    derivation{"abnormal_scan_enable", 6, {EMM_SWITCH_ABNORMAL_SCAN}},
                    derivation{"reverseshell_enable", 7, {}},
                    derivation{"enable", 8, {EMM_SWITCH_BRUTEFORCE_GLOBAL}},
                    derivation{"ssh_enable", 9, {EMM_SWITCH_BRUTEFORCE_SSH}},
                    derivation{
                        "switch", 10, {EMM_SWITCH_DISPOSE_WEB, EMM_SWITCH_DISPOSE_PHISHING}}),
    [](const auto &each) { return each.param.name; });

TEST_P(kzemm_config_later_key_test, turns_on_its_own_switch_and_no_other) {
    const read &tested = reads[GetParam().place];
    set_all("false", "0");
    fakes::config_set(base_collect, "/adv_threats", "true");
    fakes::config_set(tested.module, tested.key, GetParam().place == 10 ? "3" : "true");
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    EXPECT_EQ(switches_on(), of_adv_threats + always + GetParam().switches);
}

TEST_P(kzemm_config_later_key_test, turns_off_its_own_switch_and_no_other) {
    const read &tested = reads[GetParam().place];
    set_all("true", "3");
    fakes::config_set(tested.module, tested.key, GetParam().place == 10 ? "0" : "false");
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    numbers expected = of_adv_threats + always + of_others + of_dispose;
    for (const int number : GetParam().switches) {
        expected.erase(number);
    }
    EXPECT_EQ(switches_on(), expected);
}

TEST_P(kzemm_config_later_key_test, takes_its_default_when_it_cannot_be_read) {
    const read &tested = reads[GetParam().place];
    set_all("true", "3");
    ASSERT_EQ(config().set_engine_swith_value(), 0);
    fakes::config_remove(tested.module, tested.key);
    fakes::clear_journal();
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    EXPECT_THAT(fakes::config_reads(), SizeIs(24)) << "the other keys are read all the same";
    numbers expected = of_adv_threats + always + of_others + of_dispose;
    for (const int number : GetParam().switches) {
        expected.erase(number);
    }
    EXPECT_EQ(switches_on(), expected);

    const std::string module = tested.module;
    const std::string key = tested.key;
    const auto lines = log_lines();
    const size_t place = GetParam().place;
    ASSERT_GT(lines.size(), place + 1);
    EXPECT_THAT(lines[place], at(1, "cfgc GetValue failed, module: " + module + ", key: " + key +
                                        ", err: no such value."));
    EXPECT_THAT(lines[place + 1],
                at(2, "get from cfgc failed: switch[" + key + "] module[" + module + "]"));
}

TEST_P(kzemm_config_later_key_test, takes_its_default_when_it_is_of_another_type) {
    const read &tested = reads[GetParam().place];
    set_all("true", "3");
    fakes::config_set_type(tested.module, tested.key, 1);
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    numbers expected = of_adv_threats + always + of_others + of_dispose;
    for (const int number : GetParam().switches) {
        expected.erase(number);
    }
    EXPECT_EQ(switches_on(), expected);
}

// The line of the values read, which tells of the two reads that feed no switch.
std::string values_line() {
    for (const fakes::record &each : log_lines()) {
        if (each.text.rfind("adv_threats: ", 0) == 0) {
            return each.text;
        }
    }
    return {};
}

TEST_F(kzemm_config_switches_test, default_to_off_and_botnet_to_on_which_only_the_log_tells) {
    fakes::config_set(base_collect, "/adv_threats", "false");
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    EXPECT_EQ(switches_on(), always);
    EXPECT_EQ(values_line(),
              "adv_threats: 0, report_action_log: 0, botnet: 1, rtd:0, abnormal_ip_login:0, "
              "abnormal_time_login:0 abnormal_scan:0, reverseshell: 0, bruteforce_global: 0, "
              "dispose_web: 0, dispose_phishing: 0");
}

TEST_F(kzemm_config_switches_test, with_adv_threats_alone_are_these) {
    fakes::config_set(base_collect, "/adv_threats", "true");
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    EXPECT_EQ(switches_on(), of_adv_threats + always);
}

TEST_F(kzemm_config_switches_test, without_adv_threats_are_the_others) {
    set_all("true", "3");
    fakes::config_set(base_collect, "/adv_threats", "false");
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    EXPECT_EQ(switches_on(), always + of_others);
}

TEST_F(kzemm_config_switches_test, turn_origin_forward_on_at_every_evaluation) {
    set_all("false", "0");
    inspector::origin_forward_switch() = false;
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    EXPECT_TRUE(config().get_origin_forward_swith());
    inspector::origin_forward_switch() = false;
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    EXPECT_TRUE(config().get_origin_forward_swith());
}

TEST_F(kzemm_config_switches_test, have_the_reverse_shell_follow_ioa_and_not_its_own_key) {
    set_all("false", "0");
    fakes::config_set(abnormal_login, "/reverseshell_enable", "true");
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    EXPECT_FALSE(config().get_reverseshell_switch());
    EXPECT_THAT(values_line(), testing::HasSubstr("reverseshell: 1"));

    fakes::config_set(base_collect, "/adv_threats", "true");
    fakes::config_set(abnormal_login, "/reverseshell_enable", "false");
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    EXPECT_TRUE(config().get_reverseshell_switch());
}

TEST_F(kzemm_config_switches_test, are_overwritten_after_they_were_all_turned_on_for_the_packs) {
    set_all("false", "0");
    config().set_upgrad_switch(true);
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    EXPECT_EQ(switches_on(), always);
}

struct dispose_case {
    const char *name;
    const char *adv_threats;
    const char *dispose;
    bool web;
    bool phishing;
};

class kzemm_config_dispose_test : public kzemm_config_switches_test,
                                  public testing::WithParamInterface<dispose_case> {};

INSTANTIATE_TEST_SUITE_P(, kzemm_config_dispose_test,
                         testing::Values(dispose_case{"on_0", "true", "0", false, false},
                                         dispose_case{"on_1", "true", "1", true, false},
                                         dispose_case{"on_2", "true", "2", false, true},
                                         dispose_case{"on_3", "true", "3", true, true},
                                         dispose_case{"on_4", "true", "4", false, false},
                                         dispose_case{"on_minus_1", "true", "-1", true, true},
                                         dispose_case{"on_abc", "true", "abc", false, false},
                                         dispose_case{"off_0", "false", "0", false, false},
                                         dispose_case{"off_1", "false", "1", false, false},
                                         dispose_case{"off_2", "false", "2", false, false},
                                         dispose_case{"off_3", "false", "3", false, false}),
                         [](const auto &each) { return each.param.name; });

TEST_P(kzemm_config_dispose_test, needs_its_bit_and_adv_threats) {
    set_all(GetParam().adv_threats, GetParam().dispose);
    EXPECT_EQ(config().set_engine_swith_value(), 0);
    EXPECT_EQ(config().get_dispose_web_switch(), GetParam().web);
    EXPECT_EQ(config().get_dispose_phishing_switch(), GetParam().phishing);
}

// ---- the getters ----

struct getter_case {
    const char *name;
    int number;
    bool &(*field)();
    bool (kzemm_config::*getter)() const;
};

const getter_case getters[] = {
    {"collect", 1, inspector::collect_switch, &kzemm_config::get_collect_switch},
    {"subscribe_event", 2, inspector::subscribe_event_switch,
     &kzemm_config::get_subscribe_event_swith},
    {"ioa", 3, inspector::ioa_switch, &kzemm_config::get_ioa_switch},
    {"ioc", 4, inspector::ioc_switch, &kzemm_config::get_ioc_switch},
    {"hunting", 5, inspector::hunting_switch, &kzemm_config::get_hunting_switch},
    {"linkage", 6, inspector::linkage_switch, &kzemm_config::get_linkage_switch},
    {"report", 7, inspector::report_switch, &kzemm_config::get_report_switch},
    {"md", 8, inspector::md_switch, &kzemm_config::get_md_switch},
    {"origin_forward", 9, inspector::origin_forward_switch,
     &kzemm_config::get_origin_forward_swith},
    {"abnormal_ip_login", 10, inspector::abnormal_ip_login_switch,
     &kzemm_config::get_abnormal_ip_login_switch},
    {"abnormal_time_login", 11, inspector::abnormal_time_login_switch,
     &kzemm_config::get_abnormal_time_login_switch},
    {"abnormal_scan", 12, inspector::abnormal_scan_switch, &kzemm_config::get_abnormal_scan_switch},
    {"reverseshell", 13, inspector::reverseshell_switch, &kzemm_config::get_reverseshell_switch},
    {"bruteforce_global", 14, inspector::bruteforce_global_switch,
     &kzemm_config::get_bruteforce_global_switch},
    {"bruteforce_ssh", 18, inspector::bruteforce_ssh_switch,
     &kzemm_config::get_bruteforce_ssh_switch},
    {"dispose_web", 19, inspector::dispose_web_switch, &kzemm_config::get_dispose_web_switch},
    {"dispose_phishing", 20, inspector::dispose_phishing_switch,
     &kzemm_config::get_dispose_phishing_switch},
};

class kzemm_config_getter_test : public plugin_test,
                                 public testing::WithParamInterface<getter_case> {};

INSTANTIATE_TEST_SUITE_P(, kzemm_config_getter_test, testing::ValuesIn(getters),
                         [](const auto &each) { return each.param.name; });

TEST_P(kzemm_config_getter_test, answers_its_own_field_under_its_own_number) {
    EXPECT_FALSE((config().*GetParam().getter)());
    GetParam().field() = true;
    EXPECT_TRUE((config().*GetParam().getter)());
    EXPECT_EQ(switches_on(), numbers{GetParam().number});
}

using kzemm_config_number_test = plugin_test;

TEST_F(kzemm_config_number_test, names_no_switch_but_those) {
    numbers named;
    for (const getter_case &each : getters) {
        each.field() = true;
        named.insert(each.number);
    }
    EXPECT_EQ(switches_on(), named);
    for (const int number : {0, 15, 16, 17, 21, 31}) {
        EXPECT_FALSE(config().get_switch(static_cast<EMM_SWITCH_TYPE>(number))) << number;
    }
}

// ---- the report cycle ----

using kzemm_config_cycle_test = kzemm_config_value_test;

TEST_F(kzemm_config_cycle_test, is_not_read_without_a_client) {
    config().uninit_cfgc();
    fakes::clear_journal();
    EXPECT_EQ(config().set_report_cycle(), -1);
    EXPECT_EQ(config().get_collect_report_cycle(), 120U);
    EXPECT_THAT(fakes::config_reads(), IsEmpty());
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "cfgc is not initialized")));
}

TEST_F(kzemm_config_cycle_test, keeps_what_it_was_when_it_cannot_be_read) {
    inspector::collect_report_cycle() = 333;
    EXPECT_EQ(config().set_report_cycle(), -1);
    EXPECT_EQ(config().get_collect_report_cycle(), 333U);
    EXPECT_THAT(fakes::config_reads(), ElementsAre("GetValue /mgr/base_collect /collect_act_time"));
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(1,
                       "cfgc GetValue failed, module: /mgr/base_collect, key: /collect_act_time, "
                       "err: no such value."),
                    at(2, "get collect report cycle from cfgc failed, ues default")));
}

TEST_F(kzemm_config_cycle_test, is_taken_from_120_to_600_seconds) {
    const std::pair<const char *, unsigned int> cases[] = {
        {"120", 120}, {"121", 121}, {"599", 599}, {"600", 600}, {"300s", 300}, {"0300", 300}};
    for (const auto &[text, expected] : cases) {
        SCOPED_TRACE(text);
        inspector::collect_report_cycle() = 333;
        fakes::config_set(base_collect, "/collect_act_time", text);
        fakes::clear_journal();
        EXPECT_EQ(config().set_report_cycle(), 0);
        EXPECT_EQ(config().get_collect_report_cycle(), expected);
        EXPECT_THAT(log_lines(), ElementsAre(at(3, "get collect report cycle : " +
                                                       std::to_string(expected) + " succeed")));
    }
}

TEST_F(kzemm_config_cycle_test, is_cut_after_29_characters) {
    fakes::config_set(base_collect, "/collect_act_time", std::string(26, '0') + "300");
    EXPECT_EQ(config().set_report_cycle(), 0);
    EXPECT_EQ(config().get_collect_report_cycle(), 300U);
    fakes::config_set(base_collect, "/collect_act_time", std::string(27, '0') + "600");
    EXPECT_EQ(config().set_report_cycle(), -1) << "read as 60";
    EXPECT_EQ(config().get_collect_report_cycle(), 300U);
}

TEST_F(kzemm_config_cycle_test, is_refused_outside_and_the_last_good_value_stays) {
    for (const char *const text : {"119", "601", "0", "1", "", "abc", "-1", "-120", "0x100",
                                   "4294967416", "99999999999999999999999999999"}) {
        SCOPED_TRACE(text);
        inspector::collect_report_cycle() = 333;
        fakes::config_set(base_collect, "/collect_act_time", text);
        fakes::clear_journal();
        EXPECT_EQ(config().set_report_cycle(), -1);
        EXPECT_EQ(config().get_collect_report_cycle(), 333U);
        EXPECT_THAT(log_lines(),
                    ElementsAre(at(2, "cfgc collect report cycle is invalid, ues default")));
    }
}

}  // namespace
