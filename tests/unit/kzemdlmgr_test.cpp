#include "plugin/kzemdlmgr.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <thread>

#include "tests/fakes/fake_bus.h"
#include "tests/fakes/fake_central_config.h"
#include "tests/fakes/fake_engine.h"
#include "tests/fakes/fake_ipc.h"
#include "tests/fakes/fake_libraries.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/inspectors.h"
#include "tests/fakes/latch.h"
#include "tests/fakes/plugin_test.h"
#include "tests/fakes/thread_watch.h"
#include "tests/fakes/virtual_time.h"

using fakes::at;
using fakes::await_log;
using fakes::bus_at;
using fakes::engine_library;
using fakes::gateway_library;
using fakes::log_lines;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

class kzemdlmgr_test : public plugin_test {
  protected:
    void SetUp() override {
        plugin_test::SetUp();
        fakes::config_set("/mgr/base_collect", "/adv_threats", "true");
        fakes::relay_threads_are_idle();
    }

    void TearDown() override {
        // A test that failed half-way must not leave a worker to the next one.
        if (fakes::unjoined_threads() != 0) {
            ADD_FAILURE() << "the worker was left";
            make_worker_end();
            kzemdlmgr_uninit();
        }
        plugin_test::TearDown();
    }

    // Lines of the host's thread (which is this one), and of the worker.
    static std::vector<fakes::record> host_lines() {
        return lines([](const fakes::record &each) { return each.thread == pthread_self(); });
    }

    static std::vector<fakes::record> worker_lines() {
        return lines([](const fakes::record &each) { return each.thread != pthread_self(); });
    }

    static std::vector<fakes::record> lines(
        const std::function<bool(const fakes::record &)> &wanted) {
        std::vector<fakes::record> result;
        for (const fakes::record &each : fakes::journal({fakes::what::log, fakes::what::bus_log})) {
            if (wanted(each)) {
                result.push_back(each);
            }
        }
        return result;
    }

    // Makes the engine go away for good, so that the worker ends by itself.
    void make_worker_end() const {
        install_vrd_services();
        fakes::engine_always_returns("x_client_start", -1);
        fakes::engine_goes_offline();
    }

    // Starts the plug-in and waits until its worker turns its loop.
    static void start_plugin() {
        ASSERT_EQ(kzemdlmgr_init(), 0);
        ASSERT_TRUE(await_log(3, "work loop start"));
    }
};

}  // namespace

// ---- kzemdlmgr_init ----

TEST_F(kzemdlmgr_test, init_loads_the_libraries_and_starts_the_worker) {
    start_plugin();
    EXPECT_THAT(
        host_lines(),
        ElementsAre(at(3, "begin to init plugin kzemdlmgr"), at(3, "load lib qdccl success"),
                    at(3, "load lib kzethtgw success"), at(3, "kzemm_loader init success"),
                    bus_at(2, "lite no kzamb path: " +
                                  in_tree("bin/../agent_plugins/libkzamb.1.so") + ", not load"),
                    at(3, "init plugin kzemdlmgr success")));
    EXPECT_EQ(fakes::unjoined_threads(), 2U);  // the worker and its relay
    EXPECT_EQ(fakes::unjoined_kze_threads(), 1U);
    EXPECT_EQ(fakes::open_handles(engine_library), 1U);
    EXPECT_EQ(fakes::open_handles(gateway_library), 1U);
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
}

TEST_F(kzemdlmgr_test, init_twice_warns_and_starts_nothing) {
    start_plugin();
    const size_t lines_before = host_lines().size();
    EXPECT_EQ(kzemdlmgr_init(), 0);
    std::vector<fakes::record> lines = host_lines();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(lines_before));
    EXPECT_THAT(lines, ElementsAre(at(3, "begin to init plugin kzemdlmgr"),
                                   at(2, "plugin kzemdlmgr is already running")));
    EXPECT_EQ(fakes::unjoined_threads(), 2U);
    EXPECT_EQ(fakes::times_opened(engine_library), 1U);
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
}

