#include "engine/kzemm_loader.h"

#include <gmock/gmock.h>

#include <functional>

#include "tests/fakes/fake_engine.h"
#include "tests/fakes/fake_gateway.h"
#include "tests/fakes/fake_libraries.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/inspectors.h"
#include "tests/fakes/plugin_test.h"

using fakes::at;
using fakes::engine_library;
using fakes::gateway_library;
using fakes::log_lines;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

// The engine client's functions in the order in which they are looked up.
const std::vector<std::string> engine_functions = {
    "x_client_start",
    "x_client_stop",
    "x_client_engine_update",
    "x_client_engine_update_async",
    "x_client_engine_update_by_data",
    "x_client_engine_control",
    "x_client_engine_query_version",
    "x_client_engine_query_version_str",
    "x_client_free",
    "x_client_engine_set_runlevel",
    "x_client_engine_subscribe_alarm",
    "x_client_coordinate",
    "x_client_subscribe_origin_data",
    "x_client_register_coordinate_cb",
    "x_client_coordinate_dispose_trc",
    "x_client_subscribe_clt",
    "x_client_engine_subscribe_credible",
    "x_client_set_drive_switch",
    "x_client_get_drive_state",
    "x_client_get_collect_state",
};

struct getter {
    const char *name;
    void *(kzemm_loader::*function)() const;
};

const getter getters[] = {
    {"x_client_start", &kzemm_loader::get_x_client_start_fn},
    {"x_client_stop", &kzemm_loader::get_x_client_stop_fn},
    {"x_client_engine_update", &kzemm_loader::get_x_client_engine_update_fn},
    {"x_client_engine_update_async", &kzemm_loader::get_x_client_engine_update_async_fn},
    {"x_client_engine_update_by_data", &kzemm_loader::get_x_client_engine_update_by_data_fn},
    {"x_client_engine_update_by_data", &kzemm_loader::get_x_client_engine_update_by_data},
    {"x_client_engine_control", &kzemm_loader::get_x_client_engine_control_fn},
    {"x_client_engine_query_version", &kzemm_loader::get_x_client_engine_query_version_fn},
    {"x_client_engine_query_version_str", &kzemm_loader::get_x_client_engine_query_version_str_fn},
    {"x_client_free", &kzemm_loader::get_x_client_free_fn},
    {"x_client_engine_set_runlevel", &kzemm_loader::get_x_client_engine_set_runlevel_fn},
    {"x_client_engine_subscribe_alarm", &kzemm_loader::get_x_client_engine_subscribe_alarm_fn},
    {"x_client_coordinate", &kzemm_loader::get_x_client_coordinate_fn},
    {"x_client_subscribe_origin_data", &kzemm_loader::get_x_client_subscribe_origin_data_fn},
    {"x_client_register_coordinate_cb", &kzemm_loader::get_x_client_register_coordinate_cb_fn},
    {"x_client_coordinate_dispose_trc", &kzemm_loader::get_x_client_coordinate_dispose_trc},
    {"x_client_subscribe_clt", &kzemm_loader::get_x_client_subscribe_clt},
    {"x_client_engine_subscribe_credible",
     &kzemm_loader::get_x_client_engine_subscribe_credible_fn},
    {"x_client_set_drive_switch", &kzemm_loader::get_x_client_set_drive_switch_fn},
    {"x_client_get_drive_state", &kzemm_loader::get_x_client_get_drive_state_fn},
    {"x_client_get_collect_state", &kzemm_loader::get_x_client_get_collect_state_fn},
};

kzemm_loader &loader() {
    return kzemm_loader::get_instance();
}

// What the getter of an engine function gives.
void *entry_of(const std::string &name) {
    for (const getter &each : getters) {
        if (name == each.name) {
            return (loader().*each.function)();
        }
    }
    ADD_FAILURE() << "no getter for " << name;
    return nullptr;
}

class kzemm_loader_test : public plugin_test {
  protected:
    static void lose_first_handles() {
        fakes::forget_one_handle(engine_library);
        fakes::forget_one_handle(gateway_library);
    }
};

// One test for each function of the engine client.
class kzemm_loader_symbol_test : public kzemm_loader_test,
                                 public testing::WithParamInterface<std::string> {};

