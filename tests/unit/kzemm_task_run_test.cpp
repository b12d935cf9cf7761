// What the task thread does with the tasks, and run_task for each type.

#include <arpa/inet.h>

#include <atomic>
#include <cstring>

#include "tests/fakes/fake_gateway.h"
#include "tests/unit/task_queue_test.h"

using fakes::at;
using fakes::await_log;
using fakes::log_lines;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

void on_result(_x_error, char *, unsigned int, void *) {}

// A request for custom rules as it arrives.
std::string custom_rules(const std::string &json) {
    const uint32_t len = htonl(static_cast<uint32_t>(json.size()));
    std::string frame("3200\0\0\0\0\0\1\0\0\0\0\0\0", 16);
    frame.append(reinterpret_cast<const char *>(&len), sizeof(len));
    return frame + json;
}

class kzemm_task_run_test : public task_queue_test {
  protected:
    void TearDown() override {
        go_on.open();
        task_queue_test::TearDown();
    }

    // The engine holds the order with the text "holds" until go_on opens.
    void hold_the_thread() {
        fakes::on_engine_call("x_client_coordinate", [this](const fakes::engine_call &call) {
            if (call.data == "holds") {
                EXPECT_TRUE(go_on.wait());
                held_call_returned = true;
            }
        });
        ASSERT_EQ(add(1, "holds"), KZEMM_TRACE_OK);
        ASSERT_TRUE(fakes::await_record([](const fakes::record &each) {
            return each.kind == fakes::what::engine &&
                   each.text == "x_client_coordinate(1, 5 bytes)";
        }));
    }

    // Runs a task on the test's own thread and releases it.
    int run(int type, const std::string &data = "body", qd_dispose_trc_cb callback = nullptr,
            void *user = nullptr) {
        kzemm::task_info *const task = make(type, data, callback, user);
        fakes::watch_release(task);
        fakes::clear_journal();
        const int result = queue.run_task(task);
        EXPECT_FALSE(fakes::watched_was_released()) << "the caller releases it";
        fakes::watch_release(nullptr);
        lines = log_lines();
        task->release();
        return result;
    }

    std::vector<fakes::record> lines;  // of run
    fakes::latch go_on;
    std::atomic<bool> held_call_returned{false};
};

// The coordinate tasks, whose number is that of the engine's trace type.
class kzemm_task_coordinate_test : public kzemm_task_run_test,
                                   public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(types, kzemm_task_coordinate_test, testing::Values(1, 2, 3));

// What task threads wrote, without the waits, of which there may be more than needed.
std::vector<std::string> without_waits(std::vector<std::string> texts) {
    texts.erase(std::remove(texts.begin(), texts.end(), "wait"), texts.end());
    return texts;
}

}  // namespace

// ---- the thread ----

TEST_F(kzemm_task_run_test, the_thread_sets_up_its_log_before_it_looks_at_the_queue) {
    fakes::clear_journal();
    start();
    const std::vector<fakes::record> first =
        records(false, {fakes::what::log_directory, fakes::what::log, fakes::what::thread});
    ASSERT_GE(first.size(), 4U);
    EXPECT_EQ(first[0].kind, fakes::what::log_directory);
    EXPECT_THAT(first[0], at(5, in_tree("bin/../var/log/agent/kzemdlmgr/task")));
    EXPECT_THAT(first[1], at(3, "task thread start running"));
    EXPECT_EQ(first[2].text, "lock");
    EXPECT_EQ(first[3].text, "wait");
    EXPECT_EQ(fakes::count(fakes::what::log_directory), 1U);
}

