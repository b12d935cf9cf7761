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
#include "tests/fakes/fake_libraries.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/inspectors.h"
#include "tests/fakes/plugin_test.h"
#include "tests/fakes/virtual_time.h"

class worker_test : public plugin_test {
  protected:
    using fields = kzemm_work_inspector;
    using config = kzemm_config_inspector;

    void SetUp() override {
        plugin_test::SetUp();
        load_libraries();
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

    kzemm_work work;
};

#endif
