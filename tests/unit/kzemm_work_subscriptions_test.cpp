#include <tuple>

#include "tests/unit/worker_test.h"

using fakes::at;
using fakes::engine_calls;
using fakes::engine_texts;
using fakes::is_callback;
using fakes::log_lines;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Field;
using testing::IsEmpty;

namespace {

constexpr char base_collect[] = "/mgr/base_collect";
constexpr char cycle_key[] = "/collect_act_time";

class kzemm_work_subscriptions_test : public worker_test {
  protected:
    void SetUp() override {
        worker_test::SetUp();
        init_config();
    }

    // The calls and log lines of an action, in one order.
    static std::vector<std::string> in_order() {
        return fakes::texts({fakes::what::engine, fakes::what::log});
    }
};

// The position of the registration that the engine refuses.
class kzemm_work_registration_test : public kzemm_work_subscriptions_test,
                                     public testing::WithParamInterface<size_t> {};

INSTANTIATE_TEST_SUITE_P(refused, kzemm_work_registration_test,
                         testing::Range(size_t{0}, size_t{5}));

// The report switch and the origin forward switch.
class kzemm_work_origin_test : public kzemm_work_subscriptions_test,
                               public testing::WithParamInterface<std::tuple<bool, bool>> {};

INSTANTIATE_TEST_SUITE_P(report_and_forward, kzemm_work_origin_test,
                         testing::Values(std::make_tuple(true, false), std::make_tuple(false, true),
                                         std::make_tuple(true, true)));

// A text of the report cycle, and the cycle that is then in force.
class kzemm_work_cycle_test
    : public kzemm_work_subscriptions_test,
      public testing::WithParamInterface<std::tuple<const char *, unsigned int>> {};

INSTANTIATE_TEST_SUITE_P(accepted, kzemm_work_cycle_test,
                         testing::Values(std::make_tuple("120", 120U), std::make_tuple("121", 121U),
                                         std::make_tuple("599", 599U),
                                         std::make_tuple("600", 600U)));

// A text of the report cycle that is refused.
class kzemm_work_bad_cycle_test : public kzemm_work_subscriptions_test,
                                  public testing::WithParamInterface<const char *> {};

INSTANTIATE_TEST_SUITE_P(refused, kzemm_work_bad_cycle_test,
                         testing::Values("119", "601", "0", "-1", "", "often"));

const char *const registrations[] = {
    "x_client_engine_subscribe_alarm",    "x_client_register_coordinate_cb(3)",
    "x_client_register_coordinate_cb(1)", "x_client_register_coordinate_cb(2)",
    "x_client_engine_subscribe_credible",
};

const char *const registration_lines[] = {
    "qd subscribe alarm ret: ",
    "qd register hunting coordinate cb ret: ",
    "qd register linakge coordinate cb ret: ",
    "qd register append coordinate cb ret: ",
    "qd register engine credible cb ret: ",
};

}  // namespace

TEST_F(kzemm_work_subscriptions_test, the_fixed_callbacks_are_registered_in_order) {
    EXPECT_EQ(work.qd_client_subscribe(), 0);
    EXPECT_THAT(engine_texts(), ElementsAreArray(registrations));
    const std::vector<fakes::engine_call> calls = engine_calls();
    ASSERT_EQ(calls.size(), 5U);
    EXPECT_TRUE(is_callback(calls[0].callback, kzemm_work_inspector::qd_alarm_cb));
    EXPECT_TRUE(is_callback(calls[1].callback, kzemm_work_inspector::qd_coordinate_hunting_cb));
    EXPECT_TRUE(is_callback(calls[2].callback, kzemm_work_inspector::qd_coordinate_linkage_cb));
    EXPECT_TRUE(is_callback(calls[3].callback, kzemm_work_inspector::qd_coordinate_append_cb));
    EXPECT_TRUE(is_callback(calls[4].callback, kzemm_work_inspector::qd_eng_sub_credible_cb));
    for (size_t position = 0; position < 4; ++position) {
        EXPECT_EQ(calls[position].context, nullptr);
    }
    EXPECT_EQ(calls[4].context, &work) << "only credible events need the object";
}

TEST_F(kzemm_work_subscriptions_test, each_registration_is_logged_after_its_call) {
    EXPECT_EQ(work.qd_client_subscribe(), 0);
    EXPECT_THAT(in_order(),
                ElementsAre(registrations[0], "qd subscribe alarm ret: 0", registrations[1],
                            "qd register hunting coordinate cb ret: 0", registrations[2],
                            "qd register linakge coordinate cb ret: 0", registrations[3],
                            "qd register append coordinate cb ret: 0", registrations[4],
                            "qd register engine credible cb ret: 0"));
    EXPECT_THAT(log_lines(), Each(Field(&fakes::record::level, 3)));
}

