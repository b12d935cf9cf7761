// The queue itself: what it takes, refuses and replaces, and how its thread begins and ends.

#include "tests/unit/task_queue_test.h"

using fakes::at;
using fakes::log_lines;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using kzemm_task_test = task_queue_test;

// Types of which the queue keeps all, and of which it keeps the latest.
class kzemm_task_accumulating_test : public kzemm_task_test,
                                     public testing::WithParamInterface<int> {};
class kzemm_task_latest_test : public kzemm_task_test, public testing::WithParamInterface<int> {};
class kzemm_task_bad_type_test : public kzemm_task_test, public testing::WithParamInterface<int> {};
class kzemm_task_limit_test : public kzemm_task_test,
                              public testing::WithParamInterface<unsigned int> {};

INSTANTIATE_TEST_SUITE_P(types, kzemm_task_accumulating_test, testing::Values(1, 2));
INSTANTIATE_TEST_SUITE_P(types, kzemm_task_latest_test, testing::Values(3, 4, 5));
INSTANTIATE_TEST_SUITE_P(types, kzemm_task_bad_type_test, testing::Values(0, 6, -1));
INSTANTIATE_TEST_SUITE_P(limits, kzemm_task_limit_test, testing::Values(5U, 10U, 100U));

// The calls on threads and locks together with the log lines, in one order.
std::vector<std::string> in_order() {
    return fakes::texts({fakes::what::thread, fakes::what::log});
}

}  // namespace

TEST_F(kzemm_task_test, a_new_queue_has_a_mutex_a_condition_and_nothing_else) {
    fakes::clear_journal();
    {
        kzemm_task made;
        EXPECT_FALSE(fields::initialized(made));
        EXPECT_FALSE(fields::running(made));
        EXPECT_EQ(fields::thread(made), 0U);
        EXPECT_THAT(fields::task_list(made), IsEmpty());
        EXPECT_EQ(fields::cur_rule_id(made), "");
        EXPECT_THAT(in_order(), ElementsAre("mutex init", "cond init"));
        fakes::clear_journal();
    }
    EXPECT_THAT(in_order(), ElementsAre("cond destroy", "mutex destroy"));
}

TEST_F(kzemm_task_test, the_end_of_a_queue_leaves_the_tasks_alone) {
    kzemm::task_info *const task = make(1);
    {
        kzemm_task made;
        fields::running(made) = true;
        ASSERT_EQ(made.add_task(task), KZEMM_TRACE_OK);
        fakes::watch_release(task);
    }
    EXPECT_FALSE(fakes::watched_was_released());
    task->release();
}

// ---- add_task ----

TEST_F(kzemm_task_test, no_task_is_invalid_and_takes_no_lock) {
    pretend_to_run();
    EXPECT_EQ(queue.add_task(nullptr), KZEMM_TRACE_INVALID);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "task is null")));
    EXPECT_EQ(fakes::count(fakes::what::thread), 0U);
}

TEST_P(kzemm_task_bad_type_test, is_invalid_and_takes_no_lock) {
    // Neither the thread that isn't there nor the full queue is looked at before.
    set_limit(0);
    kzemm::task_info *const task = make(GetParam());
    fakes::watch_release(task);
    fakes::clear_journal();
    EXPECT_EQ(queue.add_task(task), KZEMM_TRACE_INVALID);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(1, "task type " + std::to_string(GetParam()) + " is invalid")));
    EXPECT_EQ(fakes::count(fakes::what::thread), 0U);
    EXPECT_FALSE(fakes::watched_was_released()) << "it stays the creator's";
    task->release();
}

TEST_F(kzemm_task_test, a_task_whose_construction_failed_is_invalid) {
    pretend_to_run();
    kzemm::task_info *const task = make_empty(1);
    fakes::clear_journal();
    EXPECT_EQ(queue.add_task(task), KZEMM_TRACE_INVALID);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "task type 0 is invalid")));
    EXPECT_THAT(fields::task_list(queue), IsEmpty());
    task->release();
}

