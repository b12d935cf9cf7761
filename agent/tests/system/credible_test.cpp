/* Credible events through the whole agent: to the gateway, and to the end of a process. */
#include <nlohmann/json.hpp>

#include "agent/tests/system/agent_tree.h"
#include "tests/support/child_process.h"
#include "tests/support/process_state.h"

namespace kze_test {
namespace {

using nlohmann::json;

class credible : public system_test {
  protected:
    /* The plug-in works with these switches, and the disposal service ends processes. */
    void start(const char *mask) {
        tree.switch_on();
        tree.set("/mgr/auto_dispose", "/switch", mask);
        tree.must({"up"});
        tree.see("work loop start");
        tree.must({"disposal", "mode", "kill"});
        const std::string own = std::filesystem::read_symlink("/proc/self/exe");
        ASSERT_TRUE(eventually([&] { return program() != "" && program() != own; }));
    }
    std::string pid() const { return std::to_string(process_.pid()); }
    /* What the process runs; nothing once it has ended. */
    std::string program() const {
        std::error_code ended;
        return std::filesystem::read_symlink("/proc/" + pid() + "/exe", ended);
    }
    void raise(const std::string &scene, std::vector<std::string> options = {}) const {
        options.insert(options.begin(), {"engine", "credible", "--scene", scene, "--pid", pid()});
        tree.must(options);
    }
    json event_behind(std::int64_t mark) const {
        const std::int64_t id = tree.wait_record("credible", mark);
        return tree.ask({"gateway", "show", std::to_string(id)})["credible"];
    }
    std::int64_t orders() const { return tree.ask({"disposal", "mark"})["id"]; }
    std::size_t events() const {
        return tree.ask({"gateway", "list", "--type", "credible"})["records"].size();
    }

    child_process process_{{"/bin/sleep", "600"}};
};

TEST_F(credible, event_is_marked_reported_and_its_process_ended_for_each_scene_that_is_on) {
    start("2");
    raise("phishing");
    const json event = event_behind(0);
    EXPECT_EQ(event["disposal_state_name"], "DISPOSAL_STATE_AUTO_DISPOSING");
    EXPECT_EQ(event["scene_name"], "EVENT_PHISHING");
    EXPECT_EQ(event["unknown_bytes"], 100) << "what the schema doesn't know is kept";
    const json order = tree.ask({"disposal", "wait", "--pid", pid(), "--fate", "ended"});
    EXPECT_EQ(order["code"], 0);
    EXPECT_EQ(order["agent_id"], event["agent_id"]);
    EXPECT_EQ(order["tasks"].size(), 1U);
    EXPECT_EQ(order["tasks"][0]["alert_id"], event["actions"][0]["alert_id"]);
    EXPECT_EQ(order["tasks"][0]["processes"].size(), 1U) << "its parent is not to be ended";
    EXPECT_EQ(program(), "");
    tree.see("auto dispose task to rpdsp success, retry time: 0");
}

TEST_F(credible, event_of_a_scene_that_is_off_goes_up_as_it_came_and_nothing_is_ended) {
    start("2");
    raise("web");
    EXPECT_EQ(event_behind(0)["disposal_state_name"], "DISPOSAL_STATE_UNHANDLED");
    const std::int64_t from = tree.newest_record();
    raise("3");
    const json other = event_behind(from);
    EXPECT_EQ(other["disposal_state_name"], "DISPOSAL_STATE_UNHANDLED");
    EXPECT_EQ(other["scene_name"], "3");
    EXPECT_EQ(orders(), 0);
    EXPECT_NE(program(), "");
}

TEST_F(credible, each_action_is_a_task_of_its_own_and_a_reused_id_is_not_hit) {
    start("1");
    raise("web", {"--actions", "2", "--reused"});
    const json order = tree.ask({"disposal", "wait", "--pid", pid(), "--fate", "another"});
    ASSERT_EQ(order["tasks"].size(), 2U);
    EXPECT_NE(order["tasks"][0]["task_id"], order["tasks"][1]["task_id"]);
    EXPECT_EQ(order["tasks"][1]["processes"].size(), 0U) << "an action without a process";
    EXPECT_NE(program(), "");
}

TEST_F(credible, event_without_actions_is_marked_and_ordered_by_nobody) {
    start("1");
    const std::int64_t from = tree.mark("host");
    raise("web", {"--malformed", "no-action"});
    EXPECT_EQ(event_behind(0)["disposal_state_name"], "DISPOSAL_STATE_AUTO_DISPOSING");
    tree.see("no action need dispose.", from, "host");
    tree.see("send_event_to_autodsp failed", from, "host");
    EXPECT_EQ(orders(), 0);
}

TEST_F(credible, order_is_tried_four_times_while_the_service_is_away_and_then_given_up) {
    start("1");
    ASSERT_EQ(run_program({tree.path("bin/vrd_services").string(), "stop", "07agt_rpdsp"}).status,
              0);
    const std::int64_t from = tree.mark();
    raise("web");
    tree.see("send auto dispose task to rpdsp 3 time", from);
    tree.see("auto dispose task to rpdsp failed by 3 times, stop retry", from);
    EXPECT_FALSE(tree.has_logged("send auto dispose task to rpdsp 4 time", from));
    EXPECT_EQ(event_behind(0)["disposal_state_name"], "DISPOSAL_STATE_AUTO_DISPOSING");
    EXPECT_NE(program(), "");
}

TEST_F(credible, malformed_event_goes_nowhere_and_the_next_one_is_handled) {
    start("1");
    for (const auto &[defect, line] :
         {std::pair("version", "credible(auto dispose) subscription data invalid"),
          std::pair("length", "credible(auto dispose) subscription data invalid"),
          std::pair("empty", "credible(auto dispose) subscription data invalid"),
          std::pair("body", "parse qd_engine_sub_credible data to proto failed"),
          std::pair("cmd", "get wrong qd_eng_sub_credible_cb data cmd: 3"),
          std::pair("no-rule", "get unknow credible event scene."),
          std::pair("no-scene", "get unknow credible event scene.")}) {
        const std::int64_t from = tree.mark("host");
        raise("web", {"--malformed", defect});
        tree.see("do auto dispose failed", tree.see(line, from, "host"), "host");
    }
    EXPECT_EQ(events(), 0U);
    EXPECT_EQ(orders(), 0);
    raise("web");
    tree.must({"disposal", "wait", "--pid", pid(), "--fate", "ended"});
    event_behind(0);
    EXPECT_EQ(events(), 1U);
}

}  // namespace
}  // namespace kze_test
