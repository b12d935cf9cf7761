/* kzectl engine credible, and what kzectl gateway shows of such events. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "agent/common/md5.h"
#include "agent/common/module_frame.h"
#include "agent/common/process_files.h"
#include "agent/tests/component/gateway/gateway_library.h"
#include "tests/support/command_run.h"
#include "tests/support/process_state.h"
#include "tests/support/temp_tree.h"
#include "trace.pb.h"

namespace kze_test {
namespace {

using kzav_trace::event_action;
using kzav_trace::kzav_trace_info;
using kzav_trace::process_vertex;
using nlohmann::json;
using testing::HasSubstr;

command_run kzectl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KZECTL);
    return run_command(arguments);
}

kze::descriptor directory_of(pid_t pid) {
    return kze::open_process(static_cast<std::uint64_t>(pid));
}

class ctl_credible : public ::testing::Test {
  protected:
    void SetUp() override {
        tree.write("bin/kze_agent", "");
        const std::string own = std::filesystem::read_symlink("/proc/self/exe");
        ASSERT_TRUE(eventually([&] {
            return kze::read_executable_path(directory_of(process_.pid()).get()).bytes != own;
        }));
    }

    std::string pid() const { return std::to_string(process_.pid()); }
    /* The event that the command makes. */
    std::string frame(std::vector<std::string> arguments) {
        const std::string file = tree.path("event.bin").string();
        arguments.insert(arguments.begin(), {"engine", "credible", "-o", file});
        const command_run result = kzectl(arguments);
        EXPECT_EQ(result.status, 0) << result.err;
        return tree.read("event.bin");
    }
    kzav_trace_info event(const std::vector<std::string> &arguments) {
        const std::string bytes = frame(arguments);
        EXPECT_EQ(kze::module_frame_problem(bytes, module_request, kze::byte_order::little_endian),
                  "");
        kzav_trace_info info;
        EXPECT_TRUE(info.ParseFromString(bytes.substr(kze::module_header_size)));
        return info;
    }

    temp_tree tree;
    child_process process_{{"/bin/sleep", "600"}};
};

TEST_F(ctl_credible, event_describes_the_live_process_in_every_part) {
    const kzav_trace_info info = event({"--scene", "web", "--pid", pid()});
    EXPECT_EQ(info.cmd(), kzav_trace::TRACE_CMD_CREDIBLE_EVENT);
    EXPECT_NE(info.agent_id(), "");
    EXPECT_EQ(info.credible_event().disposal_state(), kzav_trace::DISPOSAL_STATE_UNHANDLED);
    const auto &rule = info.credible_event().rule();
    EXPECT_EQ(rule.scene(), kzav_trace::EVENT_WEB);
    ASSERT_EQ(rule.match_action_size(), 1);
    const event_action &action = rule.match_action(0);
    ASSERT_EQ(action.alert_node_id_size(), 1);
    const process_vertex &process = action.process_list(0);
    EXPECT_EQ(process.node_id(), action.alert_node_id(0));
    EXPECT_EQ(process.process_id(), static_cast<std::uint64_t>(process_.pid()));
    const auto directory = directory_of(process_.pid());
    EXPECT_EQ(process.process_createtime(),
              static_cast<std::int64_t>(kze::read_process_stat(directory.get())->start_ticks));
    EXPECT_EQ(process.process_path(), kze::read_executable_path(directory.get()).bytes);
    EXPECT_EQ(process.process_md5(), kze::md5_of_file(process.process_path()));
    EXPECT_EQ(process.process_commandline(), "/bin/sleep 600");
    ASSERT_EQ(action.process_list_size(), 2) << "its parent is there to be seen";
    EXPECT_EQ(action.process_list(1).process_id(), static_cast<std::uint64_t>(getpid()));
    EXPECT_NE(action.process_list(1).node_id(), action.alert_node_id(0));
}

TEST_F(ctl_credible, processes_are_dealt_out_to_the_actions_in_turn) {
    const std::string own = std::to_string(getpid());
    const kzav_trace_info info =
        event({"--scene", "phishing", "--pid", pid(), own, pid(), "--actions", "2"});
    const auto &rule = info.credible_event().rule();
    EXPECT_EQ(rule.scene(), kzav_trace::EVENT_PHISHING);
    ASSERT_EQ(rule.match_action_size(), 2);
    EXPECT_EQ(rule.match_action(0).alert_node_id_size(), 2);
    EXPECT_EQ(rule.match_action(1).alert_node_id_size(), 1);
    EXPECT_EQ(rule.match_action(1).process_list(0).process_id(),
              static_cast<std::uint64_t>(getpid()));
    EXPECT_NE(rule.match_action(0).alert_id(), rule.match_action(1).alert_id());
    EXPECT_EQ(event({"--scene", "7", "--pid", pid()}).credible_event().rule().scene(), 7);
}

TEST_F(ctl_credible, reused_ids_belong_to_processes_of_another_creation_time) {
    const auto time_of = [](const kzav_trace_info &info) {
        return info.credible_event().rule().match_action(0).process_list(0).process_createtime();
    };
    EXPECT_NE(time_of(event({"--scene", "web", "--pid", pid(), "--reused"})),
              time_of(event({"--scene", "web", "--pid", pid()})));
}

