/* What the engine delivers of its own accord. */
#include <algorithm>
#include <condition_variable>
#include <numeric>

#include "agent/tests/component/engine/client_fixture.h"

namespace engine_test {
namespace {

std::string binary_bytes(std::size_t size) {
    std::string bytes(size, '\0');
    std::iota(bytes.begin(), bytes.end(), static_cast<char>(0));
    return bytes;
}

class EngineEvents : public EngineClient {
  protected:
    void subscribe_all() {
        ASSERT_EQ(library->x_client_engine_subscribe_alarm(on_data, &alarms), 0);
        ASSERT_EQ(library->x_client_register_coordinate_cb(QD_TRACE_LINKAGE, on_data, &linkages),
                  0);
        ASSERT_EQ(library->x_client_register_coordinate_cb(QD_TRACE_APPEND, on_data, &appends), 0);
        ASSERT_EQ(library->x_client_register_coordinate_cb(QD_TRACE_HUNTING, on_data, &huntings),
                  0);
        ASSERT_EQ(library->x_client_engine_subscribe_credible(on_data, &credibles), 0);
        ASSERT_EQ(library->x_client_subscribe_clt(on_data, &clts), 0);
    }
    /* The lines of origin data that are about this process. */
    static json line_of_this_process(const std::string &snapshot) {
        std::size_t at = 0;
        while (at < snapshot.size()) {
            const std::size_t end = snapshot.find('\n', at);
            const json line = json::parse(snapshot.substr(at, end - at));
            if (line.at("pid") == getpid()) {
                return line;
            }
            at = end + 1;
        }
        return json::object();
    }

