/* What scripts rely on: exit statuses, --json, --help, colours. */
#include <algorithm>
#include <fstream>

#include "agent/tests/system/agent_tree.h"

namespace kze_test {
namespace {

using nlohmann::json;

class kzectl : public system_test {};

using arguments = std::vector<std::string>;

const std::vector<arguments> &all_commands() {
    static const std::vector<arguments> commands = {
        {"up"},
        {"down"},
        {"status"},
        {"reload"},
        {"log-level"},
        {"watch"},
        {"config", "get"},
        {"config", "set"},
        {"config", "unset"},
        {"config", "list"},
        {"config", "module", "show"},
        {"config", "module", "set"},
        {"config", "module", "push"},
        {"engine", "status"},
        {"engine", "answer"},
        {"engine", "clear"},
        {"engine", "push"},
        {"engine", "credible"},
        {"engine", "rules"},
        {"engine", "rise"},
        {"engine", "drive"},
        {"engine", "origin-now"},
        {"engine", "die"},
        {"engine", "silent"},
        {"engine", "version"},
        {"engine", "start"},
        {"engine", "stop"},
        {"engine", "restart"},
        {"gateway", "list"},
        {"gateway", "show"},
        {"gateway", "tail"},
        {"gateway", "wait"},
        {"gateway", "mark"},
        {"request", "linkage"},
        {"request", "append"},
        {"request", "hunting"},
        {"request", "ioa"},
        {"request", "lkganal"},
        {"ioa", "status"},
        {"lkg", "list"},
        {"lkg", "show"},
        {"lkg", "tail"},
        {"lkg", "wait"},
        {"lkg", "mark"},
        {"bus", "list"},
        {"bus", "tail"},
        {"bus", "wait"},
        {"bus", "mark"},
        {"disposal", "list"},
        {"disposal", "show"},
        {"disposal", "wait"},
        {"disposal", "mark"},
        {"disposal", "mode"},
        {"pack", "make"},
        {"pack", "drop"},
        {"pack", "list"},
        {"pack", "watch"},
        {"pack", "wait"},
        {"log", "tail"},
        {"log", "wait"},
        {"log", "mark"},
    };
    return commands;
}

TEST_F(kzectl, every_command_has_help_with_an_example) {
    for (arguments command : all_commands()) {
        command.push_back("--help");
        const command_result result = tree.ctl(command);
        EXPECT_EQ(result.status, done) << command[0];
        EXPECT_NE(result.out.find("Example:\n  "), std::string::npos) << result.out;
        EXPECT_NE(result.out.find("kzectl " + command[0]), std::string::npos) << result.out;
        EXPECT_EQ(result.err, "");
    }
}

TEST_F(kzectl, the_help_lists_the_exit_statuses) {
    const std::string help = tree.ctl({"--help"}).out;
    for (const char *line : {"0  done", "1  failed", "2  the command line", "3  the host",
                             "4  timed out", "5  no such"}) {
        EXPECT_NE(help.find(line), std::string::npos) << line;
    }
}

TEST_F(kzectl, a_wrong_command_line_gives_2_and_points_to_the_help) {
    const std::vector<arguments> wrong = {
        {},
        {"nonsense"},
        {"config"},
        {"config", "get"},
        {"config", "get", "no_slash"},
        {"config", "get", "/only_a_module"},
        {"config", "set", "/mgr/base_collect", "adv_threats", "true"},
        {"engine", "silent", "forever"},
        {"engine", "push", "alarm", "/there/is/no/such/file"},
        {"gateway", "wait"},
        {"gateway", "list", "--type", "nonsense"},
        {"gateway", "list", "--type", "11"},
        {"log-level", "5"},
        {"log", "wait", "text", "--timeout", "-1"},
        {"--tree", "/there/is/no/tree", "status"},
        {"--color", "sometimes", "status"},
    };
    for (const arguments &command : wrong) {
        const command_result result = tree.ctl(command);
        EXPECT_EQ(result.status, usage) << ::testing::PrintToString(command) << result.err;
        EXPECT_EQ(result.err.rfind("kzectl: ", 0), 0U) << result.err;
        EXPECT_EQ(result.out, "");
    }
    EXPECT_NE(tree.ctl({"nonsense"}).err.find("\"nonsense\""), std::string::npos);
    EXPECT_NE(tree.ctl({"config", "get"}).err.find("See kzectl config get --help"),
              std::string::npos);
}

TEST_F(kzectl, without_an_agent_its_commands_give_3_and_say_how_to_start_it) {
    const std::vector<arguments> commands = {
        {"reload"},
        {"log-level"},
        {"engine", "status"},
        {"engine", "silent"},
        {"engine", "die"},
        {"engine", "origin-now"},
        {"watch"},
    };
    for (const arguments &command : commands) {
        const command_result result = tree.ctl(command);
        EXPECT_EQ(result.status, not_running) << ::testing::PrintToString(command) << result.err;
    }
    EXPECT_NE(tree.ctl({"reload"}).err.find("kzectl up"), std::string::npos);
    EXPECT_NE(tree.ctl({"engine", "status"}).err.find("kzectl engine start"), std::string::npos);
}

TEST_F(kzectl, what_is_not_there_gives_5) {
    const std::vector<arguments> commands = {
        {"config", "get", "/mgr/base_collect", "/adv_threats"},
        {"gateway", "list"},
        {"gateway", "show", "1"},
        {"log", "tail", "no_such_log"},
        {"log", "tail", "worker"},
    };
    for (const arguments &command : commands) {
        const command_result result = tree.ctl(command);
        EXPECT_EQ(result.status, not_there) << ::testing::PrintToString(command) << result.err;
    }
    tree.set("/mgr/base_collect", "/other", "1");
    EXPECT_EQ(tree.ctl({"config", "get", "/mgr/base_collect", "/adv_threats"}).status, not_there);
}

TEST_F(kzectl, a_wait_for_what_does_not_come_gives_4) {
    EXPECT_EQ(tree.ctl({"log", "wait", "what nobody says", "--timeout", "0.2"}).status, timed_out);
    EXPECT_EQ(tree.ctl({"gateway", "wait", "--type", "alarm", "--timeout", "0.2"}).status,
              timed_out);
}

TEST_F(kzectl, a_refusal_by_the_engine_gives_1_with_its_words) {
    tree.must({"up"});
    const command_result call = tree.ctl({"engine", "answer", "x_client_nonsense", "--code", "1"});
    EXPECT_EQ(call.status, failed);
    EXPECT_NE(call.err.find("x_client_nonsense"), std::string::npos) << call.err;
    EXPECT_EQ(tree.ctl({"engine", "push", "nonsense", tree.path("bin/kzectl").string()}).status,
              failed);
    EXPECT_EQ(tree.ctl({"engine", "version", "nonsense", "1"}).status, failed);
}

TEST_F(kzectl, every_command_that_prints_prints_json_for_programs) {
    tree.switch_on();
    tree.must({"up"});
    tree.see("work loop start");
    const std::int64_t id = tree.wait_record("origin", 0);
    const std::string file = tree.path("bin/vrd_services").string();
    const std::vector<arguments> commands = {
        {"up"},
        {"status"},
        {"log-level"},
        {"log-level", "3"},
        {"config", "set", "/mgr/test", "/key", "a \"text\" with\nmore lines"},
        {"config", "get", "/mgr/test/key"},
        {"config", "list"},
        {"config", "unset", "/mgr/test/key"},
        {"config", "module", "set", "base_drive", "enable=1", "collect_enable=0"},
        {"config", "module", "show", "base_drive"},
        {"config", "module", "push", "base_drive"},
        {"engine", "status"},
        {"engine", "answer", "x_client_engine_set_runlevel", "--code", "-3", "--delay-ms", "5"},
        {"engine", "clear"},
        {"engine", "version", "ioc", "2.0"},
        {"engine", "push", "alarm", file},
        {"engine", "origin-now"},
        {"engine", "drive", "--drive", "0"},
        {"engine", "drive"},
        {"request", "ioa", "--rules-id", "set-1", "--rules", "rule one"},
        {"gateway", "wait", "--type", "ctmioa_result"},
        {"ioa", "status"},
        {"engine", "rules"},
        {"engine", "rules", "custom_ioa"},
        {"engine", "rise", "ioc"},
        {"request", "lkganal", "--text", "who was it"},
        {"lkg", "wait"},
        {"lkg", "list"},
        {"lkg", "show", "1"},
        {"lkg", "mark"},
        {"bus", "list"},
        {"bus", "mark"},
        {"disposal", "mode"},
        {"disposal", "mark"},
        {"disposal", "list"},
        {"pack", "list"},
        {"gateway", "list"},
        {"gateway", "show", std::to_string(id)},
        {"gateway", "wait", "--type", "origin"},
        {"gateway", "mark"},
        {"log", "wait", "x_client status 1"},
        {"log", "mark"},
        {"reload"},
        {"engine", "restart"},
        {"down"},
    };
    for (const arguments &command : commands) {
        const json value = tree.ask(command);
        EXPECT_TRUE(value.value("ok", false) || command[0] == "log")
            << ::testing::PrintToString(command) << value.dump();
    }
}

TEST_F(kzectl, a_rule_text_is_in_an_object_for_programs) {
    tree.switch_on();
    tree.must({"up"});
    tree.see("work loop start");
    tree.must({"request", "ioa", "--rules-id", "set-1", "--rules", "rule one"});
    tree.wait_record("ctmioa_result", 0);
    const json texts = tree.ask({"engine", "rules", "custom_ioa"})["texts"];
    ASSERT_EQ(texts.size(), 1U) << texts.dump();
    EXPECT_EQ(texts[0]["text"], "rule one");
}

TEST_F(kzectl, a_module_field_without_a_value_is_told_how_to_be_written) {
    const command_result bare = tree.ctl({"config", "module", "set", "base_drive", "enable"});
    EXPECT_EQ(bare.status, usage);
    EXPECT_NE(bare.err.find("has no value; write enable=VALUE"), std::string::npos) << bare.err;
    const command_result unknown = tree.ctl({"config", "module", "set", "base_drive", "on=1"});
    EXPECT_EQ(unknown.status, usage);
    EXPECT_NE(unknown.err.find("\"on\" is no field of base_drive"), std::string::npos)
        << unknown.err;
}

TEST_F(kzectl, failures_are_json_for_programs_too) {
    const command_result result = tree.ctl({"--json", "engine", "status"});
    EXPECT_EQ(result.status, not_running);
    EXPECT_EQ(result.err, "");
    const json value = json::parse(result.out, nullptr, false);
    ASSERT_TRUE(value.is_object()) << result.out;
    EXPECT_EQ(value["ok"], false);
    EXPECT_EQ(value["status"], not_running);
    EXPECT_NE(value.value("error", ""), "");
}

TEST_F(kzectl, nothing_is_coloured_unless_it_is_asked_for) {
    tree.must({"up"});
    const std::string escape = "\033[";
    for (const arguments &command :
         std::vector<arguments>{{"status"}, {"engine", "status"}, {"log", "tail"}}) {
        EXPECT_EQ(tree.ctl(command).out.find(escape), std::string::npos);
        arguments coloured = {"--color", "always"};
        coloured.insert(coloured.end(), command.begin(), command.end());
        EXPECT_NE(tree.ctl(coloured).out.find(escape), std::string::npos);
    }
}

/* script(1) gives the command a terminal. */
TEST_F(kzectl, a_terminal_gets_colours_unless_no_color_is_set) {
    tree.must({"up"});
    const std::string status = "'" + tree.path("bin/kzectl").string() + "' status";
    const arguments on_terminal = {"/usr/bin/script", "-qec", status, "/dev/null"};
    const std::string escape = "\033[";
    const command_result coloured = run_program(on_terminal, {"TERM=xterm"});
    const command_result plain = run_program(on_terminal, {"TERM=xterm", "NO_COLOR=1"});
    const command_result dumb = run_program(on_terminal, {"TERM=dumb"});
    EXPECT_NE(coloured.out.find(escape), std::string::npos) << coloured.out << coloured.err;
    EXPECT_NE(plain.out.find("running"), std::string::npos) << plain.out << plain.err;
    EXPECT_EQ(plain.out.find(escape), std::string::npos) << plain.out;
    EXPECT_EQ(dumb.out.find(escape), std::string::npos) << dumb.out;
}

TEST_F(kzectl, configuration_is_set_read_listed_and_removed_under_both_forms_of_address) {
    tree.must({"config", "set", "/mgr/base_collect/adv_threats", "true"});
    EXPECT_EQ(tree.ctl({"config", "get", "/mgr/base_collect", "/adv_threats"}).out, "true\n");
    tree.must({"config", "set", "/mgr/base_collect", "/adv_threats", "false"});
    EXPECT_EQ(tree.ctl({"config", "get", "/mgr/base_collect/adv_threats"}).out, "false\n");
    tree.must({"config", "set", "/mgr/anti_bfa", "/enable", ""});
    EXPECT_EQ(tree.ctl({"config", "get", "/mgr/anti_bfa/enable"}).out, "\n");
    EXPECT_EQ(tree.ask({"config", "list"})["values"].size(), 2U);
    EXPECT_EQ(tree.ask({"config", "list", "/mgr/anti_bfa"})["values"].size(), 1U);
    tree.must({"config", "unset", "/mgr/base_collect", "/adv_threats"});
    EXPECT_EQ(tree.ctl({"config", "get", "/mgr/base_collect/adv_threats"}).status, not_there);
    tree.must({"config", "unset", "/mgr/base_collect", "/adv_threats"});
}

TEST_F(kzectl, the_engines_answers_can_be_set_while_it_is_down) {
    tree.must({"engine", "answer", "x_client_start", "--code", "-7", "--times", "1"});
    tree.must({"engine", "version", "ioa", "42"});
    tree.switch_on();
    tree.must({"up"});
    tree.see("qd start try_times: 1, interval: 2");
    tree.see("work loop start");
    EXPECT_EQ(tree.ask({"engine", "status"})["versions"]["ioa"], "42");
}

TEST_F(kzectl, a_logs_control_characters_do_not_reach_the_terminal) {
    tree.write("var/log/odd/odd.log", "a line with \033[31m colour and \a bell\n");
    const command_result result = tree.ctl({"log", "tail", "odd"});
    EXPECT_EQ(result.status, done);
    EXPECT_EQ(result.out, "a line with \\x1B[31m colour and \\x07 bell\n");
}

TEST_F(kzectl, a_log_that_was_rotated_since_the_mark_is_read_to_its_end) {
    tree.write("var/log/odd/odd.log", "first\nsecond\n");
    const std::int64_t from = tree.mark("odd");
    tree.write("var/log/odd/odd.1.log", "first\nsecond\nthird\n");
    tree.write("var/log/odd/odd.log", "new\n");
    tree.see("third", from, "odd", 1);
    tree.see("new", from, "odd", 1);
    EXPECT_FALSE(tree.has_logged("second", from, "odd"));
}

TEST_F(kzectl, a_mark_is_found_again_after_several_rotations_and_longer_files) {
    namespace fs = std::filesystem;
    const auto file = [&](const std::string &name) { return tree.path("var/log/odd/" + name); };
    tree.write("var/log/odd/odd.log", "first\nsecond\n");
    const std::string from = tree.ask({"log", "mark", "odd"})["mark"];
    const auto has_logged = [&](const std::string &text, const std::string &mark) {
        return tree.ctl({"log", "wait", text, "odd", "--after", mark, "--timeout", "0"}).status ==
               done;
    };
    std::ofstream(file("odd.log"), std::ios::app) << "third\n";
    fs::rename(file("odd.log"), file("odd.1.log"));
    tree.write("var/log/odd/odd.log", "a line as long as all those before, and longer\nfourth\n");
    EXPECT_TRUE(has_logged("third", from));
    EXPECT_TRUE(has_logged("fourth", from));
    EXPECT_FALSE(has_logged("second", from));
    fs::rename(file("odd.1.log"), file("odd.2.log"));
    fs::rename(file("odd.log"), file("odd.1.log"));
    tree.write("var/log/odd/odd.log", "fifth\n");
    for (const char *text : {"third", "a line as long", "fourth", "fifth"}) {
        EXPECT_TRUE(has_logged(text, from)) << text;
    }
    EXPECT_FALSE(has_logged("second", from));
    /* In the midst of a rotation one name is free. */
    fs::rename(file("odd.2.log"), file("odd.3.log"));
    EXPECT_TRUE(has_logged("third", from));
    EXPECT_FALSE(has_logged("second", from));
    fs::rename(file("odd.3.log"), file("odd.2.log"));
    /* What comes behind a line is marked with it. */
    const json third = tree.ask({"log", "wait", "third", "odd", "--after", from});
    EXPECT_FALSE(has_logged("third", third["mark"]));
    EXPECT_TRUE(has_logged("fourth", third["mark"]));
    /* Everything that is left is newer than a mark whose file is gone. */
    fs::remove(file("odd.2.log"));
    EXPECT_TRUE(has_logged("fourth", from));
    /* So it is where a newer file was given the inode of the one that is gone. */
    const std::string made = from.substr(from.find('.'));
    const std::string now = tree.ask({"log", "mark", "odd"})["mark"];
    const std::string inode = now.substr(now.find('@'), now.find('.') - now.find('@'));
    if (made != ".0") {
        EXPECT_TRUE(has_logged("fourth", "1" + inode + made));
    } /* else the file system doesn't keep when a file was made */
    for (const char *bad : {"-1", "x", "1@", "1@x", "1@1", "1@1.", "1@1.x", "1 "}) {
        EXPECT_NE(tree.ctl({"log", "wait", "x", "odd", "--after", bad}).status, done) << bad;
    }
}

}  // namespace
}  // namespace kze_test