TEST_F(kzemdlmgr_test, init_without_the_engine_library_fails_and_a_later_one_tries_again) {
    fakes::library_missing(engine_library);
    EXPECT_EQ(kzemdlmgr_init(), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "begin to init plugin kzemdlmgr"),
                            at(2, StartsWith("dll open (")), at(2, "load lib qdccl failed"),
                            at(1, "load lib fiailed"), at(3, "kzemm_loader uninit"),
                            at(2, "qdccl handle is null"), at(2, "thtgw handle is null")));
    EXPECT_EQ(fakes::unjoined_threads(), 0U);

    fakes::library_works(engine_library);
    fakes::clear_journal();
    start_plugin();
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
}

TEST_F(kzemdlmgr_test, init_without_the_gateway_closes_the_engine_library_again) {
    fakes::library_missing(gateway_library);
    EXPECT_EQ(kzemdlmgr_init(), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "begin to init plugin kzemdlmgr"),
                            at(3, "load lib qdccl success"), at(2, StartsWith("dll open (")),
                            at(2, "load lib kzethtgw failed"), at(1, "load lib fiailed"),
                            at(3, "kzemm_loader uninit"), at(2, "thtgw handle is null")));
    EXPECT_EQ(fakes::open_handles(), 0U);
}

TEST_F(kzemdlmgr_test, init_without_a_symbol_fails_and_closes_the_library) {
    fakes::symbol_missing(engine_library, "x_client_subscribe_clt");
    EXPECT_EQ(kzemdlmgr_init(), -1);
    EXPECT_EQ(fakes::open_handles(), 0U);
    EXPECT_EQ(fakes::unjoined_threads(), 0U);
}

TEST_F(kzemdlmgr_test, a_thread_that_cannot_be_made_fails_init_and_closes_the_libraries) {
    fakes::isolated_threads_fail(11);
    EXPECT_EQ(kzemdlmgr_init(), -1);
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(3, "begin to init plugin kzemdlmgr"), at(3, "load lib qdccl success"),
                    at(3, "load lib kzethtgw success"), at(3, "kzemm_loader init success"),
                    at(1, "cl_ev_create_isolated_thread failed, ret: 11"),
                    at(3, "kzemm_loader uninit")));
    EXPECT_EQ(fakes::open_handles(), 0U);

    // Nothing is left of the failure: the plug-in is stopped and starts at the next try.
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    EXPECT_THAT(log_lines().back(), at(2, "plugin kzemdlmgr is already stop"));
    fakes::isolated_threads_are_real();
    start_plugin();
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
}

TEST_F(kzemdlmgr_test, a_negative_code_of_the_thread_library_is_logged_as_it_is) {
    fakes::isolated_threads_fail(-7);
    EXPECT_EQ(kzemdlmgr_init(), -1);
    EXPECT_THAT(log_lines(), Contains(at(1, "cl_ev_create_isolated_thread failed, ret: -7")));
}

// ---- the message bus ----

TEST_F(kzemdlmgr_test, init_joins_the_message_bus_between_the_libraries_and_the_worker) {
    install_bus();
    fakes::isolated_threads_fail(11);  // so that what comes behind is the host's own
    EXPECT_EQ(kzemdlmgr_init(), -1);
    EXPECT_THAT(
        fakes::texts(
            {fakes::what::log, fakes::what::bus_log, fakes::what::library, fakes::what::bus}),
        ElementsAre("begin to init plugin kzemdlmgr", "open libqdccl.so", "load lib qdccl success",
                    "open libkzethtgw.3.so", "load lib kzethtgw success",
                    "kzemm_loader init success", "open libkzamb.1.so", "get object", "advise 1",
                    "cl_ev_create_isolated_thread failed, ret: 11", "kzemm_loader uninit",
                    "close libqdccl.so", "close libkzethtgw.3.so"));
    EXPECT_EQ(kzemm_invoke_inspector::dispatch(), fakes::bus_dispatch());
}

TEST_F(kzemdlmgr_test, a_plugin_that_ended_stays_on_the_message_bus) {
    install_bus();
    start_plugin();
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    EXPECT_EQ(fakes::open_handles(fakes::bus_library), 1U);
    EXPECT_EQ(fakes::bus_frame_references(), 1);
    EXPECT_EQ(kzemm_invoke_inspector::dispatch(), fakes::bus_dispatch());

    EXPECT_THAT(fakes::texts({fakes::what::bus}), ElementsAre("get object", "advise 1"));
    fakes::clear_journal();
    start_plugin();
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    EXPECT_EQ(fakes::times_opened(fakes::bus_library), 1U);
    EXPECT_THAT(fakes::texts({fakes::what::bus}), IsEmpty());
}

