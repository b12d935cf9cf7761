/* What the engine delivers reaches the gateway. */
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <random>

#include "agent/tests/system/agent_tree.h"
#include "tests/support/process_state.h"

namespace kze_test {
namespace {

using nlohmann::json;

std::string random_bytes(std::size_t count) {
    std::mt19937 generator(static_cast<unsigned int>(count));
    std::string bytes(count, '\0');
    for (char &byte : bytes) {
        byte = static_cast<char>(generator() & 0xFFU);
    }
    return bytes;
}

class data : public system_test {
  protected:
    void SetUp() override {
        tree.switch_on();
        tree.must({"up"});
        tree.see("qd register append coordinate cb ret: 0");
    }

    /* Delivers the bytes and gives what the gateway got of that type. */
    std::string pass(const std::string &kind, const std::string &bytes) const {
        const std::int64_t from = tree.newest_record();
        tree.write("var/pushed", bytes);
        tree.must({"engine", "push", kind, tree.path("var/pushed").string()});
        const std::int64_t id = tree.wait_record(kind, from);
        last_ = std::to_string(id);
        return tree.ctl({"gateway", "show", last_, "--raw"}).out;
    }

    mutable std::string last_; /* the number of the record that came last */
};

TEST_F(data, alarms_and_coordinate_results_reach_the_gateway_unchanged_under_their_types) {
    const std::vector<std::pair<std::string, int>> kinds = {
        {"alarm", 1}, {"linkage", 2}, {"append", 3}, {"hunting", 4}};
    for (const auto &[kind, type] : kinds) {
        const std::string bytes = random_bytes(5000 + static_cast<std::size_t>(type));
        EXPECT_TRUE(pass(kind, bytes) == bytes) << kind << " has changed";
        EXPECT_EQ(tree.ask({"gateway", "show", last_})["type"], type) << kind;
    }
}

TEST_F(data, a_single_byte_and_eight_mebibytes_pass_unchanged) {
    for (const std::size_t size : {std::size_t{1}, std::size_t{8} << 20}) {
        const std::string bytes = random_bytes(size);
        EXPECT_TRUE(pass("alarm", bytes) == bytes) << size;
    }
}

TEST_F(data, origin_data_shows_this_hosts_processes_and_the_sizes_before_and_after) {
    const std::int64_t from = tree.newest_record();
    tree.must({"engine", "origin-now"});
    const std::string self = "\"pid\":" + std::to_string(getpid()) + ",";
    const std::int64_t id = tree.wait_record("origin", from, self);
    const json record = tree.ask({"gateway", "show", std::to_string(id)});

    EXPECT_EQ(record["type"], 5);
    EXPECT_EQ(record["frame"]["compress_flag"], 2);
    EXPECT_EQ(record["frame"]["proto_type"], 2);
    EXPECT_EQ(record["frame"]["net_order"], false);
    EXPECT_EQ(record["frame"]["problem"], "");
    EXPECT_EQ(record["frame"]["msg_len"], record["frame"]["content_size"]);
    EXPECT_EQ(record["size"], record["frame"]["payload_size"].get<std::int64_t>() + 20);
    EXPECT_LT(record["frame"]["payload_size"], record["frame"]["content_size"]);

    const auto &processes = record["processes"];
    const auto own = std::find_if(processes.begin(), processes.end(),
                                  [](const json &p) { return p.value("pid", 0) == getpid(); });
    ASSERT_NE(own, processes.end());
    EXPECT_EQ((*own)["path"], std::filesystem::read_symlink("/proc/self/exe").string());
    EXPECT_EQ((*own)["ppid"], getppid());

    const std::string text = tree.ctl({"gateway", "show", std::to_string(id)}).out;
    EXPECT_NE(text.find("Raw"), std::string::npos) << text.substr(0, 1000);
    EXPECT_NE(text.find("compressed to"), std::string::npos) << text.substr(0, 1000);
    EXPECT_NE(text.find("Processes"), std::string::npos) << text.substr(0, 1000);
}

TEST_F(data, origin_data_stays_here_while_the_report_switch_is_off) {
    tree.wait_record("origin", 0);
    tree.set("/mgr/base_collect", "/enable_actioninfo", "false");
    const std::int64_t from = tree.mark();
    tree.must({"reload"});
    tree.see("qd register append coordinate cb ret: 0", from);
    const std::int64_t records = tree.newest_record();
    tree.must({"engine", "origin-now"});
    tree.see("report switch is off", 0, "host");
    pass("alarm", "behind the origin data");
    std::vector<std::string> since;
    const json listed = tree.ask({"gateway", "list", "--after", std::to_string(records)});
    for (const json &each : listed["records"]) {
        if (each["type_name"] != "ctmioa_hello") {  // that of the start comes when it comes
            since.push_back(each["type_name"]);
        }
    }
    EXPECT_EQ(since, std::vector<std::string>{"alarm"});
}

TEST_F(data, text_is_shown_as_text_and_other_bytes_in_hexadecimal_digits) {
    pass("alarm", "a text\nof two lines\n");
    EXPECT_NE(tree.ctl({"gateway", "show", last_}).out.find("  a text\n  of two lines\n"),
              std::string::npos);
    pass("hunting", std::string("\x00\x01\xFF hello", 9));
    EXPECT_NE(tree.ctl({"gateway", "show", last_}).out.find("00 01 ff 20 68 65 6c 6c 6f"),
              std::string::npos);
}

TEST_F(data, the_list_is_bounded_filtered_and_in_order) {
    for (int i = 0; i < 3; ++i) {
        pass("alarm", "alarm " + std::to_string(i));
        pass("append", "append " + std::to_string(i));
    }
    const json alarms = tree.ask({"gateway", "list", "--type", "alarm"})["records"];
    ASSERT_EQ(alarms.size(), 3U);
    EXPECT_LT(alarms[0]["id"], alarms[1]["id"]);
    EXPECT_EQ(tree.ask({"gateway", "list", "--limit", "2"})["records"].size(), 2U);
    EXPECT_EQ(
        tree.ask({"gateway", "list", "--type", "1", "--after", alarms[0]["id"].dump()})["records"]
            .size(),
        2U);
}

/* The time limit in the name is what the gateway promises for what it accepted. */
TEST_F(data, a_host_killed_a_second_after_the_last_delivery_loses_nothing) {
    constexpr int count = 200;
    tree.write("var/pushed", random_bytes(20000));
    for (int i = 0; i < count; ++i) {
        tree.must({"engine", "push", "alarm", tree.path("var/pushed").string()});
    }
    std::int64_t from = 0;
    for (int i = 0; i < count; ++i) {
        from = tree.see("get qd_alarm data", from, "host");
        from = tree.see("send data to thtgw success", from, "host");
    }
    const auto sent = std::chrono::steady_clock::now();
    eventually([&] { return std::chrono::steady_clock::now() - sent >= std::chrono::seconds(1); });
    kill(tree.pid_of("bin/kze_agent"), SIGKILL);
    ASSERT_TRUE(eventually([&] { return tree.pid_of("bin/kze_agent") == 0; }));
    EXPECT_EQ(tree.ask({"gateway", "list", "--type", "alarm"})["records"].size(),
              static_cast<std::size_t>(count));
}

}  // namespace
}  // namespace kze_test
