/* Engines that die, leave or fall silent, and the beginning and end of the client. */
#include <malloc.h>

#include <atomic>
#include <cstdio>
#include <sstream>
#include <thread>

#include "agent/tests/component/engine/client_fixture.h"
#include "tests/support/sanitizers.h"
#include "vrdbase.h"

namespace engine_test {
namespace {

using std::chrono::milliseconds;

class EngineOutage : public EngineClient {
  protected:
    /* Waits for the report of the outage and asserts that it was the only one: with the end of the
     * client no other can come. */
    void expect_one_outage() {
        ASSERT_TRUE(outages.wait_for(1));
        library->x_client_stop();
        EXPECT_EQ(outages.count(), 1U);
    }
    bool offline_at_once() {
        const double seconds = seconds_of([this] {
            EXPECT_EQ(library->x_client_engine_control(ENGINE_IOC, ENGINE_SWITCH_ON), offline);
        });
        return seconds < well_within_a_limit;
    }
};

TEST_F(EngineOutage, engine_that_dies_is_reported_at_once_and_once) {
    start_both();
    tree.kill_engine(SIGKILL);
    EXPECT_LT(seconds_of([this] { ASSERT_TRUE(outages.wait_for(1)); }), well_within_a_limit);
    EXPECT_TRUE(offline_at_once());
    expect_one_outage();
}

TEST_F(EngineOutage, engine_that_is_stopped_in_order_is_reported_once) {
    start_both();
    EXPECT_EQ(tree.kill_engine(SIGTERM), 0);
    expect_one_outage();
}

TEST_F(EngineOutage, engine_that_dies_on_request_is_reported_once) {
    start_both();
    ASSERT_TRUE(tree.order({{"op", "die"}, {"stay_down", true}}));
    EXPECT_EQ(WEXITSTATUS(tree.wait_for_engine()), 77);
    expect_one_outage();
}

TEST_F(EngineOutage, silent_engine_is_reported_after_three_seconds_and_once) {
    start_both();
    ASSERT_TRUE(tree.order({{"op", "silent"}}));
    const double seconds = seconds_of([this] { ASSERT_TRUE(outages.wait_for(1)); });
    EXPECT_GE(seconds, 2.5);
    EXPECT_LT(seconds, 6.0);
    EXPECT_EQ(status().at("silent"), true);
    EXPECT_TRUE(offline_at_once());
    expect_one_outage();
}

TEST_F(EngineOutage, silent_engine_delivers_nothing_until_it_speaks_again) {
    start_both();
    ASSERT_EQ(library->x_client_engine_subscribe_alarm(on_data, &data), 0);
    ASSERT_TRUE(tree.order({{"op", "silent"}, {"seconds", 2}}));
    ASSERT_TRUE(tree.push("alarm", "bytes").at("ok"));
    EXPECT_EQ(status().at("clients").at(0).at("events_waiting"), 1);
    EXPECT_EQ(data.count(), 0U);
    ASSERT_TRUE(data.wait_for(1));
    EXPECT_EQ(outages.count(), 0U);
}

TEST_F(EngineOutage, engine_that_was_silent_for_a_second_is_not_reported) {
    start_both();
    ASSERT_TRUE(tree.order({{"op", "silent"}, {"seconds", 1}}));
    ASSERT_TRUE(kze_test::eventually([this] { return !status().at("silent").get<bool>(); }));
    EXPECT_EQ(library->x_client_engine_control(ENGINE_IOC, ENGINE_SWITCH_ON), 0);
    EXPECT_EQ(outages.count(), 0U);
}

TEST_F(EngineOutage, silent_engine_makes_start_fail_within_its_bound_and_clear_ends_it) {
    tree.start_engine();
    ASSERT_TRUE(tree.order({{"op", "silent"}}));
    EXPECT_LT(seconds_of([this] { EXPECT_EQ(start(), timed_out); }), 5.0);
    ASSERT_TRUE(tree.order({{"op", "clear"}}));
    EXPECT_EQ(start(), 0);
}

TEST_F(EngineOutage, call_in_the_middle_of_which_the_engine_dies_ends_at_once) {
    start_both();
    ASSERT_TRUE(
        tree.order({{"op", "answer"}, {"call", "x_client_get_drive_state"}, {"never", true}}));
    std::atomic<bool> called{false};
    double seconds = 0;
    std::thread caller([&] {
        seconds = seconds_of([&] {
            int state = 0;
            called = true;
            EXPECT_EQ(library->x_client_get_drive_state(&state), offline);
        });
    });
    ASSERT_TRUE(kze_test::eventually([&] { return called.load(); }));
    tree.kill_engine(SIGKILL);
    caller.join();
    EXPECT_LT(seconds, well_within_a_limit);
    expect_one_outage();
}

TEST_F(EngineOutage, update_whose_engine_dies_ends_in_its_callback_before_the_report) {
    start_both();
    tree.files().write("pack.cfg", "version=2\n");
    /* The engine takes 50 ms for an update and dies before. */
    ASSERT_EQ(library->x_client_engine_update_async(ENGINE_MD, tree.path("pack.cfg").c_str(),
                                                    on_update, &outages),
              0);
    tree.kill_engine(SIGKILL);
    ASSERT_TRUE(outages.wait_for(2));
    EXPECT_EQ(outages.items(), (std::vector<std::string>{"3:-8", "offline"}));
}

TEST_F(EngineOutage, client_comes_back_after_an_outage_with_new_subscriptions) {
    start_both();
    ASSERT_EQ(library->x_client_engine_subscribe_alarm(on_data, &data), 0);
    for (std::size_t outage = 1; outage <= 3; ++outage) {
        tree.kill_engine(SIGKILL);
        ASSERT_TRUE(outages.wait_for(outage));
        EXPECT_EQ(start(), offline);
        tree.start_engine();
        ASSERT_EQ(start(), 0);
        EXPECT_FALSE(tree.push("alarm", "early").at("ok"));
        ASSERT_EQ(library->x_client_engine_subscribe_alarm(on_data, &data), 0);
        ASSERT_TRUE(tree.push("alarm", "late").at("ok"));
        ASSERT_TRUE(data.wait_for(outage));
        EXPECT_EQ(outages.count(), outage);
    }
}

TEST_F(EngineOutage, client_can_be_started_again_from_its_offline_callback) {
    start_both();
    std::atomic<int> result{1};
    outages.react_with([&] {
        while ((result = start()) != 0) {
            std::this_thread::sleep_for(milliseconds(5));
        }
    });
    tree.kill_engine(SIGKILL);
    ASSERT_TRUE(outages.wait_for(1));
    outages.react_with({});
    tree.start_engine();
    ASSERT_TRUE(kze_test::eventually([&] { return result == 0; }));
    EXPECT_EQ(library->x_client_engine_control(ENGINE_IOC, ENGINE_SWITCH_ON), 0);
    tree.kill_engine(SIGKILL);
    ASSERT_TRUE(outages.wait_for(2));
}

TEST_F(EngineOutage, engine_that_died_and_came_back_unseen_is_an_outage_too) {
    start_both();
    tree.kill_engine(SIGKILL);
    tree.start_engine();
    expect_one_outage();
}

TEST_F(EngineOutage, no_callback_runs_once_stop_has_returned) {
    start_both();
    std::atomic<bool> stopped{false};
    std::atomic<int> late{0};
    data.react_with([&] { late += stopped ? 1 : 0; });
    std::atomic<bool> pushing{true};
    tree.files().write("pushed.bin", "bytes");
    std::thread pusher([&] {
        while (pushing) {
            tree.ask({{"op", "push"}, {"kind", "alarm"}, {"file", tree.path("pushed.bin")}});
        }
    });
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(start(), 0);
        stopped = false;
        const std::size_t before = data.count();
        ASSERT_EQ(library->x_client_engine_subscribe_alarm(on_data, &data), 0);
        ASSERT_TRUE(data.wait_for(before + 1));
        ASSERT_EQ(library->x_client_stop(), 0);
        stopped = true;
    }
    pushing = false;
    pusher.join();
    EXPECT_EQ(late, 0);
}

TEST_F(EngineOutage, stop_waits_for_a_callback_that_runs) {
    start_both();
    std::atomic<bool> entered{false};
    std::atomic<bool> left{false};
    data.react_with([&] {
        EXPECT_EQ(library->x_client_engine_control(ENGINE_IOC, ENGINE_SWITCH_ON), 0);
        entered = true;
        std::this_thread::sleep_for(milliseconds(200)); /* a slow callback, not a wait */
        left = true;
    });
    ASSERT_EQ(library->x_client_engine_subscribe_alarm(on_data, &data), 0);
    ASSERT_TRUE(tree.push("alarm", "bytes").at("ok"));
    ASSERT_TRUE(kze_test::eventually([&] { return entered.load(); }));
    library->x_client_stop();
    EXPECT_TRUE(left);
}

TEST_F(EngineOutage, stop_drops_what_waits_behind_a_callback_that_runs) {
    start_both();
    std::atomic<bool> stopping{false};
    data.react_with([&] {
        /* Until the stop has begun: from then on calls fail. */
        ASSERT_TRUE(kze_test::eventually([&] {
            return stopping &&
                   library->x_client_engine_control(ENGINE_IOC, ENGINE_SWITCH_ON) == offline;
        }));
    });
    ASSERT_EQ(library->x_client_engine_subscribe_alarm(on_data, &data), 0);
    for (int number = 0; number < 10; ++number) {
        ASSERT_TRUE(tree.push("alarm", "bytes").at("ok"));
    }
    ASSERT_TRUE(kze_test::eventually(
        [this] { return status().at("clients").at(0).at("events_sent") == 10; }));
    stopping = true;
    EXPECT_EQ(library->x_client_stop(), 0);
    EXPECT_EQ(data.count(), 1U);
}

TEST_F(EngineOutage, report_leaves_time_to_note_the_success_of_a_start) {
    tree.start_engine();
    const double seconds = seconds_of([this] {
        ASSERT_EQ(start(), 0);
        tree.kill_engine(SIGKILL);
        ASSERT_TRUE(outages.wait_for(1));
    });
    EXPECT_GE(seconds, 0.25);
}

TEST_F(EngineOutage, stop_and_start_work_from_within_a_callback) {
    start_both();
    std::atomic<int> stopped{-1};
    std::atomic<int> started{-1};
    data.react_with([&] {
        if (stopped == -1) {
            stopped = library->x_client_stop();
            started = start();
        }
    });
    ASSERT_EQ(library->x_client_engine_subscribe_alarm(on_data, &data), 0);
    ASSERT_TRUE(tree.push("alarm", "bytes").at("ok"));
    ASSERT_TRUE(kze_test::eventually([&] { return started != -1; }));
    EXPECT_EQ(stopped, 0);
    EXPECT_EQ(started, 0);
    EXPECT_EQ(library->x_client_engine_control(ENGINE_IOC, ENGINE_SWITCH_ON), 0);
}

TEST_F(EngineOutage, start_and_stop_from_a_callback_do_not_hold_up_a_stop_that_waits_for_it) {
    start_both();
    std::atomic<bool> entered{false};
    std::atomic<bool> stopping{false};
    data.react_with([&] {
        entered = true;
        while (!stopping) {
            std::this_thread::sleep_for(milliseconds(1));
        }
        /* Until the stop has begun these succeed; then they give way to it. */
        for (int round = 0; round < 50 && start() == 0; ++round) {
        }
        library->x_client_stop();
    });
    ASSERT_EQ(library->x_client_engine_subscribe_alarm(on_data, &data), 0);
    ASSERT_TRUE(tree.push("alarm", "bytes").at("ok"));
    ASSERT_TRUE(kze_test::eventually([&] { return entered.load(); }));
    stopping = true;
    EXPECT_LT(seconds_of([this] { library->x_client_stop(); }), 10.0);
}

TEST_F(EngineOutage, calls_from_many_threads_survive_an_engine_that_comes_and_goes) {
    start_both();
    std::atomic<bool> running{true};
    std::atomic<int> calls{0};
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 4; ++caller) {
        callers.emplace_back([&, caller] {
            while (running) {
                int state = 0;
                library->x_client_engine_control(ENGINE_COLLECT, ENGINE_SWITCH_ON);
                library->x_client_get_drive_state(&state);
                library->x_client_engine_subscribe_alarm(on_data, &data);
                library->x_client_subscribe_origin_data(1, on_data, &data);
                version(ENGINE_IOC);
                library->x_client_engine_update_by_data(ENGINE_IOC, "rules", 5, on_update, &data);
                if (caller == 0 && start() != 0) {
                    std::this_thread::sleep_for(milliseconds(10));
                }
                ++calls;
            }
        });
    }
    for (int round = 0; round < 5; ++round) {
        const int before = calls;
        ASSERT_TRUE(kze_test::eventually([&] { return calls > before + 20; }));
        tree.kill_engine(SIGKILL);
        tree.start_engine();
    }
    running = false;
    for (std::thread &caller : callers) {
        caller.join();
    }
    ASSERT_EQ(start(), 0);
    EXPECT_EQ(library->x_client_engine_control(ENGINE_IOC, ENGINE_SWITCH_ON), 0);
}

