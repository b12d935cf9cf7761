/* What a process has, and waiting for what is to come. */
#ifndef KZE_TESTS_SUPPORT_PROCESS_STATE_H
#define KZE_TESTS_SUPPORT_PROCESS_STATE_H

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <iterator>
#include <thread>

namespace kze_test {

inline std::size_t entries_of(const char *directory) {
    const std::filesystem::directory_iterator entries(directory);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

inline std::size_t thread_count() {
    return entries_of("/proc/self/task");
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

}  // namespace kze_test

#endif
