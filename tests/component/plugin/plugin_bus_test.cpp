// The real plug-in on a message bus that was built from the bus's interface header alone.

#include <gmock/gmock.h>

#include "tests/component/plugin/plugin_test.h"

using plugin_stage::data_kind;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char bus_place[] = "agent_plugins/libkzamb.1.so";

using plugin_bus_test = plugin_test;

std::vector<std::string> bus_calls(const std::vector<std::string> &calls) {
    std::vector<std::string> result;
    for (const std::string &each : calls) {
        if (each.rfind("bus: ", 0) == 0) {
            result.push_back(each.substr(5));
        }
    }
    return result;
}

struct defect {
    const char *name;
    const char *module;  // empty: no library at all
    const char *line;
};

class plugin_bad_bus_test : public plugin_test, public testing::WithParamInterface<defect> {};

INSTANTIATE_TEST_SUITE_P(
    , plugin_bad_bus_test,
    testing::Values(defect{"not_a_library", "", "mb dll open failed!0x0000004f"},
                    defect{"without_its_function", "bus_without_DllGetClassObject",
                           "mb dll_get_addr failed!0x00000002"},
                    defect{"that_gives_no_object", "bus_that_gives_no_object",
                           "mb get object failed!0x00000005"},
                    defect{"that_refuses", "bus_that_refuses", "mb advise failed!0x00000006"}),
    [](const auto &each) { return each.param.name; });

}  // namespace

TEST_F(plugin_bus_test, is_reached_through_the_interfaces_alone) {
    install("test_bus", bus_place);
    start();
    EXPECT_THAT(
        bus_calls(stage.calls()),
        ElementsAre("get object", "advise 1", "plugin query 84ce0012", "plugin references 0 0",
                    "plugin id 0 61581836b44643dab118e469f66bff6f", "plugin version 0 1"));

    stage.forget_calls();
    ASSERT_TRUE(stage.deliver(data_kind::origin, "{\"origin\":1}"));
    EXPECT_THAT(bus_calls(stage.calls()),
                ElementsAre("event query 0, itself", "event references 3 2", "event id 18, kept",
                            "event data {\"origin\":1}"));

    stage.forget_calls();
    ASSERT_TRUE(stage.go_offline());
    ASSERT_TRUE(stage.await("bus: kept event released 0"));
    EXPECT_THAT(bus_calls(stage.calls()),
                ElementsAre("event query 0, itself", "event references 3 2", "event id 1022, kept",
                            "event data offline", "kept event released 0"));
    stage.forget_calls();
    stop();
    EXPECT_THAT(bus_calls(stage.calls()), IsEmpty()) << "the plug-in stays on the bus";
}

TEST_P(plugin_bad_bus_test, fails_init_and_an_init_without_a_bus_works) {
    if (*GetParam().module == '\0') {
        tree.write(bus_place, "this is a text\n");
    } else {
        install(GetParam().module, bus_place);
    }
    EXPECT_EQ(init(), -1);
    EXPECT_TRUE(host_log().has("ERROR", "load mb failed"));
    bool told = false;
    for (const log_record &each : host_log().records()) {
        told = told || each.text.find(GetParam().line) != std::string::npos;
    }
    EXPECT_TRUE(told) << GetParam().line;
    EXPECT_EQ(uninit(), 0);
    EXPECT_TRUE(host_log().has("WARN", "plugin kzemdlmgr is already stop"));

    remove(bus_place);
    start();
    stop();
}