    inbox alarms, linkages, appends, huntings, credibles, clts;
};

TEST_F(EngineEvents, pushed_bytes_reach_the_callback_of_their_kind_unchanged) {
    start_both();
    subscribe_all();
    const std::vector<std::pair<std::string, inbox *>> kinds = {
        {"alarm", &alarms},     {"linkage", &linkages},   {"append", &appends},
        {"hunting", &huntings}, {"credible", &credibles}, {"clt", &clts},
    };
    for (const auto &[kind, box] : kinds) {
        const std::string bytes = kind + binary_bytes(1000);
        EXPECT_EQ(tree.push(kind, bytes), (json{{"ok", true}, {"clients", 1}}));
        ASSERT_TRUE(box->wait_for(1)) << kind;
        EXPECT_EQ(box->items().at(0), bytes) << kind;
    }
    for (const auto &[kind, box] : kinds) {
        EXPECT_EQ(box->count(), 1U) << kind;
        EXPECT_EQ(status().at("pushes").at(kind), 1);
    }
}

TEST_F(EngineEvents, events_arrive_in_the_order_of_their_pushes) {
    start_both();
    subscribe_all();
    std::vector<std::string> pushed;
    for (int number = 0; number < 100; ++number) {
        pushed.push_back(std::to_string(number));
        ASSERT_TRUE(tree.push("alarm", pushed.back()).at("ok"));
    }
    ASSERT_TRUE(alarms.wait_for(100));
    EXPECT_EQ(alarms.items(), pushed);
}

TEST_F(EngineEvents, push_that_nobody_has_subscribed_to_says_so) {
    start_both();
    const json answer = tree.push("alarm", "bytes");
    EXPECT_EQ(answer.at("ok"), false);
    EXPECT_EQ(answer.at("error"), "no client has subscribed to alarm, start the agent first");
}

TEST_F(EngineEvents, push_of_what_is_no_kind_or_no_file_says_what_to_do) {
    start_both();
    subscribe_all();
    EXPECT_NE(tree.push("alarms", "bytes").at("error").get<std::string>().find("must be alarm"),
              std::string::npos);
    EXPECT_EQ(tree.push("alarm", "").at("ok"), false);
    EXPECT_EQ(tree.ask({{"op", "push"}, {"kind", "alarm"}, {"file", "relative"}}).at("error"),
              "\"file\" must be an absolute path");
    EXPECT_EQ(tree.ask({{"op", "push"}, {"kind", "alarm"}, {"file", "/dev/null"}}).at("ok"), false);
    EXPECT_EQ(tree.ask({{"op", "push"}, {"kind", "alarm"}, {"file", "/nowhere/x"}}).at("ok"),
              false);
}

TEST_F(EngineEvents, newest_callback_is_the_one_in_force_and_null_cancels) {
    start_both();
    ASSERT_EQ(library->x_client_engine_subscribe_alarm(on_data, &alarms), 0);
    ASSERT_EQ(library->x_client_engine_subscribe_alarm(on_data, &clts), 0);
    ASSERT_TRUE(tree.push("alarm", "one").at("ok"));
    ASSERT_TRUE(clts.wait_for(1));
    EXPECT_EQ(alarms.count(), 0U);
    ASSERT_EQ(library->x_client_engine_subscribe_alarm(nullptr, nullptr), 0);
    EXPECT_FALSE(tree.push("alarm", "two").at("ok"));
}

TEST_F(EngineEvents, subscription_that_the_engine_refuses_leaves_the_one_before) {
    start_both();
    ASSERT_EQ(library->x_client_engine_subscribe_alarm(on_data, &alarms), 0);
    ASSERT_TRUE(
        tree.order({{"op", "answer"}, {"call", "x_client_engine_subscribe_alarm"}, {"code", -9}}));
    EXPECT_EQ(library->x_client_engine_subscribe_alarm(on_data, &clts), -9);
    ASSERT_TRUE(tree.push("alarm", "one").at("ok"));
    ASSERT_TRUE(alarms.wait_for(1));
    EXPECT_EQ(clts.count(), 0U);
}

TEST_F(EngineEvents, buffers_are_counted_until_they_are_given_back) {
    start_both();
    static std::vector<char *> kept;
    kept.clear();
    const qd_data_cb keep = [](char *bytes, unsigned int, void *context) {
        kept.push_back(bytes);
        static_cast<inbox *>(context)->put("kept");
    };
    ASSERT_EQ(library->x_client_engine_subscribe_alarm(keep, &alarms), 0);
    ASSERT_TRUE(tree.push("alarm", "one").at("ok"));
    ASSERT_TRUE(tree.push("alarm", "two").at("ok"));
    ASSERT_TRUE(alarms.wait_for(2));
    EXPECT_TRUE(kze_test::eventually([this] { return buffers_out() == 2; }));
    for (char *bytes : kept) {
        library->x_client_free(bytes);
    }
    library->x_client_free(nullptr);
    EXPECT_EQ(version(ENGINE_IOC), "1.0");
    EXPECT_TRUE(kze_test::eventually([this] { return buffers_out() == 0; }));
}

TEST_F(EngineEvents, origin_data_comes_at_once_when_collecting_and_names_this_process) {
    start_both();
    ASSERT_TRUE(collect_on());
    ASSERT_EQ(library->x_client_subscribe_origin_data(120, on_data, &data), 0);
    ASSERT_TRUE(data.wait_for(1));
    const json line = line_of_this_process(data.items().at(0));
    ASSERT_FALSE(line.empty());
    EXPECT_EQ(line.at("ppid"), getppid());
    EXPECT_EQ(line.at("uid"), getuid());
    EXPECT_EQ(line.at("path"), std::filesystem::read_symlink("/proc/self/exe").string());
    EXPECT_EQ(data.items().at(0).back(), '\n');
    EXPECT_EQ(status().at("clients").at(0).at("origin_cycle_s"), 120);
}

TEST_F(EngineEvents, subscription_waits_for_collecting_to_be_turned_on) {
    start_both();
    ASSERT_EQ(library->x_client_subscribe_origin_data(120, on_data, &data), 0);
    EXPECT_EQ(tree.ask({{"op", "origin-now"}}).at("error"),
              "the collect capability is off, turn it on first");
    EXPECT_EQ(data.count(), 0U);
    ASSERT_TRUE(collect_on());
    ASSERT_TRUE(data.wait_for(1));
}

TEST_F(EngineEvents, same_subscription_again_or_collecting_turned_on_again_delivers_nothing) {
    start_both();
    ASSERT_TRUE(collect_on());
    ASSERT_EQ(library->x_client_subscribe_origin_data(120, on_data, &data), 0);
    ASSERT_TRUE(data.wait_for(1));
    ASSERT_EQ(library->x_client_subscribe_origin_data(120, on_data, &data), 0);
    ASSERT_TRUE(collect_on());
    EXPECT_EQ(status().at("snapshots_ordered"), 1);
    ASSERT_TRUE(tree.order({{"op", "origin-now"}}));
    ASSERT_TRUE(data.wait_for(2));
    EXPECT_EQ(status().at("snapshots_ordered"), 2);
}

TEST_F(EngineEvents, subscription_with_another_cycle_delivers_at_once) {
    start_both();
    ASSERT_TRUE(collect_on());
    ASSERT_EQ(library->x_client_subscribe_origin_data(120, on_data, &data), 0);
    ASSERT_TRUE(data.wait_for(1));
    ASSERT_EQ(library->x_client_subscribe_origin_data(300, on_data, &data), 0);
    ASSERT_TRUE(data.wait_for(2));
    EXPECT_EQ(status().at("clients").at(0).at("origin_cycle_s"), 300);
}

TEST_F(EngineEvents, origin_data_comes_once_each_cycle_until_it_is_cancelled) {
    start_both();
    ASSERT_TRUE(collect_on());
    ASSERT_EQ(library->x_client_subscribe_origin_data(1, on_data, &data), 0);
    const double seconds = seconds_of([this] { ASSERT_TRUE(data.wait_for(3)); });
    EXPECT_GE(seconds, 1.0);
    EXPECT_LT(seconds, 10.0);
    ASSERT_EQ(library->x_client_subscribe_origin_data(1, nullptr, nullptr), 0);
    EXPECT_EQ(tree.ask({{"op", "origin-now"}}).at("error"),
              "no client has subscribed to origin data, start the agent first");
    EXPECT_EQ(library->x_client_subscribe_origin_data(0, on_data, &data), invalid);
}

TEST_F(EngineEvents, origin_data_comes_on_demand) {
    start_both();
    ASSERT_TRUE(collect_on());
    ASSERT_EQ(library->x_client_subscribe_origin_data(600, on_data, &data), 0);
    ASSERT_TRUE(data.wait_for(1));
    EXPECT_EQ(tree.ask({{"op", "origin-now"}}), (json{{"ok", true}, {"clients", 1}}));
    ASSERT_TRUE(data.wait_for(2));
}

TEST_F(EngineEvents, origin_data_of_several_megabytes_arrives_whole) {
    start_both();
    ASSERT_TRUE(collect_on());
    ASSERT_EQ(library->x_client_subscribe_origin_data(600, on_data, &data), 0);
    ASSERT_TRUE(data.wait_for(1));
    std::string lines;
    while (lines.size() < (7U << 20)) {
        lines += "{\"line\":" + std::to_string(lines.size()) + "}\n";
    }
    ASSERT_TRUE(tree.push("origin", lines).at("ok"));
    ASSERT_TRUE(data.wait_for(2));
    EXPECT_TRUE(data.items().at(1) == lines);
}

TEST_F(EngineEvents, push_of_more_than_a_message_holds_is_refused_origin_data_too) {
    start_both();
    subscribe_all();
    ASSERT_TRUE(collect_on());
    ASSERT_EQ(library->x_client_subscribe_origin_data(600, on_data, &data), 0);
    const std::size_t limit = (16U << 20) - 24;
    EXPECT_TRUE(tree.push("alarm", std::string(limit, 'a')).at("ok"));
    for (const char *kind : {"alarm", "origin"}) {
        const json answer = tree.push(kind, std::string(limit + 1, 'a'));
        EXPECT_EQ(answer.at("ok"), false);
        EXPECT_NE(answer.at("error").get<std::string>().find("larger than a message"),
                  std::string::npos);
    }
    ASSERT_TRUE(alarms.wait_for(1));
    EXPECT_EQ(alarms.items().at(0).size(), limit);
}

TEST_F(EngineEvents, events_for_a_client_that_stands_still_are_bounded_and_the_loss_is_counted) {
    start_both();
    std::mutex lock;
    std::condition_variable changed;
    bool open = false;
    alarms.react_with([&] {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait(guard, [&] { return open; });
    });
    ASSERT_EQ(library->x_client_engine_subscribe_alarm(on_data, &alarms), 0);
    const std::string bytes(8U << 20, 'a');
    std::size_t taken = 0;
    while (taken < 100 && tree.push("alarm", bytes).at("ok")) {
        ++taken;
    }
    /* Seven wait in the engine; up to six, four of them behind 32 MiB, in the client. */
    EXPECT_GE(taken, 7U);
    EXPECT_LE(taken, 13U);
    EXPECT_EQ(status().at("clients").at(0).at("events_dropped"), 1);
    {
        const std::lock_guard<std::mutex> guard(lock);
        open = true;
    }
    changed.notify_all();
    ASSERT_TRUE(alarms.wait_for(taken));
    ASSERT_TRUE(tree.push("alarm", "after").at("ok"));
    ASSERT_TRUE(alarms.wait_for(taken + 1));
    EXPECT_EQ(alarms.items().back(), "after");
    EXPECT_EQ(alarms.count(), taken + 1);
    EXPECT_EQ(outages.count(), 0U);
    library->x_client_stop();
}

TEST_F(EngineEvents, events_that_fill_the_bound_exactly_are_kept_and_the_next_is_dropped) {
    start_both();
    ASSERT_EQ(library->x_client_engine_subscribe_alarm(on_data, &alarms), 0);
    ASSERT_TRUE(tree.order({{"op", "silent"}})); /* so that nothing is fetched meanwhile */
    /* 64 MiB are eight events of 8 MiB, of which 24 bytes are a head and 256 are counted on top. */
    const std::size_t eighth = (8U << 20) - 24 - 256;
    for (int number = 0; number < 7; ++number) {
        ASSERT_TRUE(tree.push("alarm", std::string(eighth, 'a')).at("ok")) << number;
    }
    EXPECT_FALSE(tree.push("alarm", std::string(eighth + 1, 'a')).at("ok"));
    EXPECT_TRUE(tree.push("alarm", std::string(eighth, 'a')).at("ok"));
    EXPECT_EQ(tree.push("alarm", "a").at("error"),
              "the client has 64 MiB of events to fetch and takes no more, the push is dropped");
    const json client = status().at("clients").at(0);
    EXPECT_EQ(client.at("events_waiting"), 8);
    EXPECT_EQ(client.at("events_dropped"), 2);
}

TEST_F(EngineEvents, calls_work_from_within_a_callback) {
    start_both();
    std::string seen;
    alarms.react_with([&] { seen = version(ENGINE_IOC); });
    ASSERT_EQ(library->x_client_engine_subscribe_alarm(on_data, &alarms), 0);
    ASSERT_TRUE(tree.push("alarm", "one").at("ok"));
    EXPECT_TRUE(kze_test::eventually([&] { return buffers_out() == 0 && alarms.count() == 1; }));
    library->x_client_stop();
    EXPECT_EQ(seen, "1.0");
}

}  // namespace
}  // namespace engine_test