TEST_F(kzemm_task_test, without_a_running_thread_a_task_fails_even_when_the_queue_is_full) {
    set_limit(0);
    kzemm::task_info *const task = make(3);
    fakes::clear_journal();
    EXPECT_EQ(queue.add_task(task), KZEMM_TRACE_FAILED);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "task thread is not running")));
    EXPECT_THAT(fakes::texts({fakes::what::thread}), ElementsAre("lock", "unlock"));
    EXPECT_THAT(fields::task_list(queue), IsEmpty());
    task->release();
}

TEST_P(kzemm_task_accumulating_test, a_task_is_linked_under_the_lock_and_the_thread_is_woken) {
    pretend_to_run();
    kzemm::task_info *const task = make(GetParam());
    fakes::watch_release(task);
    fakes::clear_journal();
    EXPECT_EQ(queue.add_task(task), KZEMM_TRACE_OK);
    EXPECT_THAT(in_order(),
                ElementsAre("lock", "signal",
                            "add task done, task type: " + std::to_string(GetParam()), "unlock"));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "add task done, task type: " + std::to_string(GetParam()))));
    EXPECT_THAT(fields::task_list(queue), ElementsAre(task));

    // The one reference is now the queue's.
    EXPECT_FALSE(fakes::watched_was_released());
    queue.clear_task_list();
    EXPECT_TRUE(fakes::watched_was_released());
}

TEST_P(kzemm_task_accumulating_test, all_tasks_wait_in_their_order) {
    pretend_to_run();
    for (const char *const each : {"a", "b", "c", "d"}) {
        EXPECT_EQ(add(GetParam(), each), KZEMM_TRACE_OK);
    }
    EXPECT_THAT(queued(), ElementsAre("a", "b", "c", "d"));
    EXPECT_THAT(fakes::texts({fakes::what::log}),
                testing::Not(testing::Contains("free task info")));
}

TEST_P(kzemm_task_latest_test, the_first_task_is_taken_like_any_other) {
    pretend_to_run();
    EXPECT_EQ(add(1, "other"), KZEMM_TRACE_OK);
    fakes::clear_journal();
    EXPECT_EQ(add(GetParam(), "new"), KZEMM_TRACE_OK);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "new task info"),
                            at(3, "add task done, task type: " + std::to_string(GetParam()))));
    EXPECT_THAT(queued(), ElementsAre("other", "new"));
}

TEST_P(kzemm_task_latest_test, a_newer_task_replaces_the_waiting_one_at_the_tail) {
    const std::string type = std::to_string(GetParam());
    pretend_to_run();
    kzemm::task_info *const old = make(GetParam(), "old");
    EXPECT_EQ(add(1, "before"), KZEMM_TRACE_OK);
    EXPECT_EQ(queue.add_task(old), KZEMM_TRACE_OK);
    EXPECT_EQ(add(2, "behind"), KZEMM_TRACE_OK);
    kzemm::task_info *const task = make(GetParam(), "new");
    fakes::watch_release(old);
    fakes::clear_journal();
    EXPECT_EQ(queue.add_task(task), KZEMM_TRACE_OK);
    EXPECT_TRUE(fakes::watched_was_released());
    EXPECT_THAT(queued(), ElementsAre("before", "behind", "new"));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "task queue has exist " + type + " task, remove old task"),
                            AllOf(at(3, "free task info"),
                                  Field("file", &fakes::record::file, "kzemm_task_info.cpp")),
                            at(3, "add task done, task type: " + type)));
    // On the producer's thread, under the lock.
    EXPECT_THAT(
        texts_of(records(true, {fakes::what::thread, fakes::what::log})),
        ElementsAre("lock", "task queue has exist " + type + " task, remove old task",
                    "free task info", "signal", "add task done, task type: " + type, "unlock"));
}

TEST_P(kzemm_task_latest_test, the_other_types_stay) {
    pretend_to_run();
    for (const int type : {5, 4, 3, 2, 1}) {
        EXPECT_EQ(add(type, std::to_string(type)), KZEMM_TRACE_OK);
    }
    EXPECT_EQ(add(GetParam(), "new"), KZEMM_TRACE_OK);
    std::vector<std::string> expected = {"5", "4", "3", "2", "1"};
    expected.erase(std::find(expected.begin(), expected.end(), std::to_string(GetParam())));
    expected.emplace_back("new");
    EXPECT_EQ(queued(), expected);
}

