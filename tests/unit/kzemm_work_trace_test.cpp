// How a request becomes a task, and what becomes of it when that fails.

#include "tests/unit/request_test.h"

using fakes::at;
using fakes::log_lines;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class kzemm_work_trace_test : public request_test {
  protected:
    KZEMM_TRACE_ERRORCODE trace(int type, const std::string &data) {
        return work.do_trace(static_cast<KZEMM_TASK_TYPE>(type), data.data(),
                             static_cast<unsigned int>(data.size()));
    }

    // The task, its coordinate and its data are made in this order.
    static void fail_task_allocation(unsigned int nth) {
        fakes::at_record(fakes::what::log,
                         "task info, type: ", [nth] { fakes::fail_allocation(nth); });
    }
};

class kzemm_work_trace_bad_type_test : public kzemm_work_trace_test,
                                       public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(types, kzemm_work_trace_bad_type_test, testing::Values(0, 6, -1));

// Orders that get a frame, and those that are queued as they came without a callback.
class kzemm_work_trace_wrapped_test : public kzemm_work_trace_test,
                                      public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(types, kzemm_work_trace_wrapped_test, testing::Values(1, 2));

class kzemm_work_trace_plain_test : public kzemm_work_trace_test,
                                    public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(types, kzemm_work_trace_plain_test, testing::Values(3, 4));

class kzemm_work_trace_type_test : public kzemm_work_trace_test,
                                   public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(all, kzemm_work_trace_type_test, testing::Range(1, 6));

class kzemm_work_trace_latest_test : public kzemm_work_trace_test,
                                     public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(types, kzemm_work_trace_latest_test, testing::Values(3, 4, 5));

}  // namespace

TEST_P(kzemm_work_trace_bad_type_test, is_invalid_and_allocates_nothing) {
    fakes::fail_allocation(1);
    EXPECT_EQ(trace(GetParam(), "order"), KZEMM_TRACE_INVALID);
    EXPECT_FALSE(fakes::allocation_failed());
    EXPECT_THAT(log_lines(),
                ElementsAre(at(1, "task type " + std::to_string(GetParam()) + " is invalid")));
    EXPECT_THAT(queued(), IsEmpty());
}

TEST_P(kzemm_work_trace_wrapped_test, is_queued_in_a_frame) {
    const std::string data(100, 'b');
    const std::string type = std::to_string(GetParam());
    EXPECT_EQ(trace(GetParam(), data), KZEMM_TRACE_OK);
    EXPECT_EQ(only_task().get_type(), GetParam());
    EXPECT_EQ(data_of_only_task(),
              std::string("3200\0\0\0\0\0\1\0\0\0\0\0\0\0\0\0\144", 20) + data);
    EXPECT_EQ(only_task().get_coordinate()->callback, nullptr);
    EXPECT_EQ(only_task().get_coordinate()->user, nullptr);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "task info, type: " + type + ", size: 120"),
                            at(3, "new task info"), at(3, "add task done, task type: " + type)));
}

TEST_P(kzemm_work_trace_wrapped_test, is_a_frame_alone_without_data) {
    EXPECT_EQ(work.do_trace(static_cast<KZEMM_TASK_TYPE>(GetParam()), "x", 0), KZEMM_TRACE_OK);
    EXPECT_EQ(data_of_only_task(), frame(""));
}

TEST_P(kzemm_work_trace_wrapped_test, fails_without_memory_for_the_frame) {
    fakes::fail_allocation(1);
    EXPECT_EQ(trace(GetParam(), std::string(100, 'b')), KZEMM_TRACE_FAILED);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(log_lines(),
                ElementsAre(at(1, "malloc 120 byte failed"),
                            at(2, "add msg header failed, type: " + std::to_string(GetParam()))));
    EXPECT_THAT(queued(), IsEmpty());
}

