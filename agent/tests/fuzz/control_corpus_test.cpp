// The kept inputs of the fuzzing of control requests, each as it is and cut off at every byte.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>

#include "control_fuzz.h"

namespace {

bool says_yes(const std::string &answer) {
    return nlohmann::json::parse(answer, nullptr, false).value("ok", false);
}

}  // namespace

TEST(control_corpus, breaks_no_rule_whole_or_cut_off_anywhere) {
    int inputs = 0;
    int objects = 0;
    int served = 0;
    int set = 0;
    for (const auto &entry : std::filesystem::directory_iterator(CONTROL_CORPUS)) {
        SCOPED_TRACE(entry.path().string());
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string input(std::istreambuf_iterator<char>(file), {});
        for (size_t size = 0; size <= input.size(); ++size) {
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), size);
        }
        const control_answers answers = run_request(input.substr(1), false, false);
        objects += answers.read;
        served += says_yes(answers.service);
        set += answers.read && says_yes(answers.settings);
        ++inputs;
    }
    EXPECT_GE(inputs, 30);
    EXPECT_GE(objects, 20);
    EXPECT_GE(inputs - objects, 10);
    EXPECT_GE(served, 3);
    EXPECT_GE(set, 5);
}