TEST_F(EngineOutage, thousand_starts_and_stops_leave_nothing) {
    start_both();
    library->x_client_stop();
    const std::size_t threads = kze_test::thread_count();
    const std::size_t descriptors = kze_test::descriptor_count();
    const auto memory = mallinfo2().uordblks;
    const double seconds = seconds_of([this] {
        for (int round = 0; round < 1000; ++round) {
            ASSERT_EQ(start(), 0);
            ASSERT_EQ(library->x_client_stop(), 0);
        }
    });
    RecordProperty("milliseconds", static_cast<int>(seconds * 1000));
    EXPECT_TRUE(kze_test::threads_become(threads));
    EXPECT_EQ(kze_test::descriptor_count(), descriptors);
    if (!kze_test::address_sanitizer && !kze_test::thread_sanitizer) {
        EXPECT_LT(mallinfo2().uordblks, memory + 64 * 1024);
    } /* else the leak check at the end looks at it */
    EXPECT_TRUE(status().at("clients").empty());
}

TEST_F(EngineOutage, failed_starts_leave_nothing) {
    EXPECT_EQ(start(), offline);
    const std::size_t threads = kze_test::thread_count();
    const std::size_t descriptors = kze_test::descriptor_count();
    for (int round = 0; round < 100; ++round) {
        EXPECT_EQ(start(), offline);
    }
    EXPECT_TRUE(kze_test::threads_become(threads));
    EXPECT_EQ(kze_test::descriptor_count(), descriptors);
}

