// The answers that carry detection rules: which text goes to which capability of the engine, and
// what is said of everything else.

#include <climits>
#include <cstdlib>

#include "plugin/kzemm_work_module_config.h"
#include "tests/fakes/fake_ipc.h"
#include "tests/fakes/message_faults.h"
#include "tests/unit/json_faults.h"
#include "tests/unit/worker_test.h"

using fakes::at;
using fakes::ipc_requests;
using fakes::log_lines;
using fakes::message_fields;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr char update_by_data[] = "x_client_engine_update_by_data";
constexpr char rules[] = "rule text";

std::string config_line(const std::string &text) {
    return "config is:" + text + ",len:" + std::to_string(text.size());
}

class kzemm_work_rule_push_test : public worker_test {
  protected:
    // Lets an answer to the request for a module come in.
    static void answer(const std::string &module, const message_fields &values) {
        const std::string body = fakes::packed_message("answer", values);
        answer_with_body(module, body);
    }

    static void answer_with_body(const std::string &module, const std::string &body) {
        std::string user = module;
        on_engine_cfg_response(0, 1004, body.data(), static_cast<unsigned int>(body.size()),
                               user.data());
    }

    // "13 rule text" for each push, in order. Checks what is the same in all of them.
    static std::vector<std::string> pushes() {
        std::vector<std::string> result;
        for (const fakes::engine_call &each : fakes::engine_calls(update_by_data)) {
            EXPECT_TRUE(fakes::is_callback(each.callback, engine_upd_by_data_cb));
            EXPECT_EQ(each.context, nullptr);
            const size_t number = each.text.find('(') + 1;
            const std::string type = each.text.substr(number, each.text.find(',') - number);
            result.push_back(type + " " + each.data);
        }
        return result;
    }

    static void refuse(const std::vector<int> &results) {
        fakes::engine_returns(update_by_data, results);
    }
};

// ---- the answer itself ----

TEST_F(kzemm_work_rule_push_test, an_answer_that_did_not_come_pushes_nothing) {
    char module[] = "trust_ip";
    for (const int result : {-1, -110, 5, INT_MIN}) {
        fakes::clear_journal();
        on_engine_cfg_response(result, 1004, nullptr, 0, module);
        EXPECT_THAT(log_lines(), ElementsAre(at(1, "get conf from cfg failed, res = " +
                                                       std::to_string(result))));
    }
    EXPECT_EQ(fakes::unpacked_messages(), 0U);
    EXPECT_THAT(pushes(), IsEmpty());
    EXPECT_THAT(ipc_requests(), IsEmpty()) << "nothing is asked again";
}

TEST_F(kzemm_work_rule_push_test, a_failed_answer_with_a_body_pushes_nothing) {
    const std::string body =
        fakes::packed_message("answer", {{"config", rules}, {"white_ip", "{}"}});
    char module[] = "trust_ip";
    on_engine_cfg_response(-1, 1004, body.data(), static_cast<unsigned int>(body.size()), module);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "get conf from cfg failed, res = -1")));
}

TEST_F(kzemm_work_rule_push_test, an_answer_that_is_no_message_pushes_nothing) {
    for (const char *const module : {"abnormal_login", "anti_bfa", "trust_ip", "other"}) {
        for (const char *const body : {"", "no message"}) {
            fakes::clear_journal();
            answer_with_body(module, body);
            EXPECT_THAT(log_lines(), ElementsAre(at(1, "xmsg unpack failed")));
        }
    }
    EXPECT_EQ(fakes::dumped_messages(), 0U);
    EXPECT_THAT(pushes(), IsEmpty());
}

TEST_F(kzemm_work_rule_push_test, an_answer_without_config_is_told_of_once) {
    for (const char *const module : {"abnormal_login", "anti_bfa", "other"}) {
        fakes::clear_journal();
        answer(module, {{"enable", "true"}, {"ssh_enable", "true"}});
        EXPECT_THAT(log_lines(), ElementsAre(at(1, "get cfg msg [config] failed.")));
        EXPECT_EQ(fakes::open_messages(), 0);
    }
    EXPECT_EQ(fakes::dumped_messages(), 3U);
    EXPECT_THAT(pushes(), IsEmpty());
}