// Lets joining the bus fail in one of its steps.
struct bus_failure {
    const char *name;
    void (*make)();
    const char *line;
};

class kzemdlmgr_bus_failure_test : public kzemdlmgr_test,
                                   public testing::WithParamInterface<bus_failure> {};

INSTANTIATE_TEST_SUITE_P(
    , kzemdlmgr_bus_failure_test,
    testing::Values(bus_failure{"open", [] { fakes::library_missing(fakes::bus_library, 79); },
                                "mb dll open failed!0x0000004f"},
                    bus_failure{
                        "symbol",
                        [] { fakes::symbol_missing(fakes::bus_library, "DllGetClassObject"); },
                        "mb dll_get_addr failed!0x00000002"},
                    bus_failure{"object", [] { fakes::bus_get_object_returns(-1); },
                                "mb get object failed!0xffffffff"},
                    bus_failure{"advise", [] { fakes::bus_advise_returns(0x1234); },
                                "mb advise failed!0x00001234"}),
    [](const auto &each) { return each.param.name; });

TEST_P(kzemdlmgr_bus_failure_test, fails_init_without_a_worker_and_the_libraries_stay_loaded) {
    install_bus();
    GetParam().make();
    EXPECT_EQ(kzemdlmgr_init(), -1);
    EXPECT_THAT(
        host_lines(),
        ElementsAre(at(3, "begin to init plugin kzemdlmgr"), at(3, "load lib qdccl success"),
                    at(3, "load lib kzethtgw success"), at(3, "kzemm_loader init success"),
                    bus_at(0, GetParam().line), at(1, "load mb failed")));
    EXPECT_EQ(fakes::open_handles(engine_library), 1U);
    EXPECT_EQ(fakes::open_handles(gateway_library), 1U);
    EXPECT_EQ(fakes::open_handles(fakes::bus_library), 0U);
    EXPECT_EQ(fakes::unjoined_threads(), 0U);
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    EXPECT_THAT(log_lines().back(), at(2, "plugin kzemdlmgr is already stop"));
    EXPECT_EQ(fakes::open_handles(engine_library), 1U) << "which such an end doesn't change";
}

TEST_P(kzemdlmgr_bus_failure_test, does_not_keep_a_later_init_back) {
    install_bus();
    GetParam().make();
    EXPECT_EQ(kzemdlmgr_init(), -1);
    fakes::library_works(fakes::bus_library);
    fakes::bus_get_object_returns(0);
    fakes::bus_advise_returns(0);
    fakes::forget_one_handle(engine_library);  // the loader opens its libraries over the old ones
    fakes::forget_one_handle(gateway_library);
    fakes::clear_journal();
    start_plugin();
    EXPECT_THAT(host_lines(), Contains(at(3, "kzemm_loader is initialized")));
    EXPECT_EQ(kzemm_invoke_inspector::dispatch(), fakes::bus_dispatch());
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
}

// ---- the worker's thread ----

TEST_F(kzemdlmgr_test, the_worker_directs_its_log_before_anything_else) {
    start_plugin();
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    std::vector<fakes::record> of_worker;
    for (const fakes::record &each :
         fakes::journal({fakes::what::log, fakes::what::log_directory})) {
        if (each.thread != pthread_self()) {
            of_worker.push_back(each);
        }
    }
    ASSERT_FALSE(of_worker.empty());
    EXPECT_EQ(of_worker[0].kind, fakes::what::log_directory);
    EXPECT_EQ(of_worker[0].text, in_tree("bin/../var/log/agent/kzemdlmgr"));
    EXPECT_EQ(of_worker[0].level, 5);
    EXPECT_THAT(fakes::texts({fakes::what::log_directory}),
                ElementsAre(in_tree("bin/../var/log/agent/kzemdlmgr"),
                            in_tree("bin/../var/log/agent/kzemdlmgr/task")));
}

TEST_F(kzemdlmgr_test, the_worker_starts_runs_cleans_and_says_so) {
    start_plugin();
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    std::vector<std::string> order;
    for (const fakes::record &each : worker_lines()) {
        for (const char *const mark :
             {"init kzemm_config", "kzemm_work start succeed", "work loop start", "work loop stop",
              "clean succeed", "kzemm_work stopped"}) {
            if (each.text == mark) {
                EXPECT_EQ(each.level, 3);
                order.push_back(each.text);
            }
        }
    }
    EXPECT_THAT(order,
                ElementsAre("init kzemm_config", "kzemm_work start succeed", "work loop start",
                            "work loop stop", "clean succeed", "kzemm_work stopped"));
    EXPECT_THAT(worker_lines().back(), at(3, "kzemm_work stopped"));
}