TEST_P(kzemm_work_trace_plain_test, is_queued_byte_for_byte) {
    const std::string data = frame("order");
    const std::string type = std::to_string(GetParam());
    EXPECT_EQ(trace(GetParam(), data), KZEMM_TRACE_OK);
    EXPECT_EQ(only_task().get_type(), GetParam());
    EXPECT_EQ(data_of_only_task(), data);
    EXPECT_EQ(only_task().get_coordinate()->callback, nullptr);
    EXPECT_EQ(only_task().get_coordinate()->user, nullptr);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "task info, type: " + type + ", size: 25"),
                            at(3, "new task info"), at(3, "add task done, task type: " + type)));
}

TEST_F(kzemm_work_trace_test, a_linkage_analysis_is_queued_with_its_callback_and_the_worker) {
    EXPECT_EQ(trace(5, "request"), KZEMM_TRACE_OK);
    EXPECT_EQ(only_task().get_type(), KZEMM_TASK_LKGANAL);
    EXPECT_EQ(data_of_only_task(), "request");
    EXPECT_EQ(only_task().get_coordinate()->callback, kzemm_send_to_kzelkganal);
    EXPECT_EQ(only_task().get_coordinate()->user, &work);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "get lkganal msg success!"), at(3, "task info, type: 5, size: 7"),
                            at(3, "new task info"), at(3, "add task done, task type: 5")));
}

TEST_P(kzemm_work_trace_type_test, the_task_has_its_own_copy) {
    std::string data = "order";
    EXPECT_EQ(trace(GetParam(), data), KZEMM_TRACE_OK);
    data.assign(5, 'x');
    EXPECT_THAT(data_of_only_task(), testing::EndsWith("order"));
}

TEST_P(kzemm_work_trace_type_test, no_switch_is_looked_at) {
    config::linkage_switch() = false;
    config::ioa_switch() = false;
    config::hunting_switch() = false;
    config::collect_switch() = false;
    EXPECT_EQ(trace(GetParam(), "order"), KZEMM_TRACE_OK);
}

TEST_P(kzemm_work_trace_type_test, the_one_reference_is_the_queues) {
    EXPECT_EQ(trace(GetParam(), "order"), KZEMM_TRACE_OK);
    fakes::watch_release(queued().front());
    fakes::clear_journal();
    queue().clear_task_list();
    EXPECT_TRUE(fakes::watched_was_released());
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "free task info")));
}

// ---- failures ----

TEST_P(kzemm_work_trace_type_test, fails_without_memory_for_the_task) {
    fail_task_allocation(1);
    EXPECT_EQ(trace(GetParam(), "order"), KZEMM_TRACE_FAILED);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(log_lines().back(), at(1, "new task info failed"));
    EXPECT_THAT(log_lines(), testing::Not(Contains(at(3, "new task info"))));
    EXPECT_THAT(queued(), IsEmpty());
}

TEST_P(kzemm_work_trace_plain_test, is_invalid_without_memory_within_the_task) {
    const std::string type = std::to_string(GetParam());
    for (const auto &[nth, text] :
         {std::pair(2U, "new TASK_COORDINATE failed"), std::pair(3U, "new data failed")}) {
        SCOPED_TRACE(text);
        fakes::clear_journal();
        fail_task_allocation(nth);
        EXPECT_EQ(trace(GetParam(), "order"), KZEMM_TRACE_INVALID);
        EXPECT_TRUE(fakes::allocation_failed());
        EXPECT_THAT(log_lines(), ElementsAre(at(3, "task info, type: " + type + ", size: 5"),
                                             at(3, "new task info"), at(1, text),
                                             at(1, "task type 0 is invalid"),
                                             at(1, "add task failed, type: " + type + ", ret: 3"),
                                             at(3, "free task info")));
    }
    EXPECT_THAT(queued(), IsEmpty());
}

TEST_P(kzemm_work_trace_type_test, is_refused_and_freed_when_the_queue_is_full) {
    fill_queue(5);
    EXPECT_EQ(trace(GetParam(), "order"), KZEMM_TRACE_QUEUE_FULL);
    const std::vector<fakes::record> lines = log_lines();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_THAT(
        std::vector<fakes::record>(lines.end() - 3, lines.end()),
        ElementsAre(at(2, "task queue is full, size: 5"),
                    at(1, "add task failed, type: " + std::to_string(GetParam()) + ", ret: 1"),
                    at(3, "free task info")));
    EXPECT_THAT(queued(), SizeIs(5));
}

