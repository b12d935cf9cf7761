/* kzectl config module, config set and lkg, as a script uses them. */
#include <gmock/gmock.h>

#include <thread>

#include "agent/services/record_forms.h"
#include "agent/tests/component/services/service_process.h"
#include "tests/support/command_run.h"

namespace kze_test {
namespace {

using nlohmann::json;
using testing::HasSubstr;

command_run kzectl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KZECTL);
    return run_command(arguments);
}

class ModuleCommands : public service_test {
  protected:
    ModuleCommands() : service_test("agt_cfgc") { tree.write("bin/kze_agent", ""); }

    json fields_of(const std::string &module) {
        return kzectl({"--json", "config", "module", "show", module}).value.at("fields");
    }
};

TEST_F(ModuleCommands, set_stores_all_fields_and_announces_the_module) {
    loop_thread loop;
    counter announced;
    const test_endpoint plugin(loop, "agt_rpt", nullptr,
                               [&](const incoming &) { announced.add(); });
    const command_run set = kzectl({"--json", "config", "module", "set", "anti_bfa", "config=rules",
                                    "enable=1", "ssh_enable=false"});
    EXPECT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(set.value["notified"], true) << set.out;
    EXPECT_EQ(set.value["fields"], json({"config", "enable", "ssh_enable"}));
    EXPECT_TRUE(announced.reaches(1));
    EXPECT_EQ(fields_of("anti_bfa"),
              (json{{"config", "rules"}, {"enable", "true"}, {"ssh_enable", "false"}}));
    EXPECT_EQ(kzectl({"config", "get", "/mgr/anti_bfa", "/enable"}).out, "true\n");
}

