// Libraries that are missing or bad, one defect each: what the plug-in says, and that it works once
// the library is good. The modules are named by their defects.

#include <filesystem>
#include <ostream>

#include "tests/component/plugin/plugin_test.h"
#include "tests/support/process_state.h"

namespace {

constexpr char missing[] = "missing";
constexpr char not_a_library[] = "not_a_library";

// A module in a place of the tree. Names of no module: see above.
struct defect {
    const char *name;
    const char *place;
    const char *module;
    // What is said of the open or the lookup; "%" stands for the library's path.
    const char *reason;
    const char *library;  // that could not be loaded, as the message names it
};

void PrintTo(const defect &each, std::ostream *out) {
    *out << each.name;
}

class plugin_bad_library_test : public plugin_test {
  protected:
    void spoil(const std::string &place, const std::string &module) {
        if (module == missing) {
            remove(place);
        } else if (module == not_a_library) {
            remove(place);
            tree.write(place, "this is a text\n");
        } else {
            install(module, place);
        }
    }

    // What was spoilt works again.
    void mend(const std::string &place) {
        install(place == client_place    ? "test_client"
                : place == gateway_place ? "test_gateway"
                                         : "test_central_config",
                place);
        start();
        stop();
    }
};

// ---- the two libraries that init opens: the host learns of the failure ----

constexpr char client_file[] = "lib/libqdccl.so";
constexpr char gateway_file[] = "agent_plugins/libkzethtgw.3.so";

const defect init_defects[] = {
    {"client_missing", client_file, missing, "dll open (%) failed with error code = 0x00000002",
     "qdccl"},
    {"client_not_a_library", client_file, not_a_library,
     "dll open (%) failed with error code = 0x0000004f", "qdccl"},
    {"client_without_x_client_start", client_file, "client_without_x_client_start",
     "dll get (x_client_start) addr failed with error code = 0x00000002", "qdccl"},
    {"client_without_x_client_subscribe_clt", client_file, "client_without_x_client_subscribe_clt",
     "dll get (x_client_subscribe_clt) addr failed with error code = 0x00000002", "qdccl"},
    {"client_without_x_client_get_collect_state", client_file,
     "client_without_x_client_get_collect_state",
     "dll get (x_client_get_collect_state) addr failed with error code = 0x00000002", "qdccl"},
    {"gateway_missing", gateway_file, missing, "dll open (%) failed with error code = 0x00000002",
     "kzethtgw"},
    {"gateway_not_a_library", gateway_file, not_a_library,
     "dll open (%) failed with error code = 0x0000004f", "kzethtgw"},
    {"gateway_without_its_function", gateway_file, "gateway_without_kzethtgw_async_send",
     "dll get (kzethtgw_async_send) addr failed with error code = 0x00000002", "kzethtgw"},
};

class plugin_init_failure_test : public plugin_bad_library_test,
                                 public testing::WithParamInterface<defect> {};

INSTANTIATE_TEST_SUITE_P(, plugin_init_failure_test, testing::ValuesIn(init_defects),
                         [](const auto &each) { return each.param.name; });

TEST_P(plugin_init_failure_test, is_told_to_the_host_and_a_later_init_works) {
    spoil(GetParam().place, GetParam().module);
    const size_t threads = kze_test::thread_count();
    EXPECT_EQ(init(), -1);
    EXPECT_TRUE(kze_test::threads_become(threads)) << "no worker is started";

    std::string reason = GetParam().reason;
    if (const size_t at = reason.find('%'); at != std::string::npos) {
        reason.replace(at, 1, expanded(GetParam().place));
    }
    const std::string library = GetParam().library;
    EXPECT_TRUE(host_log().has("WARN", reason));
    EXPECT_TRUE(host_log().has("WARN", "load lib " + library + " failed"));
    EXPECT_TRUE(host_log().has("ERROR", "load lib fiailed"));
    EXPECT_TRUE(has_in_order(host_log().records(), {"begin to init plugin kzemdlmgr", reason,
                                                    "load lib " + library + " failed",
                                                    "load lib fiailed", "kzemm_loader uninit"}));
    EXPECT_TRUE(stage.calls().empty()) << "nothing was called";
    EXPECT_EQ(uninit(), 0);
    EXPECT_TRUE(host_log().has("WARN", "plugin kzemdlmgr is already stop"));

    mend(GetParam().place);
}

// ---- central configuration, which the worker opens: the host learns nothing ----

const defect start_defects[] = {
    {"missing", "", missing, "failed to initialize cfgc", ""},
    {"not_a_library", "", not_a_library, "failed to initialize cfgc", ""},
    {"without_DllNewObject", "", "config_without_DllNewObject", "failed to initialize cfgc", ""},
    {"without_DllDestroyObject", "", "config_without_DllDestroyObject", "failed to initialize cfgc",
     ""},
    {"with_a_hole_at_0", "", "config_with_a_hole_at_0", "failed to initialize cfgc", ""},
    {"with_a_hole_at_51", "", "config_with_a_hole_at_51", "failed to initialize cfgc", ""},
    {"without_a_client", "", "config_without_a_client", "failed to create cfgc client", ""},
};

class plugin_start_failure_test : public plugin_bad_library_test,
                                  public testing::WithParamInterface<defect> {
  protected:
    void fail_to_start() {
        spoil(config_place, GetParam().module);
        ASSERT_EQ(init(), 0) << "the host is not told";
        ASSERT_TRUE(worker_log().await("kzemm_work stopped"));
    }
};

INSTANTIATE_TEST_SUITE_P(, plugin_start_failure_test, testing::ValuesIn(start_defects),
                         [](const auto &each) { return each.param.name; });

TEST_P(plugin_start_failure_test, is_silent_to_the_host_and_told_in_the_workers_log) {
    fail_to_start();
    EXPECT_TRUE(host_log().has("INFO", "init plugin kzemdlmgr success"));
    EXPECT_TRUE(worker_log().has("ERROR", GetParam().reason));
    EXPECT_TRUE(worker_log().has("ERROR", "start kzemm_work failed"));
    EXPECT_TRUE(has_in_order(
        worker_log().records(),
        {"init cfgc", GetParam().reason, "init cfgc failed", "kzemm_config init failed",
         "init cfgc failed", "start kzemm_work failed", "clean succeed", "kzemm_work stopped"}));
    EXPECT_EQ(worker_log().count("work loop start"), 0U);
    EXPECT_EQ(stage.count("x_client_start"), 0U);
    EXPECT_EQ(uninit(), 0);
}

TEST_P(plugin_start_failure_test, leaves_the_plugin_started_until_an_uninit) {
    fail_to_start();
    EXPECT_EQ(init(), 0);
    EXPECT_TRUE(host_log().has("WARN", "plugin kzemdlmgr is already running"));
    EXPECT_EQ(worker_log().count("kzemm_work stopped"), 1U) << "no other worker was started";
    EXPECT_EQ(uninit(), 0);
    EXPECT_TRUE(host_log().has("INFO", "uninit plugin kzemdlmgr success"));

    worker_log().forget();
    mend(config_place);
}

// The table may lack the operation at position 4.
TEST_F(plugin_bad_library_test, starts_with_a_table_that_lacks_an_optional_operation) {
    spoil(config_place, "config_with_a_hole_at_4");
    start();
    stop();
}

}  // namespace
