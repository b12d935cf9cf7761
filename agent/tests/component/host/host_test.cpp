/* bin/kze_agent, as a process of its own. */
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <future>
#include <memory>
#include <optional>

#include "agent/common/control.h"
#include "platform/common/descriptor.h"
#include "tests/support/child_process.h"
#include "tests/support/process_state.h"
#include "tests/support/temp_tree.h"

namespace {

using kze::control_call;
using kze::control_result;
using kze_test::child_process;
using kze_test::eventually;
using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

class host : public testing::Test {
  protected:
    void install(const std::vector<std::string> &plugins) {
        for (const std::string &name : plugins) {
            const std::string file = "lib" + name + ".so";
            std::filesystem::create_symlink(std::filesystem::path(PLUGIN_DIRECTORY) / file,
                                            tree_.path("agent_plugins/" + file));
        }
    }
    void configure(const std::string &list) {
        tree_.write("config/agent.ini",
                    "[agent]\nkind = standard\n[plugins]\nload = " + list + "\n");
    }
    void begin() {
        process_ = std::make_unique<child_process>(std::vector<std::string>{HOST_PROGRAM});
    }
    /* Installs, configures, begins and waits until every init was called. */
    void run(const std::string &list, const std::vector<std::string> &plugins) {
        install(plugins);
        configure(list);
        begin();
        ASSERT_TRUE(eventually([this] { return status().value("ready", false); })) << log();
    }
    json ask(const json &request, unsigned int seconds = 20) {
        const control_result result = control_call("agt_host", request, seconds);
        return result.answer.value_or(json{{"ok", false}, {"error", "none: " + result.error}});
    }
    json status() { return ask({{"op", "status"}}); }
    json plugin(const std::string &name) {
        const json state = status();
        for (const json &entry : state["plugins"]) {
            if (entry["name"] == name) {
                return entry;
            }
        }
        return {};
    }
    /* Its exit code; -1 when it was ended by a signal. */
    int end_of_process() {
        const int status = process_->wait();
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    int end_with(int signal) {
        process_->signal(signal);
        return end_of_process();
    }
    std::string log() const { return tree_.read("var/log/host/host.log"); }
    std::string events() const { return tree_.read("events"); }

    kze_test::temp_tree tree_;
    std::unique_ptr<child_process> process_;
};

TEST_F(host, initialises_in_order_and_uninitialises_in_reverse_all_on_the_main_thread) {
    run("good, second_good", {"good", "second_good"});
    EXPECT_EQ(events(), "good init\nsecond_good init\n");
    EXPECT_EQ(end_with(SIGTERM), 0);
    EXPECT_EQ(events(), "good init\nsecond_good init\nsecond_good uninit\ngood uninit\n");
}

TEST_F(host, ends_on_an_interrupt_as_well) {
    run("good", {"good"});
    EXPECT_EQ(end_with(SIGINT), 0);
    EXPECT_EQ(events(), "good init\ngood uninit\n");
}

TEST_F(host, tells_its_state) {
    run("good", {"good"});
    const json state = status();
    EXPECT_EQ(state["ok"], true);
    EXPECT_EQ(state["pid"], process_->pid());
    EXPECT_EQ(state["ready"], true);
    EXPECT_GE(state["uptime_s"], 0);
    EXPECT_EQ(state["log_level"], 3);
    EXPECT_GT(state["rss_kb"], 100);
    EXPECT_GE(state["threads"], 2);
    EXPECT_GE(state["descriptors"], 5);
    EXPECT_EQ(state["plugins"], json::array({{{"name", "good"},
                                              {"loaded", true},
                                              {"init_result", 0},
                                              {"state", "initialised"},
                                              {"problem", ""}}}));
}

TEST_F(host, goes_on_without_a_plugin_that_is_missing) {
    run("missing good", {"good"});
    EXPECT_EQ(plugin("missing")["state"], "not loaded");
    EXPECT_THAT(plugin("missing")["problem"].get<std::string>(),
                HasSubstr("agent_plugins/libmissing.so can't be loaded: No such file"));
    EXPECT_EQ(plugin("good")["state"], "initialised");
    EXPECT_THAT(log(), HasSubstr("plug-in missing: "));
}

TEST_F(host, goes_on_without_a_plugin_that_is_no_library) {
    tree_.write("agent_plugins/libtext.so", "just a text");
    run("text good", {"good"});
    EXPECT_EQ(plugin("text")["loaded"], false);
    EXPECT_EQ(plugin("good")["state"], "initialised");
}

TEST_F(host, goes_on_without_a_plugin_that_has_no_init) {
    run("without_init good", {"without_init", "good"});
    EXPECT_EQ(plugin("without_init")["loaded"], false);
    EXPECT_EQ(plugin("without_init")["problem"], "its library has no function without_init_init");
    EXPECT_EQ(plugin("good")["state"], "initialised");
}

TEST_F(host, calls_no_init_of_a_plugin_that_has_no_uninit) {
    run("without_uninit good", {"without_uninit", "good"});
    EXPECT_EQ(plugin("without_uninit")["problem"],
              "its library has no function without_uninit_uninit");
    EXPECT_EQ(events(), "good init\n");
}

TEST_F(host, goes_on_when_an_init_fails_and_calls_no_uninit_for_it) {
    run("init_fails good", {"init_fails", "good"});
    const json failed = plugin("init_fails");
    EXPECT_EQ(failed["loaded"], true);
    EXPECT_EQ(failed["init_result"], -1);
    EXPECT_EQ(failed["state"], "init failed");
    EXPECT_THAT(log(), HasSubstr("plug-in init_fails: init returned -1"));
    EXPECT_EQ(end_with(SIGTERM), 0);
    EXPECT_EQ(events(), "init_fails init\ngood init\ngood uninit\n");
}

TEST_F(host, stays_up_when_it_has_no_plugin_at_all) {
    run("init_fails", {"init_fails"});
    EXPECT_EQ(status()["ok"], true);
    EXPECT_EQ(end_with(SIGTERM), 0);
}

TEST_F(host, logs_an_uninit_that_fails_and_goes_on) {
    run("good uninit_fails", {"good", "uninit_fails"});
    EXPECT_EQ(end_with(SIGTERM), 0);
    EXPECT_THAT(log(), HasSubstr("plug-in uninit_fails: uninit returned -1"));
    EXPECT_THAT(events(), testing::EndsWith("uninit_fails uninit\ngood uninit\n"));
}

TEST_F(host, takes_no_name_that_leads_out_of_its_directory) {
    run("../lib/good good good", {"good"});
    EXPECT_EQ(status()["plugins"].size(), 1U);
    EXPECT_THAT(log(), HasSubstr("\"../lib/good\" is no name of a plug-in"));
}

TEST_F(host, runs_without_a_configuration) {
    begin();
    ASSERT_TRUE(eventually([this] { return status().value("ready", false); }));
    EXPECT_EQ(status()["plugins"], json::array());
    EXPECT_THAT(log(), HasSubstr("agent.ini can't be read, no plug-in is loaded"));
}

TEST_F(host, changes_the_log_level_so_that_it_lasts_and_keeps_the_files_comments) {
    tree_.write("config/log.ini", "; a comment that stays\n[log]\nlevel = 3\n");
    run("good", {"good"});
    EXPECT_EQ(ask({{"op", "log-level"}, {"level", 4}}), (json{{"ok", true}}));
    EXPECT_EQ(status()["log_level"], 4);
    EXPECT_EQ(end_with(SIGTERM), 0);
    EXPECT_THAT(tree_.read("config/log.ini"), HasSubstr("; a comment that stays"));
    begin();
    ASSERT_TRUE(eventually([this] { return status().value("ready", false); }));
    EXPECT_EQ(status()["log_level"], 4);
}

TEST_F(host, makes_the_file_for_the_log_level_where_there_is_none) {
    run("good", {"good"});
    EXPECT_EQ(ask({{"op", "log-level"}, {"level", 0}})["ok"], true);
    EXPECT_THAT(tree_.read("config/log.ini"), HasSubstr("level = 0"));
}

TEST_F(host, refuses_levels_that_are_none) {
    run("good", {"good"});
    for (const json &level :
         {json(-1), json(5), json(1LL << 32), json("3"), json(2.5), json(nullptr)}) {
        EXPECT_EQ(ask({{"op", "log-level"}, {"level", level}}),
                  (json{{"ok", false}, {"error", "\"level\" is a number from 0 to 4"}}));
    }
    EXPECT_EQ(ask({{"op", "log-level"}})["ok"], false);
    EXPECT_EQ(status()["log_level"], 3);
}

TEST_F(host, says_when_the_level_cannot_be_kept) {
    run("good", {"good"});
    std::filesystem::create_directory(tree_.path("config/log.ini"));
    const json answer = ask({{"op", "log-level"}, {"level", 1}});
    EXPECT_EQ(answer["ok"], false);
    EXPECT_THAT(answer["error"].get<std::string>(), HasSubstr("until the next start"));
    EXPECT_EQ(status()["log_level"], 1);
}

TEST_F(host, reads_the_log_level_again_on_a_hangup) {
    run("good", {"good"});
    tree_.write("config/log.ini", "[log]\nlevel = 1\n");
    process_->signal(SIGHUP);
    EXPECT_TRUE(eventually([this] { return status()["log_level"] == 1; }));
    EXPECT_EQ(events(), "good init\n");
}

TEST_F(host, reloads_its_plugins_in_place_and_answers_when_it_is_done) {
    run("good second_good", {"good", "second_good"});
    const json answer = ask({{"op", "reload"}});
    EXPECT_EQ(answer["ok"], true);
    EXPECT_EQ(answer["pid"], process_->pid());
    EXPECT_EQ(events(),
              "good init\nsecond_good init\nsecond_good uninit\ngood uninit\n"
              "good init\nsecond_good init\n");
    EXPECT_EQ(plugin("good")["state"], "initialised");
}

TEST_F(host, a_reload_tries_a_plugin_again_that_was_not_there) {
    run("good", {});
    EXPECT_EQ(plugin("good")["state"], "not loaded");
    install({"good"});
    EXPECT_EQ(ask({{"op", "reload"}})["ok"], true);
    EXPECT_EQ(plugin("good")["state"], "initialised");
    EXPECT_EQ(plugin("good")["problem"], "");
}

TEST_F(host, answers_while_a_plugin_takes_its_time_and_is_not_ready_meanwhile) {
    install({"waits", "good"});
    configure("waits good");
    begin();
    ASSERT_TRUE(eventually([this] { return events() == "waits init\n"; }));
    ASSERT_TRUE(eventually([this] { return status()["ok"] == true; }));
    EXPECT_EQ(status()["ready"], false);
    tree_.write("go_on_with_init", "");
    EXPECT_TRUE(eventually([this] { return status()["ready"] == true; }));

    std::future<json> reload = std::async(std::launch::async, [this] {
        return ask({{"op", "reload"}});
    });
    ASSERT_TRUE(
        eventually([this] { return events().find("waits uninit\n") != std::string::npos; }));
    EXPECT_EQ(status()["ready"], false);
    tree_.write("go_on_with_uninit", "");
    EXPECT_EQ(reload.get()["ok"], true);
    EXPECT_EQ(end_with(SIGTERM), 0);
}

TEST_F(host, refuses_a_reload_once_it_stops) {
    tree_.write("go_on_with_init", "");
    run("waits", {"waits"});
    process_->signal(SIGTERM);
    ASSERT_TRUE(eventually([this] { return events() == "waits init\nwaits uninit\n"; }));
    EXPECT_EQ(ask({{"op", "reload"}}), (json{{"ok", false}, {"error", "the host stops"}}));
    tree_.write("go_on_with_uninit", "");
    EXPECT_EQ(end_of_process(), 0);
}

TEST_F(host, refuses_a_reload_that_waits_for_another_when_it_stops) {
    tree_.write("go_on_with_init", "");
    run("waits", {"waits"});
    std::future<json> first = std::async(std::launch::async, [this] {
        return ask({{"op", "reload"}});
    });
    ASSERT_TRUE(eventually([this] { return events() == "waits init\nwaits uninit\n"; }));
    std::future<json> second = std::async(std::launch::async, [this] {
        return ask({{"op", "reload"}});
    });
    EXPECT_EQ(ask({{"op", "stop"}})["ok"], true);
    tree_.write("go_on_with_uninit", "");
    EXPECT_EQ(first.get()["ok"], true);
    EXPECT_EQ(second.get()["ok"], false);
    EXPECT_EQ(end_of_process(), 0);
}

TEST_F(host, stops_when_it_is_ordered_to) {
    run("good", {"good"});
    EXPECT_EQ(ask({{"op", "stop"}}), (json{{"ok", true}}));
    EXPECT_EQ(end_of_process(), 0);
    EXPECT_EQ(events(), "good init\ngood uninit\n");
    EXPECT_FALSE(std::filesystem::exists(tree_.path("run/agt_host.sock")));
}

TEST_F(host, always_answers_the_order_to_stop) {
    for (int i = 0; i < 20; ++i) {
        begin();
        ASSERT_TRUE(eventually([this] { return status().value("ready", false); }));
        ASSERT_EQ(ask({{"op", "stop"}}), (json{{"ok", true}}));
        ASSERT_EQ(end_of_process(), 0);
    }
}

TEST_F(host, refuses_what_it_does_not_know) {
    run("good", {"good"});
    EXPECT_EQ(ask({{"op", "dance"}})["error"],
              "no request \"dance\"; there are status, log-level, reload and stop");
    EXPECT_EQ(ask({{"op", 1}})["error"], "a request has a text \"op\"");
    EXPECT_EQ(ask(json::object())["error"], "a request has a text \"op\"");
}

TEST_F(host, leaves_a_tree_that_has_a_host_to_that_one) {
    run("good", {"good"});
    child_process second({HOST_PROGRAM});
    const int status = second.wait();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_THAT(second.read_errors(), HasSubstr("a host runs in this tree already, process " +
                                                std::to_string(process_->pid())));
    EXPECT_EQ(events(), "good init\n");
}

TEST_F(host, starts_again_in_the_tree_of_one_that_was_killed) {
    run("good", {"good"});
    EXPECT_EQ(end_with(SIGKILL), -1);
    begin();
    ASSERT_TRUE(eventually([this] { return status().value("ready", false); }));
    EXPECT_EQ(status()["pid"], process_->pid());
}

TEST_F(host, does_not_start_where_it_cannot_have_its_lock) {
    std::filesystem::create_directories(tree_.path("run/kze_agent.lock"));
    begin();
    EXPECT_EQ(end_of_process(), 1);
    EXPECT_THAT(process_->read_errors(), HasSubstr("kze_agent.lock: Is a directory"));
}

TEST_F(host, refuses_a_command_line_it_does_not_know) {
    child_process process({HOST_PROGRAM, "--nonsense"});
    const int status = process.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << status;
    EXPECT_FALSE(std::filesystem::exists(tree_.path("run/kze_agent.lock")));
}

TEST_F(host, its_help_tells_the_exit_codes) {
    child_process process({HOST_PROGRAM, "--help"});
    std::string text;
    for (std::string line = process.read_line(); text.find("KZE_AGENT_HOME") == std::string::npos;
         line = process.read_line()) {
        text += line + "\n";
    }
    EXPECT_THAT(text, HasSubstr("  3  a host runs in this tree already"));
    const int status = process.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST_F(host, what_its_plugins_start_can_take_signals) {
    run("starts_a_program", {"starts_a_program"});
    EXPECT_EQ(tree_.read("mask"), "SigBlk:\t0000000000000000\n");
}

TEST_F(host, tells_the_service_manager_when_it_is_ready_and_when_it_stops) {
    const kze::descriptor manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    const std::string path = tree_.path("notify");
    ASSERT_LT(path.size(), sizeof(address.sun_path));
    path.copy(address.sun_path, path.size());
    ASSERT_EQ(bind(manager.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof(address)),
              0);
    const auto receive = [&manager] {
        struct pollfd awaited {
            manager.get(), POLLIN, 0
        };
        std::array<char, 256> text{};
        return poll(&awaited, 1, 20000) == 1 &&
                       recv(manager.get(), text.data(), text.size() - 1, 0) > 0
                   ? std::string(text.data())
                   : std::string("nothing");
    };
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    run("good", {"good"});
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(receive(), "READY=1");
    process_->signal(SIGTERM);
    EXPECT_EQ(receive(), "STOPPING=1");
    EXPECT_EQ(end_of_process(), 0);
}

TEST_F(host, leaves_nothing_after_many_reloads) {
    run("good second_good", {"good", "second_good"});
    ask({{"op", "reload"}});
    const json before = status();
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(ask({{"op", "reload"}})["ok"], true);
    }
    EXPECT_TRUE(eventually([&] {
        const json now = status();
        return now["threads"] == before["threads"] && now["descriptors"] == before["descriptors"];
    })) << status()
        << before;
}

}  // namespace