TEST_F(kzemm_task_run_test, a_task_is_taken_under_the_lock_run_without_it_and_released) {
    start();
    fakes::clear_journal();
    EXPECT_EQ(add(2), KZEMM_TRACE_OK);
    ASSERT_TRUE(await_call("wait"));  // for the next one
    EXPECT_THAT(without_waits(texts_of(
                    records(false, {fakes::what::log, fakes::what::engine, fakes::what::thread}))),
                ElementsAre("unlock", "run task, type: 2", "x_client_coordinate(2, 4 bytes)",
                            "task 2 ret: 0", "free task info", "lock"));
    EXPECT_THAT(task_lines(), ElementsAre(at(3, "run task, type: 2"), at(3, "task 2 ret: 0"),
                                          at(3, "free task info")));
    EXPECT_THAT(fields::task_list(queue), IsEmpty());
}

TEST_F(kzemm_task_run_test, the_result_of_a_task_is_logged_and_the_thread_goes_on) {
    start();
    fakes::engine_returns("x_client_coordinate", {5});
    EXPECT_EQ(add(1, "refused"), KZEMM_TRACE_OK);
    EXPECT_EQ(add(2, "taken"), KZEMM_TRACE_OK);
    ASSERT_TRUE(await_log(3, "task 2 ret: 0"));
    EXPECT_THAT(task_lines(), Contains(at(3, "task 1 ret: -1")));
    EXPECT_THAT(coordinated(), ElementsAre("refused", "taken")) << "nothing is tried again";
}

TEST_F(kzemm_task_run_test, tasks_run_in_the_order_in_which_they_were_added) {
    start();
    hold_the_thread();
    for (const char *const each : {"1", "2", "3", "4", "5", "6"}) {
        EXPECT_EQ(add(each[0] % 2 + 1, each), KZEMM_TRACE_OK);
    }
    EXPECT_EQ(add(3, "last"), KZEMM_TRACE_OK);
    go_on.open();
    ASSERT_TRUE(await_log(3, "task 3 ret: 0"));
    EXPECT_THAT(coordinated(), ElementsAre("holds", "1", "2", "3", "4", "5", "6", "last"));
}

TEST_F(kzemm_task_run_test, a_task_can_be_added_while_another_runs_also_from_within_it) {
    start();
    int held = -1;
    fakes::on_engine_call("x_client_coordinate", [&](const fakes::engine_call &call) {
        if (call.data == "first") {
            held = fakes::held_mutexes();
            EXPECT_EQ(add(1, "from within"), KZEMM_TRACE_OK);
            EXPECT_TRUE(go_on.wait());
        }
    });
    EXPECT_EQ(add(2, "first"), KZEMM_TRACE_OK);
    ASSERT_TRUE(await_log(3, "add task done, task type: 1"));
    EXPECT_EQ(add(3, "from outside"), KZEMM_TRACE_OK);
    go_on.open();
    ASSERT_TRUE(await_log(3, "task 3 ret: 0"));
    EXPECT_EQ(held, 0);
    EXPECT_THAT(coordinated(), ElementsAre("first", "from within", "from outside"));
}

TEST_F(kzemm_task_run_test, a_task_that_runs_is_not_replaced_by_a_new_one_of_its_type) {
    start();
    fakes::latch in_call;
    fakes::on_engine_call("x_client_coordinate", [&](const fakes::engine_call &call) {
        if (call.data == "runs") {
            in_call.open();
            EXPECT_TRUE(go_on.wait());
        }
    });
    EXPECT_EQ(add(3, "runs"), KZEMM_TRACE_OK);
    ASSERT_TRUE(in_call.wait());
    fakes::clear_journal();
    EXPECT_EQ(add(3, "replaced"), KZEMM_TRACE_OK);
    EXPECT_THAT(own_lines(),
                ElementsAre(at(3, "new task info"), at(3, "add task done, task type: 3")));
    EXPECT_EQ(add(3, "waits"), KZEMM_TRACE_OK);
    EXPECT_THAT(queued(), ElementsAre("waits"));
    EXPECT_EQ(add(1, "last"), KZEMM_TRACE_OK);
    go_on.open();
    ASSERT_TRUE(await_log(3, "task 1 ret: 0"));
    EXPECT_THAT(coordinated(), ElementsAre("runs", "waits", "last"));
}

