/* Management requests and custom rules through the whole agent: responses, results, refusals. */
#include <chrono>

#include "agent/tests/system/agent_tree.h"

namespace kze_test {
namespace {

using nlohmann::json;

/* The exit statuses of refused requests. */
constexpr int queue_full = 11;
constexpr int no_permission = 12;
constexpr int invalid = 13;

class requests : public system_test {
  protected:
    void SetUp() override {
        tree.switch_on();
        tree.must({"up"});
        tree.see("work loop start");
    }

    int request(const std::string &kind, const std::string &text) const {
        return tree.ctl({"request", kind, "--text", text}).status;
    }
    int request_rules(const std::string &id, const std::string &rules) const {
        return tree.ctl({"request", "ioa", "--rules-id", id, "--rules", rules}).status;
    }
    /* Makes the engine's next coordinate order take its time, sends it, and waits until it runs. */
    void keep_engine_busy(const std::string &milliseconds) const {
        const std::int64_t from = tree.mark("task");
        tree.must({"engine", "answer", "x_client_coordinate", "--delay-ms", milliseconds, "--times",
                   "1"});
        ASSERT_EQ(request("linkage", "slow"), done);
        tree.see("run task, type: 1", from, "task");
    }
    std::size_t records(const std::string &type) const {
        return tree.ask({"gateway", "list", "--type", type})["records"].size();
    }
    std::int64_t wait_reply(const std::string &text) const {
        return tree.ask({"lkg", "wait", "--contains", text, "--timeout", "30"})["id"];
    }
    /* The gateway's result about a set of rules. */
    json result_of(const std::string &id) const {
        const std::int64_t record =
            tree.wait_record("ctmioa_result", 0, "\"rulesId\":\t\"" + id + "\"");
        return tree.ask({"gateway", "show", std::to_string(record)});
    }
};

TEST_F(requests, results_of_orders_reach_the_gateway_under_their_types) {
    const std::vector<std::pair<std::string, int>> kinds = {
        {"linkage", 2}, {"append", 3}, {"hunting", 4}};
    for (const auto &[kind, type] : kinds) {
        const std::string text = "the " + kind + " order";
        EXPECT_EQ(request(kind, text), done) << kind;
        const std::int64_t record = tree.wait_record(kind, 0, "\"text\":\"" + text + "\"");
        EXPECT_EQ(tree.ask({"gateway", "show", std::to_string(record)})["type"], type);
    }
}

TEST_F(requests, a_file_reaches_the_engine_byte_for_byte) {
    const std::string bytes("\0\1\xFF\x80 bytes", 10);
    tree.write("var/order", bytes);
    EXPECT_EQ(tree.ctl({"request", "linkage", tree.path("var/order").string()}).status, done);
    tree.wait_record("linkage", 0, "\"md5\":\"7284fed4786b7102032c739d7b892b50\"");
    EXPECT_EQ(tree.ask({"engine", "status"})["orders"]["linkage"]["count"], 1);
}

TEST_F(requests, the_result_of_an_analysis_reaches_the_linkage_service) {
    EXPECT_EQ(request("lkganal", "what is asked"), done);
    EXPECT_GT(wait_reply("what is asked"), 0);
}

TEST_F(requests, an_analysis_that_fails_is_told_as_well) {
    tree.must(
        {"engine", "answer", "x_client_coordinate_dispose_trc", "--value", "-5", "--times", "1"});
    EXPECT_EQ(request("lkganal", "in vain"), done);
    EXPECT_GT(tree.ask({"lkg", "wait", "--failed", "--timeout", "30"})["id"].get<int>(), 0);
}

TEST_F(requests, all_are_refused_while_their_switch_is_off_and_taken_afterwards) {
    std::int64_t from = tree.mark();
    tree.set("/mgr/base_collect", "/adv_threats", "false");
    tree.see("do cfgc notify success", from);
    for (const char *kind : {"linkage", "append", "hunting", "ioa", "lkganal"}) {
        EXPECT_EQ(request(kind, "order"), no_permission) << kind;
    }
    from = tree.mark();
    tree.set("/mgr/base_collect", "/adv_threats", "true");
    tree.see("do cfgc notify success", from);
    for (const char *kind : {"linkage", "append", "hunting", "ioa", "lkganal"}) {
        EXPECT_EQ(request(kind, "order"), done) << kind;
    }
}

TEST_F(requests, a_broken_frame_is_invalid_whatever_the_switch_says) {
    const std::vector<std::string> broken = {"request", "hunting", "--raw", "--text", "no frame"};
    EXPECT_EQ(tree.ctl(broken).status, invalid);
    EXPECT_EQ(tree.ctl({"request", "append", "--text", ""}).status, invalid);
    const std::int64_t from = tree.mark();
    tree.set("/mgr/base_collect", "/adv_threats", "false");
    tree.see("do cfgc notify success", from);
    EXPECT_EQ(tree.ctl(broken).status, invalid);
}

TEST_F(requests, a_full_queue_refuses_and_all_that_it_took_is_done) {
    keep_engine_busy("3000");
    const command_result many =
        tree.ctl({"--json", "request", "append", "--text", "one of many", "--count", "12"});
    EXPECT_EQ(many.status, queue_full);
    EXPECT_EQ(json::parse(many.out)["responses"],
              json({{{"code", 0}, {"count", 10}, {"name", "KZEMM_TRACE_OK"}},
                    {{"code", 1}, {"count", 2}, {"name", "KZEMM_TRACE_QUEUE_FULL"}}}));
    /* A queue that is full refuses also what would replace a task in it. */
    EXPECT_EQ(request("hunting", "order"), queue_full);
    tree.wait_record("linkage", 0, "slow");
    ASSERT_EQ(request("append", "the last"), done);
    tree.wait_record("append", 0, "the last");
    EXPECT_EQ(records("append"), 11U);
}

TEST_F(requests, of_hunting_orders_that_wait_only_the_newest_is_done) {
    keep_engine_busy("2000");
    for (const char *text : {"first", "second", "third"}) {
        EXPECT_EQ(request("hunting", text), done) << text;
    }
    tree.wait_record("hunting", 0, "third");
    EXPECT_EQ(records("hunting"), 1U);
    EXPECT_EQ(tree.ask({"engine", "status"})["orders"]["hunting"]["count"], 1);
}

TEST_F(requests, an_order_that_the_engine_refuses_was_queued_and_is_lost_with_a_line) {
    const std::int64_t from = tree.mark("task");
    tree.must({"engine", "answer", "x_client_coordinate", "--code", "-5", "--times", "1"});
    EXPECT_EQ(request("linkage", "refused"), done);
    tree.see("qd-agent return err:-5", from, "task");
    EXPECT_EQ(request("linkage", "taken"), done);
    tree.wait_record("linkage", 0, "taken");
    EXPECT_EQ(records("linkage"), 1U);
}

TEST_F(requests, down_waits_for_the_running_order_and_drops_those_behind_it) {
    keep_engine_busy("2000");
    ASSERT_EQ(tree.ctl({"request", "append", "--text", "queued", "--count", "5"}).status, done);
    const auto begun = std::chrono::steady_clock::now();
    tree.must({"down", "--timeout", "20"});
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(10));
    EXPECT_TRUE(tree.has_logged("task thread is stopped"));
    EXPECT_FALSE(tree.has_logged("run task, type: 2", 0, "task"));
    expect_nothing_left(tree);
}

TEST_F(requests, without_the_agent_end_with_the_status_that_says_so) {
    tree.must({"down"});
    EXPECT_EQ(request("linkage", "order"), not_running);
}

TEST_F(requests, rules_that_are_accepted_are_in_force_stored_and_announced_at_the_next_start) {
    EXPECT_EQ(request_rules("set-1", "rule one"), done);
    const json result = result_of("set-1");
    EXPECT_EQ(result["report"]["res"], 0);
    EXPECT_EQ(result["frame"]["proto_type"], 2);
    EXPECT_EQ(result["frame"]["net_order"], false);
    EXPECT_EQ(tree.ask({"ioa", "status"})["stored"], "set-1");
    EXPECT_NE(tree.ctl({"engine", "rules", "custom_ioa"}).out.find("rule one"), std::string::npos);

    const std::int64_t from = tree.newest_record();
    tree.must({"reload"});
    tree.wait_record("ctmioa_hello", from, "set-1");
    EXPECT_EQ(tree.ask({"ioa", "status"})["hello"]["rulesId"], "set-1");
}

TEST_F(requests, the_first_hello_has_the_identifier_0) {
    tree.wait_record("ctmioa_hello", 0);
    const json status = tree.ask({"ioa", "status"});
    EXPECT_EQ(status["hello"]["rulesId"], "0");
    EXPECT_EQ(status["stored"], "0");
    EXPECT_TRUE(status["result"].is_null());
}

TEST_F(requests, rules_that_the_engine_refuses_are_reported_and_change_nothing) {
    EXPECT_EQ(request_rules("set-1", "rule one"), done);
    EXPECT_EQ(result_of("set-1")["report"]["res"], 0);
    /* By the call's result, and by its callback's. */
    tree.must({"engine", "answer", "x_client_engine_update_by_data", "--code", "-16", "--for-type",
               "7", "--times", "1"});
    EXPECT_EQ(request_rules("set-2", "rule two"), done);
    EXPECT_EQ(result_of("set-2")["report"]["res"], -3);
    tree.must({"engine", "answer", "x_client_engine_update_by_data", "--value", "2", "--for-type",
               "7", "--times", "1"});
    EXPECT_EQ(request_rules("set-3", "rule three"), done);
    EXPECT_EQ(result_of("set-3")["report"]["res"], -6);

    const json status = tree.ask({"ioa", "status"});
    EXPECT_EQ(status["stored"], "set-1");
    EXPECT_EQ(status["result"]["rulesId"], "set-3");
    EXPECT_NE(tree.ctl({"engine", "rules", "custom_ioa"}).out.find("rule one"), std::string::npos);
}

TEST_F(requests, a_rule_set_without_rules_is_dropped_and_the_console_hears_nothing) {
    const std::int64_t from = tree.mark("task");
    EXPECT_EQ(request("ioa", "no JSON"), done);
    tree.see("load msg_json failed, err: ", from, "task");
    EXPECT_EQ(request_rules("set-1", ""), done);
    tree.see("ioa rule len:0, rule_id len:5", from, "task");
    EXPECT_EQ(request_rules("set-2", "rules"), done);
    EXPECT_EQ(result_of("set-2")["report"]["res"], 0);
    EXPECT_EQ(records("ctmioa_result"), 1U);
}

}  // namespace
}  // namespace kze_test