TEST_F(ModuleCommands, value_comes_from_a_file_where_it_begins_with_an_at_sign) {
    tree.write("rules", "line one\nline two\n");
    const std::string path = tree.path("rules").string();
    EXPECT_EQ(kzectl({"config", "module", "set", "abnormal_login", "config=@" + path}).status, 0);
    EXPECT_EQ(fields_of("abnormal_login"), (json{{"config", "line one\nline two\n"}}));
    const command_run missing =
        kzectl({"config", "module", "set", "abnormal_login", "config=@" + path + "x"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_THAT(missing.err, HasSubstr("can't read " + path + "x"));
}

TEST_F(ModuleCommands, what_does_not_fit_its_field_is_refused_and_nothing_is_changed) {
    const std::vector<std::vector<std::string>> wrong = {
        {"set", "anti_bfa", "config=x", "enable=yes"},
        {"set", "anti_bfa", "config=x", "other=1"},
        {"set", "anti_bfa", "config=x", "enable"},
        {"set", "trust_ip", "white_ip=[1]"},
        {"set", "nothing", "config=x"},
        {"set", "anti_bfa"},
        {"show", "nothing"},
        {"push", "trust_ip", "nothing"},
    };
    for (std::vector<std::string> arguments : wrong) {
        arguments.insert(arguments.begin(), {"config", "module"});
        EXPECT_EQ(kzectl(arguments).status, 2) << testing::PrintToString(arguments);
    }
    EXPECT_EQ(fields_of("anti_bfa"), json::object());
    EXPECT_THAT(kzectl({"config", "module", "show", "nothing"}).err,
                HasSubstr("abnormal_login anti_bfa trust_ip base_drive"));
    EXPECT_THAT(kzectl({"config", "module", "set", "anti_bfa", "other=1"}).err,
                HasSubstr("config enable ssh_enable"));
}

TEST_F(ModuleCommands, show_tells_what_is_missing_and_what_is_no_string) {
    kzectl({"config", "set", "/mgr/base_drive", "/enable", "true", "--type", "boolean"});
    const json shown = kzectl({"--json", "config", "module", "show", "base_drive"}).value;
    EXPECT_EQ(shown["fields"], json::object());
    EXPECT_EQ(shown["no_text"], json({"enable"}));
    EXPECT_EQ(shown["missing"], json({"collect_enable"}));
    EXPECT_THAT(kzectl({"config", "module", "show", "base_drive"}).out,
                HasSubstr("stored as no string, left out"));
}

TEST_F(ModuleCommands, push_announces_without_a_change_and_fails_when_nobody_is_there) {
    const command_run nobody = kzectl({"config", "module", "push", "trust_ip"});
    EXPECT_EQ(nobody.status, 3);
    EXPECT_THAT(nobody.err, HasSubstr("\"agt_rpt\" takes no message"));
    loop_thread loop;
    counter announced;
    const test_endpoint plugin(loop, "agt_rpt", nullptr,
                               [&](const incoming &) { announced.add(); });
    EXPECT_EQ(kzectl({"config", "module", "push", "trust_ip", "base_drive"}).status, 0);
    EXPECT_TRUE(announced.reaches(1));
    EXPECT_FALSE(std::filesystem::exists(tree.path("config/kzacfgc/store.json")));
}

TEST_F(ModuleCommands, set_and_unset_of_a_value_below_mgr_announce_it_and_others_do_not) {
    loop_thread loop;
    counter announced;
    const test_endpoint plugin(loop, "agt_rpt", nullptr,
                               [&](const incoming &) { announced.add(); });
    EXPECT_EQ(kzectl({"--json", "config", "set", "/mgr/global", "/x", "1"}).value["notified"],
              true);
    EXPECT_EQ(kzectl({"--json", "config", "unset", "/mgr/global", "/x"}).value["notified"], true);
    ASSERT_TRUE(announced.reaches(2));
    const json again = kzectl({"--json", "config", "unset", "/mgr/global", "/x"}).value;
    EXPECT_FALSE(again.contains("notified")) << "nothing was changed";
    const json other = kzectl({"--json", "config", "set", "/other/global", "/x", "1"}).value;
    EXPECT_FALSE(other.contains("notified"));
    EXPECT_EQ(status()["announced"], 2);
}

TEST_F(ModuleCommands, change_is_made_and_nobody_notified_without_the_service) {
    kill_service();
    std::filesystem::remove(socket_path("agt_cfgc"));
    const command_run set = kzectl({"config", "module", "set", "trust_ip", "white_ip={}"});
    EXPECT_EQ(set.status, 0);
    EXPECT_THAT(set.out, HasSubstr("nobody is notified: the configuration service isn't running"));
    EXPECT_EQ(fields_of("trust_ip"), (json{{"white_ip", "{}"}}));
    EXPECT_EQ(kzectl({"config", "module", "push", "trust_ip"}).status, 3);
}

class LkgCommands : public ipc_fixture {
  protected:
    void SetUp() override { tree.write("bin/kze_agent", ""); }

    kze::record_writer replies_{tree.path("var/lib/linkage.db").string(),
                                kze::services::linkage_replies};
};

TEST_F(LkgCommands, there_is_nothing_before_the_first_reply) {
    EXPECT_EQ(kzectl({"lkg", "mark"}).out, "0\n");
    EXPECT_EQ(kzectl({"--json", "lkg", "list"}).value["replies"], json::array());
    EXPECT_EQ(kzectl({"lkg", "tail"}).out, "");
    EXPECT_EQ(kzectl({"lkg", "show", "1"}).status, 5);
    EXPECT_EQ(kzectl({"lkg", "wait", "--timeout", "0"}).status, 4);
}

TEST_F(LkgCommands, replies_are_listed_shown_and_told_from_failures) {
    ASSERT_TRUE(replies_.append({"{\"found\":\"\x1B[31m\"}"}) && replies_.append({""}));
    const json all = kzectl({"--json", "lkg", "list"}).value["replies"];
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0]["failed"], false);
    EXPECT_EQ(all[1]["failed"], true);
    EXPECT_EQ(kzectl({"--json", "lkg", "list", "--limit", "1"}).value["replies"][0]["id"], 2);
    EXPECT_EQ(kzectl({"--json", "lkg", "list", "--after", "1"}).value["replies"].size(), 1U);
    EXPECT_THAT(kzectl({"lkg", "tail", "-n", "5"}).out, HasSubstr("\\x1B[31m"));
    EXPECT_THAT(kzectl({"lkg", "show", "2"}).out, HasSubstr("the analysis failed"));
    EXPECT_EQ(kzectl({"--json", "lkg", "show", "1"}).value["content"], "{\"found\":\"\x1B[31m\"}");
    EXPECT_EQ(kzectl({"lkg", "show", "1", "--raw"}).out, "{\"found\":\"\x1B[31m\"}");
    EXPECT_EQ(kzectl({"lkg", "mark"}).out, "2\n");
}

