#include "agent/ctl/core/request_message.h"

#include <cstddef>
#include <nlohmann/json.hpp>

#include "agent/common/json_text.h"
#include "agent/common/module_frame.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

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

}  // namespace

std::string request_frame(std::string_view body) {
    return module_frame(body, module_request, byte_order::big_endian);
}

std::string rule_set_text(const std::string &rules_id, const std::string &rules) {
    try {
        return json{{"rulesId", rules_id}, {"rulesInfo", rules}}.dump();
    } catch (const json::type_error &) {
        return {};
    }
}

response_code read_response(std::string_view frame) {
    std::string problem = module_frame_problem(frame, module_response, byte_order::big_endian);
    if (!problem.empty()) {
        return {std::nullopt, problem};
    }
    const std::optional<json> answer = parse_json(frame.substr(module_header_size), problem);
    if (!answer) {
        return {std::nullopt, problem};
    }
    const std::optional<std::int64_t> code =
        answer->is_object() && answer->contains("resp_code")
            ? number_in((*answer)["resp_code"], INT32_MIN, INT32_MAX)
            : std::nullopt;
    if (!code) {
        return {std::nullopt, "it has no resp_code"};
    }
    return {static_cast<int>(*code), ""};
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
