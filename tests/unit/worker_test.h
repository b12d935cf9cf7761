/*
 * The fixture for the worker's duties: a worker object on the test's own thread, with the libraries
 * loaded, and short words for what the tests say often.
 */
#ifndef KZEMDLMGR_TESTS_UNIT_WORKER_TEST_H
#define KZEMDLMGR_TESTS_UNIT_WORKER_TEST_H

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "plugin/kzemm_work.h"
#include "tests/fakes/fake_central_config.h"
#include "tests/fakes/fake_engine.h"
#include "tests/fakes/fake_ipc.h"
#include "tests/fakes/fake_libraries.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/inspectors.h"
#include "tests/fakes/plugin_test.h"
#include "tests/fakes/thread_watch.h"
#include "tests/fakes/virtual_time.h"

class worker_test : public plugin_test {
  protected:
    using fields = kzemm_work_inspector;
    using config = kzemm_config_inspector;

    void SetUp() override {
        plugin_test::SetUp();
        load_libraries();
        fakes::relay_threads_are_idle();
    }

    // Releases what a start made and the test didn't.
    void TearDown() override {
        if (fields::ipc(work) != nullptr || fields::lkg_addr(work) != nullptr ||
            fields::rpdsp_addr(work) != nullptr || fields::task(work) != nullptr ||
            fields::upgrade(work) != nullptr) {
            work.clean();
        }
        plugin_test::TearDown();
    }

    // Starts the worker, and waits until the task thread that it made waits for a task.
    void start() {
        ASSERT_EQ(work.start(), 0);
        ASSERT_TRUE(await_waiting_task_thread());
    }

    static bool await_waiting_task_thread() {
        return fakes::await_record([](const fakes::record &each) {
            return each.kind == fakes::what::thread && each.text == "wait";
        });
    }

    // What the test's own thread, which is the worker's, wrote: the lines of the task thread come
    // when they come.
    static std::vector<fakes::record> worker_records(std::initializer_list<fakes::what> kinds) {
        std::vector<fakes::record> result;
        for (const fakes::record &each : fakes::journal(kinds)) {
            if (pthread_equal(each.thread, pthread_self()) != 0) {
                result.push_back(each);
            }
        }
        return result;
    }

    static std::vector<fakes::record> worker_lines() { return worker_records({fakes::what::log}); }

    static std::vector<std::string> worker_texts(std::initializer_list<fakes::what> kinds) {
        std::vector<std::string> result;
        for (const fakes::record &each : worker_records(kinds)) {
            result.push_back(each.text);
        }
        return result;
    }

    // Makes the first key readable, which decides whether an evaluation of the switches succeeds.
    static void make_config_readable(const std::string &adv_threats = "false") {
        fakes::config_set("/mgr/base_collect", "/adv_threats", adv_threats);
    }

    static void make_config_unreadable() {
        fakes::config_remove("/mgr/base_collect", "/adv_threats");
    }

    // What was sent to the engine with x_client_engine_control since the journal was cleared.
    static std::vector<std::string> controls() {
        std::vector<std::string> result;
        for (const std::string &each : fakes::texts({fakes::what::engine})) {
            if (each.rfind("x_client_engine_control", 0) == 0) {
                result.push_back(each);
            }
        }
        return result;
    }

    static std::string control(int type, int status) {
        return "x_client_engine_control(" + std::to_string(type) + ", " + std::to_string(status) +
               ")";
    }

    kzemm_work_inspector work;
};

#endif
