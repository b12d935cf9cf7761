#include "engine_fuzz.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/engine/engine_protocol.h"
#include "agent/engine/origin_collector.h"
#include "agent/engine/process_snapshot.h"

namespace {

void require(bool good, const char *rule) {
    if (good)
        return;
    fprintf(stderr, "broken: %s\n", rule);
    abort();
}

void check_record(const uint8_t *data, size_t size) {
    // A copy of just that size, so that a read beyond it shows.
    const std::vector<char> message(data, data + size);
    const auto record =
        kze::engine::decode_record(message.data(), static_cast<unsigned int>(message.size()));
    if (!record)
        return;
    require(record->payload.size() + kze::engine::record_head_size == size,
            "the payload is all that follows the head");
    const std::string again = kze::engine::encode_record(*record);
    require(std::equal(again.begin(), again.end(), message.begin(), message.end()),
            "what was read is written as it was");
}

void check_text(const std::string &bytes) {
    bool escaped = false;
    const std::string text = kze::engine::text_of_bytes(bytes, escaped);
    require(escaped == (text != bytes), "a text is changed only where that is said");
    // Throws, and so ends the program, where the text is no UTF-8.
    require(nlohmann::json::parse(nlohmann::json(text).dump()) == text, "any text can be sent");
}

void check_cut(const std::string &bytes) {
    std::string cut = bytes;
    const size_t limit = bytes.size() / 2;
    const size_t lost = kze::engine::cut_at_line(cut, limit);
    require(cut.size() <= limit && bytes.compare(0, cut.size(), cut) == 0, "the beginning stays");
    require(cut.empty() || cut.back() == '\n', "it is cut behind a line");
    require((lost == 0) == (cut == bytes), "a loss is counted");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    check_record(data, size);
    const std::string bytes(data, data + size);
    check_text(bytes);
    check_cut(bytes);
    return 0;
}