TEST_F(LkgCommands, wait_ends_with_the_reply_that_fits) {
    ASSERT_TRUE(replies_.append({"one"}) && replies_.append({""}) && replies_.append({"two"}));
    EXPECT_EQ(kzectl({"lkg", "wait"}).out, "1\n");
    EXPECT_EQ(kzectl({"lkg", "wait", "--failed"}).out, "2\n");
    EXPECT_EQ(kzectl({"lkg", "wait", "--result", "--after", "1"}).out, "3\n");
    EXPECT_EQ(kzectl({"lkg", "wait", "--contains", "tw"}).out, "3\n");
    EXPECT_EQ(kzectl({"lkg", "wait", "--contains", "three", "--timeout", "0.2"}).status, 4);
    EXPECT_EQ(kzectl({"lkg", "wait", "--failed", "--result"}).status, 2);
    child_process waiting({KZECTL, "lkg", "wait", "--after", "3", "--timeout", "20"});
    ASSERT_TRUE(replies_.append({"four"}));
    EXPECT_EQ(waiting.read_line(), "4");
    EXPECT_EQ(waiting.wait(), 0);
}

TEST_F(LkgCommands, tail_goes_on_with_what_comes_and_into_a_new_file) {
    ASSERT_TRUE(replies_.append({"old"}));
    child_process following({KZECTL, "--json", "lkg", "tail", "-f"});
    EXPECT_THAT(following.read_line(), HasSubstr("\"old\""));
    ASSERT_TRUE(replies_.append({"new"}));
    EXPECT_THAT(following.read_line(), HasSubstr("\"new\""));
    std::filesystem::rename(tree.path("var/lib/linkage.db"), tree.path("var/lib/moved.db"));
    ASSERT_TRUE(replies_.append({"anew"}));
    EXPECT_THAT(following.read_line(), HasSubstr("\"anew\""));
    following.signal(SIGTERM);
    following.wait();
}