TEST_F(kzemdlmgr_test, a_worker_without_memory_ends_and_the_host_is_not_told) {
    fakes::isolated_threads_run_inline();
    fakes::on_autolog_init([] { fakes::fail_allocation(1); });
    EXPECT_EQ(kzemdlmgr_init(), 0);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(3, "begin to init plugin kzemdlmgr"), at(3, "load lib qdccl success"),
                    at(3, "load lib kzethtgw success"), at(3, "kzemm_loader init success"),
                    at(1, "new kzemm_work failed"), at(3, "init plugin kzemdlmgr success")));
    EXPECT_THAT(fakes::engine_calls(), IsEmpty());
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
}

TEST_F(kzemdlmgr_test, a_worker_that_cannot_start_cleans_up_and_ends) {
    fakes::library_missing(fakes::config_library);
    fakes::isolated_threads_run_inline();
    EXPECT_EQ(kzemdlmgr_init(), 0);
    std::vector<fakes::record> lines = log_lines();
    lines.erase(lines.begin(), lines.begin() + 4);
    EXPECT_THAT(
        lines,
        ElementsAre(
            at(3, "init kzemm_config"), at(3, "init cfgc"), at(1, "failed to initialize cfgc"),
            at(1, "init cfgc failed"), at(1, "kzemm_config init failed"), at(1, "init cfgc failed"),
            at(1, "start kzemm_work failed"), at(3, "stop cfg timer"), at(3, "stop switch timer"),
            at(3, "stop qd timer"), at(3, "uinit CUpgradeRelay"), at(3, "uninit ipc"),
            at(3, "uninit kzemm_task"), at(3, "x_client status 2"), at(3, "uninit kzemm_config"),
            at(3, "uninit cfgc succeed"), at(3, "uninit kzemm_config"), at(3, "clean succeed"),
            at(3, "kzemm_work stopped"), at(3, "init plugin kzemdlmgr success")));
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
}

TEST_F(kzemdlmgr_test, a_worker_whose_engine_is_given_up_at_the_start_does_not_run) {
    install_vrd_services();
    fakes::engine_always_returns("x_client_start", -1);
    fakes::isolated_threads_run_inline();
    EXPECT_EQ(kzemdlmgr_init(), 0);
    EXPECT_THAT(log_lines(), Contains(at(1, "start qd client failed")));
    EXPECT_THAT(log_lines(), Contains(at(1, "start kzemm_work failed")));
    EXPECT_THAT(log_lines(), Not(Contains(at(3, "work loop start"))));
    EXPECT_THAT(log_lines(), Contains(at(3, "clean succeed")));
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
}

TEST_F(kzemdlmgr_test, after_a_failed_start_init_still_says_running_and_uninit_completes) {
    fakes::library_missing(fakes::config_library);
    EXPECT_EQ(kzemdlmgr_init(), 0);
    ASSERT_TRUE(await_log(3, "kzemm_work stopped"));
    EXPECT_EQ(kzemdlmgr_init(), 0);
    EXPECT_THAT(host_lines().back(), at(2, "plugin kzemdlmgr is already running"));
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    EXPECT_THAT(host_lines().back(), at(3, "uninit plugin kzemdlmgr success"));
    EXPECT_THAT(log_lines(), Not(Contains(at(3, "kzemm_work stopped succeed"))));
}

TEST_F(kzemdlmgr_test, a_worker_that_ended_by_itself_is_not_started_again) {
    start_plugin();
    make_worker_end();
    ASSERT_TRUE(await_log(3, "kzemm_work stopped"));
    EXPECT_THAT(worker_lines(), Contains(at(1, "start qd client failed")));
    EXPECT_THAT(worker_lines(), Contains(at(3, "kzemm_work stopped succeed")).Times(1));

    EXPECT_EQ(kzemdlmgr_init(), 0);
    EXPECT_THAT(host_lines().back(), at(2, "plugin kzemdlmgr is already running"));
    EXPECT_EQ(fakes::unjoined_threads(), 1U);
    EXPECT_EQ(fakes::open_handles(engine_library), 1U);

    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    EXPECT_THAT(host_lines(), Not(Contains(at(3, "kzemm_work stopped succeed"))));
    EXPECT_EQ(fakes::open_handles(), 0U);
}

