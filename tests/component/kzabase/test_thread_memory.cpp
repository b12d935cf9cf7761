// Threads when there is no memory for them.
#include <gtest/gtest.h>

#include <cerrno>

#include "kzabase.h"
#include "tests/component/vrdaux/counted_memory.h"

TEST(thread_memory_test, that_is_not_there_leaves_the_handle_untouched_and_nothing_behind) {
    const auto routine = [](void *argument) -> void * { return argument; };
    const std::size_t before = counted_memory::live();
    int refused = 0;
    while (true) {
        kze_thread_t thread = 5;
        int error = 0;
        {
            const counted_memory::failing_after fault(refused);
            error = kze_thread_start(&thread, routine, nullptr);
        }
        if (error == 0) {
            EXPECT_EQ(kze_thread_join(&thread, nullptr), 0);
            break;
        }
        ASSERT_EQ(error, ENOMEM);
        EXPECT_EQ(thread, 5UL);
        EXPECT_EQ(counted_memory::live(), before);
        ++refused;
    }
    EXPECT_GT(refused, 0);
    EXPECT_EQ(counted_memory::live(), before);
}
