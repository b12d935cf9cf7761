/* The calls of the client library against a running engine. */
#include "agent/engine/left_requests.h"
#include "agent/tests/component/engine/client_fixture.h"
#include "agent/tests/component/engine/engine_frames.h"

namespace engine_test {
namespace {

TEST_F(EngineClient, start_gives_0_and_the_engine_names_the_client) {
    start_both();
    const json clients = status().at("clients");
    ASSERT_EQ(clients.size(), 1U);
    EXPECT_EQ(clients.at(0).at("pid"), getpid());
    EXPECT_EQ(clients.at(0).at("name"), "engine_client_test");
}

TEST_F(EngineClient, start_without_an_engine_fails_at_once) {
    EXPECT_LT(seconds_of([this] { EXPECT_EQ(start(), offline); }), well_within_a_limit);
    EXPECT_EQ(outages.count(), 0U);
}

TEST_F(EngineClient, start_gives_the_code_that_was_set_as_often_as_was_set) {
    tree.start_engine();
    ASSERT_TRUE(
        tree.order({{"op", "answer"}, {"call", "x_client_start"}, {"code", -3}, {"times", 2}}));
    EXPECT_EQ(start(), -3);
    EXPECT_EQ(start(), -3);
    EXPECT_EQ(start(), 0);
    EXPECT_EQ(outages.count(), 0U);
}

TEST_F(EngineClient, start_that_is_refused_gives_the_code_of_a_refusal) {
    tree.start_engine();
    ASSERT_TRUE(tree.order({{"op", "answer"}, {"call", "x_client_start"}, {"refuse", true}}));
    EXPECT_EQ(start(), offline);
}

TEST_F(EngineClient, start_that_is_never_answered_fails_after_three_seconds) {
    tree.start_engine();
    ASSERT_TRUE(tree.order({{"op", "answer"}, {"call", "x_client_start"}, {"never", true}}));
    const double seconds = seconds_of([this] { EXPECT_EQ(start(), timed_out); });
    EXPECT_GE(seconds, 2.9);
    EXPECT_LT(seconds, 5.0);
}

TEST_F(EngineClient, start_again_reconnects_and_leaves_one_client) {
    start_both();
    const json before = status().at("clients").at(0).at("id");
    ASSERT_EQ(start(), 0);
    const json clients = status().at("clients");
    ASSERT_EQ(clients.size(), 1U);
    EXPECT_NE(clients.at(0).at("id"), before);
    EXPECT_EQ(outages.count(), 0U);
}

TEST_F(EngineClient, calls_fail_before_start_and_after_stop) {
    tree.start_engine();
    EXPECT_EQ(library->x_client_engine_control(ENGINE_IOC, ENGINE_SWITCH_ON), offline);
    ASSERT_EQ(start(), 0);
    EXPECT_EQ(library->x_client_engine_control(ENGINE_IOC, ENGINE_SWITCH_ON), 0);
    EXPECT_EQ(library->x_client_stop(), 0);
    EXPECT_EQ(library->x_client_engine_control(ENGINE_IOC, ENGINE_SWITCH_ON), offline);
    EXPECT_TRUE(status().at("clients").empty());
}

TEST_F(EngineClient, stop_gives_0_also_when_never_started_and_when_stopped) {
    EXPECT_EQ(library->x_client_stop(), 0);
    start_both();
    EXPECT_EQ(library->x_client_stop(), 0);
    EXPECT_EQ(library->x_client_stop(), 0);
}

TEST_F(EngineClient, stop_gives_the_code_that_was_set_and_stops_all_the_same) {
    start_both();
    ASSERT_TRUE(tree.order({{"op", "answer"}, {"call", "x_client_stop"}, {"code", -5}}));
    EXPECT_EQ(library->x_client_stop(), -5);
    EXPECT_EQ(library->x_client_engine_control(ENGINE_IOC, ENGINE_SWITCH_ON), offline);
}

TEST_F(EngineClient, control_turns_each_capability_on_and_off) {
    start_both();
    const std::vector<std::pair<enum _engine_type, std::string>> capabilities = {
        {ENGINE_IOC, "ioc"},
        {ENGINE_IOA, "ioa"},
        {ENGINE_MD, "md"},
        {ENGINE_COLLECT, "collect"},
        {ENGINE_ABNORMAL_SCAN, "abnormal_scan"},
        {ENGINE_BRUTEFORCE_SSH, "bruteforce_ssh"},
        {ENGINE_ABNORMAL_IP_LOGIN, "abnormal_ip_login"},
        {ENGINE_ABNORMAL_TIME_LOGIN, "abnormal_time_login"},
        {ENGINE_REVERSESHELL, "reverseshell"},
        {ENGINE_DETANAL, "detanal"},
    };
    for (const auto &[type, name] : capabilities) {
        EXPECT_EQ(status().at("capabilities").at(name), false) << name;
        EXPECT_EQ(library->x_client_engine_control(type, ENGINE_SWITCH_ON), 0) << name;
        EXPECT_EQ(status().at("capabilities").at(name), true) << name;
        EXPECT_EQ(library->x_client_engine_control(type, ENGINE_SWITCH_OFF), 0) << name;
        EXPECT_EQ(status().at("capabilities").at(name), false) << name;
    }
}

TEST_F(EngineClient, control_of_what_is_no_capability_or_no_state_fails) {
    start_both();
    EXPECT_EQ(library->x_client_engine_control(static_cast<_engine_type>(5), 2), invalid);
    EXPECT_EQ(library->x_client_engine_control(ENGINE_IOC, 0), invalid);
    EXPECT_EQ(library->x_client_engine_control(ENGINE_IOC, 3), invalid);
}

TEST_F(EngineClient, control_with_a_set_code_fails_and_changes_nothing) {
    start_both();
    ASSERT_TRUE(tree.order(
        {{"op", "answer"}, {"call", "x_client_engine_control"}, {"code", -7}, {"times", 1}}));
    EXPECT_EQ(library->x_client_engine_control(ENGINE_IOC, ENGINE_SWITCH_ON), -7);
    EXPECT_EQ(status().at("capabilities").at("ioc"), false);
    EXPECT_EQ(library->x_client_engine_control(ENGINE_IOC, ENGINE_SWITCH_ON), 0);
}

TEST_F(EngineClient, delayed_call_takes_as_long_as_was_set) {
    start_both();
    ASSERT_TRUE(
        tree.order({{"op", "answer"}, {"call", "x_client_get_drive_state"}, {"delay_ms", 400}}));
    int state = -1;
    const double seconds =
        seconds_of([&] { EXPECT_EQ(library->x_client_get_drive_state(&state), 0); });
    EXPECT_GE(seconds, 0.4);
    EXPECT_EQ(state, 0);
}

TEST_F(EngineClient, call_that_is_never_answered_fails_after_five_seconds) {
    start_both();
    ASSERT_TRUE(
        tree.order({{"op", "answer"}, {"call", "x_client_get_drive_state"}, {"never", true}}));
    int state = 17;
    const double seconds =
        seconds_of([&] { EXPECT_EQ(library->x_client_get_drive_state(&state), timed_out); });
    EXPECT_GE(seconds, 4.9);
    EXPECT_LT(seconds, 7.0);
    EXPECT_EQ(state, 17);
    EXPECT_EQ(outages.count(), 0U);
}

TEST_F(EngineClient, versions_are_those_that_were_set) {
    start_both();
    EXPECT_EQ(version(ENGINE_IOC), "1.0");
    EXPECT_EQ(version(ENGINE_IOA), "1");
    ASSERT_TRUE(tree.order({{"op", "version"}, {"type", "ioc"}, {"version", "7.23"}}));
    EXPECT_EQ(version(ENGINE_IOC), "7.23");
    unsigned int number = 0;
    EXPECT_EQ(library->x_client_engine_query_version(ENGINE_IOC, &number), 0);
    EXPECT_EQ(number, 7U);
    EXPECT_EQ(version(ENGINE_REVERSESHELL), "none");
    EXPECT_EQ(library->x_client_engine_query_version_str(ENGINE_IOC, nullptr), invalid);
    EXPECT_EQ(library->x_client_engine_query_version(ENGINE_IOC, nullptr), invalid);
}

TEST_F(EngineClient, update_gives_the_refusals_that_keep_a_pack) {
    start_both();
    tree.files().write("pack.cfg", "rules");
    for (const int code : {-8, -14}) {
        ASSERT_TRUE(
            tree.order({{"op", "answer"}, {"call", "x_client_engine_update"}, {"code", code}}));
        EXPECT_EQ(library->x_client_engine_update(ENGINE_IOC, tree.path("pack.cfg").c_str()), code);
    }
}

TEST_F(EngineClient, asynchronous_update_ends_in_its_callback_with_the_set_result) {
    start_both();
    tree.files().write("pack.ptn", rule_text(kze::rule_kind::md, "2"));
    const std::string pack = tree.path("pack.ptn");
    EXPECT_EQ(library->x_client_engine_update_async(ENGINE_MD, pack.c_str(), on_update, &data), 0);
    ASSERT_TRUE(data.wait_for(1));
    ASSERT_TRUE(
        tree.order({{"op", "answer"}, {"call", "x_client_engine_update_async"}, {"value", -16}}));
    EXPECT_EQ(library->x_client_engine_update_async(ENGINE_MD, pack.c_str(), on_update, &data), 0);
    ASSERT_TRUE(data.wait_for(2));
    EXPECT_EQ(data.items(), (std::vector<std::string>{"3:0", "3:-16"}));
}

TEST_F(EngineClient, rule_text_reaches_the_engine_unchanged_and_ends_in_its_callback) {
    start_both();
    const std::string rules("rules\0with any\xff bytes", 22);
    const auto custom_ioa = static_cast<_engine_type>(7);
    EXPECT_EQ(
        library->x_client_engine_update_by_data(custom_ioa, rules.data(), 22, on_update, &data), 0);
    ASSERT_TRUE(data.wait_for(1));
    EXPECT_EQ(data.items().at(0), "7:0");
    const json kept = tree.ask({{"op", "rule-text"}, {"type", 7}});
    EXPECT_EQ(kept.at("bytes"), 22);
    EXPECT_EQ(kept.at("text"), std::string("rules\0with any\\xff bytes", 25));
    const std::int64_t too_large = 7 + (std::int64_t{1} << 32);
    EXPECT_EQ(tree.ask({{"op", "rule-text"}, {"type", too_large}}),
              (json{{"ok", false}, {"error", "\"type\" must be a capability's number"}}));
}

TEST_F(EngineClient, rule_text_of_no_known_type_or_without_bytes_fails) {
    start_both();
    EXPECT_EQ(library->x_client_engine_update_by_data(static_cast<_engine_type>(99), "a", 1,
                                                      on_update, &data),
              invalid);
    EXPECT_EQ(library->x_client_engine_update_by_data(ENGINE_IOC, nullptr, 1, on_update, &data),
              invalid);
    EXPECT_EQ(library->x_client_engine_update_by_data(ENGINE_IOC, "a", 0, on_update, &data),
              invalid);
}

TEST_F(EngineClient, largest_possible_rule_text_passes_and_one_byte_more_fails) {
    start_both();
    const unsigned int limit = (16U << 20) - 24;
    const std::string rules(limit + 1, 'r');
    EXPECT_EQ(library->x_client_engine_update_by_data(ENGINE_IOC, rules.data(), limit + 1,
                                                      on_update, &data),
              invalid);
    EXPECT_EQ(
        library->x_client_engine_update_by_data(ENGINE_IOC, rules.data(), limit, on_update, &data),
        0);
    ASSERT_TRUE(data.wait_for(1));
    EXPECT_EQ(tree.ask({{"op", "rule-text"}, {"type", 1}}).at("bytes"), limit);
}

TEST_F(EngineClient, linkage_analysis_that_fails_has_no_data) {
    start_both();
    ASSERT_TRUE(
        tree.order({{"op", "answer"}, {"call", "x_client_coordinate_dispose_trc"}, {"value", 12}}));
    EXPECT_EQ(library->x_client_coordinate_dispose_trc("order", 5, on_analysis, &data), 0);
    ASSERT_TRUE(data.wait_for(1));
    EXPECT_EQ(data.items().at(0), "12:null");
}

TEST_F(EngineClient, run_level_is_kept) {
    start_both();
    EXPECT_EQ(library->x_client_engine_set_runlevel(3), 0);
    EXPECT_EQ(status().at("run_level"), 3);
}

TEST_F(EngineClient, answers_outlive_the_engine_and_can_be_set_while_there_is_none) {
    start_both();
    ASSERT_TRUE(tree.order({{"op", "answer"}, {"call", "x_client_start"}, {"code", -3}}));
    ASSERT_EQ(WEXITSTATUS(tree.kill_engine(SIGTERM)), 0);
    tree.start_engine();
    EXPECT_EQ(start(), -3);
    tree.kill_engine(SIGKILL);
    const std::string left = tree.path("var/lib/qd_agent.json.left");
    ASSERT_EQ(kze::engine::leave_request(
                  left, {{"op", "answer"}, {"call", "x_client_start"}, {"code", -4}}),
              "");
    tree.start_engine();
    EXPECT_EQ(start(), -4);
    ASSERT_EQ(kze::engine::leave_request(
                  left, {{"op", "answer"}, {"call", "x_client_start"}, {"code", -5}}),
              "");
    ASSERT_TRUE(tree.order({{"op", "take-left"}}));
    EXPECT_EQ(start(), -5);
    ASSERT_TRUE(tree.order({{"op", "clear"}}));
    EXPECT_EQ(start(), 0);
}

}  // namespace
}  // namespace engine_test
