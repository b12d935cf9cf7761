/* The services beside the host: started, shown, watched over and stopped with the agent. */
#include <csignal>

#include "agent/tests/system/agent_tree.h"
#include "tests/support/process_state.h"

namespace kze_test {
namespace {

using nlohmann::json;

constexpr const char *programs[] = {"bin/agt_cfgc", "bin/agt_lkg", "bin/agt_rpdsp"};

class services : public system_test {};

TEST_F(services, up_starts_them_before_the_host_and_status_shows_them) {
    tree.must({"up", "--fresh"});
    const json shown = tree.ask({"status"})["services"];
    EXPECT_EQ(shown["agt_cfgc"]["pid"], tree.pid_of("bin/agt_cfgc"));
    EXPECT_EQ(shown["agt_lkg"]["pid"], tree.pid_of("bin/agt_lkg"));
    EXPECT_EQ(shown["agt_rpdsp"]["pid"], tree.pid_of("bin/agt_rpdsp"));
    EXPECT_EQ(shown["agt_cfgc"]["running"], true);
    const std::string text = tree.ctl({"status"}).out;
    EXPECT_NE(text.find("Configuration"), std::string::npos) << text;
    EXPECT_NE(text.find("Linkage"), std::string::npos) << text;
    EXPECT_NE(text.find("only reports"), std::string::npos) << text;
    EXPECT_TRUE(tree.has_logged("the service begins", 0, "agt_cfgc"));
    EXPECT_TRUE(tree.has_logged("the service begins", 0, "agt_lkg"));
    EXPECT_TRUE(tree.has_logged("the service begins", 0, "agt_rpdsp"));
    tree.must({"down"});
    expect_nothing_left(tree);
    EXPECT_TRUE(tree.has_logged("the service leaves", 0, "agt_cfgc"));
    EXPECT_TRUE(tree.has_logged("the service leaves", 0, "agt_lkg"));
}

TEST_F(services, up_without_the_engine_starts_them_all_the_same) {
    tree.must({"up", "--no-engine"});
    for (const char *program : programs) {
        EXPECT_NE(tree.pid_of(program), 0) << program;
    }
    EXPECT_EQ(tree.pid_of("qd_agent/bin/qd_agent"), 0);
    expect_forced_end(); /* the worker sleeps until it tries the engine again */
}

TEST_F(services, killed_one_is_started_again) {
    tree.must({"up"});
    for (const char *program : programs) {
        const pid_t before = tree.pid_of(program);
        kill(before, SIGKILL);
        EXPECT_TRUE(eventually([&] {
            const pid_t now = tree.pid_of(program);
            return now != 0 && now != before;
        })) << program;
    }
    EXPECT_TRUE(eventually([this] {
        const json shown = tree.ask({"status"})["services"];
        return shown["agt_cfgc"]["running"] == true && shown["agt_lkg"]["running"] == true &&
               shown["agt_rpdsp"]["running"] == true;
    }));
}

TEST_F(services, status_of_the_agent_stays_done_while_one_does_not_answer) {
    tree.must({"up"});
    const pid_t stopped = tree.pid_of("bin/agt_lkg");
    kill(stopped, SIGSTOP);
    const json shown = tree.ask({"status"})["services"];
    EXPECT_EQ(shown["agt_lkg"]["running"], false);
    EXPECT_EQ(shown["agt_cfgc"]["running"], true);
    kill(stopped, SIGCONT);
}

TEST_F(services, up_fails_and_names_the_program_when_one_is_missing) {
    tree.remove("bin/agt_lkg");
    const command_result result = tree.ctl({"up"});
    EXPECT_EQ(result.status, failed);
    EXPECT_NE(result.err.find("bin/agt_lkg: No such file"), std::string::npos) << result.err;
}

TEST_F(services, change_of_configuration_reaches_the_plug_in_at_once) {
    tree.must({"up"});
    tree.see("work loop start");
    const std::int64_t from = tree.mark();
    const json changed = tree.ask({"config", "set", "/mgr/base_collect", "/adv_threats", "true"});
    EXPECT_EQ(changed["notified"], true) << changed;
    tree.see("do cfgc notify success", from);
    const std::int64_t then = tree.mark();
    tree.must({"config", "module", "set", "base_drive", "enable=true", "collect_enable=false"});
    tree.see("handle adv threat [base_drive] cfg msg", then);
    EXPECT_TRUE(eventually([this] {
        return tree.has_logged("module \"base_drive\" answered with 2 fields", 0, "agt_cfgc");
    }));
}

TEST_F(services, linkage_analysis_that_is_requested_ends_as_a_reply_that_is_kept) {
    tree.switch_on();
    tree.must({"up"});
    tree.see("work loop start");
    tree.must({"request", "lkganal", "--text", "who was it"});
    tree.must({"lkg", "wait", "--result", "--contains", "who was it"});
    tree.must({"engine", "answer", "x_client_coordinate_dispose_trc", "--value", "-3"});
    tree.must({"request", "lkganal", "--text", "and who was that"});
    EXPECT_EQ(tree.ask({"lkg", "wait", "--failed", "--after", "1"})["id"], 2);
    tree.must({"down"});
    EXPECT_EQ(tree.ask({"lkg", "list"})["replies"].size(), 2U) << "kept without the service";
}

TEST_F(services, change_while_nobody_is_there_is_made_and_says_so) {
    const command_result set =
        tree.ctl({"config", "set", "/mgr/base_collect", "/adv_threats", "true"});
    EXPECT_EQ(set.status, done);
    EXPECT_NE(set.out.find("nobody is notified: the configuration service isn't running"),
              std::string::npos)
        << set.out;
    EXPECT_EQ(tree.ask({"config", "unset", "/mgr/base_collect", "/adv_threats"})["notified"],
              false);
    EXPECT_EQ(tree.ctl({"config", "module", "push", "trust_ip"}).status, not_running);
}

}  // namespace
}  // namespace kze_test
