/*
 * The fixture for the plug-in on the message bus: the singleton, and a bus that it can join.
 */
#ifndef KZEMDLMGR_TESTS_UNIT_INVOKE_TEST_H
#define KZEMDLMGR_TESTS_UNIT_INVOKE_TEST_H

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "datapath/kzemm_event.h"
#include "datapath/kzemm_invoke.h"
#include "tests/fakes/fake_bus.h"
#include "tests/fakes/fake_libraries.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/inspectors.h"
#include "tests/fakes/plugin_test.h"
#include "tests/fakes/thread_watch.h"

class invoke_test : public plugin_test {
  protected:
    using fields = kzemm_invoke_inspector;

    void SetUp() override {
        kzemm_invoke::GetInstance();  // whose mutex is made once, at the first use
        plugin_test::SetUp();
    }

    void TearDown() override {
        EXPECT_EQ(fakes::held_mutexes(), 0) << "the mutex was not given back";
        plugin_test::TearDown();
    }

    // The calls, lines and locks so far, in one order.
    static std::vector<std::string> in_order() {
        return fakes::texts({fakes::what::bus, fakes::what::bus_log, fakes::what::library,
                             fakes::what::thread, fakes::what::log});
    }

    kzemm_invoke &plugin = kzemm_invoke::GetInstance();
    MbFrame::IPlugin &as_the_bus_knows_it = plugin;
};

#endif
