/* kzectl bus and kzectl gateway: which entries list, tail and wait take. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <sstream>

#include "agent/common/tree.h"
#include "agent/message_bus/events.h"
#include "agent/message_bus/tap.h"
#include "agent/tests/component/gateway/gateway_library.h"
#include "tests/support/command_run.h"
#include "tests/support/temp_tree.h"

namespace kze_test {
namespace {

using kze::bus::event_offline;
using kze::bus::event_origin;
using kze::bus::publication;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

command_run kzectl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KZECTL);
    return run_command(arguments);
}

/* The numbers in what "list" prints for programs. */
std::vector<std::uint64_t> listed(const std::string &group, std::vector<std::string> options) {
    options.insert(options.begin(), {"--json", group, "list"});
    const command_run run = kzectl(options);
    EXPECT_EQ(run.status, 0) << run.err;
    std::vector<std::uint64_t> numbers;
    for (const json &each : run.value.at(group == "bus" ? "publications" : "records")) {
        numbers.push_back(each.at("id"));
    }
    return numbers;
}

/* The first column of what "tail" prints. */
std::vector<std::string> tailed(const std::string &group, std::vector<std::string> options) {
    options.insert(options.begin(), {group, "tail"});
    std::vector<std::string> numbers;
    std::istringstream lines(kzectl(options).out);
    for (std::string line; std::getline(lines, line);) {
        numbers.push_back(line.substr(0, line.find(' ')));
    }
    return numbers;
}

class BusCommands : public testing::Test {
  protected:
    void SetUp() override {
        tree.write("bin/kze_agent", "");
        std::filesystem::create_directories(tree.path("var/lib"));
    }

    void publish_four() {
        ASSERT_TRUE(tap_.append(publication(event_origin, "first")));
        ASSERT_TRUE(tap_.append(publication(event_offline, "second")));
        ASSERT_TRUE(tap_.append(publication(event_origin, "third \x1B[31m")));
        ASSERT_TRUE(tap_.append(publication(event_origin, "fourth")));
    }

    temp_tree tree;
    kze::record_writer tap_{kze::tree_path(kze::bus::tap_path), kze::bus::tap_form};
};

TEST_F(BusCommands, there_is_nothing_before_the_first_publication) {
    EXPECT_EQ(kzectl({"bus", "mark"}).out, "0\n");
    EXPECT_THAT(listed("bus", {}), ElementsAre());
    EXPECT_THAT(kzectl({"bus", "list"}).out, StartsWith("ID  TIME  EVENT  SIZE  DATA\n"));
    EXPECT_THAT(tailed("bus", {}), ElementsAre());
    const command_run late = kzectl({"bus", "wait", "--timeout", "0"});
    EXPECT_EQ(late.status, 4);
    EXPECT_THAT(late.err, HasSubstr("no such event was published in time"));
}

TEST_F(BusCommands, list_takes_the_newest_or_the_oldest_behind_a_number_and_one_event) {
    publish_four();
    EXPECT_THAT(listed("bus", {}), ElementsAre(1, 2, 3, 4));
    EXPECT_THAT(listed("bus", {"--limit", "2"}), ElementsAre(3, 4));
    EXPECT_THAT(listed("bus", {"--after", "1"}), ElementsAre(2, 3, 4));
    EXPECT_THAT(listed("bus", {"--after", "1", "--limit", "2"}), ElementsAre(2, 3));
    EXPECT_THAT(listed("bus", {"--event", "offline"}), ElementsAre(2));
    EXPECT_THAT(listed("bus", {"--event", "origin", "--limit", "2"}), ElementsAre(3, 4));
    const std::string rows = kzectl({"bus", "list"}).out;
    EXPECT_THAT(rows, HasSubstr("third \\x1B[31m\n"));
    for (const std::string option : {"--limit=0", "--after=-1", "--event=other"}) {
        EXPECT_EQ(kzectl({"bus", "list", option}).status, 2) << option;
    }
}

TEST_F(BusCommands, tail_takes_the_newest_lines_and_goes_on) {
    publish_four();
    EXPECT_THAT(tailed("bus", {"-n", "2"}), ElementsAre("3", "4"));
    EXPECT_THAT(tailed("bus", {"--lines", "1", "--event", "offline"}), ElementsAre("2"));
    child_process following({KZECTL, "--json", "bus", "tail", "-f", "-n", "1"});
    EXPECT_THAT(following.read_line(), HasSubstr("\"fourth\""));
    ASSERT_TRUE(tap_.append(publication(event_offline, "fifth")));
    EXPECT_THAT(following.read_line(), HasSubstr("\"fifth\""));
}

TEST_F(BusCommands, tail_that_was_overtaken_says_by_how_many) {
    publish_four();
    child_process following({KZECTL, "bus", "tail", "-f", "-n", "1"});
    EXPECT_THAT(following.read_line(), HasSubstr("fourth"));
    following.signal(SIGSTOP);
    int status = 0;
    ASSERT_EQ(waitpid(following.pid(), &status, WUNTRACED), following.pid());
    constexpr int more = 1030; /* of which the ring keeps 1,024 */
    for (int i = 0; i < more; ++i) {
        ASSERT_TRUE(tap_.append(publication(event_origin, "later")));
    }
    following.signal(SIGCONT);
    EXPECT_EQ(following.read_line(), "6 publications were overwritten");
    EXPECT_THAT(following.read_line(), StartsWith("11  "));
}

