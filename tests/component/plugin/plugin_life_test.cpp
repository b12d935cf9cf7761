// The two entry points of the real plug-in, and the worker between them.

#include <gmock/gmock.h>

#include "tests/component/plugin/plugin_test.h"
#include "tests/support/process_state.h"

using testing::ElementsAre;

namespace {

using plugin_life_test = plugin_test;

// The calls of the engine client in a start, with "/adv_threats" on and nothing else configured.
std::vector<std::string> client_calls(const std::vector<std::string> &calls) {
    std::vector<std::string> result;
    for (const std::string &each : calls) {
        if (each.rfind("x_client_", 0) == 0) {
            result.push_back(each);
        }
    }
    return result;
}

TEST_F(plugin_life_test, tells_of_a_start_and_a_stop_in_both_logs) {
    start();
    stop();
    EXPECT_TRUE(has_in_order(
        host_log().records(),
        {"begin to init plugin kzemdlmgr", "load lib qdccl success", "load lib kzethtgw success",
         "kzemm_loader init success", "init plugin kzemdlmgr success",
         "begin to uninit plugin kzemdlmgr", "kzemm_work stopped succeed", "kzemm_loader uninit",
         "uninit plugin kzemdlmgr success"}));
    EXPECT_TRUE(
        has_in_order(worker_log().records(), {"init kzemm_config",
                                              "init cfgc",
                                              "init cfgc succeed",
                                              "init kzemm_config succeed",
                                              "qd_client_start, max_try_times: 10",
                                              "x_client start success",
                                              "x_client status 1",
                                              "qd subscribe origin data success, cycle: 120",
                                              "set engine switch success",
                                              "qd subscribe alarm ret: 0",
                                              "kzemm_work start succeed",
                                              "start qd timer success",
                                              "work loop start",
                                              "work loop stop",
                                              "stop cfg timer",
                                              "stop switch timer",
                                              "stop qd timer",
                                              "x_client status 2",
                                              "uninit kzemm_config",
                                              "uninit cfgc succeed",
                                              "clean succeed",
                                              "kzemm_work stopped"}));
}

TEST_F(plugin_life_test, logs_each_line_with_its_level) {
    start();
    stop();
    EXPECT_TRUE(host_log().has("INFO", "init plugin kzemdlmgr success"));
    EXPECT_TRUE(worker_log().has("INFO", "work loop start"));
    EXPECT_TRUE(worker_log().has(
        "WARN", "load ini file failed, path: " + expanded("config/kzemdlmgr.ini")));
    EXPECT_TRUE(worker_log().has("ERROR",
                                 "cfgc GetValue failed, module: /mgr/base_collect, key: "
                                 "/collect_act_time, err: not configured."));
}

TEST_F(plugin_life_test, starts_the_client_first_and_stops_it_last) {
    start();
    EXPECT_THAT(client_calls(stage.calls()),
                testing::IsSupersetOf({"x_client_start", "x_client_subscribe_origin_data(120)",
                                       "x_client_engine_subscribe_alarm"}));
    EXPECT_EQ(client_calls(stage.calls()).front(), "x_client_start");
    stop();
    EXPECT_EQ(client_calls(stage.calls()).back(), "x_client_stop");
    EXPECT_EQ(stage.count("x_client_start"), 1U);
    EXPECT_EQ(stage.count("x_client_stop"), 1U);
}

TEST_F(plugin_life_test, switches_the_engine_as_configured) {
    stage.set_config("/mgr/abnormal_login", "/abnormal_scan_enable", "1");
    start();
    std::vector<std::string> controls;
    for (const std::string &each : stage.calls()) {
        if (each.rfind("x_client_engine_control", 0) == 0) {
            controls.push_back(each);
        }
    }
    controls.resize(10);  // a further evaluation sends the same again
    EXPECT_THAT(controls,
                ElementsAre("x_client_engine_control(6, 2)", "x_client_engine_control(1, 2)",
                            "x_client_engine_control(2, 2)", "x_client_engine_control(13, 1)",
                            "x_client_engine_control(3, 2)", "x_client_engine_control(14, 1)",
                            "x_client_engine_control(8, 2)", "x_client_engine_control(15, 2)",
                            "x_client_engine_control(12, 1)", "x_client_engine_control(17, 2)"));
    stop();
}

TEST_F(plugin_life_test, reads_its_settings_and_makes_its_rule_file) {
    tree.write("config/kzemdlmgr.ini", "[basic]\ntask_queue_size = 50\noffline_retry_times = 5\n");
    start();
    EXPECT_TRUE(worker_log().has(
        "INFO", "queue_size: 50, retry_times: 5, check_interval: 120, max_intreval: 300"));
    EXPECT_TRUE(worker_log().has("INFO", "qd_client_start, max_try_times: 5"));
    EXPECT_NE(tree.read("config/kzectmrule.ini").find("ruleid"), std::string::npos);
    stop();
}

TEST_F(plugin_life_test, takes_a_second_init_and_starts_nothing) {
    start();
    const size_t threads = kze_test::thread_count();
    EXPECT_EQ(init(), 0);
    EXPECT_TRUE(host_log().has("WARN", "plugin kzemdlmgr is already running"));
    EXPECT_TRUE(kze_test::threads_become(threads));
    stop();
    EXPECT_EQ(stage.count("x_client_start"), 1U);
    EXPECT_EQ(worker_log().count("work loop start"), 1U);
}

TEST_F(plugin_life_test, takes_an_uninit_without_an_init) {
    EXPECT_EQ(uninit(), 0);
    EXPECT_TRUE(host_log().has("WARN", "plugin kzemdlmgr is already stop"));
    EXPECT_THAT(stage.calls(), testing::IsEmpty());
}

TEST_F(plugin_life_test, takes_a_second_uninit) {
    start();
    stop();
    EXPECT_EQ(uninit(), 0);
    EXPECT_EQ(host_log().count("plugin kzemdlmgr is already stop"), 1U);
}

TEST_F(plugin_life_test, starts_again_after_a_stop) {
    start();
    stop();
    start();
    EXPECT_NE(stage.client_thread(), 0);
    stop();
    EXPECT_EQ(stage.count("x_client_start"), 2U);
    EXPECT_EQ(host_log().count("kzemm_loader init success"), 2U);
}

}  // namespace
