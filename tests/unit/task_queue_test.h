/*
 * The fixture of the task queue's tests: a queue without a thread, which a test either starts or
 * tells that it runs, so that nothing is taken from it.
 */
#ifndef KZEMDLMGR_TESTS_UNIT_TASK_QUEUE_TEST_H
#define KZEMDLMGR_TESTS_UNIT_TASK_QUEUE_TEST_H

#include <gmock/gmock.h>

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "datapath/kzemm_task.h"
#include "tests/fakes/fake_engine.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/inspectors.h"
#include "tests/fakes/latch.h"
#include "tests/fakes/plugin_test.h"
#include "tests/fakes/thread_watch.h"

class task_queue_test : public plugin_test {
  protected:
    using fields = kzemm_task_inspector;

    void SetUp() override {
        plugin_test::SetUp();
        load_libraries();
    }

    // Releases what the test left queued, and ends the thread if it left that.
    void TearDown() override {
        if (fields::initialized(queue)) {
            queue.uninit();
        }
        queue.clear_task_list();
        plugin_test::TearDown();
    }

    // A task with one reference, which is the test's. The data tells it from others.
    static kzemm::task_info *make(int type, const std::string &data = "body",
                                  qd_dispose_trc_cb callback = nullptr, void *user = nullptr) {
        auto *const task = new (std::nothrow)
            kzemm::task_info(static_cast<KZEMM_TASK_TYPE>(type), data.data(),
                             static_cast<unsigned int>(data.size()), callback, user);
        task->add_reference();
        return task;
    }

    // The same, but its construction has failed: it is empty.
    static kzemm::task_info *make_empty(int type) {
        fakes::fail_allocation(2);  // the first one behind the task itself
        kzemm::task_info *const task = make(type);
        EXPECT_TRUE(fakes::allocation_failed());
        return task;
    }

    // Makes and adds a task. A refused one is released, as its creator does.
    KZEMM_TRACE_ERRORCODE add(int type, const std::string &data = "body") {
        kzemm::task_info *const task = make(type, data);
        const KZEMM_TRACE_ERRORCODE code = queue.add_task(task);
        if (code != KZEMM_TRACE_OK) {
            task->release();
        }
        return code;
    }

    // The queue takes tasks as if it had a thread, and keeps them.
    void pretend_to_run() {
        fields::running(queue) = true;
        fakes::clear_journal();
    }

    // Starts the queue and waits until its thread waits for a task.
    void start() {
        ASSERT_EQ(queue.init(), 0);
        ASSERT_TRUE(await_call("wait"));
    }

    static bool await_call(const std::string &text) {
        return fakes::await_record([&](const fakes::record &each) {
            return each.kind == fakes::what::thread && each.text == text;
        });
    }

    static void set_limit(unsigned int limit) { kzemm_config_inspector::task_queue_size() = limit; }

    // The data of the queued tasks, in order.
    std::vector<std::string> queued() {
        std::vector<std::string> result;
        for (const kzemm::task_info *const each : fields::task_list(queue)) {
            result.emplace_back(each->get_coordinate()->data, each->get_coordinate()->size);
        }
        return result;
    }

    // What the test's own thread wrote, or all other threads, which is the task thread.
    static std::vector<fakes::record> records(bool own, std::initializer_list<fakes::what> kinds) {
        std::vector<fakes::record> result;
        for (const fakes::record &each : fakes::journal(kinds)) {
            if ((pthread_equal(each.thread, pthread_self()) != 0) == own) {
                result.push_back(each);
            }
        }
        return result;
    }

    static std::vector<std::string> texts_of(const std::vector<fakes::record> &records) {
        std::vector<std::string> result;
        for (const fakes::record &each : records) {
            result.push_back(each.text);
        }
        return result;
    }

    static std::vector<fakes::record> own_lines() { return records(true, {fakes::what::log}); }

    static std::vector<fakes::record> task_lines() { return records(false, {fakes::what::log}); }

    // What the engine was handed so far, in order: the data of each order.
    static std::vector<std::string> coordinated() {
        std::vector<std::string> result;
        for (const fakes::engine_call &each : fakes::engine_calls("x_client_coordinate")) {
            result.push_back(each.data);
        }
        return result;
    }

    kzemm_task queue;
};

#endif
