/* Rule packs from the rule directory to the engine, at the shortest interval that is possible. */
#include <gmock/gmock.h>

#include <algorithm>

#include "agent/tests/system/agent_tree.h"
#include "tests/support/child_process.h"

namespace kze_test {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;

class packs : public system_test {
  protected:
    void start() {
        const std::string seconds = std::to_string(shortest_interval);
        tree.write("config/kzemdlmgr.ini", "[time]\nupgrade_check_interval = " + seconds + "\n");
        tree.switch_on();
        tree.must({"up"});
        tree.see("start upgrade timer(" + seconds + "000) success.", 0, "upgrade");
    }

    /* Makes packs of the form and its version; their paths. */
    std::string make(const std::string &form, const std::string &rule, const std::string &version,
                     const std::vector<std::string> &options = {}) const {
        tree.write("var/rules.txt", rule + "\n");
        std::vector<std::string> words = {
            "pack",      "make",  form, tree.path("var/rules.txt").string(),
            "--version", version, "-o", tree.path("var").string()};
        words.insert(words.end(), options.begin(), options.end());
        return tree.ask(words).value("pack", std::string());
    }
    void drop(std::vector<std::string> files) const {
        files.insert(files.begin(), {"pack", "drop"});
        tree.must(files);
    }
    /* Waits until a pack, by name or pattern, meets its fate. */
    json see_fate(const std::string &pack, const std::string &fate, int seconds) const {
        return tree.ask({"pack", "wait", pack, fate, "--timeout", std::to_string(seconds)});
    }
    std::vector<std::string> left() const {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(tree.path("hlthreat_rule"))) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    json versions() const { return tree.ask({"engine", "status"})["versions"]; }

    static constexpr int shortest_interval = 60;
    static constexpr int first_look = 90; /* seconds to the first look, with time to spare */
};

/* The fate and the pack of the next event that a watch prints. */
std::string next_event(child_process &watch) {
    const json event = json::parse(watch.read_line(), nullptr, false);
    return event.is_object() ? event.value("fate", "") + " " + event.value("pack", "") : "none";
}

/* At the first look the engine refuses, at the second one it doesn't. */
TEST_F(packs, all_kinds_raise_the_engines_versions_when_it_takes_them_and_go) {
    start();
    tree.must({"engine", "answer", "x_client_engine_update", "--for-type", "1", "--code", "-8",
               "--times", "1"});
    tree.must(
        {"engine", "answer", "x_client_engine_update_async", "--value", "-3", "--times", "1"});
    drop({make("ioc-full", "ip:192.0.2.1", "5.0"), make("ioc-inc", "ip:192.0.2.2", "4.9"),
          make("ioc-inc", "ip:192.0.2.3", "5.1", {"--from", "5.0"}),
          make("ioc-inc", "ip:192.0.2.4", "5.2", {"--from", "5.1", "--corrupt", "archive"}),
          make("ioa", "a rule", "12"), make("md", "Name.A:00", "7")});
    tree.write("config/ioc_full_tag", "");

    see_fate("ioc_inc_[any-4.9].tgz", "obsolete", first_look);
    EXPECT_EQ(see_fate("ioc_full_5.0.tgz", "refused and kept", 30)["code"], -8);
    EXPECT_EQ(see_fate("ioa_linux_en.tgz", "applied", 30)["engine"], "12");
    see_fate("md_linux.tgz", "refused and kept", 30);
    EXPECT_THAT(left(),
                ElementsAre("ioc_full_5.0.json", "ioc_full_5.0.tgz", "ioc_inc_[5.0-5.1].tgz",
                            "ioc_inc_[5.1-5.2].tgz", ::testing::StartsWith("md_linux_bk_")));

    EXPECT_EQ(see_fate("ioc_full_5.0.tgz", "applied", first_look)["engine"], "5.0");
    EXPECT_EQ(see_fate("ioc_inc_[5.0-5.1].tgz", "applied", 30)["engine"], "5.1");
    EXPECT_EQ(see_fate("md_linux.tgz", "applied", 30)["engine"], "7");
    see_fate("ioc_inc_[5.1-5.2].tgz", "unpack failed", 30);
    EXPECT_THAT(left(), ElementsAre("ioc_inc_[5.1-5.2].tgz"));
    EXPECT_FALSE(std::filesystem::exists(tree.path("config/ioc_full_tag")));
    EXPECT_THAT(tree.read("qd_agent/bin/kzedbd.cfg"), HasSubstr("rule=a rule"));
    EXPECT_EQ(versions(), (json{{"ioc", "5.1"}, {"ioa", "12"}, {"md", "7"}}));

    const json list = tree.ask({"pack", "list"});
    EXPECT_EQ(list["engine"], "5.1");
    EXPECT_EQ(list["packs"][0]["verdict"], "goes");
    tree.remove("hlthreat_rule/ioc_inc_[5.1-5.2].tgz");
    EXPECT_EQ(tree.ctl({"pack", "watch", "--until-empty", "--timeout", "10"}).status, done);
}

/* What is done by hand is done before the first look. */
TEST_F(packs, a_watch_shows_what_is_done_by_hand_and_what_the_plug_in_and_the_engine_drop) {
    start();
    tree.must({"engine", "version", "ioc", "4.0"});
    drop({make("ioa", "a rule", "12", {"--corrupt", "rules"})});
    child_process watch({tree.path("bin/kzectl").string(), "pack", "watch", "--json", "--from-now",
                         "--until-empty", "--timeout", std::to_string(first_look)});
    EXPECT_EQ(next_event(watch), "waiting ioa_linux_en.tgz");
    const std::string full = make("ioc-full", "ip:192.0.2.1", "5.0");
    drop({full});
    EXPECT_EQ(next_event(watch), "new ioc_full_5.0.tgz");
    drop({full});
    EXPECT_EQ(next_event(watch), "replaced ioc_full_5.0.tgz");
    tree.remove("hlthreat_rule/ioc_full_5.0.tgz");
    EXPECT_EQ(next_event(watch), "gone ioc_full_5.0.tgz");

    drop({make("ioc-full", "ip:192.0.2.1", "3.0"),
          make("ioc-inc", "ip:192.0.2.2", "5.0", {"--corrupt", "rules"}),
          make("md", "Name.A:00", "7", {"--corrupt", "rules"})});
    see_fate("ioc_full_3.0.tgz", "too old", first_look);
    EXPECT_EQ(see_fate("ioc_inc_[any-5.0].tgz", "refused and dropped", 30)["code"], -7);
    see_fate("ioa_linux_en.tgz", "refused and dropped", 30);
    see_fate("md_linux.tgz", "refused and dropped", 30);
    std::vector<std::string> told;
    while (told.size() < 20 && (told.empty() || told.back() != "none")) {
        told.push_back(next_event(watch));
    }
    EXPECT_EQ(watch.wait(), 0) << watch.read_errors();
    EXPECT_THAT(
        told, IsSupersetOf({"new ioc_full_3.0.tgz", "too old ioc_full_3.0.tgz",
                            "refused and dropped ioc_inc_[any-5.0].tgz", "renamed ioa_linux_en.tgz",
                            "renamed md_linux.tgz", "refused and dropped ioa_linux_en.tgz",
                            "refused and dropped md_linux.tgz"}));
    EXPECT_THAT(left(), ElementsAre("ioc_inc_[any-5.0].json")) << "what was refused can be studied";
    EXPECT_EQ(versions(), (json{{"ioc", "4.0"}, {"ioa", "1"}, {"md", "1"}}));
}

}  // namespace
}  // namespace kze_test