TEST_F(kzemm_work_rule_push_test, an_answer_for_an_unknown_module_is_a_failure) {
    for (const char *const module : {"", "other", "anti_bf", "abnormal_logi", "trust_i"}) {
        fakes::clear_journal();
        answer(module, {{"config", rules}, {"white_ip", "{}"}});
        EXPECT_THAT(log_lines(), ElementsAre(at(4, config_line(rules)),
                                             at(2, std::string("unknown msg type:") + module),
                                             at(2, "update config failed")));
        EXPECT_EQ(fakes::open_messages(), 0);
    }
    EXPECT_THAT(pushes(), IsEmpty());
}

TEST_F(kzemm_work_rule_push_test, a_module_is_known_by_the_beginning_of_its_name) {
    answer("anti_bfa_more", {{"config", rules}, {"enable", "true"}, {"ssh_enable", "true"}});
    answer("abnormal_login_more", {{"config", rules},
                                   {"abnormal_ip_login_enable", "1"},
                                   {"abnormal_time_login_enable", "0"},
                                   {"abnormal_scan_enable", "0"}});
    answer("trust_ip_more", {{"white_ip", "{}"}});
    EXPECT_THAT(pushes(), ElementsAre("12 rule text", "13 rule text",
                                      R"(12 {"tkbfd":{"white_ip":{"need_update":true}}})"));
}

TEST_F(kzemm_work_rule_push_test, the_engines_verdict_is_not_looked_at) {
    for (const int ret : {0, -1, 1}) {
        engine_upd_by_data_cb(ENGINE_BRUTEFORCE_SSH, ret, nullptr);
        engine_upd_by_data_cb(ENGINE_CUSTOM_IOA, ret, &work);
    }
    EXPECT_THAT(fakes::journal({fakes::what::log, fakes::what::engine, fakes::what::ipc,
                                fakes::what::gateway, fakes::what::timer}),
                IsEmpty());
}

// ---- abnormal_login ----

class abnormal_login_test : public kzemm_work_rule_push_test {
  protected:
    static message_fields flags(const std::string &ip, const std::string &time,
                                const std::string &scan) {
        return {{"config", rules},
                {"abnormal_ip_login_enable", ip},
                {"abnormal_time_login_enable", time},
                {"abnormal_scan_enable", scan}};
    }

    static void answer_flags(const std::string &ip, const std::string &time,
                             const std::string &scan) {
        answer("abnormal_login", flags(ip, time, scan));
    }

    static std::string flags_line(const std::string &ip, const std::string &time,
                                  const std::string &scan) {
        return "abnormal_time_login_enable:" + time + ",abnormal_ip_login_enable:" + ip +
               ",abnormal_scan_enable:" + scan;
    }
};

TEST_F(abnormal_login_test, all_flags_on_push_the_text_three_times) {
    answer_flags("1", "1", "1");
    EXPECT_THAT(pushes(), ElementsAre("13 rule text", "14 rule text", "8 rule text"));
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(4, config_line(rules)), at(4, flags_line("1", "1", "1")),
                    at(3, "set login ip rule success."), at(3, "set login time rule success."),
                    at(3, "set abnormal scan rule success.")));
    EXPECT_EQ(fakes::dumped_messages(), 1U);
    EXPECT_EQ(fakes::open_messages(), 0);
}

TEST_F(abnormal_login_test, all_flags_off_push_nothing_and_succeed) {
    answer_flags("0", "0", "0");
    EXPECT_THAT(pushes(), IsEmpty());
    EXPECT_THAT(log_lines(),
                ElementsAre(at(4, config_line(rules)), at(4, flags_line("0", "0", "0"))));
}

