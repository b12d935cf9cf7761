// The kept inputs of the fuzzing of IPC frames, each as it is and cut off at every byte.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "ipc_fuzz.h"

TEST(ipc_corpus, breaks_no_rule_whole_or_cut_off_anywhere) {
    int inputs = 0;
    for (const auto &entry : std::filesystem::directory_iterator(IPC_CORPUS)) {
        SCOPED_TRACE(entry.path().string());
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes(std::istreambuf_iterator<char>(file), {});
        for (size_t size = 0; size <= bytes.size(); ++size) {
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), size);
        }
        ++inputs;
    }
    EXPECT_GE(inputs, 10);
}