TEST_P(kzemm_work_registration_test, a_refused_one_fails_and_the_others_are_made_all_the_same) {
    if (GetParam() == 0) {
        fakes::engine_returns("x_client_engine_subscribe_alarm", {-7});
    } else if (GetParam() == 4) {
        fakes::engine_returns("x_client_engine_subscribe_credible", {-7});
    } else {
        std::vector<int> results = {0, 0, 0};
        results[GetParam() - 1] = -7;
        fakes::engine_returns("x_client_register_coordinate_cb", results);
    }
    EXPECT_EQ(work.qd_client_subscribe(), -1);
    EXPECT_THAT(engine_texts(), ElementsAreArray(registrations));
    std::vector<std::string> lines;
    for (size_t position = 0; position < 5; ++position) {
        lines.push_back(registration_lines[position] +
                        std::to_string(position == GetParam() ? -7 : 0));
    }
    std::vector<std::string> logged;
    for (const fakes::record &each : log_lines()) {
        EXPECT_EQ(each.level, 3);
        logged.push_back(each.text);
    }
    EXPECT_EQ(logged, lines);
}

TEST_F(kzemm_work_subscriptions_test, all_registrations_refused_are_all_made) {
    fakes::engine_always_returns("x_client_engine_subscribe_alarm", 1);
    fakes::engine_always_returns("x_client_register_coordinate_cb", 2);
    fakes::engine_always_returns("x_client_engine_subscribe_credible", 3);
    EXPECT_EQ(work.qd_client_subscribe(), -1);
    EXPECT_THAT(engine_texts(), ElementsAreArray(registrations));
}

TEST_F(kzemm_work_subscriptions_test, no_switch_decides_about_the_fixed_registrations) {
    EXPECT_FALSE(config::report_switch());
    EXPECT_FALSE(config::hunting_switch());
    EXPECT_FALSE(config::linkage_switch());
    EXPECT_FALSE(config::dispose_web_switch());
    EXPECT_FALSE(config::dispose_phishing_switch());
    EXPECT_EQ(work.qd_client_subscribe(), 0);
    EXPECT_EQ(engine_calls().size(), 5U);
}

TEST_F(kzemm_work_subscriptions_test, both_switches_off_cancel_with_cycle_1_and_no_callback) {
    EXPECT_EQ(work.qd_client_subscribe_origin(), 0);
    const std::vector<fakes::engine_call> calls = engine_calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].text, "x_client_subscribe_origin_data(1)");
    EXPECT_EQ(calls[0].callback, nullptr);
    EXPECT_EQ(calls[0].context, nullptr);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "cancel subscribe origin data success")));
    EXPECT_THAT(fakes::config_reads(), IsEmpty());
}

TEST_F(kzemm_work_subscriptions_test, a_refused_cancel_is_a_warning_and_nothing_else) {
    fakes::engine_returns("x_client_subscribe_origin_data", {5});
    EXPECT_EQ(work.qd_client_subscribe_origin(), -1);
    EXPECT_EQ(engine_texts(), std::vector<std::string>{"x_client_subscribe_origin_data(1)"});
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "cancel subscribe origin data failed")));
    EXPECT_EQ(config::collect_report_cycle(), 120U);
}

TEST_F(kzemm_work_subscriptions_test, each_call_cancels_anew) {
    EXPECT_EQ(work.qd_client_subscribe_origin(), 0);
    EXPECT_EQ(work.qd_client_subscribe_origin(), 0);
    EXPECT_THAT(engine_texts(), ElementsAre("x_client_subscribe_origin_data(1)",
                                            "x_client_subscribe_origin_data(1)"));
}

TEST_P(kzemm_work_origin_test, either_switch_subscribes_once_with_the_cycle) {
    fakes::config_set(base_collect, cycle_key, "300");
    config::report_switch() = std::get<0>(GetParam());
    config::origin_forward_switch() = std::get<1>(GetParam());
    EXPECT_EQ(work.qd_client_subscribe_origin(), 0);
    const std::vector<fakes::engine_call> calls = engine_calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].text, "x_client_subscribe_origin_data(300)");
    EXPECT_TRUE(is_callback(calls[0].callback, kzemm_work_inspector::qd_origin_cb));
    EXPECT_EQ(calls[0].context, nullptr);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "get collect report cycle : 300 succeed"),
                                         at(3, "qd subscribe origin data success, cycle: 300")));
    EXPECT_THAT(fakes::config_reads(), ElementsAre("GetValue /mgr/base_collect /collect_act_time"));
}