TEST_F(abnormal_login_test, each_flag_decides_about_its_own_capability) {
    answer_flags("1", "0", "0");
    EXPECT_THAT(pushes(), ElementsAre("13 rule text"));
    EXPECT_THAT(log_lines(), Contains(at(4, flags_line("1", "0", "0"))));
    fakes::forget_engine_calls();
    answer_flags("0", "1", "0");
    EXPECT_THAT(pushes(), ElementsAre("14 rule text"));
    EXPECT_THAT(log_lines(), Contains(at(4, flags_line("0", "1", "0"))));
    fakes::forget_engine_calls();
    answer_flags("0", "0", "1");
    EXPECT_THAT(pushes(), ElementsAre("8 rule text"));
    EXPECT_THAT(log_lines(), Contains(at(4, flags_line("0", "0", "1"))));
}

TEST_F(abnormal_login_test, only_the_first_character_of_a_flag_counts) {
    for (const char *const on : {"1", "10", "1x"}) {
        fakes::forget_engine_calls();
        answer_flags(on, on, on);
        EXPECT_THAT(pushes(), SizeIs(3)) << on;
    }
    fakes::forget_engine_calls();
    for (const char *const off : {"", "0", "01", " 1", "2", "true"}) {
        answer_flags(off, off, off);
        EXPECT_THAT(pushes(), IsEmpty()) << off;
    }
}

TEST_F(abnormal_login_test, the_first_absent_flag_is_told_of_and_nothing_is_pushed) {
    const message_fields all = flags("1", "1", "1");
    for (size_t present = 1; present < all.size(); ++present) {
        const message_fields some(all.begin(), all.begin() + static_cast<long>(present));
        fakes::clear_journal();
        answer("abnormal_login", some);
        EXPECT_THAT(log_lines(),
                    ElementsAre(at(4, config_line(rules)),
                                at(1, "get cfg msg [" + all[present].first + "] failed."),
                                at(2, "update config failed")));
        EXPECT_EQ(fakes::open_messages(), 0);
    }
    EXPECT_THAT(pushes(), IsEmpty());
}

TEST_F(abnormal_login_test, one_absent_flag_is_enough) {
    for (size_t absent = 1; absent < 4; ++absent) {
        message_fields some = flags("1", "1", "1");
        const std::string key = some[absent].first;
        some.erase(some.begin() + static_cast<long>(absent));
        fakes::clear_journal();
        answer("abnormal_login", some);
        EXPECT_THAT(log_lines(), Contains(at(1, "get cfg msg [" + key + "] failed.")));
    }
    EXPECT_THAT(pushes(), IsEmpty());
}

TEST_F(abnormal_login_test, a_refused_ip_rule_drops_the_other_two) {
    for (const int result : {-1, -8, 2}) {
        fakes::clear_journal();
        fakes::forget_engine_calls();
        refuse({result});
        answer_flags("1", "1", "1");
        EXPECT_THAT(pushes(), ElementsAre("13 rule text"));
        EXPECT_THAT(
            log_lines(),
            ElementsAre(at(4, config_line(rules)), at(4, flags_line("1", "1", "1")),
                        at(1, "set login ip rule failed,ret=" + std::to_string(result) + " ."),
                        at(2, "update config failed")));
    }
}

TEST_F(abnormal_login_test, a_refused_time_rule_drops_the_last) {
    refuse({0, -3});
    answer_flags("1", "1", "1");
    EXPECT_THAT(pushes(), ElementsAre("13 rule text", "14 rule text"));
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(4, config_line(rules)), at(4, flags_line("1", "1", "1")),
                    at(3, "set login ip rule success."),
                    at(1, "set login time rule failed,ret=-3 ."), at(2, "update config failed")));
}

TEST_F(abnormal_login_test, a_refused_scan_rule_is_a_failure) {
    refuse({0, 0, 9});
    answer_flags("1", "1", "1");
    EXPECT_THAT(pushes(), ElementsAre("13 rule text", "14 rule text", "8 rule text"));
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(4, config_line(rules)), at(4, flags_line("1", "1", "1")),
                    at(3, "set login ip rule success."), at(3, "set login time rule success."),
                    at(1, "set abnormal scan rule failed,ret=9 ."), at(2, "update config failed")));
    EXPECT_THAT(ipc_requests(), IsEmpty()) << "only the trust list is asked for again";
}