TEST_F(ctl_credible, each_defect_spoils_what_its_name_says) {
    const auto spoiled = [this](const std::string &defect) {
        return frame({"--scene", "web", "--pid", pid(), "--malformed", defect});
    };
    const auto problem = [](const std::string &bytes) {
        return kze::module_frame_problem(bytes, module_request, kze::byte_order::little_endian);
    };
    EXPECT_THAT(problem(spoiled("version")), HasSubstr("version"));
    EXPECT_THAT(problem(spoiled("length")), HasSubstr("msg_len"));
    EXPECT_THAT(problem(spoiled("empty")), HasSubstr("less than a header"));
    const std::string body = spoiled("body");
    EXPECT_EQ(problem(body), "");
    EXPECT_FALSE(kzav_trace_info().ParseFromString(body.substr(kze::module_header_size)));
    const auto parsed = [&](const std::string &defect) {
        return event({"--scene", "web", "--pid", pid(), "--malformed", defect});
    };
    EXPECT_NE(parsed("cmd").cmd(), kzav_trace::TRACE_CMD_CREDIBLE_EVENT);
    EXPECT_FALSE(parsed("no-rule").credible_event().has_rule());
    EXPECT_EQ(parsed("no-scene").credible_event().rule().scene(), kzav_trace::EVENT_UNKNOW);
    EXPECT_EQ(parsed("no-action").credible_event().rule().match_action_size(), 0);
}

TEST_F(ctl_credible, what_can_not_be_described_is_refused) {
    EXPECT_EQ(kzectl({"engine", "credible", "--scene", "web", "--pid", "2147483647"}).status, 5);
    EXPECT_EQ(kzectl({"engine", "credible", "--scene", "webb", "--pid", pid()}).status, 2);
    EXPECT_EQ(kzectl({"engine", "credible", "--pid", pid()}).status, 2);
    EXPECT_EQ(kzectl({"engine", "credible", "--scene", "web"}).status, 2);
    EXPECT_EQ(
        kzectl({"engine", "credible", "--scene", "web", "--pid", pid(), "--malformed", "other"})
            .status,
        2);
    EXPECT_EQ(kzectl({"engine", "credible", "--scene", "web", "--pid", pid()}).status, 3)
        << "there is no engine";
}

TEST_F(ctl_credible, the_gateway_shows_an_event_decoded_with_its_disposal_state_by_name) {
    const std::string bytes = frame({"--scene", "web", "--pid", pid()});
    kzav_trace_info marked;
    ASSERT_TRUE(marked.ParseFromString(bytes.substr(kze::module_header_size)));
    marked.mutable_credible_event()->set_disposal_state(kzav_trace::DISPOSAL_STATE_AUTO_DISPOSING);
    kzav_trace_info bare;
    bare.set_cmd(kzav_trace::TRACE_CMD_CREDIBLE_EVENT);
    bare.mutable_credible_event()->mutable_rule()->set_scene(
        static_cast<kzav_trace::KZAV_EVENT_SCENE>(9));
    const auto framed = [](const kzav_trace_info &info) {
        return kze::module_frame(info.SerializeAsString(), module_request,
                                 kze::byte_order::little_endian);
    };
    {
        const gateway_library gateway;
        ASSERT_EQ(gateway.send(10, bytes), 0);
        ASSERT_EQ(gateway.send(10, framed(marked)), 0);
        ASSERT_EQ(gateway.send(10, framed(bare)), 0);
        ASSERT_EQ(
            gateway.send(10, frame({"--scene", "web", "--pid", pid(), "--malformed", "body"})), 0);
    }
    for (const char *command : {"list", "tail"}) {
        const std::string rows = kzectl({"gateway", command, "--type", "credible"}).out;
        EXPECT_THAT(rows, HasSubstr("DISPOSAL_STATE_UNHANDLED, EVENT_WEB, 1 action, 2 processes"));
        EXPECT_THAT(rows, HasSubstr("DISPOSAL_STATE_AUTO_DISPOSING, EVENT_WEB"));
        EXPECT_THAT(rows, HasSubstr("DISPOSAL_STATE_UNKNOW, 9, 0 actions, 0 processes"));
    }
    const json records = json::parse(kzectl({"--json", "gateway", "list"}).out)["records"];
    EXPECT_EQ(records[1]["credible"]["disposal_state"], 2);
    EXPECT_FALSE(records[3].contains("credible"));
    const json shown = json::parse(kzectl({"--json", "gateway", "show", "2"}).out)["credible"];
    EXPECT_EQ(shown["disposal_state_name"], "DISPOSAL_STATE_AUTO_DISPOSING");
    EXPECT_EQ(shown["scene_name"], "EVENT_WEB");
    EXPECT_EQ(shown["alerts"].size(), 1U);
    EXPECT_EQ(shown["actions"][0]["processes"][0]["alert"], true);
    EXPECT_EQ(shown["actions"][0]["processes"][1]["alert"], false);
    /* A field of 3 bytes and one of 3 and 19: in the event, around it and in two processes. */
    EXPECT_EQ(shown["unknown_bytes"], 4 * 25);
    EXPECT_EQ(records[2]["credible"]["unknown_bytes"], 0);
    const std::string text = kzectl({"gateway", "show", "2"}).out;
    EXPECT_THAT(text, HasSubstr("DISPOSAL_STATE_AUTO_DISPOSING"));
    EXPECT_THAT(text, HasSubstr("100 bytes of fields that the schema doesn't know"));
    EXPECT_THAT(text, HasSubstr("/bin/sleep 600"));
}

}  // namespace
}  // namespace kze_test