INSTANTIATE_TEST_SUITE_P(each, kzemm_loader_symbol_test, testing::ValuesIn(engine_functions),
                         [](const auto &each) { return each.param; });

}  // namespace

TEST_F(kzemm_loader_test, get_instance_gives_the_same_empty_object) {
    EXPECT_EQ(&kzemm_loader::get_instance(), &kzemm_loader::get_instance());
    EXPECT_FALSE(kzemm_loader_inspector::initialized());
    EXPECT_EQ(kzemm_loader_inspector::qdccl_handle(), nullptr);
    EXPECT_EQ(kzemm_loader_inspector::kzethtgw_handle(), nullptr);
    for (const getter &each : getters) {
        EXPECT_EQ((loader().*each.function)(), nullptr) << each.name;
    }
    EXPECT_EQ(loader().get_kzethtgw_async_send_fn(), nullptr);
}

TEST_F(kzemm_loader_test, init_opens_both_libraries_below_the_agents_directory) {
    EXPECT_EQ(loader().init(), 0);
    EXPECT_TRUE(kzemm_loader_inspector::initialized());
    EXPECT_THAT(fakes::opened_paths(),
                ElementsAre(in_tree("bin/../lib/libqdccl.so"),
                            in_tree("bin/../agent_plugins/libkzethtgw.3.so")));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "load lib qdccl success"), at(3, "load lib kzethtgw success"),
                            at(3, "kzemm_loader init success")));
}

TEST_F(kzemm_loader_test, init_looks_up_all_functions_in_order) {
    EXPECT_EQ(loader().init(), 0);
    EXPECT_THAT(fakes::looked_up(engine_library), ElementsAreArray(engine_functions));
    EXPECT_THAT(fakes::looked_up(gateway_library), ElementsAre("kzethtgw_async_send"));
}

TEST_F(kzemm_loader_test, each_getter_gives_its_own_function) {
    EXPECT_EQ(loader().init(), 0);
    const fakes::symbols exported = fakes::engine_symbols();
    for (const getter &each : getters) {
        EXPECT_EQ((loader().*each.function)(), exported.at(each.name)) << each.name;
    }
    EXPECT_EQ(loader().get_kzethtgw_async_send_fn(),
              fakes::gateway_symbols().at("kzethtgw_async_send"));
}

TEST_F(kzemm_loader_test, a_missing_engine_library_fails_and_opens_nothing) {
    fakes::library_missing(engine_library, 0x1a);
    EXPECT_EQ(loader().init(), -1);
    EXPECT_FALSE(kzemm_loader_inspector::initialized());
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "dll open (" + in_tree("bin/../lib/libqdccl.so") +
                                                   ") failed with error code = 0x0000001a"),
                                         at(2, "load lib qdccl failed")));
    EXPECT_EQ(fakes::times_opened(gateway_library), 0U);
}

TEST_F(kzemm_loader_test, uninit_after_a_missing_engine_library_closes_nothing_and_warns_twice) {
    fakes::library_missing(engine_library);
    EXPECT_EQ(loader().init(), -1);
    fakes::clear_journal();
    loader().uninit();
    EXPECT_FALSE(kzemm_loader_inspector::initialized());
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "kzemm_loader uninit"), at(2, "qdccl handle is null"),
                            at(2, "thtgw handle is null")));
    EXPECT_THAT(fakes::texts({fakes::what::library}), IsEmpty());
}

TEST_F(kzemm_loader_test, a_missing_gateway_fails_and_leaves_the_engine_library_open) {
    fakes::library_missing(gateway_library, -1);
    EXPECT_EQ(loader().init(), -1);
    EXPECT_FALSE(kzemm_loader_inspector::initialized());
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "load lib qdccl success"),
                            at(2, "dll open (" + in_tree("bin/../agent_plugins/libkzethtgw.3.so") +
                                      ") failed with error code = 0xffffffff"),
                            at(2, "load lib kzethtgw failed")));
    EXPECT_EQ(fakes::open_handles(engine_library), 1U);

    fakes::clear_journal();
    loader().uninit();
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "kzemm_loader uninit"), at(2, "thtgw handle is null")));
    EXPECT_EQ(fakes::open_handles(), 0U);
}

