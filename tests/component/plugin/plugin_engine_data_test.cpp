// The road of the engine's data through the real plug-in, from a thread of the engine client to the
// gateway, and the way back after an outage of the engine.

#include <gmock/gmock.h>
#include <zlib.h>

#include <algorithm>

#include "tests/component/plugin/plugin_test.h"
#include "vrdbase.h"

using plugin_stage::data_kind;
using testing::SizeIs;

namespace {

constexpr size_t header_size = 20;

class plugin_engine_data_test : public plugin_test {
  protected:
    void TearDown() override {
        stop();
        plugin_test::TearDown();
    }

    // The hello that every start sends is not what these tests are about.
    void start() {
        plugin_test::start();
        stage.forget_calls();
    }

    void expect_one_send(int type, const std::string &data, pid_t deliverer) {
        ASSERT_THAT(stage.gateway_sends(), SizeIs(1));
        EXPECT_EQ(stage.gateway_sends()[0].type, type);
        EXPECT_TRUE(stage.gateway_sends()[0].data == data);
        EXPECT_EQ(stage.gateway_sends()[0].thread, deliverer);
        EXPECT_EQ(stage.buffers_out(), 0U);
    }
};

std::string inflated(const std::string &stream, size_t expected_size) {
    uLongf size = expected_size;
    std::string result(expected_size, '\0');
    EXPECT_EQ(uncompress(reinterpret_cast<Bytef *>(result.data()), &size,
                         reinterpret_cast<const Bytef *>(stream.data()), stream.size()),
              Z_OK);
    result.resize(size);
    return result;
}

struct passed_on {
    const char *name;
    data_kind kind;
    int type;
};

class plugin_passed_on_test : public plugin_engine_data_test,
                              public testing::WithParamInterface<passed_on> {};

INSTANTIATE_TEST_SUITE_P(, plugin_passed_on_test,
                         testing::Values(passed_on{"alarm", data_kind::alarm, 1},
                                         passed_on{"linkage", data_kind::linkage, 2},
                                         passed_on{"append", data_kind::append, 3},
                                         passed_on{"hunting", data_kind::hunting, 4}),
                         [](const auto &each) { return each.param.name; });

TEST_P(plugin_passed_on_test, reaches_the_gateway_as_it_came_on_the_clients_thread) {
    start();
    const std::string data = std::string(100000, 'a') + std::string("\0end", 4);
    ASSERT_TRUE(stage.deliver(GetParam().kind, data));
    expect_one_send(GetParam().type, data, stage.client_thread());
}

TEST_F(plugin_engine_data_test, compresses_origin_data_while_reports_are_on) {
    stage.set_config("/mgr/base_collect", "/enable_actioninfo", "true");
    start();
    const std::string data = std::string(100000, 'a') + std::string(100000, 'b');
    ASSERT_TRUE(stage.deliver(data_kind::origin, data));
    ASSERT_THAT(stage.gateway_sends(), SizeIs(1));
    const std::string frame = stage.gateway_sends()[0].data;
    ASSERT_GT(frame.size(), header_size);
    EXPECT_EQ(frame.substr(0, header_size),
              std::string("3200\0\0\2\0\2\0\0\0\0\0\0\0\x40\x0D\3\0", header_size));
    EXPECT_TRUE(inflated(frame.substr(header_size), data.size()) == data);
    expect_one_send(5, frame, stage.client_thread());
}

TEST_F(plugin_engine_data_test, keeps_origin_data_from_the_gateway_while_reports_are_off) {
    start();
    ASSERT_TRUE(stage.deliver(data_kind::origin, "text"));
    EXPECT_THAT(stage.gateway_sends(), SizeIs(0));
    EXPECT_EQ(stage.buffers_out(), 0U);
}

TEST_F(plugin_engine_data_test, the_start_announces_the_custom_rules) {
    plugin_test::start();
    ASSERT_THAT(stage.gateway_sends(), SizeIs(1));
    EXPECT_EQ(stage.gateway_sends()[0].type, 9);
    const std::string text =
        "{\n\t\"agentId\":\t" + std::to_string(vrd_get_hostid()) + ",\n\t\"rulesId\":\t\"0\"\n}";
    const std::string head("3200\0\0\0\0\2\0\0\0\0\0\0\0", 16);
    const std::string size = {static_cast<char>(text.size()), 0, 0, 0};
    EXPECT_EQ(stage.gateway_sends()[0].data, head + size + text);
}

TEST_F(plugin_engine_data_test, subscribes_with_the_cycle_of_central_configuration) {
    stage.set_config("/mgr/base_collect", "/collect_act_time", "300");
    plugin_test::start();
    EXPECT_TRUE(stage.await("x_client_subscribe_origin_data(300)"));
}

TEST_F(plugin_engine_data_test, brings_everything_back_after_an_outage) {
    start();
    for (size_t outage = 1; outage <= 2; ++outage) {
        stage.forget_calls();
        worker_log().forget();
        ASSERT_TRUE(stage.go_offline());
        // The second one comes with the configuration that is read anew at the end.
        ASSERT_TRUE(stage.await("x_client_subscribe_origin_data(120)", 2));

        const std::vector<std::string> calls = stage.calls();
        const std::vector<std::string> in_order = {
            "x_client_start",
            "x_client_engine_control(6, 2)",
            "x_client_engine_control(17, 2)",
            "x_client_engine_subscribe_alarm",
            "x_client_register_coordinate_cb(3)",
            "x_client_register_coordinate_cb(1)",
            "x_client_register_coordinate_cb(2)",
            "x_client_engine_subscribe_credible",
            "x_client_subscribe_origin_data(120)",
        };
        auto from = calls.begin();
        for (const std::string &each : in_order) {
            from = std::find(from, calls.end(), each);
            EXPECT_NE(from, calls.end()) << each << " in outage " << outage;
        }
        EXPECT_EQ(stage.count("x_client_start"), 1U);
        EXPECT_TRUE(has_in_order(
            worker_log().records(),
            {"x_clinet is offline, start restart client", "stop qd timer", "x_client start success",
             "x_client status 1", "start qd timer success"}));
    }
    ASSERT_TRUE(stage.deliver(data_kind::alarm, "text"));
    expect_one_send(1, "text", stage.client_thread());
}

}  // namespace
