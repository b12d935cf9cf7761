// The kept inputs of the fuzzing of the gateway's records, each as it is and cut off at every byte.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "agent/ctl/views/records.h"
#include "engine/qd_client.h"
#include "gateway_fuzz.h"
#include "tests/support/wire_bytes.h"

TEST(gateway_corpus, breaks_no_rule_whole_or_cut_off_anywhere) {
    int inputs = 0;
    int good_frames = 0;
    int broken_frames = 0;
    int events = 0;
    int reports = 0;
    int lists = 0;
    for (const auto &entry : std::filesystem::directory_iterator(GATEWAY_CORPUS)) {
        SCOPED_TRACE(entry.path().string());
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string input(std::istreambuf_iterator<char>(file), {});
        const auto *bytes = reinterpret_cast<const uint8_t *>(input.data());
        for (size_t size = 0; size <= input.size(); ++size) {
            LLVMFuzzerTestOneInput(bytes, size);
        }
        const nlohmann::json record =
            read_record(bytes[0] & 0x0F, record_bytes(bytes, input.size()));
        const std::string problem =
            record.value(nlohmann::json::json_pointer("/frame/problem"), "none");
        good_frames += problem.empty();
        broken_frames += !problem.empty() && problem != "none";
        events += record.contains("credible");
        reports += record.contains("report");
        lists += record.contains("processes");
        ++inputs;
    }
    EXPECT_GE(inputs, 30);
    EXPECT_GE(good_frames, 10);
    EXPECT_GE(broken_frames, 8);
    EXPECT_GE(events, 4);
    EXPECT_GE(reports, 3);
    EXPECT_GE(lists, 2);
}

namespace {

std::string compressed_record(int type, const std::string &content) {
    const std::string input = static_cast<char>(type | 0x30) + content;
    return record_bytes(reinterpret_cast<const uint8_t *>(input.data()), input.size());
}

}  // namespace

TEST(gateway_records, of_a_process_that_nests_a_million_deep_are_told_as_text) {
    constexpr size_t depth = 1000000;
    const std::string content =
        "{\"pid\":1,\"x\":" + std::string(depth, '[') + std::string(depth, ']') + "}\n";
    const nlohmann::json record =
        read_record(KZEMM_DATA_ORIGIN, compressed_record(KZEMM_DATA_ORIGIN, content));
    EXPECT_FALSE(record.contains("processes"));
    EXPECT_EQ(record["text"], content);
}

TEST(gateway_records, of_an_event_with_many_processes_and_many_named_nodes_are_told_in_time) {
    constexpr uint64_t count = 100000;
    std::string action;
    for (uint64_t node = 1; node <= count; ++node) {
        action += wire::number(2, 2 * node) + wire::bytes(4, wire::number(1, node));
    }
    const std::string rule = wire::number(6, 1) + wire::bytes(9, action);
    const std::string frame =
        wire::frame(wire::number(5, 9) + wire::bytes(17, wire::bytes(6, rule)));
    kze::kept_record record;
    record.data = frame;
    record.kind = KZEMM_DATA_CREDIBLE;
    record.size = static_cast<int64_t>(frame.size());
    const nlohmann::json told = kze::ctl::whole_record_json(record);
    const nlohmann::json &processes = told["credible"]["actions"][0]["processes"];
    ASSERT_EQ(processes.size(), count);
    EXPECT_EQ(processes[0]["alert"], false);
    EXPECT_EQ(processes[1]["alert"], true);
    EXPECT_EQ(processes[count - 1]["alert"], true);
}
