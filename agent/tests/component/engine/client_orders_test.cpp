/* Orders that the engine answers later: coordinate orders, linkage analysis, rule text. */
#include <ctime>

#include "agent/common/md5.h"
#include "agent/engine/engine_orders.h"
#include "agent/tests/component/engine/client_fixture.h"
#include "agent/tests/component/engine/engine_frames.h"

namespace engine_test {
namespace {

/* ---- frames ---- */

std::string problem_of(const std::string &frame) {
    std::string problem;
    return kze::engine::body_of_order(frame, problem) ? "none" : problem;
}

TEST(EngineOrder, frame_gives_its_body_and_a_broken_one_the_reason) {
    std::string problem;
    EXPECT_EQ(kze::engine::body_of_order(order_frame("body"), problem), "body");
    EXPECT_EQ(kze::engine::body_of_order(order_frame(""), problem), "");
    EXPECT_EQ(kze::engine::body_of_order(order_frame(std::string(70000, 'b')), problem)->size(),
              70000U);
    const std::string frame = order_frame("body");
    for (std::size_t cut = 0; cut < frame.size(); ++cut) {
        EXPECT_NE(problem_of(frame.substr(0, cut)), "none") << cut;
    }
    EXPECT_EQ(problem_of(frame + "x"), "its head tells of 4 bytes, 5 follow");
    EXPECT_EQ(problem_of("3201" + frame.substr(4)), "its version is not 3200");
    std::string other = frame;
    other[8] = 1; /* which is 257 in big-endian order */
    EXPECT_EQ(problem_of(other), "its protocol is 257, not 1");
    EXPECT_EQ(problem_of("3200"), "it has 4 bytes, less than a head");
}

TEST(EngineOrder, bytes_are_recognised_by_their_md5_and_as_a_text_where_they_are_one) {
    using kze::engine::recognisable;
    EXPECT_EQ(recognisable("abc"),
              (json{{"md5", "900150983cd24fb0d6963f7d28e17f72"}, {"text", "abc"}}));
    EXPECT_EQ(recognisable("").at("md5"), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(recognisable("two\nlines\xc3\xa4").at("text"), "two\nlines\xc3\xa4");
    for (const std::string &bytes :
         {std::string("\xff"), std::string("\0", 1), std::string("\x7f"), std::string("\x1b")}) {
        EXPECT_FALSE(recognisable(bytes).contains("text"));
        EXPECT_EQ(recognisable(bytes).at("md5"), kze::md5_of_bytes(bytes));
    }
    const std::string longest(kze::engine::told_text_limit, 'x');
    EXPECT_EQ(recognisable(longest).at("text"), longest);
    EXPECT_FALSE(recognisable(longest + "x").contains("text"));
}

/* ---- coordinate orders ---- */

class EngineOrders : public EngineClient {
  protected:
    void subscribe_all() {
        for (const auto &[type, box] :
             {std::pair(QD_TRACE_LINKAGE, &linkages), std::pair(QD_TRACE_APPEND, &appends),
              std::pair(QD_TRACE_HUNTING, &huntings)}) {
            ASSERT_EQ(library->x_client_register_coordinate_cb(type, on_data, box), 0);
        }
    }
    int coordinate(int type, const std::string &frame) {
        return library->x_client_coordinate(type, frame.data(),
                                            static_cast<unsigned int>(frame.size()));
    }
    int analyse(const std::string &request) {
        return library->x_client_coordinate_dispose_trc(
            request.data(), static_cast<unsigned int>(request.size()), on_analysis, &data);
    }
    int update_by_data(int type, const std::string &rules) {
        return library->x_client_engine_update_by_data(
            static_cast<_engine_type>(type), rules.data(), static_cast<unsigned int>(rules.size()),
            on_update, &data);
    }
    /* Sets an answer; the members besides "op" and "call". */
    bool answer(const std::string &call, json members) {
        members["op"] = "answer";
        members["call"] = call;
        return tree.order(members);
    }

    inbox linkages, appends, huntings;
};

TEST_F(EngineOrders, order_is_answered_by_one_event_of_its_kind_in_which_it_is_recognised) {
    start_both();
    subscribe_all();
    const std::vector<std::tuple<int, std::string, inbox *>> kinds = {
        {QD_TRACE_LINKAGE, "linkage", &linkages},
        {QD_TRACE_APPEND, "append", &appends},
        {QD_TRACE_HUNTING, "hunting", &huntings},
    };
    for (const auto &[type, kind, box] : kinds) {
        ASSERT_EQ(coordinate(type, order_frame("order of " + kind)), 0);
        ASSERT_TRUE(box->wait_for(1)) << kind;
        const std::string text = "order of " + kind;
        EXPECT_EQ(json::parse(box->items().at(0)), (json{{"order", kind},
                                                         {"bytes", text.size()},
                                                         {"number", 1},
                                                         {"md5", kze::md5_of_bytes(text).value()},
                                                         {"text", text}}));
    }
    for (const auto &[type, kind, box] : kinds) {
        EXPECT_EQ(box->count(), 1U) << kind;
    }
    EXPECT_EQ(status().at("orders").at("hunting"), (json{{"count", 1}, {"bytes", 36}}));
}

TEST_F(EngineOrders, order_without_a_valid_frame_or_kind_is_refused_and_not_counted) {
    start_both();
    subscribe_all();
    EXPECT_EQ(coordinate(QD_TRACE_HUNTING, "no frame"), invalid);
    EXPECT_EQ(coordinate(QD_TRACE_HUNTING, order_frame("body") + "x"), invalid);
    EXPECT_EQ(coordinate(4, order_frame("body")), invalid);
    EXPECT_EQ(library->x_client_coordinate(QD_TRACE_LINKAGE, nullptr, 5), invalid);
    EXPECT_TRUE(status().at("orders").empty());
    EXPECT_NE(tree.files().read("var/log/qd_agent/qd_agent.log").find("order hunting is no frame"),
              std::string::npos);
}

TEST_F(EngineOrders, order_with_a_set_code_is_refused_and_brings_no_event) {
    start_both();
    subscribe_all();
    ASSERT_TRUE(answer("x_client_coordinate", {{"code", -14}, {"for_type", QD_TRACE_HUNTING}}));
    EXPECT_EQ(coordinate(QD_TRACE_HUNTING, order_frame("first")), timed_out);
    EXPECT_EQ(coordinate(QD_TRACE_APPEND, order_frame("second")), 0);
    ASSERT_TRUE(tree.order({{"op", "clear"}}));
    EXPECT_EQ(coordinate(QD_TRACE_HUNTING, order_frame("third")), 0);
    ASSERT_TRUE(huntings.wait_for(1));
    EXPECT_EQ(json::parse(huntings.items().at(0)).at("text"), "third");
    EXPECT_EQ(huntings.count(), 1U);
    EXPECT_EQ(appends.count(), 1U);
}

TEST_F(EngineOrders, events_of_many_orders_come_in_the_order_of_the_orders) {
    start_both();
    subscribe_all();
    constexpr int count = 200;
    for (int number = 1; number <= count; ++number) {
        ASSERT_EQ(coordinate(QD_TRACE_APPEND, order_frame(std::to_string(number))), 0);
    }
    ASSERT_TRUE(appends.wait_for(count));
    for (int number = 1; number <= count; ++number) {
        const json event = json::parse(appends.items().at(static_cast<std::size_t>(number - 1)));
        EXPECT_EQ(event.at("number"), number);
        EXPECT_EQ(event.at("text"), std::to_string(number));
    }
}

TEST_F(EngineOrders, event_comes_about_50_ms_after_the_order_or_when_it_was_set) {
    start_both();
    subscribe_all();
    const auto seconds_to_event = [this] {
        const std::size_t before = linkages.count();
        return seconds_of([&] {
            ASSERT_EQ(coordinate(QD_TRACE_LINKAGE, order_frame("x")), 0);
            ASSERT_TRUE(linkages.wait_for(before + 1));
        });
    };
    EXPECT_GE(seconds_to_event(), 0.045);
    ASSERT_TRUE(answer("x_client_coordinate", {{"callback_delay_ms", 600}}));
    EXPECT_GE(seconds_to_event(), 0.59);
    ASSERT_TRUE(answer("x_client_coordinate", {{"callback_delay_ms", 600000}, {"times", 1}}));
    ASSERT_EQ(coordinate(QD_TRACE_LINKAGE, order_frame("much later")), 0);
    ASSERT_TRUE(answer("x_client_coordinate", {{"callback_delay_ms", 0}}));
    ASSERT_EQ(coordinate(QD_TRACE_LINKAGE, order_frame("at once")), 0);
    ASSERT_TRUE(linkages.wait_for(3));
    EXPECT_EQ(json::parse(linkages.items().at(2)).at("text"), "at once");
}

TEST_F(EngineOrders, event_that_is_never_to_come_does_not_come) {
    start_both();
    subscribe_all();
    ASSERT_TRUE(answer("x_client_coordinate", {{"callback_never", true}, {"times", 1}}));
    EXPECT_EQ(coordinate(QD_TRACE_LINKAGE, order_frame("lost")), 0);
    EXPECT_EQ(coordinate(QD_TRACE_LINKAGE, order_frame("comes")), 0);
    ASSERT_TRUE(linkages.wait_for(1));
    EXPECT_EQ(json::parse(linkages.items().at(0)).at("text"), "comes");
    EXPECT_EQ(json::parse(linkages.items().at(0)).at("number"), 2);
}

TEST_F(EngineOrders, thousands_of_orders_that_wait_for_their_events_hold_nothing_up) {
    start_both();
    subscribe_all();
    constexpr std::size_t count = 5000;
    ASSERT_TRUE(answer("x_client_coordinate", {{"callback_delay_ms", 3000}}));
    for (std::size_t number = 0; number < count; ++number) {
        ASSERT_EQ(coordinate(QD_TRACE_LINKAGE, order_frame("x")), 0);
    }
    ASSERT_TRUE(linkages.wait_for(count));
    EXPECT_EQ(outages.count(), 0U);
    EXPECT_EQ(json::parse(linkages.items().at(count - 1)).at("number"), count);
}

TEST_F(EngineOrders, order_that_nobody_has_registered_for_is_taken_all_the_same) {
    start_both();
    EXPECT_EQ(coordinate(QD_TRACE_LINKAGE, order_frame("x")), 0);
    EXPECT_EQ(status().at("orders").at("linkage").at("count"), 1);
}

/* ---- linkage analysis ---- */

TEST_F(EngineOrders, linkage_analysis_ends_in_its_callback_in_which_the_request_is_recognised) {
    start_both();
    ASSERT_EQ(analyse("request"), 0);
    ASSERT_TRUE(data.wait_for(1));
    ASSERT_EQ(data.items().at(0).substr(0, 2), "0:");
    EXPECT_EQ(json::parse(data.items().at(0).substr(2)),
              (json{{"analysis", "linkage"},
                    {"request_bytes", 7},
                    {"number", 1},
                    {"md5", kze::md5_of_bytes("request").value()},
                    {"text", "request"}}));
    EXPECT_EQ(status().at("orders").at("linkage_analysis").at("count"), 1);
}

TEST_F(EngineOrders, linkage_analysis_has_the_set_result_delay_and_code) {
    start_both();
    ASSERT_TRUE(answer("x_client_coordinate_dispose_trc",
                       {{"value", 12}, {"callback_delay_ms", 400}, {"times", 1}}));
    const double seconds = seconds_of([this] {
        ASSERT_EQ(analyse("request"), 0);
        ASSERT_TRUE(data.wait_for(1));
    });
    EXPECT_GE(seconds, 0.39);
    EXPECT_EQ(data.items().at(0), "12:null");
    ASSERT_TRUE(answer("x_client_coordinate_dispose_trc", {{"code", 7}}));
    EXPECT_EQ(analyse("request"), 7);
    EXPECT_EQ(status().at("orders").at("linkage_analysis").at("count"), 1);
}

/* ---- rule text ---- */

json text_of(const json &status, int type, const std::string &part = "") {
    for (const json &text : status.at("rules")) {
        if (text.at("type") == type && text.at("part") == part) {
            return text;
        }
    }
    return json::object();
}

TEST_F(EngineOrders, rule_text_is_told_by_size_md5_time_and_first_line) {
    start_both();
    ASSERT_EQ(update_by_data(7, "first line\r\nsecond"), 0);
    ASSERT_EQ(update_by_data(7, "\xffnewer"), 0);
    ASSERT_EQ(update_by_data(13, "login"), 0);
    const json now = status();
    json custom = text_of(now, 7);
    const double seconds = custom.at("time_us").get<double>() / 1e6;
    EXPECT_NEAR(seconds, static_cast<double>(std::time(nullptr)), 5);
    custom.erase("time_us");
    EXPECT_EQ(custom, (json{{"type", 7},
                            {"name", "custom_ioa"},
                            {"part", ""},
                            {"source", "data"},
                            {"bytes", 6},
                            {"md5", kze::md5_of_bytes("\xffnewer").value()},
                            {"first_line", "\\xffnewer"},
                            {"count", 2}}));
    EXPECT_EQ(text_of(now, 13).at("name"), "abnormal_ip_login");
    ASSERT_EQ(update_by_data(13, "one\r\ntwo" + std::string(200, 'x')), 0);
    EXPECT_EQ(text_of(status(), 13).at("first_line"), "one");
    ASSERT_EQ(update_by_data(13, std::string(200, 'x')), 0);
    EXPECT_EQ(text_of(status(), 13).at("first_line"), std::string(120, 'x'));
}

TEST_F(EngineOrders, text_for_a_part_is_held_beside_the_text_of_its_capability) {
    start_both();
    const std::string envelope = R"({"tkbfd":{"white_ip":{"need_update":true}}})";
    ASSERT_EQ(update_by_data(12, "brute force"), 0);
    ASSERT_EQ(update_by_data(12, envelope), 0);
    EXPECT_EQ(text_of(status(), 12).at("first_line"), "brute force");
    EXPECT_EQ(text_of(status(), 12, "tkbfd").at("first_line"), envelope);
    EXPECT_EQ(tree.ask({{"op", "rule-text"}, {"type", 12}}).at("text"), "brute force");
    EXPECT_EQ(tree.ask({{"op", "rule-text"}, {"type", 12}, {"part", "tkbfd"}}).at("text"),
              envelope);
    EXPECT_EQ(tree.ask({{"op", "rule-text"}, {"type", 12}, {"part", "x"}}).at("ok"), false);
}

TEST_F(EngineOrders, text_of_more_than_a_mebibyte_is_shown_up_to_there_and_says_so) {
    start_both();
    const std::size_t limit = 1U << 20;
    ASSERT_EQ(update_by_data(7, std::string(limit, 'r')), 0);
    const json whole = tree.ask({{"op", "rule-text"}, {"type", 7}});
    EXPECT_EQ(whole.at("cut"), false);
    EXPECT_EQ(whole.at("text").get<std::string>().size(), limit);
    ASSERT_EQ(update_by_data(7, std::string(limit + 1, 'r')), 0);
    const json cut = tree.ask({{"op", "rule-text"}, {"type", 7}});
    EXPECT_EQ(cut.at("cut"), true);
    EXPECT_EQ(cut.at("bytes"), limit + 1);
    EXPECT_EQ(cut.at("text").get<std::string>().size(), limit);
}

TEST_F(EngineOrders, rules_that_the_callback_tells_were_refused_leave_those_before) {
    start_both();
    ASSERT_EQ(update_by_data(7, "old"), 0);
    ASSERT_TRUE(answer("x_client_engine_update_by_data", {{"value", -16}, {"for_type", 7}}));
    ASSERT_EQ(update_by_data(7, "new"), 0);
    ASSERT_EQ(update_by_data(8, "scan"), 0);
    ASSERT_TRUE(data.wait_for(3));
    EXPECT_EQ(data.items(), (std::vector<std::string>{"7:0", "7:-16", "8:0"}));
    EXPECT_EQ(text_of(status(), 7).at("first_line"), "old");
    EXPECT_EQ(text_of(status(), 8).at("first_line"), "scan");
}

TEST_F(EngineOrders, callback_of_rule_text_is_told_the_set_type_after_the_set_time) {
    start_both();
    ASSERT_TRUE(answer("x_client_engine_update_by_data",
                       {{"callback_type", 3}, {"callback_delay_ms", 400}, {"times", 1}}));
    const double seconds = seconds_of([this] {
        ASSERT_EQ(update_by_data(7, "rules"), 0);
        ASSERT_TRUE(data.wait_for(1));
    });
    EXPECT_GE(seconds, 0.39);
    ASSERT_TRUE(answer("x_client_engine_update_by_data", {{"callback_type", -1}}));
    ASSERT_EQ(update_by_data(7, "rules"), 0);
    ASSERT_TRUE(data.wait_for(2));
    EXPECT_EQ(data.items(), (std::vector<std::string>{"3:0", "-1:0"}));
}

TEST_F(EngineOrders, callback_that_never_comes_ends_with_the_engine) {
    start_both();
    ASSERT_TRUE(answer("x_client_engine_update_by_data", {{"callback_never", true}, {"times", 1}}));
    ASSERT_EQ(update_by_data(7, "lost"), 0);
    ASSERT_EQ(update_by_data(8, "comes"), 0);
    ASSERT_TRUE(data.wait_for(1));
    EXPECT_EQ(data.items().at(0), "8:0");
    EXPECT_EQ(text_of(status(), 7).at("first_line"), "lost");
    tree.kill_engine(SIGKILL);
    ASSERT_TRUE(data.wait_for(2));
    EXPECT_EQ(data.items().at(1), "7:-8");
}

/* ---- drive switches ---- */

TEST_F(EngineOrders, drive_switches_keep_what_they_were_set_to) {
    start_both();
    int result = 99;
    int state = 99;
    EXPECT_EQ(library->x_client_set_drive_switch(DRIVE_SWITCH_DRIVE, 1, &result), 0);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(library->x_client_get_drive_state(&state), 0);
    EXPECT_EQ(state, 1);
    EXPECT_EQ(library->x_client_get_collect_state(&state), 0);
    EXPECT_EQ(state, 0);
    EXPECT_EQ(library->x_client_set_drive_switch(DRIVE_SWITCH_COLLECT, 1, &result), 0);
    EXPECT_EQ(library->x_client_get_collect_state(&state), 0);
    EXPECT_EQ(state, 1);
    EXPECT_EQ(library->x_client_set_drive_switch(2, 1, &result), invalid);
    EXPECT_EQ(library->x_client_set_drive_switch(DRIVE_SWITCH_DRIVE, 2, &result), invalid);
    EXPECT_EQ(library->x_client_set_drive_switch(DRIVE_SWITCH_DRIVE, 0, nullptr), invalid);
    EXPECT_EQ(library->x_client_get_drive_state(nullptr), invalid);
    EXPECT_EQ(library->x_client_get_collect_state(nullptr), invalid);
}

TEST_F(EngineOrders, drive_switch_told_to_try_again_gives_that_result_and_stays) {
    start_both();
    ASSERT_TRUE(
        tree.order({{"op", "answer"}, {"call", "x_client_set_drive_switch"}, {"value", -2}}));
    int result = 99;
    int state = 99;
    EXPECT_EQ(library->x_client_set_drive_switch(DRIVE_SWITCH_DRIVE, 1, &result), 0);
    EXPECT_EQ(result, -2);
    EXPECT_EQ(library->x_client_get_drive_state(&state), 0);
    EXPECT_EQ(state, 0);
}

TEST_F(EngineOrders, drive_states_are_those_that_were_set_and_outlive_the_engine) {
    start_both();
    ASSERT_TRUE(tree.order({{"op", "drive"}, {"drive", 7}, {"collect", -3}}));
    int state = 0;
    EXPECT_EQ(library->x_client_get_drive_state(&state), 0);
    EXPECT_EQ(state, 7);
    EXPECT_EQ(library->x_client_get_collect_state(&state), 0);
    EXPECT_EQ(state, -3);
    ASSERT_TRUE(tree.order({{"op", "drive"}, {"collect", 0}}));
    tree.kill_engine(SIGKILL);
    tree.start_engine();
    EXPECT_EQ(status().at("drive"), (json{{"drive", 7}, {"collect", 0}}));
}

TEST_F(EngineOrders, out_parameter_that_is_to_stay_unwritten_stays) {
    start_both();
    int result = 99;
    ASSERT_TRUE(answer("x_client_set_drive_switch", {{"unwritten", true}, {"for_type", 1}}));
    EXPECT_EQ(library->x_client_set_drive_switch(DRIVE_SWITCH_COLLECT, 1, &result), 0);
    EXPECT_EQ(result, 99);
    EXPECT_EQ(library->x_client_set_drive_switch(DRIVE_SWITCH_DRIVE, 1, &result), 0);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(status().at("drive"), (json{{"drive", 1}, {"collect", 0}}));
    int state = 98;
    ASSERT_TRUE(answer("x_client_get_drive_state", {{"unwritten", true}}));
    EXPECT_EQ(library->x_client_get_drive_state(&state), 0);
    EXPECT_EQ(state, 98);
    unsigned int number = 97;
    ASSERT_TRUE(answer("x_client_engine_query_version", {{"unwritten", true}}));
    EXPECT_EQ(library->x_client_engine_query_version(ENGINE_IOA, &number), 0);
    EXPECT_EQ(number, 97U);
    char *text = nullptr;
    ASSERT_TRUE(answer("x_client_engine_query_version_str", {{"unwritten", true}}));
    EXPECT_EQ(library->x_client_engine_query_version_str(ENGINE_IOA, &text), 0);
    EXPECT_EQ(text, nullptr);
}

TEST_F(EngineOrders, last_drive_orders_are_told_with_what_became_of_them) {
    start_both();
    int result = 0;
    EXPECT_EQ(library->x_client_set_drive_switch(DRIVE_SWITCH_DRIVE, 1, &result), 0);
    const std::string call = "x_client_set_drive_switch";
    for (const json &how : {json{{"value", -2}}, json{{"unwritten", true}}, json{{"code", 6}}}) {
        ASSERT_TRUE(answer(call, how));
        library->x_client_set_drive_switch(DRIVE_SWITCH_COLLECT, 1, &result);
    }
    ASSERT_TRUE(answer(call, {{"never", true}}));
    EXPECT_EQ(library->x_client_set_drive_switch(DRIVE_SWITCH_DRIVE, 0, &result), timed_out);
    json orders = status().at("drive_orders");
    for (json &order : orders) {
        EXPECT_NEAR(order.at("time_us").get<double>() / 1e6,
                    static_cast<double>(std::time(nullptr)), 15);
        order.erase("time_us");
    }
    EXPECT_EQ(orders, json::parse(R"([{"switch":0,"value":1,"answered":true,"code":0,"result":0},
                              {"switch":1,"value":1,"answered":true,"code":0,"result":-2},
                              {"switch":1,"value":1,"answered":true,"code":0,"result":null},
                              {"switch":1,"value":1,"answered":true,"code":6},
                              {"switch":0,"value":0,"answered":false}])"));
    ASSERT_TRUE(tree.order({{"op", "clear"}}));
    for (int number = 0; number < 20; ++number) {
        ASSERT_EQ(library->x_client_set_drive_switch(DRIVE_SWITCH_DRIVE, 1, &result), 0);
    }
    EXPECT_EQ(status().at("drive_orders").size(), 16U);
}

}  // namespace
}  // namespace engine_test