TEST_F(EngineOutage, library_is_unloaded_with_a_live_client_and_leaves_no_thread) {
    // What the process opens once and keeps, the log and the event library's own pipe, comes first.
    start_both();
    ASSERT_EQ(library->x_client_stop(), 0);
    kze_log(3, "opens the log");
    const std::size_t threads = kze_test::thread_count();
    const std::size_t descriptors = kze_test::descriptor_count();
    ASSERT_EQ(start(), 0);
    ASSERT_TRUE(collect_on());
    ASSERT_EQ(library->x_client_subscribe_origin_data(1, on_data, &data), 0);
    ASSERT_TRUE(data.wait_for(1));
    const std::string path = tree.path("lib/libqdccl.so");
    library.reset();
    EXPECT_EQ(dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
    EXPECT_TRUE(kze_test::threads_become(threads));
    EXPECT_EQ(kze_test::descriptor_count(), descriptors);
    EXPECT_TRUE(status().at("clients").empty());
}

TEST_F(EngineOutage, library_that_was_unloaded_can_be_loaded_again) {
    start_both();
    for (int round = 0; round < 10; ++round) {
        library.reset();
        library = std::make_unique<client_library>(tree.path("lib/libqdccl.so"));
        library_holder = library.get();
        ASSERT_EQ(start(), 0);
    }
    EXPECT_EQ(status().at("clients").size(), 1U);
}

TEST_F(EngineOutage, library_exports_the_twenty_functions_and_nothing_else) {
    const std::string command = std::string(KZE_NM) + " -D --defined-only " +
                                std::filesystem::canonical(tree.path("lib/libqdccl.so")).string();
    FILE *output = popen(command.c_str(), "r");
    ASSERT_NE(output, nullptr);
    char line[512];
    std::vector<std::string> names;
    while (std::fgets(line, sizeof(line), output) != nullptr) {
        std::istringstream words(line);
        std::string address, kind, name;
        words >> address >> kind >> name;
        names.push_back(name);
    }
    ASSERT_EQ(pclose(output), 0);
    EXPECT_EQ(names.size(), 20U);
    for (const std::string &name : names) {
        EXPECT_EQ(name.rfind("x_client_", 0), 0U) << name;
    }
}

}  // namespace
}  // namespace engine_test