TEST_P(kzemm_loader_symbol_test, a_missing_engine_function_fails_init_at_this_function) {
    fakes::symbol_missing(engine_library, GetParam(), 0xbeef);
    EXPECT_EQ(loader().init(), -1);
    EXPECT_FALSE(kzemm_loader_inspector::initialized());
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "dll get (" + GetParam() +
                                                   ") addr failed with error code = 0x0000beef"),
                                         at(2, "load lib qdccl failed")));
    // The functions before it are there, the ones behind it were not asked for.
    EXPECT_EQ(fakes::looked_up(engine_library).back(), GetParam());
    bool before = true;
    for (const std::string &each : engine_functions) {
        before = before && each != GetParam();
        EXPECT_EQ(entry_of(each) != nullptr, before) << each;
    }
    EXPECT_EQ(fakes::times_opened(gateway_library), 0U);
    EXPECT_EQ(fakes::open_handles(engine_library), 1U);
}

TEST_F(kzemm_loader_test, a_gateway_without_its_function_fails_init) {
    fakes::symbol_missing(gateway_library, "kzethtgw_async_send", 2);
    EXPECT_EQ(loader().init(), -1);
    EXPECT_FALSE(kzemm_loader_inspector::initialized());
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "load lib qdccl success"),
                            at(2,
                               "dll get (kzethtgw_async_send) addr failed with error code = "
                               "0x00000002"),
                            at(2, "load lib kzethtgw failed")));
    EXPECT_EQ(fakes::open_handles(engine_library), 1U);
    EXPECT_EQ(fakes::open_handles(gateway_library), 1U);
}

TEST_F(kzemm_loader_test, init_twice_opens_again_and_loses_the_first_handles) {
    EXPECT_EQ(loader().init(), 0);
    fakes::clear_journal();
    EXPECT_EQ(loader().init(), 0);
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(3, "kzemm_loader is initialized"), at(3, "load lib qdccl success"),
                    at(3, "load lib kzethtgw success"), at(3, "kzemm_loader init success")));
    EXPECT_EQ(fakes::times_opened(engine_library), 2U);
    EXPECT_EQ(fakes::times_opened(gateway_library), 2U);

    loader().uninit();
    EXPECT_EQ(fakes::open_handles(engine_library), 1U);
    EXPECT_EQ(fakes::open_handles(gateway_library), 1U);
    lose_first_handles();
}

TEST_F(kzemm_loader_test, uninit_closes_the_engine_library_and_then_the_gateway) {
    EXPECT_EQ(loader().init(), 0);
    fakes::clear_journal();
    loader().uninit();
    EXPECT_FALSE(kzemm_loader_inspector::initialized());
    EXPECT_EQ(kzemm_loader_inspector::qdccl_handle(), nullptr);
    EXPECT_EQ(kzemm_loader_inspector::kzethtgw_handle(), nullptr);
    EXPECT_THAT(fakes::texts({fakes::what::library}),
                ElementsAre("close libqdccl.so", "close libkzethtgw.3.so"));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "kzemm_loader uninit")));
}

TEST_F(kzemm_loader_test, a_failing_close_is_logged_and_the_handle_forgotten) {
    EXPECT_EQ(loader().init(), 0);
    fakes::library_close_fails(engine_library, 0x50);
    fakes::library_close_fails(gateway_library, -2);
    fakes::clear_journal();
    loader().uninit();
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "kzemm_loader uninit"),
                            at(2, "qdccl handle close failed wuth error code = 0x00000050"),
                            at(2, "thtgw handle close failed wuth error code = 0xfffffffe")));
    EXPECT_EQ(kzemm_loader_inspector::qdccl_handle(), nullptr);
    EXPECT_EQ(kzemm_loader_inspector::kzethtgw_handle(), nullptr);
    EXPECT_FALSE(kzemm_loader_inspector::initialized());
}

TEST_F(kzemm_loader_test, the_getters_keep_the_old_pointers_after_uninit) {
    EXPECT_EQ(loader().init(), 0);
    void *const start = loader().get_x_client_start_fn();
    void *const send = loader().get_kzethtgw_async_send_fn();
    loader().uninit();
    EXPECT_EQ(loader().get_x_client_start_fn(), start);
    EXPECT_EQ(loader().get_kzethtgw_async_send_fn(), send);
}