TEST_F(kzemdlmgr_test, uninit_and_init_bring_back_a_worker_that_ended_by_itself) {
    start_plugin();
    make_worker_end();
    ASSERT_TRUE(await_log(3, "kzemm_work stopped"));
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    fakes::engine_always_returns("x_client_start", 0);
    fakes::clear_journal();
    start_plugin();
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
}

// ---- kzemdlmgr_uninit ----

TEST_F(kzemdlmgr_test, uninit_of_a_plugin_that_never_started_warns) {
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "begin to uninit plugin kzemdlmgr"),
                                         at(2, "plugin kzemdlmgr is already stop")));
    EXPECT_THAT(fakes::texts({fakes::what::library}), IsEmpty());
}

TEST_F(kzemdlmgr_test, uninit_stops_the_worker_joins_it_and_closes_the_libraries) {
    start_plugin();
    const size_t lines_before = host_lines().size();
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    std::vector<fakes::record> lines = host_lines();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(lines_before));
    EXPECT_THAT(
        lines,
        ElementsAre(at(3, "begin to uninit plugin kzemdlmgr"), at(3, "kzemm_work stopped succeed"),
                    at(3, "kzemm_loader uninit"), at(3, "uninit plugin kzemdlmgr success")));
    EXPECT_EQ(fakes::unjoined_threads(), 0U);
    EXPECT_EQ(fakes::open_handles(), 0U);
}

TEST_F(kzemdlmgr_test, uninit_ends_the_threads_of_the_task_queue_and_of_the_relay) {
    fakes::relay_threads_are_idle(false);
    start_plugin();
    ASSERT_TRUE(await_log(3, "task thread start running"));
    ASSERT_TRUE(await_log(3, "upgrade thread loop start"));
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    EXPECT_THAT(log_lines(), Contains(at(3, "task thread end running")).Times(1));
    EXPECT_THAT(log_lines(), Contains(at(3, "upgrade thread loop stop")).Times(1));
    EXPECT_EQ(fakes::unjoined_threads(), 0U);
    EXPECT_EQ(fakes::unjoined_kze_threads(), 0U);
}

TEST_F(kzemdlmgr_test, a_plugin_that_ended_has_no_endpoint_and_no_address) {
    start_plugin();
    EXPECT_THAT(fakes::open_ipcs(), Contains("agt_rpt"));
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    EXPECT_THAT(fakes::open_ipcs(), IsEmpty());
    EXPECT_THAT(fakes::open_addrs(), IsEmpty());
}

TEST_F(kzemdlmgr_test, the_libraries_are_closed_after_the_workers_last_line) {
    start_plugin();
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    const std::vector<std::string> order =
        fakes::texts({fakes::what::log, fakes::what::library, fakes::what::engine});
    const auto last_of_worker = std::find(order.begin(), order.end(), "kzemm_work stopped");
    const auto close = std::find(order.begin(), order.end(), "close libqdccl.so");
    ASSERT_NE(last_of_worker, order.end());
    ASSERT_NE(close, order.end());
    EXPECT_LT(last_of_worker, close);
    EXPECT_EQ(std::find(close, order.end(), "x_client_stop"), order.end());
}

TEST_F(kzemdlmgr_test, uninit_twice_warns_the_second_time) {
    start_plugin();
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    fakes::clear_journal();
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "begin to uninit plugin kzemdlmgr"),
                                         at(2, "plugin kzemdlmgr is already stop")));
}

TEST_F(kzemdlmgr_test, a_failing_join_is_a_warning_and_uninit_goes_on) {
    start_plugin();
    fakes::pthread_join_fails(EINVAL);
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    std::vector<fakes::record> lines = host_lines();
    EXPECT_THAT(
        std::vector<fakes::record>(lines.end() - 3, lines.end()),
        ElementsAre(at(2, std::string("pthread_join failed with error: ") + strerror(EINVAL)),
                    at(3, "kzemm_loader uninit"), at(3, "uninit plugin kzemdlmgr success")));
    EXPECT_EQ(fakes::open_handles(), 0U);
    fakes::clear_journal();
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    EXPECT_THAT(log_lines().back(), at(2, "plugin kzemdlmgr is already stop"));
}