TEST_F(kzemm_task_run_test, uninit_waits_for_the_running_task_and_frees_the_others_unrun) {
    start();
    hold_the_thread();
    EXPECT_EQ(add(1, "a"), KZEMM_TRACE_OK);
    EXPECT_EQ(add(3, "b"), KZEMM_TRACE_OK);
    EXPECT_EQ(add(4, "c"), KZEMM_TRACE_OK);
    fakes::on_kze_thread_join([this] {
        EXPECT_FALSE(held_call_returned);
        EXPECT_FALSE(fields::running(queue));
        go_on.open();
    });
    fakes::clear_journal();
    queue.uninit();
    EXPECT_TRUE(held_call_returned);
    EXPECT_THAT(own_lines(), ElementsAre(at(3, "task thread is stopped"), at(3, "free task info"),
                                         at(3, "free task info"), at(3, "free task info"),
                                         at(3, "kzemm_task uninitialized")));
    EXPECT_THAT(task_lines(), ElementsAre(at(3, "task 1 ret: 0"), at(3, "free task info"),
                                          at(3, "task thread end running")));
    EXPECT_THAT(fields::task_list(queue), IsEmpty());
    EXPECT_THAT(coordinated(), ElementsAre("holds"));
}

TEST_F(kzemm_task_run_test, a_waiting_thread_ends_with_its_last_line_outside_the_lock) {
    start();
    fakes::clear_journal();
    queue.uninit();
    EXPECT_THAT(without_waits(texts_of(records(false, {fakes::what::log, fakes::what::thread}))),
                ElementsAre("unlock", "task thread end running"));
    EXPECT_THAT(task_lines(), ElementsAre(at(3, "task thread end running")));
}

TEST_F(kzemm_task_run_test, a_thread_that_looks_before_it_is_let_in_ends_and_the_tasks_wait) {
    fakes::on_kze_thread_start([] {  // not before the new thread has looked
        EXPECT_TRUE(await_log(3, "task thread end running"));
    });
    EXPECT_EQ(queue.init(), 0);
    EXPECT_TRUE(fields::running(queue));
    EXPECT_EQ(add(1, "waits"), KZEMM_TRACE_OK);
    EXPECT_THAT(queued(), ElementsAre("waits"));
    queue.uninit();
    EXPECT_THAT(coordinated(), IsEmpty());
    EXPECT_THAT(own_lines(), Contains(at(3, "free task info")));
}

// ---- run_task ----

TEST_F(kzemm_task_run_test, a_task_without_a_coordinate_fails) {
    kzemm::task_info *const task = make_empty(1);
    fakes::clear_journal();
    EXPECT_EQ(queue.run_task(task), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "task info is null")));
    EXPECT_THAT(fakes::engine_calls(), IsEmpty());
    task->release();
}

TEST_P(kzemm_task_coordinate_test, goes_to_the_engine_under_its_own_number) {
    const std::string data("a\0frame", 7);
    EXPECT_EQ(run(GetParam(), data), 0);
    const std::string type = std::to_string(GetParam());
    EXPECT_THAT(fakes::engine_texts(), ElementsAre("x_client_coordinate(" + type + ", 7 bytes)"));
    EXPECT_THAT(coordinated(), ElementsAre(data));
    EXPECT_THAT(lines, ElementsAre(at(3, "run task, type: " + type)));
}

TEST_P(kzemm_task_coordinate_test, is_lost_when_the_engine_refuses_it) {
    for (const int code : {-3, 5}) {
        fakes::forget_engine_calls();
        fakes::engine_returns("x_client_coordinate", {code});
        EXPECT_EQ(run(GetParam()), -1);
        EXPECT_THAT(lines, ElementsAre(at(3, "run task, type: " + std::to_string(GetParam())),
                                       at(2, "qd-agent return err:" + std::to_string(code))));
        EXPECT_THAT(fakes::engine_calls(), SizeIs(1));
    }
}

