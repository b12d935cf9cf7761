/* The engine's capabilities follow central configuration. */
#include <algorithm>

#include "agent/tests/system/agent_tree.h"

namespace kze_test {
namespace {

using names = std::vector<std::string>;

class capabilities : public system_test {
  protected:
    names sorted_on() const {
        names on = tree.capabilities_on();
        std::sort(on.begin(), on.end());
        return on;
    }
};

const char all_sent[] = "set engine switch success";

TEST_F(capabilities, all_are_off_while_the_configuration_is_missing_and_go_on_once_it_is_there) {
    tree.must({"up"});
    tree.see("get cfgc switch failed, start retry");
    tree.see(all_sent);
    EXPECT_EQ(sorted_on(), names());
    const std::int64_t from = tree.mark();
    tree.switch_on();
    const std::int64_t behind = tree.see("set engine switch success, stop timer", from);
    tree.see(all_sent, behind);
    EXPECT_EQ(sorted_on(), (names{"collect", "detanal", "ioa", "ioc", "md", "reverseshell"}));
}

TEST_F(capabilities, a_configuration_that_is_there_at_the_start_needs_no_retry) {
    tree.switch_on();
    tree.must({"up"});
    tree.see(all_sent);
    EXPECT_FALSE(tree.has_logged("start retry"));
    EXPECT_EQ(sorted_on().size(), 6U);
}

TEST_F(capabilities, adv_threats_off_leaves_only_what_has_a_key_of_its_own) {
    tree.set("/mgr/base_collect", "/adv_threats", "false");
    tree.set("/mgr/abnormal_login", "/abnormal_ip_login_enable", "true");
    tree.set("/mgr/abnormal_login", "/reverseshell_enable", "true");
    tree.must({"up"});
    tree.see(all_sent);
    EXPECT_EQ(sorted_on(), names{"abnormal_ip_login"});
}

TEST_F(capabilities, brute_force_over_ssh_needs_the_global_switch_as_well) {
    tree.set("/mgr/base_collect", "/adv_threats", "false");
    tree.set("/mgr/anti_bfa", "/ssh_enable", "1");
    tree.must({"up"});
    const std::int64_t from = tree.see(all_sent);
    EXPECT_EQ(sorted_on(), names());
    tree.set("/mgr/anti_bfa", "/enable", "1");
    tree.must({"reload"});
    tree.see(all_sent, from);
    EXPECT_EQ(sorted_on(), names{"bruteforce_ssh"});
}

TEST_F(capabilities, a_changed_value_is_read_at_the_plug_ins_next_start) {
    tree.switch_on();
    tree.must({"up"});
    const std::int64_t from = tree.see(all_sent);
    tree.set("/mgr/base_collect", "/adv_threats", "false");
    tree.must({"reload"});
    tree.see(all_sent, from);
    EXPECT_EQ(sorted_on(), names());
}

TEST_F(capabilities, a_cnapp_agent_has_all_on_but_reverse_shell) {
    tree.write("config/agent.ini", "[agent]\nkind = cnapp\n[plugins]\nload = kzemdlmgr\n");
    tree.set("/mgr/base_collect", "/adv_threats", "false");
    tree.must({"up"});
    tree.see("cnapp agent will enable all switch");
    tree.see(all_sent);
    const names on = sorted_on();
    EXPECT_EQ(on.size(), 9U) << ::testing::PrintToString(on);
    EXPECT_EQ(std::count(on.begin(), on.end(), "reverseshell"), 0);
}

TEST_F(capabilities, a_refused_one_is_noted_for_a_retry_and_the_others_still_go_on) {
    tree.must({"engine", "answer", "x_client_engine_control", "--code", "-5", "--for-type", "6"});
    tree.switch_on();
    tree.must({"up"});
    tree.see("switch 6 status: 2 failed");
    tree.see("need to retry switch engine");
    tree.see("start switch timer success");
    EXPECT_EQ(sorted_on(), (names{"detanal", "ioa", "ioc", "md", "reverseshell"}));
}

}  // namespace
}  // namespace kze_test