TEST_F(BusCommands, tail_goes_on_with_a_tap_that_was_begun_anew) {
    publish_four();
    child_process following({KZECTL, "bus", "tail", "-f", "-n", "1"});
    EXPECT_THAT(following.read_line(), HasSubstr("fourth"));
    std::filesystem::remove(kze::tree_path(kze::bus::tap_path));
    ASSERT_TRUE(tap_.append(publication(event_origin, "first of the new one")));
    const std::string line = following.read_line();
    EXPECT_THAT(line, StartsWith("1  "));
    EXPECT_THAT(line, HasSubstr("first of the new one"));
}

TEST_F(BusCommands, wait_ends_with_the_publication_that_fits) {
    publish_four();
    EXPECT_EQ(kzectl({"bus", "mark"}).out, "4\n");
    EXPECT_EQ(kzectl({"--json", "bus", "mark"}).value, json({{"id", 4}, {"ok", true}}));
    EXPECT_EQ(kzectl({"bus", "wait"}).out, "1\n");
    EXPECT_EQ(kzectl({"bus", "wait", "--after", "2"}).out, "3\n");
    EXPECT_EQ(kzectl({"bus", "wait", "--event", "offline"}).out, "2\n");
    EXPECT_EQ(kzectl({"--json", "bus", "wait", "--contains", "fou"}).value["content"], "fourth");
    EXPECT_EQ(kzectl({"bus", "wait", "--after", "4", "--timeout", "0.2"}).status, 4);
    child_process waiting({KZECTL, "bus", "wait", "--after", "4", "--timeout", "20"});
    ASSERT_TRUE(tap_.append(publication(event_origin, "fifth")));
    EXPECT_EQ(waiting.read_line(), "5");
    EXPECT_EQ(waiting.wait(), 0);
}

class GatewayCommands : public testing::Test {
  protected:
    void SetUp() override { tree.write("bin/kze_agent", ""); }

    /* Hands the records to the real gateway and closes it, by when they are in its journal. */
    static void send(const std::vector<std::pair<int, std::string>> &records) {
        const gateway_library gateway;
        for (const auto &[type, bytes] : records) {
            ASSERT_EQ(gateway.send(type, bytes), 0);
        }
    }
    static void send_four() { send({{1, "first"}, {2, "second"}, {1, "third"}, {1, "fourth"}}); }

    temp_tree tree;
};

TEST_F(GatewayCommands, there_is_nothing_to_read_before_the_gateway_has_made_its_journal) {
    EXPECT_EQ(kzectl({"gateway", "mark"}).out, "0\n");
    for (const std::string command : {"list", "tail"}) {
        EXPECT_EQ(kzectl({"gateway", command}).status, 5) << command;
    }
    const command_run late = kzectl({"gateway", "wait", "--type", "alarm", "--timeout", "0"});
    EXPECT_EQ(late.status, 4);
    EXPECT_THAT(late.err, HasSubstr("no such record reached the gateway in time: "));
}

TEST_F(GatewayCommands, list_takes_the_newest_or_the_oldest_behind_a_number_and_one_type) {
    send_four();
    EXPECT_THAT(listed("gateway", {}), ElementsAre(1, 2, 3, 4));
    EXPECT_THAT(listed("gateway", {"--limit", "2"}), ElementsAre(3, 4));
    EXPECT_THAT(listed("gateway", {"--after", "0", "--limit", "2"}), ElementsAre(1, 2));
    EXPECT_THAT(listed("gateway", {"--after", "1", "--type", "alarm"}), ElementsAre(3, 4));
    for (const std::string option : {"--limit=0", "--after=-1"}) {
        EXPECT_EQ(kzectl({"gateway", "list", option}).status, 2) << option;
    }
}

TEST_F(GatewayCommands, tail_takes_the_newest_lines_and_goes_on) {
    send_four();
    EXPECT_THAT(tailed("gateway", {"-n", "2"}), ElementsAre("3", "4"));
    EXPECT_THAT(tailed("gateway", {"--lines", "1", "--type", "2"}), ElementsAre("2"));
    EXPECT_THAT(tailed("gateway", {"-n", "0"}), ElementsAre());
    child_process following({KZECTL, "--json", "gateway", "tail", "-f", "-n", "1"});
    EXPECT_THAT(following.read_line(), HasSubstr("\"id\":4"));
    send({{2, "fifth"}});
    EXPECT_THAT(following.read_line(), HasSubstr("\"id\":5"));
}

TEST_F(GatewayCommands, wait_ends_with_the_record_that_fits) {
    send_four();
    EXPECT_EQ(kzectl({"gateway", "mark"}).out, "4\n");
    EXPECT_EQ(kzectl({"gateway", "wait", "--type", "alarm"}).out, "1\n");
    EXPECT_EQ(kzectl({"gateway", "wait", "--type", "alarm", "--after", "1"}).out, "3\n");
    EXPECT_EQ(kzectl({"gateway", "wait", "--type", "1", "--contains", "fou"}).out, "4\n");
    const command_run late =
        kzectl({"gateway", "wait", "--type", "2", "--after", "2", "--timeout", "0.2"});
    EXPECT_EQ(late.status, 4);
    EXPECT_EQ(late.err, "kzectl: no such record reached the gateway in time\n");
    child_process waiting({KZECTL, "gateway", "wait", "--type", "2", "--after", "4"});
    send({{2, "fifth"}});
    EXPECT_EQ(waiting.read_line(), "5");
    EXPECT_EQ(waiting.wait(), 0);
}

}  // namespace
}  // namespace kze_test
