/* What a process has, and waiting for what is to come. */
#ifndef KZE_TESTS_SUPPORT_PROCESS_STATE_H
#define KZE_TESTS_SUPPORT_PROCESS_STATE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>

namespace kze_test {

inline std::size_t entries_of(const char *directory) {
    const std::filesystem::directory_iterator entries(directory);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/* Whether a thread of /proc/self/task lives. One that has come to its end stands there for a moment
   more, also behind its join; the kernel marks it first. */
inline bool is_living_thread(const std::filesystem::path &task) {
    constexpr unsigned long exiting = 0x4; /* PF_EXITING */
    std::ifstream file(task / "stat");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const std::size_t name_end = text.rfind(')'); /* a name may hold anything */
    if (name_end == std::string::npos) {
        return false; /* gone meanwhile */
    }
    std::istringstream fields(text.substr(name_end + 1));
    std::string skipped;
    for (int field = 0; field < 6; ++field) {
        fields >> skipped;
    }
    unsigned long flags = 0;
    return fields >> flags && (flags & exiting) == 0;
}

inline std::size_t thread_count() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::count_if(
        begin(tasks), end(tasks), [](const auto &task) { return is_living_thread(task.path()); }));
}

inline std::size_t descriptor_count() {
    return entries_of("/proc/self/fd");
}

/* Waits until the condition holds; false when it doesn't within the deadline. */
inline bool eventually(const std::function<bool()> &condition,
                       std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

/* Waits for threads that nobody joins, or that have still to end. */
inline testing::AssertionResult threads_become(std::size_t expected) {
    if (eventually([&] { return thread_count() == expected; })) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << thread_count() << " threads instead of " << expected;
}

}  // namespace kze_test

#endif