TEST_F(abnormal_login_test, the_text_ends_at_its_terminator) {
    message_fields values = flags("1", "0", "0");
    values[0].second = std::string("rule text\0", 10);
    answer("abnormal_login", values);
    EXPECT_THAT(pushes(), ElementsAre("13 rule text"));
}

TEST_F(abnormal_login_test, the_text_is_passed_on_whole_whatever_it_holds) {
    message_fields values = flags("1", "0", "0");
    std::string &text = values[0].second;
    text.clear();
    for (int each = 1; each < 256; ++each) {
        text.push_back(static_cast<char>(each));
    }
    text.append(100000, 'x');
    answer("abnormal_login", values);
    EXPECT_THAT(pushes(), ElementsAre("13 " + text));
}

// ---- anti_bfa ----

class anti_bfa_test : public kzemm_work_rule_push_test {
  protected:
    static void answer_flags(const std::string &enable, const std::string &ssh_enable) {
        answer("anti_bfa", {{"config", rules}, {"enable", enable}, {"ssh_enable", ssh_enable}});
    }
};

TEST_F(anti_bfa_test, both_flags_on_push_the_text) {
    answer_flags("true", "true");
    EXPECT_THAT(pushes(), ElementsAre("12 rule text"));
    EXPECT_THAT(log_lines(), ElementsAre(at(4, config_line(rules)), at(4, "ssh_enable:true"),
                                         at(3, "set bruteforce ssh rule success.")));
    EXPECT_EQ(fakes::dumped_messages(), 1U);
    EXPECT_EQ(fakes::open_messages(), 0);
}

TEST_F(anti_bfa_test, only_the_first_four_characters_of_a_flag_count) {
    for (const char *const on : {"truex", "true ", "true1"}) {
        fakes::forget_engine_calls();
        answer_flags(on, on);
        EXPECT_THAT(pushes(), ElementsAre("12 rule text")) << on;
        EXPECT_THAT(log_lines(), Contains(at(4, std::string("ssh_enable:") + on)));
    }
}

TEST_F(anti_bfa_test, a_first_flag_that_is_off_pushes_and_says_nothing) {
    for (const char *const off : {"false", "", "tru", "True", "TRUE", " true", "1"}) {
        fakes::clear_journal();
        answer_flags(off, "true");
        EXPECT_THAT(log_lines(), ElementsAre(at(4, config_line(rules)))) << off;
    }
    EXPECT_THAT(pushes(), IsEmpty());
}

TEST_F(anti_bfa_test, a_second_flag_that_is_off_pushes_nothing) {
    for (const char *const off : {"false", "", "tru", "True", "TRUE", " true", "1"}) {
        fakes::clear_journal();
        answer_flags("true", off);
        EXPECT_THAT(log_lines(), ElementsAre(at(4, config_line(rules)),
                                             at(4, std::string("ssh_enable:") + off)));
    }
    EXPECT_THAT(pushes(), IsEmpty());
}

TEST_F(anti_bfa_test, an_absent_first_flag_is_a_failure) {
    answer("anti_bfa", {{"config", rules}, {"ssh_enable", "true"}});
    EXPECT_THAT(log_lines(),
                ElementsAre(at(4, config_line(rules)), at(1, "get cfg msg [enable] failed."),
                            at(2, "update config failed")));
    EXPECT_THAT(pushes(), IsEmpty());
}

TEST_F(anti_bfa_test, an_absent_second_flag_is_a_failure_when_the_first_is_on) {
    answer("anti_bfa", {{"config", rules}, {"enable", "true"}});
    EXPECT_THAT(log_lines(),
                ElementsAre(at(4, config_line(rules)), at(1, "get cfg msg [ssh_enable] failed."),
                            at(2, "update config failed")));
    EXPECT_THAT(pushes(), IsEmpty());
    EXPECT_EQ(fakes::open_messages(), 0);
}

TEST_F(anti_bfa_test, an_absent_second_flag_is_not_missed_when_the_first_is_off) {
    answer("anti_bfa", {{"config", rules}, {"enable", "false"}});
    EXPECT_THAT(log_lines(), ElementsAre(at(4, config_line(rules))));
}

