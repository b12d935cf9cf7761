// The kept inputs of the fuzzing of messages, each as it is and cut off at every byte.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "vrdaux.h"
#include "xmsg_fuzz.h"

TEST(xmsg_corpus, breaks_no_rule_whole_or_cut_off_anywhere) {
    int inputs = 0;
    int messages = 0;
    for (const auto &entry : std::filesystem::directory_iterator(XMSG_CORPUS)) {
        SCOPED_TRACE(entry.path().string());
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes(std::istreambuf_iterator<char>(file), {});
        for (size_t size = 0; size <= bytes.size(); ++size) {
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), size);
        }
        xmsg *msg = xmsg_unpack(bytes.data(), static_cast<unsigned int>(bytes.size()));
        messages += msg != nullptr;
        xmsg_release(msg);
        ++inputs;
    }
    EXPECT_GE(inputs, 20);
    EXPECT_GE(messages, 10);
    EXPECT_GE(inputs - messages, 10);
}