TEST_P(kzemm_task_latest_test, a_full_queue_refuses_what_would_replace_a_task_in_it) {
    pretend_to_run();
    set_limit(5);
    EXPECT_EQ(add(GetParam(), "old"), KZEMM_TRACE_OK);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(add(1, "other"), KZEMM_TRACE_OK);
    }
    fakes::watch_release(fields::task_list(queue).front());
    kzemm::task_info *const task = make(GetParam(), "new");
    fakes::clear_journal();
    EXPECT_EQ(queue.add_task(task), KZEMM_TRACE_QUEUE_FULL);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "task queue is full, size: 5")));
    EXPECT_FALSE(fakes::watched_was_released());
    EXPECT_THAT(queued(), ElementsAre("old", "other", "other", "other", "other"));
    task->release();
}

TEST_P(kzemm_task_limit_test, is_the_number_of_tasks_that_may_wait) {
    pretend_to_run();
    set_limit(GetParam());
    for (unsigned int i = 0; i < GetParam(); ++i) {
        ASSERT_EQ(add(i % 2 == 0 ? 1 : 2), KZEMM_TRACE_OK) << i;
    }
    kzemm::task_info *const task = make(1);
    fakes::clear_journal();
    EXPECT_EQ(queue.add_task(task), KZEMM_TRACE_QUEUE_FULL);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(2, "task queue is full, size: " + std::to_string(GetParam()))));
    EXPECT_THAT(fakes::texts({fakes::what::thread}), ElementsAre("lock", "unlock"));
    EXPECT_THAT(fields::task_list(queue), SizeIs(GetParam()));
    task->release();
}

TEST_F(kzemm_task_test, the_limit_is_10_without_a_setting) {
    pretend_to_run();
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(add(1), KZEMM_TRACE_OK) << i;
    }
    EXPECT_EQ(add(1), KZEMM_TRACE_QUEUE_FULL);
    EXPECT_THAT(log_lines(), testing::Contains(at(2, "task queue is full, size: 10")));
}

TEST_F(kzemm_task_test, the_limit_is_read_at_each_call) {
    pretend_to_run();
    for (int i = 0; i < 7; ++i) {
        ASSERT_EQ(add(1), KZEMM_TRACE_OK);
    }
    set_limit(5);
    fakes::clear_journal();
    EXPECT_EQ(add(1), KZEMM_TRACE_QUEUE_FULL);
    EXPECT_THAT(log_lines(), testing::Contains(at(2, "task queue is full, size: 7")));
    set_limit(7);
    EXPECT_EQ(add(1), KZEMM_TRACE_QUEUE_FULL);
    set_limit(8);
    EXPECT_EQ(add(1), KZEMM_TRACE_OK);
}

TEST_F(kzemm_task_test, memory_that_runs_out_under_the_lock_gives_the_lock_back) {
    pretend_to_run();
    EXPECT_EQ(add(1, "first"), KZEMM_TRACE_OK);
    kzemm::task_info *const task = make(1, "lost");
    fakes::watch_release(task);
    fakes::clear_journal();
    fakes::at_record(fakes::what::thread, "lock", [] { fakes::fail_throwing_new(1); });
    EXPECT_EQ(queue.add_task(task), KZEMM_TRACE_FAILED);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "new task node failed")));
    EXPECT_EQ(fakes::held_mutexes(), 0);
    EXPECT_FALSE(fakes::watched_was_released()) << "it stays the creator's";
    task->release();
    EXPECT_EQ(add(1, "second"), KZEMM_TRACE_OK);
    EXPECT_THAT(queued(), ElementsAre("first", "second"));
}

// ---- erase_spe_type_task, clear_task_list ----