TEST_F(anti_bfa_test, a_refused_rule_is_a_failure) {
    for (const int result : {-2, 7}) {
        fakes::clear_journal();
        refuse({result});
        answer_flags("true", "true");
        EXPECT_THAT(log_lines(), ElementsAre(at(4, config_line(rules)), at(4, "ssh_enable:true"),
                                             at(1, "set bruteforce ssh rule failed,ret=" +
                                                       std::to_string(result) + " ."),
                                             at(2, "update config failed")));
    }
    EXPECT_THAT(pushes(), SizeIs(2));
    EXPECT_THAT(ipc_requests(), IsEmpty());
}

// ---- trust_ip ----

class trust_ip_test : public kzemm_work_rule_push_test {
  protected:
    static void answer_list(const std::string &json) { answer("trust_ip", {{"white_ip", json}}); }

    // Whatever comes first in the process makes the endpoint and the address of the retries.
    static std::vector<std::string> requests_made() {
        std::vector<std::string> result;
        for (const std::string &each : fakes::texts({fakes::what::ipc})) {
            if (each.rfind("request ", 0) == 0) {
                result.push_back(each);
            }
        }
        return result;
    }
};

TEST_F(trust_ip_test, an_empty_list_reaches_the_engine_in_its_envelope) {
    answer_list("{}");
    const std::string envelope = R"({"tkbfd":{"white_ip":{"need_update":true}}})";
    EXPECT_THAT(pushes(), ElementsAre("12 " + envelope));
    EXPECT_THAT(log_lines(), ElementsAre(at(4, "white ip info is [{}]"),
                                         at(3, "send white info [" + envelope + "]")));
    EXPECT_EQ(fakes::dumped_messages(), 1U);
    EXPECT_EQ(fakes::open_messages(), 0);
    EXPECT_THAT(ipc_requests(), IsEmpty());
}

TEST_F(trust_ip_test, all_members_stay_in_their_order_before_the_added_one) {
    const std::string list = R"({ "z": ["10.0.0.1", "::1"], "a": {"b": null, "A": 1.5},
                                 "need_update": false, "z": "twice" })";
    answer_list(list);
    EXPECT_THAT(pushes(), ElementsAre(R"(12 {"tkbfd":{"white_ip":{"z":["10.0.0.1","::1"],)"
                                      R"("a":{"b":null,"A":1.5},"need_update":false,"z":"twice",)"
                                      R"("need_update":true}}})"));
    EXPECT_THAT(log_lines(), Contains(at(4, "white ip info is [" + list + "]")));
}

TEST_F(trust_ip_test, needs_no_config_and_looks_at_no_flag) {
    answer("trust_ip", {{"white_ip", "{}"}, {"enable", "false"}, {"ssh_enable", "false"}});
    EXPECT_THAT(pushes(), SizeIs(1));
}

TEST_F(trust_ip_test, an_answer_without_the_list_is_told_of_once) {
    answer("trust_ip", {{"config", rules}});
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "get white ip failed")));
    EXPECT_THAT(pushes(), IsEmpty());
    EXPECT_EQ(fakes::open_messages(), 0);
}

TEST_F(trust_ip_test, a_list_that_is_no_json_is_told_of_and_not_asked_for_again) {
    for (const char *const list : {"", "{", "ips", "{\"a\":}", "[1,"}) {
        fakes::clear_journal();
        answer_list(list);
        EXPECT_THAT(log_lines(), ElementsAre(at(4, std::string("white ip info is [") + list + "]"),
                                             at(2, "parse config json failed")));
        EXPECT_EQ(fakes::open_messages(), 0);
    }
    EXPECT_THAT(pushes(), IsEmpty());
    EXPECT_THAT(ipc_requests(), IsEmpty());
}