TEST_F(kzemm_work_subscriptions_test, a_refused_subscription_is_a_warning_with_its_cycle) {
    fakes::config_set(base_collect, cycle_key, "240");
    config::report_switch() = true;
    fakes::engine_returns("x_client_subscribe_origin_data", {-3});
    EXPECT_EQ(work.qd_client_subscribe_origin(), -1);
    EXPECT_EQ(engine_calls().size(), 1U);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "get collect report cycle : 240 succeed"),
                                         at(2, "qd subscribe origin data failed, cycle: 240")));
}

TEST_F(kzemm_work_subscriptions_test, an_unreadable_cycle_subscribes_with_120_at_first) {
    config::origin_forward_switch() = true;
    EXPECT_EQ(work.qd_client_subscribe_origin(), 0);
    EXPECT_THAT(engine_texts(), ElementsAre("x_client_subscribe_origin_data(120)"));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(1,
                               "cfgc GetValue failed, module: /mgr/base_collect, key: "
                               "/collect_act_time, err: no such value."),
                            at(2, "get collect report cycle from cfgc failed, ues default"),
                            at(2, "set report cycle failed, use default"),
                            at(3, "qd subscribe origin data success, cycle: 120")));
}

TEST_F(kzemm_work_subscriptions_test, an_unreadable_cycle_keeps_the_last_good_one) {
    config::report_switch() = true;
    fakes::config_set(base_collect, cycle_key, "450");
    EXPECT_EQ(work.qd_client_subscribe_origin(), 0);
    fakes::config_remove(base_collect, cycle_key);
    EXPECT_EQ(work.qd_client_subscribe_origin(), 0);
    EXPECT_THAT(engine_texts(), ElementsAre("x_client_subscribe_origin_data(450)",
                                            "x_client_subscribe_origin_data(450)"));
}

TEST_F(kzemm_work_subscriptions_test, without_a_central_client_the_subscription_is_made_too) {
    kzemm_config::get_instance().uninit();
    fakes::clear_journal();
    config::report_switch() = true;
    EXPECT_EQ(work.qd_client_subscribe_origin(), 0);
    EXPECT_THAT(engine_texts(), ElementsAre("x_client_subscribe_origin_data(120)"));
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "cfgc is not initialized"),
                                         at(2, "set report cycle failed, use default"),
                                         at(3, "qd subscribe origin data success, cycle: 120")));
}

TEST_P(kzemm_work_cycle_test, a_cycle_within_its_limits_is_taken) {
    config::report_switch() = true;
    fakes::config_set(base_collect, cycle_key, std::get<0>(GetParam()));
    EXPECT_EQ(work.qd_client_subscribe_origin(), 0);
    const std::string cycle = std::to_string(std::get<1>(GetParam()));
    EXPECT_THAT(engine_texts(), ElementsAre("x_client_subscribe_origin_data(" + cycle + ")"));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "get collect report cycle : " + cycle + " succeed"),
                            at(3, "qd subscribe origin data success, cycle: " + cycle)));
}

TEST_P(kzemm_work_bad_cycle_test, a_cycle_outside_its_limits_keeps_the_last_good_one) {
    config::report_switch() = true;
    fakes::config_set(base_collect, cycle_key, "333");
    EXPECT_EQ(work.qd_client_subscribe_origin(), 0);
    fakes::config_set(base_collect, cycle_key, GetParam());
    fakes::clear_journal();
    EXPECT_EQ(work.qd_client_subscribe_origin(), 0);
    EXPECT_THAT(fakes::texts({fakes::what::engine}),
                ElementsAre("x_client_subscribe_origin_data(333)"));
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "cfgc collect report cycle is invalid, ues default"),
                                         at(2, "set report cycle failed, use default"),
                                         at(3, "qd subscribe origin data success, cycle: 333")));
}

TEST_F(kzemm_work_subscriptions_test, the_cycle_is_read_anew_at_each_call) {
    config::report_switch() = true;
    fakes::config_set(base_collect, cycle_key, "200");
    EXPECT_EQ(work.qd_client_subscribe_origin(), 0);
    fakes::config_set(base_collect, cycle_key, "201");
    EXPECT_EQ(work.qd_client_subscribe_origin(), 0);
    EXPECT_THAT(engine_texts(), ElementsAre("x_client_subscribe_origin_data(200)",
                                            "x_client_subscribe_origin_data(201)"));
}

TEST_F(kzemm_work_subscriptions_test, the_real_time_subscription_does_nothing) {
    EXPECT_EQ(work.qd_client_subscribe_RealTime(), 0);
    config::subscribe_event_switch() = true;
    EXPECT_EQ(work.qd_client_subscribe_RealTime(), 0);
    EXPECT_THAT(engine_texts(), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
}