TEST_P(kzemm_task_coordinate_test, runs_whatever_the_switches_say) {
    kzemm_config_inspector::linkage_switch() = false;
    kzemm_config_inspector::ioa_switch() = false;
    kzemm_config_inspector::hunting_switch() = false;
    EXPECT_EQ(run(GetParam()), 0);
    EXPECT_THAT(coordinated(), SizeIs(1));
}

TEST_F(kzemm_task_run_test, a_linkage_analysis_goes_to_the_engine_with_its_callback) {
    int user = 0;
    EXPECT_EQ(run(5, "request", on_result, &user), 0);
    EXPECT_THAT(fakes::engine_texts(), ElementsAre("x_client_coordinate_dispose_trc(7 bytes)"));
    const fakes::engine_call call = fakes::engine_calls()[0];
    EXPECT_EQ(call.data, "request");
    EXPECT_TRUE(fakes::is_callback(call.callback, on_result));
    EXPECT_EQ(call.context, &user);
    EXPECT_THAT(lines, ElementsAre(at(3, "run task, type: 5"),
                                   at(3, "qd-agent handle lkganal task begin!")));
}

TEST_F(kzemm_task_run_test, a_linkage_analysis_is_lost_when_the_engine_refuses_it) {
    kzemm_config_inspector::collect_switch() = false;  // not looked at either
    for (const int code : {-3, 5}) {
        fakes::engine_returns("x_client_coordinate_dispose_trc", {code});
        EXPECT_EQ(run(5), -1);
        EXPECT_THAT(lines, ElementsAre(at(3, "run task, type: 5"),
                                       at(3, "qd-agent handle lkganal task begin!"),
                                       at(2, "qd-agent return err:" + std::to_string(code))));
    }
}

TEST_F(kzemm_task_run_test, custom_rules_go_where_they_are_dealt_with) {
    const std::string frame = custom_rules(R"({"rulesId":"r1","rulesInfo":"rules"})");
    EXPECT_EQ(run(4, frame), 0);
    EXPECT_THAT(fakes::engine_texts(), ElementsAre("x_client_engine_update_by_data(7, 5 bytes)"));
    EXPECT_EQ(fakes::engine_calls()[0].data, "rules");
    EXPECT_EQ(fields::cur_rule_id(queue), "r1");
    const std::vector<fakes::record> of_run = lines;

    // It adds one line of its own to those.
    fakes::clear_journal();
    EXPECT_EQ(queue.deal_customioa_task(frame.data(), static_cast<unsigned int>(frame.size())), 0);
    ASSERT_THAT(of_run, SizeIs(log_lines().size() + 1));
    EXPECT_THAT(of_run[0], at(3, "run task, type: 4"));
    for (size_t i = 1; i < of_run.size(); ++i) {
        EXPECT_THAT(of_run[i], at(log_lines()[i - 1].level, log_lines()[i - 1].text));
    }
}

TEST_F(kzemm_task_run_test, the_result_of_custom_rules_passes_through) {
    EXPECT_EQ(run(4, custom_rules("[]")), -1);
    EXPECT_THAT(fakes::engine_calls(), IsEmpty());
    fakes::engine_returns("x_client_engine_update_by_data", {-8});
    EXPECT_EQ(run(4, custom_rules(R"({"rulesId":"r1","rulesInfo":"rules"})")), -1);
    EXPECT_THAT(fakes::engine_calls(), SizeIs(1));
    for (const fakes::record &each : lines) {
        EXPECT_NE(each.text, "qd-agent return err:-8");
    }
}

TEST_F(kzemm_task_run_test, another_type_is_unknown) {
    for (const int type : {6, 99}) {
        EXPECT_EQ(run(type), -1);
        EXPECT_THAT(lines, ElementsAre(at(3, "run task, type: " + std::to_string(type)),
                                       at(2, "unknown task type")));
    }
    EXPECT_THAT(fakes::engine_calls(), IsEmpty());
}