TEST_P(kzemm_work_trace_latest_test, is_refused_by_a_full_queue_that_holds_an_older_one) {
    EXPECT_EQ(trace(GetParam(), "older"), KZEMM_TRACE_OK);
    fill_queue(5);
    EXPECT_EQ(trace(GetParam(), "newer"), KZEMM_TRACE_QUEUE_FULL);
    EXPECT_EQ(std::string(queued().front()->get_coordinate()->data, 5), "older");
}

TEST_P(kzemm_work_trace_latest_test, takes_the_place_of_the_older_one) {
    EXPECT_EQ(trace(GetParam(), "older"), KZEMM_TRACE_OK);
    EXPECT_EQ(trace(GetParam(), "newer"), KZEMM_TRACE_OK);
    EXPECT_EQ(data_of_only_task(), "newer");
}

TEST_P(kzemm_work_trace_type_test, fails_and_is_freed_without_a_task_thread) {
    queue_fields::running(queue()) = false;
    EXPECT_EQ(trace(GetParam(), "order"), KZEMM_TRACE_FAILED);
    const std::vector<fakes::record> lines = log_lines();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_THAT(
        std::vector<fakes::record>(lines.end() - 3, lines.end()),
        ElementsAre(at(2, "task thread is not running"),
                    at(1, "add task failed, type: " + std::to_string(GetParam()) + ", ret: 4"),
                    at(3, "free task info")));
    EXPECT_THAT(queued(), IsEmpty());
}

TEST_P(kzemm_work_trace_type_test, is_freed_when_the_queue_has_no_memory_to_link_it) {
    fakes::at_record(fakes::what::thread, "lock", [] { fakes::fail_throwing_new(1); });
    EXPECT_EQ(trace(GetParam(), "order"), KZEMM_TRACE_FAILED);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(log_lines().back(), at(3, "free task info"));
    EXPECT_EQ(fakes::held_mutexes(), 0);
    EXPECT_THAT(queued(), IsEmpty());
    EXPECT_EQ(trace(GetParam(), "order"), KZEMM_TRACE_OK);
}

// ---- with the task thread ----

TEST_F(kzemm_work_trace_test, what_the_engine_refuses_was_answered_with_0) {
    queue_fields::running(queue()) = false;
    ASSERT_EQ(queue().init(), 0);
    fakes::engine_always_returns("x_client_coordinate", 9);
    EXPECT_EQ(trace(1, std::string(100, 'b')), KZEMM_TRACE_OK);
    ASSERT_TRUE(fakes::await_log(3, "task 1 ret: -1"));
    EXPECT_THAT(fakes::engine_texts(), ElementsAre("x_client_coordinate(1, 120 bytes)"));
    EXPECT_EQ(fakes::engine_calls()[0].data, frame(std::string(100, 'b')));
    queue().uninit();
}

TEST_F(kzemm_work_trace_test, the_result_of_a_linkage_analysis_reaches_the_linkage_service) {
    ASSERT_EQ(work.init_ipc(), 0);
    queue_fields::running(queue()) = false;
    ASSERT_EQ(queue().init(), 0);
    fakes::on_engine_call("x_client_coordinate_dispose_trc", [](const fakes::engine_call &call) {
        reinterpret_cast<qd_dispose_trc_cb>(call.callback)(0, fakes::engine_buffer("result"), 6,
                                                           call.context);
    });
    EXPECT_EQ(trace(5, "request"), KZEMM_TRACE_OK);
    ASSERT_TRUE(fakes::await_log(3, "task 5 ret: 0"));
    ASSERT_THAT(fakes::ipc_sends(), SizeIs(1));
    EXPECT_EQ(fakes::ipc_sends()[0].addr, fakes::addr_by_name("agt_lkg"));
    EXPECT_EQ(fakes::ipc_sends()[0].cmd, 5U);
    EXPECT_EQ(fakes::ipc_sends()[0].data, "result");
    EXPECT_EQ(fakes::outstanding_engine_buffers(), 0U);
    queue().uninit();
}
