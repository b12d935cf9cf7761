/* The four configuration modules through the whole agent: set, in the engine, there again after it
 * died. */
#include <map>

#include "agent/tests/system/agent_tree.h"
#include "tests/support/process_state.h"

namespace kze_test {
namespace {

using nlohmann::json;

class modules : public system_test {
  protected:
    void SetUp() override {
        tree.switch_on();
        tree.must({"up"});
        tree.see("work loop start");
    }

    /* The first lines of the texts that the engine holds, by capability and part. */
    std::map<std::string, std::string> texts() const {
        std::map<std::string, std::string> held;
        const command_result result = tree.ctl({"--json", "engine", "rules"});
        if (result.status != done) {
            return held;
        }
        const json shown = json::parse(result.out);
        for (const json &text : shown["texts"]) {
            held[text["name"].get<std::string>() + "/" + text["part"].get<std::string>()] =
                text["first_line"];
        }
        return held;
    }
    /* The states of the drive and of its collect switch. */
    std::pair<int, int> drive() const {
        const command_result result = tree.ctl({"--json", "engine", "drive"});
        if (result.status != done) {
            return {-1, -1};
        }
        const json shown = json::parse(result.out);
        return {shown["drive"], shown["collect"]};
    }
};

TEST_F(modules, all_four_are_in_the_engine_and_there_again_after_it_died) {
    const std::map<std::string, std::string> expected = {
        {"abnormal_ip_login/", "login rules"},
        {"abnormal_scan/", "login rules"},
        {"bruteforce_ssh/", "ssh rules"},
        {"bruteforce_ssh/tkbfd",
         R"({"tkbfd":{"white_ip":{"ips":["10.0.0.1"],"need_update":true}}})"}};
    const std::pair<int, int> both_on = {1, 1};
    EXPECT_TRUE(texts().empty());
    tree.must({"config", "module", "set", "abnormal_login", "config=login rules",
               "abnormal_ip_login_enable=true", "abnormal_time_login_enable=false",
               "abnormal_scan_enable=true"});
    tree.must({"config", "module", "set", "anti_bfa", "config=ssh rules", "enable=true",
               "ssh_enable=true"});
    tree.must({"config", "module", "set", "trust_ip", R"(white_ip={"ips":["10.0.0.1"]})"});
    tree.must({"config", "module", "set", "base_drive", "enable=true", "collect_enable=true"});
    EXPECT_TRUE(eventually([&] { return texts() == expected; }))
        << ::testing::PrintToString(texts());
    EXPECT_TRUE(eventually([&] { return drive() == both_on; }))
        << ::testing::PrintToString(drive());

    /* Texts die with the process; the states are kept, and so are put back by hand. */
    const std::int64_t from = tree.mark();
    tree.must({"engine", "die"});
    tree.must({"engine", "drive", "--drive", "0", "--collect", "0"});
    tree.see("request cfgc success", from);
    EXPECT_TRUE(eventually([&] { return texts() == expected; }))
        << ::testing::PrintToString(texts());
    EXPECT_TRUE(eventually([&] { return drive() == both_on; }))
        << ::testing::PrintToString(drive());
}

}  // namespace
}  // namespace kze_test
