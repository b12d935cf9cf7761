/* Rule files that the engine loads, and the versions to which they raise it. */
#include "agent/common/md5.h"
#include "agent/tests/component/engine/client_fixture.h"
#include "agent/tests/component/engine/engine_frames.h"

namespace engine_test {
namespace {

using kze::rule_kind;

constexpr int bad_rules = -7;

class EngineRuleFiles : public EngineClient {
  protected:
    /* Writes a rule file and gives its path. */
    std::string rules(rule_kind kind, const std::string &version) {
        tree.files().write("rules", rule_text(kind, version));
        return tree.path("rules");
    }
    int load(rule_kind kind, const std::string &version) {
        return library->x_client_engine_update(static_cast<_engine_type>(kind),
                                               rules(kind, version).c_str());
    }
    int load_async(const std::string &version) {
        return library->x_client_engine_update_async(
            ENGINE_MD, rules(rule_kind::md, version).c_str(), on_update, &data);
    }
    bool rise(const std::string &type, json members) {
        members["op"] = "rise";
        members["type"] = type;
        return tree.order(members);
    }
};

TEST_F(EngineRuleFiles, version_rises_to_that_of_the_file_and_outlives_the_engine) {
    start_both();
    EXPECT_EQ(load(rule_kind::ioc, "5.10"), 0);
    EXPECT_EQ(version(ENGINE_IOC), "5.10");
    EXPECT_EQ(load(rule_kind::ioa, "77"), 0);
    EXPECT_EQ(version(ENGINE_IOA), "77");
    EXPECT_EQ(load_async("4294967295"), 0);
    ASSERT_TRUE(data.wait_for(1));
    EXPECT_EQ(data.items().at(0), "3:0");
    EXPECT_EQ(version(ENGINE_MD), "4294967295");
    const json before = status();
    EXPECT_EQ(before.at("updates").at("ioa"), tree.path("rules"));
    tree.kill_engine(SIGKILL);
    tree.start_engine();
    const json after = status();
    EXPECT_EQ(after.at("versions"), (json{{"ioc", "5.10"}, {"ioa", "77"}, {"md", "4294967295"}}));
    EXPECT_EQ(after.at("packs"), before.at("packs"));
}

TEST_F(EngineRuleFiles, loaded_file_is_told_with_its_text) {
    start_both();
    ASSERT_EQ(load(rule_kind::ioa, "12"), 0);
    const std::string text = rule_text(rule_kind::ioa, "12");
    const std::string md5 = kze::md5_of_bytes(text).value();
    json pack = status().at("packs").at("ioa");
    EXPECT_GT(pack.at("time_us").get<std::int64_t>(), 0);
    pack.erase("time_us");
    EXPECT_EQ(pack, (json{{"file", tree.path("rules")},
                          {"version", "12"},
                          {"rules", 1},
                          {"rules_held", 1},
                          {"full", true},
                          {"bytes", text.size()},
                          {"md5", md5}}));
    const json held = status().at("rules").at(0);
    EXPECT_EQ(held.at("part"), "file");
    EXPECT_EQ(held.at("name"), "ioa");
    EXPECT_EQ(held.at("source"), tree.path("rules"));
    EXPECT_EQ(held.at("md5"), md5);
    EXPECT_EQ(held.at("first_line"), "version=12");
    EXPECT_EQ(tree.ask({{"op", "rule-text"}, {"type", 2}, {"part", "file"}}).at("text"), text);
}

TEST_F(EngineRuleFiles, incremental_files_add_to_the_rules_that_are_held) {
    start_both();
    kze::rule_file file;
    const auto load_ioc = [&](const std::string &version, bool full, std::size_t rules) {
        file.version = version;
        file.full = full;
        file.rules.assign(rules, "ip:192.0.2.1");
        tree.files().write("rules", kze::rule_file_text(file));
        return library->x_client_engine_update(ENGINE_IOC, tree.path("rules").c_str());
    };
    const auto held = [this] { return status().at("packs").at("ioc").at("rules_held"); };
    ASSERT_EQ(load_ioc("2.1", false, 2), 0);
    EXPECT_EQ(held(), 2);
    ASSERT_EQ(load_ioc("2.2", false, 3), 0);
    EXPECT_EQ(held(), 5);
    ASSERT_EQ(load_ioc("3.0", true, 4), 0);
    EXPECT_EQ(held(), 4);
    ASSERT_EQ(load_ioc("3.1", false, 1), 0);
    EXPECT_EQ(held(), 5);
}

TEST_F(EngineRuleFiles, last_loads_are_told_in_their_order_with_what_became_of_them) {
    start_both();
    ASSERT_TRUE(tree.order(
        {{"op", "answer"}, {"call", "x_client_engine_update"}, {"code", -8}, {"times", 1}}));
    EXPECT_EQ(load(rule_kind::ioc, "2.0"), -8);
    EXPECT_EQ(load(rule_kind::ioc, "2.0"), 0);
    EXPECT_EQ(load_async("5"), 0);
    ASSERT_TRUE(data.wait_for(1));
    EXPECT_EQ(library->x_client_engine_update(ENGINE_IOA, "/none"), invalid);
    json loads = status().at("loads");
    for (json &one : loads) {
        EXPECT_GT(one.at("time_us").get<std::int64_t>(), 0);
        one.erase("time_us");
    }
    const auto row = [](int number, int type, const std::string &path, int code, json more) {
        more.update({{"number", number},
                     {"type", type},
                     {"file", path},
                     {"asynchronous", type == ENGINE_MD},
                     {"answered", true},
                     {"code", code}});
        return more;
    };
    const std::string file = tree.path("rules");
    const json taken = {{"before", "1.0"}, {"version", "2.0"}, {"after", "2.0"}};
    const json called_back = {{"before", "1"}, {"version", "5"}, {"after", "5"}, {"callback", 0}};
    EXPECT_EQ(loads, (json::array({row(1, ENGINE_IOC, file, -8, {{"before", "1.0"}}),
                                   row(2, ENGINE_IOC, file, 0, taken),
                                   row(3, ENGINE_MD, file, 0, called_back),
                                   row(4, ENGINE_IOA, "/none", invalid, {{"before", "1"}})})));
    for (int number = 0; number < 100; ++number) {
        library->x_client_engine_update(ENGINE_IOA, "/none");
    }
    EXPECT_EQ(status().at("loads").size(), 64U);
}

TEST_F(EngineRuleFiles, broken_file_is_refused_with_its_code_and_the_reason_is_logged) {
    start_both();
    for (const auto &[kind, text] : {std::pair(ENGINE_IOC, "{"), std::pair(ENGINE_IOA, "rule=x\n"),
                                     std::pair(ENGINE_MD, "")}) {
        tree.files().write("broken", text);
        EXPECT_EQ(library->x_client_engine_update(kind, tree.path("broken").c_str()), bad_rules)
            << kind;
    }
    EXPECT_EQ(library->x_client_engine_update_async(ENGINE_MD, tree.path("broken").c_str(),
                                                    on_update, &data),
              bad_rules);
    EXPECT_EQ(library->x_client_engine_update(ENGINE_IOA, tree.path("var").c_str()), bad_rules);
    EXPECT_NE(tree.files().read("var/log/qd_agent/qd_agent.log").find("broken\": line 1: "),
              std::string::npos);
    EXPECT_EQ(status().at("versions"), (json{{"ioc", "1.0"}, {"ioa", "1"}, {"md", "1"}}));
    EXPECT_TRUE(status().at("packs").empty());
    EXPECT_EQ(data.count(), 0U);
}

TEST_F(EngineRuleFiles, file_that_is_none_or_of_a_type_without_files_is_refused) {
    start_both();
    const std::string path = rules(rule_kind::ioa, "2");
    EXPECT_EQ(library->x_client_engine_update(ENGINE_IOA, tree.path("none.cfg").c_str()), invalid);
    EXPECT_EQ(library->x_client_engine_update(ENGINE_COLLECT, path.c_str()), invalid);
    EXPECT_EQ(library->x_client_engine_update(ENGINE_CUSTOM_IOA, path.c_str()), invalid);
    EXPECT_EQ(library->x_client_engine_update(ENGINE_IOA, nullptr), invalid);
    EXPECT_EQ(library->x_client_engine_update(ENGINE_IOA, ""), invalid);
}

TEST_F(EngineRuleFiles, refused_load_leaves_the_version) {
    start_both();
    for (const int code : {-8, -14, 3}) {
        ASSERT_TRUE(tree.order({{"op", "answer"},
                                {"call", "x_client_engine_update"},
                                {"for_type", ENGINE_IOC},
                                {"code", code}}));
        EXPECT_EQ(load(rule_kind::ioc, "9.0"), code);
    }
    EXPECT_EQ(load(rule_kind::ioa, "9"), 0);
    EXPECT_EQ(status().at("versions"), (json{{"ioc", "1.0"}, {"ioa", "9"}, {"md", "1"}}));
}

TEST_F(EngineRuleFiles, lower_version_is_taken_and_changes_nothing) {
    start_both();
    ASSERT_EQ(load(rule_kind::ioc, "5.10"), 0);
    const json before = status();
    EXPECT_EQ(load(rule_kind::ioc, "5.9"), 0);
    EXPECT_EQ(load(rule_kind::ioc, "4.200"), 0);
    EXPECT_EQ(version(ENGINE_IOC), "5.10");
    EXPECT_EQ(status().at("packs"), before.at("packs"));
    EXPECT_EQ(load(rule_kind::ioc, "5.10"), 0);
    EXPECT_EQ(status().at("rules").at(0).at("count"), 2);
}

TEST_F(EngineRuleFiles, version_rises_as_much_later_as_was_set) {
    start_both();
    ASSERT_TRUE(rise("ioc", {{"after_ms", 600}, {"times", 1}}));
    const double seconds = seconds_of([this] {
        EXPECT_EQ(load(rule_kind::ioc, "2.0"), 0);
        EXPECT_TRUE(kze_test::eventually([this] { return version(ENGINE_IOC) == "2.0"; }));
    });
    EXPECT_GE(seconds, 0.59);
    EXPECT_EQ(load(rule_kind::ioc, "2.1"), 0);
    EXPECT_EQ(version(ENGINE_IOC), "2.1");
}

TEST_F(EngineRuleFiles, version_jumps_to_the_one_that_was_set_and_may_fall_to_it) {
    start_both();
    ASSERT_TRUE(rise("ioa", {{"to", "50"}}));
    EXPECT_EQ(load(rule_kind::ioa, "5"), 0);
    EXPECT_EQ(version(ENGINE_IOA), "50");
    ASSERT_TRUE(rise("ioa", {{"to", "3"}}));
    EXPECT_EQ(load(rule_kind::ioa, "60"), 0);
    EXPECT_EQ(version(ENGINE_IOA), "3");
    EXPECT_EQ(status().at("packs").at("ioa").at("version"), "60");
}

TEST_F(EngineRuleFiles, version_that_is_never_to_rise_stays_until_it_is_cleared) {
    start_both();
    ASSERT_TRUE(rise("ioc", {{"never", true}}));
    EXPECT_EQ(load(rule_kind::ioc, "2.0"), 0);
    EXPECT_EQ(version(ENGINE_IOC), "1.0");
    EXPECT_EQ(status().at("packs").at("ioc").at("version"), "2.0");
    EXPECT_EQ(status().at("rises").at("ioc").at("never"), true);
    ASSERT_TRUE(rise("ioc", json::object()));
    EXPECT_TRUE(status().at("rises").empty());
    EXPECT_EQ(load(rule_kind::ioc, "2.0"), 0);
    EXPECT_EQ(version(ENGINE_IOC), "2.0");
    ASSERT_TRUE(rise("ioc", {{"never", true}}));
    ASSERT_TRUE(tree.order({{"op", "clear"}}));
    EXPECT_TRUE(status().at("rises").empty());
}

TEST_F(EngineRuleFiles, load_that_fails_in_its_callback_leaves_the_version) {
    start_both();
    ASSERT_TRUE(tree.order({{"op", "answer"},
                            {"call", "x_client_engine_update_async"},
                            {"value", -16},
                            {"times", 1}}));
    EXPECT_EQ(load_async("8"), 0);
    ASSERT_TRUE(data.wait_for(1));
    EXPECT_EQ(version(ENGINE_MD), "1");
    ASSERT_TRUE(tree.order({{"op", "answer"},
                            {"call", "x_client_engine_update_async"},
                            {"callback_type", ENGINE_IOA},
                            {"callback_delay_ms", 300},
                            {"times", 1}}));
    EXPECT_EQ(load_async("8"), 0);
    ASSERT_TRUE(data.wait_for(2));
    ASSERT_TRUE(tree.order(
        {{"op", "answer"}, {"call", "x_client_engine_update_async"}, {"callback_never", true}}));
    EXPECT_EQ(load_async("9"), 0);
    EXPECT_EQ(data.items(), (std::vector<std::string>{"3:-16", "2:0"}));
    EXPECT_EQ(version(ENGINE_MD), "9");
}

}  // namespace
}  // namespace engine_test
