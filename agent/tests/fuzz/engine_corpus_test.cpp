// The kept inputs of the engine fuzzing, each as it is and cut off at every byte.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "engine_fuzz.h"

TEST(EngineCorpus, breaks_no_rule_whole_or_cut_off_anywhere) {
    int inputs = 0;
    for (const auto &entry : std::filesystem::directory_iterator(ENGINE_CORPUS)) {
        SCOPED_TRACE(entry.path().string());
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string text(std::istreambuf_iterator<char>(file), {});
        for (size_t size = 0; size <= text.size(); ++size)
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(text.data()), size);
        ++inputs;
    }
    EXPECT_GE(inputs, 10);
}