TEST_F(trust_ip_test, a_refused_list_is_asked_for_again_at_once) {
    refuse({-5});
    answer_list("{}");
    const std::string envelope = R"({"tkbfd":{"white_ip":{"need_update":true}}})";
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(4, "white ip info is [{}]"), at(3, "send white info [" + envelope + "]"),
                    at(1, "set white ip failed,ret=-5 ."), at(3, "request cfgc success")));
    ASSERT_THAT(ipc_requests(), SizeIs(1));
    EXPECT_EQ(ipc_requests()[0].cmd, 1004U);
    EXPECT_EQ(ipc_requests()[0].time_limit, 60U);
    EXPECT_EQ(ipc_requests()[0].data, fakes::packed_message("trust_ip", {{"module", "trust_ip"}}));
    EXPECT_EQ(ipc_requests()[0].ipc, fakes::ipc_by_name("req_tmp"));
    EXPECT_EQ(ipc_requests()[0].addr, fakes::addr_by_name("agt_cfgc"));
    EXPECT_EQ(ipc_requests()[0].callback, on_engine_cfg_response);
    EXPECT_STREQ(static_cast<const char *>(ipc_requests()[0].context), "trust_ip");
    EXPECT_THAT(fakes::texts({fakes::what::timer}), IsEmpty());
}

TEST_F(trust_ip_test, a_list_that_is_refused_again_and_again_is_asked_for_without_a_limit) {
    constexpr size_t refusals = 500;
    fakes::engine_always_returns(update_by_data, 3);
    answer_list("{}");
    const std::string body = fakes::packed_message("answer", {{"white_ip", "{}"}});
    for (size_t i = 1; i < refusals; ++i) {
        ASSERT_THAT(ipc_requests(), SizeIs(i));
        fakes::ipc_answer(ipc_requests().back(), body);
    }
    EXPECT_THAT(pushes(), SizeIs(refusals));
    fakes::engine_always_returns(update_by_data, 0);
    fakes::ipc_answer(ipc_requests().back(), body);
    EXPECT_THAT(pushes(), SizeIs(refusals + 1));
    EXPECT_THAT(ipc_requests(), SizeIs(refusals)) << "an accepted list is not asked for again";
    for (const fakes::ipc_request &each : ipc_requests()) {
        EXPECT_EQ(each.ipc, ipc_requests()[0].ipc) << "one endpoint serves them all";
        EXPECT_EQ(each.addr, ipc_requests()[0].addr);
    }
    EXPECT_THAT(fakes::texts({fakes::what::ipc}),
                testing::Each(testing::Not(testing::StartsWith("destroy"))));
}

TEST_F(trust_ip_test, a_retry_that_gets_no_answer_ends_there) {
    refuse({-5});
    answer_list("{}");
    ASSERT_THAT(ipc_requests(), SizeIs(1));
    fakes::clear_journal();
    fakes::ipc_fail(ipc_requests()[0], -110);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "get conf from cfg failed, res = -110")));
    EXPECT_THAT(ipc_requests(), SizeIs(1));
}

// Every allocation fails once. What is told then comes in the order of the steps, and what is
// pushed has the list in its envelope.
TEST_F(trust_ip_test, memory_that_runs_out_is_told_of_step_by_step) {
    const std::vector<std::string> steps = {"parse config json failed",
                                            "new content json obj failed",
                                            "new msg json obj failed", "new send_msg failed"};
    std::vector<std::string> seen;
    bool happened = true;
    for (unsigned int nth = 1; happened; ++nth) {
        fakes::clear_journal();
        fakes::forget_engine_calls();
        {
            const json_faults faults(nth);
            answer_list(R"({"a":["b"]})");
            happened = json_faults::happened();
        }
        EXPECT_EQ(fakes::open_messages(), 0);
        ASSERT_THAT(log_lines(), SizeIs(2)) << nth;
        EXPECT_THAT(log_lines()[0], at(4, R"(white ip info is [{"a":["b"]}])"));
        if (pushes().empty()) {
            EXPECT_EQ(log_lines()[1].level, 2);
            if (seen.empty() || seen.back() != log_lines()[1].text) {
                seen.push_back(log_lines()[1].text);
            }
        } else {
            EXPECT_THAT(pushes()[0], testing::StartsWith(R"(12 {"tkbfd":{"white_ip":{"a":["b"])"));
        }
    }
    EXPECT_EQ(seen, steps);
    EXPECT_THAT(pushes(),
                ElementsAre(R"(12 {"tkbfd":{"white_ip":{"a":["b"],"need_update":true}}})"));
}

}  // namespace
