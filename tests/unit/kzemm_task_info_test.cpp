#include "datapath/kzemm_task_info.h"

#include <gmock/gmock.h>

#include <new>
#include <thread>
#include <vector>

#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/plugin_test.h"

using fakes::at;
using fakes::log_lines;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;

namespace {

void on_result(_x_error, char *, unsigned int, void *) {}

// Lines that this module wrote.
testing::Matcher<const fakes::record &> own(int level, const std::string &text) {
    return AllOf(at(level, text), Field("file", &fakes::record::file, "kzemm_task_info.cpp"));
}

class kzemm_task_info_test : public plugin_test {
  protected:
    // A task with one reference, which is the test's.
    static kzemm::task_info *make(KZEMM_TASK_TYPE type, const std::string &data,
                                  qd_dispose_trc_cb callback = nullptr, void *user = nullptr) {
        auto *const task = new (std::nothrow) kzemm::task_info(
            type, data.data(), static_cast<unsigned int>(data.size()), callback, user);
        task->add_reference();
        return task;
    }
};

}  // namespace

TEST_F(kzemm_task_info_test, the_numbers_1_to_5_are_task_types) {
    for (const int type : {1, 2, 3, 4, 5}) {
        EXPECT_TRUE(is_task_type(type)) << type;
    }
    for (const int type : {-1, 0, 6, 7, 256 + 1}) {
        EXPECT_FALSE(is_task_type(type)) << type;
    }
    EXPECT_EQ(KZEMM_TASK_LINKAGE, 1);
    EXPECT_EQ(KZEMM_TASK_APPEND, 2);
    EXPECT_EQ(KZEMM_TASK_HUNTING, 3);
    EXPECT_EQ(KZEMM_TASK_CUSTOM_IOA, 4);
    EXPECT_EQ(KZEMM_TASK_LKGANAL, 5);
}

TEST_F(kzemm_task_info_test, a_task_has_its_own_copy_of_the_data) {
    std::string data("a\0body\0", 7);
    kzemm::task_info *const task = make(KZEMM_TASK_HUNTING, data);
    ASSERT_NE(task->get_coordinate(), nullptr);
    EXPECT_EQ(task->get_type(), KZEMM_TASK_HUNTING);
    EXPECT_NE(task->get_coordinate()->data, data.data());
    EXPECT_EQ(task->get_coordinate()->size, 7U);
    data.assign(7, 'x');
    EXPECT_EQ(std::string(task->get_coordinate()->data, 7), std::string("a\0body\0", 7));
    EXPECT_EQ(task->get_coordinate()->callback, nullptr);
    EXPECT_EQ(task->get_coordinate()->user, nullptr);
    EXPECT_THAT(log_lines(), ElementsAre(own(3, "new task info")));
    task->release();
}

TEST_F(kzemm_task_info_test, a_task_keeps_its_callback_and_user) {
    int user = 0;
    kzemm::task_info *const task = make(KZEMM_TASK_LKGANAL, "body", on_result, &user);
    ASSERT_NE(task->get_coordinate(), nullptr);
    EXPECT_EQ(task->get_coordinate()->callback, on_result);
    EXPECT_EQ(task->get_coordinate()->user, &user);
    task->release();
}

TEST_F(kzemm_task_info_test, without_memory_for_the_coordinate_a_task_is_empty) {
    auto *const task = static_cast<kzemm::task_info *>(operator new(sizeof(kzemm::task_info)));
    fakes::fail_allocation(1);
    new (task) kzemm::task_info(KZEMM_TASK_LINKAGE, "body", 4, on_result, nullptr);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_EQ(task->get_type(), 0);
    EXPECT_EQ(task->get_coordinate(), nullptr);
    EXPECT_THAT(log_lines(),
                ElementsAre(own(3, "new task info"), own(1, "new TASK_COORDINATE failed")));
    task->add_reference();
    task->release();
}

TEST_F(kzemm_task_info_test, without_memory_for_the_data_a_task_is_empty) {
    fakes::fail_allocation(3);  // behind the task itself and the coordinate
    kzemm::task_info *const task = make(KZEMM_TASK_LINKAGE, "body");
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_EQ(task->get_type(), 0);
    EXPECT_EQ(task->get_coordinate(), nullptr);
    EXPECT_THAT(log_lines(), ElementsAre(own(3, "new task info"), own(1, "new data failed")));
    task->release();
}

TEST_F(kzemm_task_info_test, the_last_reference_takes_the_task_with_it) {
    kzemm::task_info *const task = make(KZEMM_TASK_APPEND, "body");
    task->add_reference();
    fakes::watch_release(task);
    fakes::clear_journal();
    task->release();
    EXPECT_FALSE(fakes::watched_was_released());
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_EQ(std::string(task->get_coordinate()->data, 4), "body");
    task->release();
    EXPECT_TRUE(fakes::watched_was_released());
    EXPECT_THAT(log_lines(), ElementsAre(own(3, "free task info")));
}

TEST_F(kzemm_task_info_test, an_empty_task_is_released_in_the_same_way) {
    fakes::fail_allocation(2);  // behind the task itself
    kzemm::task_info *const task = make(KZEMM_TASK_LINKAGE, "body");
    fakes::watch_release(task);
    fakes::clear_journal();
    task->release();
    EXPECT_TRUE(fakes::watched_was_released());
    EXPECT_THAT(log_lines(), ElementsAre(own(3, "free task info")));
}

TEST_F(kzemm_task_info_test, references_are_counted_across_threads) {
    kzemm::task_info *const task = make(KZEMM_TASK_LINKAGE, "body");
    fakes::watch_release(task);
    fakes::clear_journal();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 10000; ++round) {
                task->add_reference();
                task->release();
            }
        });
    }
    for (std::thread &each : threads) {
        each.join();
    }
    EXPECT_FALSE(fakes::watched_was_released());
    task->release();
    EXPECT_TRUE(fakes::watched_was_released());
    EXPECT_THAT(log_lines(), ElementsAre(own(3, "free task info")));
}