TEST_F(LkgCommands, file_that_is_no_database_is_a_failure_with_its_name) {
    tree.write("var/lib/linkage.db", std::string(5000, 'r'));
    const command_run result = kzectl({"lkg", "list"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("linkage.db"));
}

class DisposalCommands : public ipc_fixture {
  protected:
    void SetUp() override { tree.write("bin/kze_agent", ""); }

    /* An order with one process, whose fate is not known while the order is not done. */
    static std::string order(int pid, const std::string &fate, bool done = true) {
        json process = {{"pid", pid}, {"create_time", 7}, {"path", "/bin/x"}, {"md5", "0"}};
        json all = {{"agent_id", "agent"}, {"done", done}};
        if (done) {
            process["fate"] = fate;
            process["reason"] = "the \x1B[31mreason";
            all.update({{"code", -30015}, {"msg", "why"}, {"kill", true}});
        }
        all["tasks"] = {{{"task_id", "t1"}, {"alert_id", "a1"}, {"processes", {process}}}};
        return all.dump();
    }

    kze::record_writer orders_{tree.path("var/lib/disposal.db").string(),
                               kze::services::disposal_orders};
};

TEST_F(DisposalCommands, there_is_nothing_before_the_first_order) {
    EXPECT_EQ(kzectl({"disposal", "mark"}).out, "0\n");
    EXPECT_EQ(kzectl({"--json", "disposal", "list"}).value["orders"], json::array());
    EXPECT_EQ(kzectl({"disposal", "show", "1"}).status, 5);
    EXPECT_EQ(kzectl({"disposal", "wait", "--timeout", "0"}).status, 4);
}

TEST_F(DisposalCommands, orders_are_listed_and_shown_with_the_fate_of_each_process) {
    ASSERT_TRUE(orders_.append({order(4711, "ended")}) && orders_.append({order(4712, "", false)}));
    const command_run list = kzectl({"disposal", "list"});
    EXPECT_THAT(list.out, HasSubstr("1 ended"));
    EXPECT_THAT(list.out, HasSubstr("code -30015, why"));
    EXPECT_THAT(list.out, HasSubstr("begun, and no end is known"));
    EXPECT_EQ(kzectl({"--json", "disposal", "list", "--limit", "1"}).value["orders"][0]["id"], 2);
    const json behind =
        kzectl({"--json", "disposal", "list", "--after", "0", "--limit", "1"}).value;
    ASSERT_EQ(behind["orders"].size(), 1U);
    EXPECT_EQ(behind["orders"][0]["id"], 1);
    const command_run show = kzectl({"disposal", "show", "1"});
    EXPECT_THAT(show.out, HasSubstr("1 ended"));
    EXPECT_EQ(show.out.find('\x1B'), std::string::npos);
    const json whole = kzectl({"--json", "disposal", "show", "1"}).value;
    EXPECT_EQ(whole["tasks"][0]["processes"][0]["fate"], "ended");
    EXPECT_EQ(kzectl({"disposal", "mark"}).out, "2\n");
}

TEST_F(DisposalCommands, wait_ends_with_the_order_that_fits_and_is_done) {
    ASSERT_TRUE(orders_.append({order(1, "", false)}) && orders_.append({order(4711, "gone")}) &&
                orders_.append({order(4711, "ended")}));
    EXPECT_EQ(kzectl({"disposal", "wait"}).out, "2\n");
    EXPECT_EQ(kzectl({"disposal", "wait", "--pid", "4711", "--fate", "ended"}).out, "3\n");
    EXPECT_EQ(kzectl({"disposal", "wait", "--fate", "ended"}).out, "3\n");
    EXPECT_EQ(kzectl({"disposal", "wait", "--after", "2"}).out, "3\n");
    EXPECT_EQ(kzectl({"disposal", "wait", "--pid", "4712", "--timeout", "0.2"}).status, 4);
    EXPECT_EQ(kzectl({"disposal", "wait", "--fate", "dead"}).status, 2);
    child_process waiting({KZECTL, "disposal", "wait", "--pid", "1", "--timeout", "20"});
    ASSERT_TRUE(orders_.replace(1, order(1, "refused")));
    EXPECT_EQ(waiting.read_line(), "1");
    EXPECT_EQ(waiting.wait(), 0);
}

TEST_F(DisposalCommands, a_record_that_is_no_order_is_told_and_not_shown) {
    const auto order_of = [](const std::string &process) {
        return R"({"done":true,"tasks":[{"processes":[)" + process + "]}]}";
    };
    const std::string good = R"({"pid":1,"create_time":7})";
    ASSERT_TRUE(orders_.append({order_of(good)}));
    EXPECT_EQ(kzectl({"disposal", "list"}).status, 0);
    for (const std::string &bad :
         {std::string("[]"), std::string("{}"), std::string("7"), std::string(R"({"tasks":{}})"),
          std::string(R"({"tasks":[7]})"), std::string(R"({"tasks":[{}]})"), order_of("7"),
          order_of(R"({"pid":1})"), order_of(R"({"create_time":7})"),
          order_of(R"({"pid":"1","create_time":7})"),
          order_of(R"({"pid":1,"create_time":7,"fate":7})")}) {
        ASSERT_TRUE(orders_.replace(1, bad));
        for (const char *command : {"list", "wait"}) {
            const command_run run = kzectl({"disposal", command});
            EXPECT_EQ(run.status, 1) << bad;
            EXPECT_THAT(run.err, HasSubstr("disposal order 1 can't be read: it is no order"));
        }
        EXPECT_EQ(kzectl({"disposal", "show", "1"}).status, 1) << bad;
    }
}

TEST_F(DisposalCommands, mode_is_reporting_until_it_is_changed_and_keeps_the_rest_of_the_file) {
    tree.write("config/agent.ini", "; a comment\n[agent]\nkind = standard\n");
    EXPECT_EQ(kzectl({"--json", "disposal", "mode"}).value["kill"], false);
    EXPECT_EQ(kzectl({"--json", "disposal", "mode", "kill"}).value["kill"], true);
    EXPECT_EQ(kzectl({"--json", "disposal", "mode"}).value["kill"], true);
    EXPECT_THAT(tree.read("config/agent.ini"),
                HasSubstr("; a comment\n[agent]\nkind = standard\n"));
    EXPECT_EQ(kzectl({"--json", "disposal", "mode", "report"}).value["kill"], false);
    EXPECT_EQ(kzectl({"disposal", "mode", "other"}).status, 2);
}

}  // namespace
}  // namespace kze_test
