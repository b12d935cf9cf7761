#include "agent/ctl/request_message.h"

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>

#include "agent/common/json_text.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

constexpr std::string_view version = "3200";
constexpr std::size_t header_size = 20;
constexpr std::size_t compress_at = 6;
constexpr std::size_t proto_type_at = 8;
constexpr std::size_t msg_len_at = 16;
constexpr unsigned int request_proto_type = 1;
constexpr unsigned int response_proto_type = 2;

struct code_text {
    const char *name;
    const char *meaning;
};

/* By their codes. */
constexpr code_text codes[] = {
    {"KZEMM_TRACE_OK", "it is queued"},
    {"KZEMM_TRACE_QUEUE_FULL", "the queue is full"},
    {"KZEMM_TRACE_NO_PERMISSION", "its switch is off"},
    {"KZEMM_TRACE_INVALID", "the message is not valid"},
    {"KZEMM_TRACE_FAILED", "the plug-in could not take it"},
};

const code_text *text_of(int code) {
    const auto at = static_cast<std::size_t>(code);
    return code >= 0 && at < std::size(codes) ? &codes[at] : nullptr;
}

void put_big_endian(std::string &frame, std::size_t at, std::size_t bytes, std::size_t value) {
    for (std::size_t i = 0; i < bytes; ++i) {
        frame[at + i] = static_cast<char>(value >> (8 * (bytes - 1 - i)) & 0xFFU);
    }
}

std::uint32_t big_endian(std::string_view frame, std::size_t at, std::size_t bytes) {
    std::uint32_t value = 0;
    for (const char byte : frame.substr(at, bytes)) {
        value = value << 8 | static_cast<unsigned char>(byte);
    }
    return value;
}

/* What is wrong with a response's header; empty when nothing is. */
std::string header_problem(std::string_view frame) {
    if (frame.size() < header_size) {
        return "it has " + std::to_string(frame.size()) + " bytes, less than a header";
    }
    if (frame.substr(0, version.size()) != version) {
        return "it doesn't begin with the version \"3200\"";
    }
    if (const auto type = big_endian(frame, proto_type_at, 2); type != response_proto_type) {
        return "its proto_type is " + std::to_string(type);
    }
    if (const auto flag = big_endian(frame, compress_at, 2); flag != 0) {
        return "its compress_flag isn't 0";
    }
    if (const auto length = big_endian(frame, msg_len_at, 4);
        length != frame.size() - header_size) {
        return "its msg_len is " + std::to_string(length) + ", " +
               std::to_string(frame.size() - header_size) + " bytes follow";
    }
    return {};
}

}  // namespace

std::string request_frame(std::string_view body) {
    std::string frame(header_size, '\0');
    frame.replace(0, version.size(), version);
    put_big_endian(frame, proto_type_at, 2, request_proto_type);
    put_big_endian(frame, msg_len_at, 4, body.size());
    return frame.append(body);
}

std::string rule_set_text(const std::string &rules_id, const std::string &rules) {
    try {
        return json{{"rulesId", rules_id}, {"rulesInfo", rules}}.dump();
    } catch (const json::type_error &) {
        return {};
    }
}

response_code read_response(std::string_view frame) {
    std::string problem = header_problem(frame);
    if (!problem.empty()) {
        return {std::nullopt, problem};
    }
    const std::optional<json> answer = parse_json(frame.substr(header_size), problem);
    if (!answer) {
        return {std::nullopt, problem};
    }
    if (!answer->is_object() || !answer->contains("resp_code") ||
        !(*answer)["resp_code"].is_number_integer()) {
        return {std::nullopt, "it has no resp_code"};
    }
    return {(*answer)["resp_code"].get<int>(), ""};
}

const char *response_name(int code) {
    const code_text *const known = text_of(code);
    return known == nullptr ? nullptr : known->name;
}

const char *response_meaning(int code) {
    const code_text *const known = text_of(code);
    return known == nullptr ? nullptr : known->meaning;
}

}  // namespace kze::ctl