TEST_F(kzemm_loader_test, init_after_uninit_loads_again_without_the_initialized_line) {
    EXPECT_EQ(loader().init(), 0);
    loader().uninit();
    fakes::clear_journal();
    EXPECT_EQ(loader().init(), 0);
    EXPECT_TRUE(kzemm_loader_inspector::initialized());
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "load lib qdccl success"), at(3, "load lib kzethtgw success"),
                            at(3, "kzemm_loader init success")));
}

TEST_P(kzemm_loader_symbol_test, a_reload_without_this_engine_function_succeeds_and_nulls_it) {
    EXPECT_EQ(loader().init(), 0);
    loader().uninit();
    fakes::symbol_missing(engine_library, GetParam());
    fakes::clear_journal();
    EXPECT_EQ(loader().init(), 0);
    EXPECT_EQ(entry_of(GetParam()), nullptr);
    for (const std::string &each : engine_functions) {
        EXPECT_EQ(entry_of(each) == nullptr, each == GetParam()) << each;
    }
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "load lib qdccl success"), at(3, "load lib kzethtgw success"),
                            at(3, "kzemm_loader init success")));
}

TEST_F(kzemm_loader_test, a_reload_of_a_gateway_without_its_function_succeeds_and_nulls_it) {
    EXPECT_EQ(loader().init(), 0);
    loader().uninit();
    fakes::symbol_missing(gateway_library, "kzethtgw_async_send");
    EXPECT_EQ(loader().init(), 0);
    EXPECT_EQ(loader().get_kzethtgw_async_send_fn(), nullptr);
}

TEST_F(kzemm_loader_test, a_third_load_fails_at_an_entry_that_the_second_nulled) {
    EXPECT_EQ(loader().init(), 0);
    loader().uninit();
    fakes::symbol_missing(engine_library, "x_client_stop");
    EXPECT_EQ(loader().init(), 0);
    loader().uninit();
    EXPECT_EQ(loader().init(), -1);
}

TEST_F(kzemm_loader_test, a_failing_open_that_keeps_the_old_handle_goes_on_with_it) {
    EXPECT_EQ(loader().init(), 0);
    void *const engine = kzemm_loader_inspector::qdccl_handle();
    void *const gateway = kzemm_loader_inspector::kzethtgw_handle();
    fakes::library_open_keeps_handle(engine_library, 5);
    fakes::library_open_keeps_handle(gateway_library, 5);
    EXPECT_EQ(loader().init(), 0);
    EXPECT_EQ(kzemm_loader_inspector::qdccl_handle(), engine);
    EXPECT_EQ(kzemm_loader_inspector::kzethtgw_handle(), gateway);
}

TEST_F(kzemm_loader_test, a_failing_open_over_an_open_library_goes_on_with_the_old_handle) {
    EXPECT_EQ(loader().init(), 0);
    void *const engine = kzemm_loader_inspector::qdccl_handle();
    void *const gateway = kzemm_loader_inspector::kzethtgw_handle();
    fakes::library_missing(engine_library);
    fakes::library_missing(gateway_library);
    fakes::clear_journal();
    EXPECT_EQ(loader().init(), 0);
    EXPECT_EQ(kzemm_loader_inspector::qdccl_handle(), engine);
    EXPECT_EQ(kzemm_loader_inspector::kzethtgw_handle(), gateway);
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(3, "kzemm_loader is initialized"), at(3, "load lib qdccl success"),
                    at(3, "load lib kzethtgw success"), at(3, "kzemm_loader init success")));
}

TEST_F(kzemm_loader_test, a_failing_open_after_uninit_fails_though_the_table_is_full) {
    EXPECT_EQ(loader().init(), 0);
    loader().uninit();
    fakes::library_missing(engine_library);
    EXPECT_EQ(loader().init(), -1);
    EXPECT_FALSE(kzemm_loader_inspector::initialized());
    EXPECT_NE(loader().get_x_client_start_fn(), nullptr);
}

TEST_F(kzemm_loader_test, nothing_is_logged_above_the_current_level) {
    fakes::set_log_level(2);
    fakes::library_missing(gateway_library);
    EXPECT_EQ(loader().init(), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, testing::StartsWith("dll open (")),
                                         at(2, "load lib kzethtgw failed")));
}