TEST_P(kzemm_task_latest_test, all_of_the_type_are_erased) {
    pretend_to_run();
    const int other = GetParam() == 3 ? 4 : 3;
    for (const int type : {GetParam(), 1, GetParam(), GetParam(), other, GetParam()}) {
        fields::task_list(queue).push_back(make(type, std::to_string(type)));
    }
    fakes::clear_journal();
    queue.erase_spe_type_task(static_cast<KZEMM_TASK_TYPE>(GetParam()));
    EXPECT_THAT(queued(), ElementsAre("1", std::to_string(other)));
    const auto removed =
        at(3, "task queue has exist " + std::to_string(GetParam()) + " task, remove old task");
    const auto freed = at(3, "free task info");
    EXPECT_THAT(log_lines(),
                ElementsAre(removed, freed, removed, freed, removed, freed, removed, freed));
    EXPECT_EQ(fakes::count(fakes::what::thread), 0U) << "the caller holds the lock";
}

TEST_P(kzemm_task_accumulating_test, are_erased_too_when_asked_for) {
    pretend_to_run();
    for (const int type : {GetParam(), 3, GetParam()}) {
        EXPECT_EQ(add(type, std::to_string(type)), KZEMM_TRACE_OK);
    }
    queue.erase_spe_type_task(static_cast<KZEMM_TASK_TYPE>(GetParam()));
    EXPECT_THAT(queued(), ElementsAre("3"));
}

TEST_P(kzemm_task_bad_type_test, erases_nothing) {
    pretend_to_run();
    EXPECT_EQ(add(3, "waits"), KZEMM_TRACE_OK);
    fields::task_list(queue).push_back(make(GetParam(), "strange"));
    fakes::clear_journal();
    queue.erase_spe_type_task(static_cast<KZEMM_TASK_TYPE>(GetParam()));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(1, "task type " + std::to_string(GetParam()) + " is invalid")));
    EXPECT_THAT(queued(), ElementsAre("waits", "strange"));
}

TEST_F(kzemm_task_test, clearing_releases_every_task_and_takes_no_lock) {
    pretend_to_run();
    EXPECT_EQ(add(1), KZEMM_TRACE_OK);
    EXPECT_EQ(add(3), KZEMM_TRACE_OK);
    EXPECT_EQ(add(5), KZEMM_TRACE_OK);
    fields::task_list(queue).insert(++fields::task_list(queue).begin(), nullptr);
    fakes::clear_journal();
    queue.clear_task_list();
    const auto freed = at(3, "free task info");
    EXPECT_THAT(log_lines(), ElementsAre(freed, freed, freed));
    EXPECT_THAT(fields::task_list(queue), IsEmpty());
    EXPECT_EQ(fakes::count(fakes::what::thread), 0U);
}

// ---- init and create_task_thread ----

TEST_F(kzemm_task_test, init_starts_the_thread_and_then_lets_tasks_in) {
    fakes::clear_journal();
    EXPECT_EQ(queue.init(), 0);
    EXPECT_THAT(own_lines(),
                ElementsAre(at(3, "init kzemm_task"), at(3, "create task thread success"),
                            at(3, "init kzemm_task success")));
    EXPECT_THAT(texts_of(records(true, {fakes::what::thread, fakes::what::log})),
                ElementsAre("init kzemm_task", "start", "lock", "create task thread success",
                            "unlock", "init kzemm_task success"));
    EXPECT_TRUE(fields::initialized(queue));
    EXPECT_TRUE(fields::running(queue));
    EXPECT_NE(fields::thread(queue), 0U);
    EXPECT_EQ(fakes::unjoined_kze_threads(), 1U);
}

TEST_F(kzemm_task_test, a_second_init_only_warns) {
    start();
    const kze_thread_t thread = fields::thread(queue);
    fakes::clear_journal();
    EXPECT_EQ(queue.init(), 0);
    EXPECT_THAT(own_lines(), ElementsAre(at(3, "init kzemm_task"),
                                         at(2, "kzemm_task has already been initialized")));
    EXPECT_THAT(records(true, {fakes::what::thread}), IsEmpty());
    EXPECT_EQ(fields::thread(queue), thread);
}

