// The switches and the report cycle that are derived from central configuration.

#include <gmock/gmock.h>

#include <climits>
#include <set>
#include <utility>

#include "config/kzemm_config.h"
#include "tests/fakes/fake_central_config.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/inspectors.h"
#include "tests/fakes/plugin_test.h"

using fakes::at;
using fakes::log_lines;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using inspector = kzemm_config_inspector;

constexpr char base_collect[] = "/mgr/base_collect";
constexpr char abnormal_login[] = "/mgr/abnormal_login";
constexpr char anti_bfa[] = "/mgr/anti_bfa";
constexpr char auto_dispose[] = "/mgr/auto_dispose";

kzemm_config &config() {
    return kzemm_config::get_instance();
}

// The client is there from the beginning; the store is empty.
class kzemm_config_switches_test : public plugin_test {
  protected:
    void SetUp() override {
        plugin_test::SetUp();
        ASSERT_EQ(config().init_cfgc(), 0);
        fakes::clear_journal();
    }
};

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
    for (int number = 0; number <= 300; ++number) {
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
    for (const int number : {0, 15, 16, 17, 21, 32, 257, INT_MAX}) {
        EXPECT_FALSE(config().get_switch(static_cast<EMM_SWITCH_TYPE>(number))) << number;
    }
}

// ---- the report cycle ----

using kzemm_config_cycle_test = kzemm_config_switches_test;

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
