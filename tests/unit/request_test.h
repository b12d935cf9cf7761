/*
 * The fixture for management requests: a worker with a task queue that keeps what it is given, and
 * frames as a peer sends them.
 */
#ifndef KZEMDLMGR_TESTS_UNIT_REQUEST_TEST_H
#define KZEMDLMGR_TESTS_UNIT_REQUEST_TEST_H

#include <new>
#include <string>
#include <vector>

#include "tests/unit/worker_test.h"

class request_test : public worker_test {
  protected:
    using queue_fields = kzemm_task_inspector;

    void SetUp() override {
        worker_test::SetUp();
        fields::task(work) = new (std::nothrow) kzemm_task;
        queue_fields::running(queue()) = true;  // without a thread: nothing is taken from it
        fakes::clear_journal();
    }

    void TearDown() override {
        if (fields::task(work) != nullptr && !queue_fields::initialized(queue())) {
            queue().clear_task_list();
        }
        worker_test::TearDown();
    }

    kzemm_task &queue() { return *fields::task(work); }

    std::list<kzemm::task_info *> &queued() { return queue_fields::task_list(queue()); }

    // The one task in the queue.
    const kzemm::task_info &only_task() {
        EXPECT_EQ(queued().size(), 1U);
        return *queued().front();
    }

    std::string data_of_only_task() {
        const TASK_COORDINATE &coordinate = *only_task().get_coordinate();
        return {coordinate.data, coordinate.size};
    }

    // Fills the queue with orders of type 1.
    void fill_queue(unsigned int limit) {
        config::task_queue_size() = limit;
        while (queued().size() < limit) {
            ASSERT_EQ(work.do_trace(KZEMM_TASK_LINKAGE, "fills", 5), KZEMM_TRACE_OK);
        }
        fakes::clear_journal();
    }

    // 32 bits in network order.
    static std::string big_endian(size_t value) {
        std::string result;
        for (int shift = 24; shift >= 0; shift -= 8) {
            result.push_back(static_cast<char>(value >> shift & 0xFF));
        }
        return result;
    }

    // A payload in its frame, all numbers in network order.
    static std::string frame(const std::string &payload, char proto_type = 1) {
        std::string result = "3200";
        result.append(4, '\0');
        result.push_back('\0');
        result.push_back(proto_type);
        result.append(6, '\0');
        return result + big_endian(payload.size()) + payload;
    }
};

#endif