TEST_F(kzemm_task_test, a_thread_that_cannot_be_started_fails_init_and_a_later_one_works) {
    for (const int code : {11, -7}) {
        fakes::clear_journal();
        fakes::kze_thread_start_fails(code);
        EXPECT_EQ(queue.init(), -1);
        EXPECT_THAT(log_lines(),
                    ElementsAre(at(3, "init kzemm_task"),
                                at(1, "start task thread failed: " + std::to_string(code)),
                                at(1, "create task thread failed")));
        EXPECT_THAT(fakes::texts({fakes::what::thread}), ElementsAre("start"));
        EXPECT_FALSE(fields::initialized(queue));
        EXPECT_FALSE(fields::running(queue));
        EXPECT_EQ(fields::thread(queue), 0U);
    }
    EXPECT_EQ(add(1), KZEMM_TRACE_FAILED);
    fakes::kze_thread_start_fails(0);
    start();
    EXPECT_EQ(add(1), KZEMM_TRACE_OK);
}

TEST_F(kzemm_task_test, a_thread_that_is_there_is_not_started_again) {
    fields::thread(queue) = 4711;
    fakes::clear_journal();
    EXPECT_EQ(queue.create_task_thread(), 0);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "task thread is exist")));
    EXPECT_EQ(fakes::count(fakes::what::thread), 0U);
    EXPECT_FALSE(fields::running(queue));
    fields::thread(queue) = 0;
}

// ---- uninit and terminate_task_thread ----

TEST_F(kzemm_task_test, uninit_of_what_was_never_initialized_only_warns) {
    pretend_to_run();
    EXPECT_EQ(add(1, "waits"), KZEMM_TRACE_OK);
    fakes::clear_journal();
    queue.uninit();
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "task thread is not initialized")));
    EXPECT_EQ(fakes::count(fakes::what::thread), 0U);
    EXPECT_TRUE(fields::running(queue));
    EXPECT_THAT(queued(), ElementsAre("waits"));
}

TEST_F(kzemm_task_test, uninit_wakes_and_joins_the_thread) {
    start();
    fakes::clear_journal();
    queue.uninit();
    EXPECT_THAT(own_lines(),
                ElementsAre(at(3, "task thread is stopped"), at(3, "kzemm_task uninitialized")));
    EXPECT_THAT(texts_of(records(true, {fakes::what::thread, fakes::what::log})),
                ElementsAre("lock", "broadcast", "unlock", "join", "task thread is stopped",
                            "kzemm_task uninitialized"));
    EXPECT_FALSE(fields::initialized(queue));
    EXPECT_FALSE(fields::running(queue));
    EXPECT_EQ(fields::thread(queue), 0U);
    EXPECT_EQ(fakes::unjoined_kze_threads(), 0U);
}

TEST_F(kzemm_task_test, a_second_uninit_only_warns) {
    start();
    queue.uninit();
    fakes::clear_journal();
    queue.uninit();
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "task thread is not initialized")));
}

TEST_F(kzemm_task_test, after_uninit_a_task_fails_and_stays_its_creators) {
    start();
    queue.uninit();
    kzemm::task_info *const task = make(1);
    fakes::watch_release(task);
    fakes::clear_journal();
    EXPECT_EQ(queue.add_task(task), KZEMM_TRACE_FAILED);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "task thread is not running")));
    EXPECT_FALSE(fakes::watched_was_released());
    task->release();
}

TEST_F(kzemm_task_test, a_queue_starts_and_ends_again_and_again) {
    for (int round = 0; round < 3; ++round) {
        fakes::clear_journal();
        start();
        fakes::clear_journal();
        EXPECT_EQ(add(1), KZEMM_TRACE_OK);
        EXPECT_TRUE(fakes::await_log(3, "task 1 ret: 0"));
        queue.uninit();
        EXPECT_EQ(fakes::unjoined_kze_threads(), 0U);
    }
    EXPECT_THAT(coordinated(), SizeIs(3));
}

TEST_F(kzemm_task_test, termination_without_a_thread_joins_nothing) {
    pretend_to_run();
    queue.terminate_task_thread();
    EXPECT_THAT(in_order(), ElementsAre("lock", "broadcast", "unlock", "task thread is stopped"));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "task thread is stopped")));
    EXPECT_FALSE(fields::running(queue));
}