TEST_F(kzemdlmgr_test, libraries_that_cannot_be_closed_do_not_fail_uninit) {
    start_plugin();
    fakes::library_close_fails(engine_library, 1);
    fakes::library_close_fails(gateway_library, 1);
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    EXPECT_THAT(host_lines().back(), at(3, "uninit plugin kzemdlmgr success"));
}

TEST_F(kzemdlmgr_test, the_plugin_starts_and_stops_again_and_again) {
    for (int round = 0; round < 5; ++round) {
        fakes::clear_journal();
        start_plugin();
        EXPECT_EQ(kzemdlmgr_uninit(), 0);
        EXPECT_EQ(fakes::unjoined_threads(), 0U);
        EXPECT_EQ(fakes::open_handles(), 0U);
    }
    EXPECT_EQ(fakes::times_opened(engine_library), 5U);
}

TEST_F(kzemdlmgr_test, a_restart_loads_the_libraries_anew_into_the_same_table) {
    start_plugin();
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    fakes::symbol_missing(engine_library, "x_client_engine_set_runlevel");
    fakes::clear_journal();
    start_plugin();
    EXPECT_EQ(kzemm_loader::get_instance().get_x_client_engine_set_runlevel_fn(), nullptr);
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
}

TEST_F(kzemdlmgr_test, a_stop_before_the_end_of_start_is_lost_and_uninit_waits_on) {
    fakes::latch in_start;
    fakes::latch go_on;
    fakes::on_engine_call("x_client_start", [&](const fakes::engine_call &) {
        in_start.open();
        EXPECT_TRUE(go_on.wait());
    });
    fakes::on_pthread_join([&, host = pthread_self()] {
        if (pthread_equal(pthread_self(), host) == 0) {
            return;  // the worker's, of its relay
        }
        EXPECT_THAT(log_lines(), Contains(at(3, "kzemm_work stopped succeed")));
        EXPECT_THAT(log_lines(), Not(Contains(at(3, "x_client start success"))));
        go_on.open();
    });
    ASSERT_EQ(kzemdlmgr_init(), 0);
    ASSERT_TRUE(in_start.wait());
    // The end of start sets the flag that the stop has cleared: what ends the worker here is that
    // the engine goes away.
    install_vrd_services();
    fakes::on_engine_call("x_client_engine_subscribe_alarm", [&](const fakes::engine_call &) {
        fakes::engine_always_returns("x_client_start", -1);
        fakes::on_engine_call("x_client_start", nullptr);
        fakes::engine_goes_offline();
    });
    EXPECT_EQ(kzemdlmgr_uninit(), 0);
    EXPECT_THAT(worker_lines().back(), at(3, "kzemm_work stopped"));
}

TEST_F(kzemdlmgr_test, uninit_before_the_worker_object_exists_waits_for_a_worker_nobody_stops) {
    fakes::latch in_autolog;
    fakes::latch go_on;
    fakes::latch in_join;
    fakes::on_autolog_init([&] {
        in_autolog.open();
        EXPECT_TRUE(go_on.wait());
    });
    fakes::on_pthread_join([&] { in_join.open(); });
    ASSERT_EQ(kzemdlmgr_init(), 0);
    ASSERT_TRUE(in_autolog.wait());

    int result = -1;
    std::thread host([&] { result = kzemdlmgr_uninit(); });
    ASSERT_TRUE(in_join.wait());
    EXPECT_THAT(log_lines().back(), at(3, "begin to uninit plugin kzemdlmgr"));
    EXPECT_THAT(log_lines(), Not(Contains(at(3, "kzemm_work stopped succeed"))));

    // The worker comes up and turns its loop, though uninit waits for its end.
    go_on.open();
    ASSERT_TRUE(await_log(3, "work loop start"));
    EXPECT_THAT(log_lines(), Not(Contains(at(3, "uninit plugin kzemdlmgr success"))));
    make_worker_end();
    host.join();
    EXPECT_EQ(result, 0);
    const std::vector<fakes::record> lines = log_lines();
    EXPECT_THAT(std::vector<fakes::record>(lines.end() - 3, lines.end()),
                ElementsAre(at(3, "kzemm_work stopped"), at(3, "kzemm_loader uninit"),
                            at(3, "uninit plugin kzemdlmgr success")));
}
