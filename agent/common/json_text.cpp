#include "agent/common/json_text.h"

#include <algorithm>
#include <cstddef>

namespace kze {
namespace {

using nlohmann::json;

/* Where the byte number `byte`, counted from 1, stands. */
std::string position(std::string_view text, std::size_t byte) {
    const std::string_view before = text.substr(0, byte == 0 ? 0 : byte - 1);
    const auto line = std::count(before.begin(), before.end(), '\n') + 1;
    const std::size_t line_start = before.rfind('\n') + 1; /* npos + 1 is 0 */
    return "line " + std::to_string(line) + ", column " +
           std::to_string(before.size() - line_start + 1);
}

}  // namespace

std::optional<json> parse_json(std::string_view text, std::string &problem) {
    bool too_deep = false;
    const auto bounded = [&too_deep](int depth, json::parse_event_t event, const json &) {
        const bool begins =
            event == json::parse_event_t::array_start || event == json::parse_event_t::object_start;
        too_deep = too_deep || (begins && depth >= json_depth_bound);
        return !too_deep;
    };
    try {
        json parsed = json::parse(text.begin(), text.end(), bounded);
        if (too_deep) {
            problem = "arrays and objects lie deeper than " + std::to_string(json_depth_bound);
            return std::nullopt;
        }
        /* The parser takes a zero byte for the text's end, whatever follows. */
        if (const std::size_t zero = text.find('\0'); zero != std::string_view::npos) {
            problem = position(text, zero + 1) + ": not valid JSON";
            return std::nullopt;
        }
        return parsed;
    } catch (const json::parse_error &failure) {
        problem = position(text, failure.byte) + ": not valid JSON";
    } catch (const json::exception &failure) {
        problem = failure.what(); /* a number out of range, for instance */
    }
    return std::nullopt;
}

std::optional<std::int64_t> number_in(const json &value, std::int64_t low, std::int64_t high) {
    if (!value.is_number_integer() ||
        (value.is_number_unsigned() && value.get<std::uint64_t>() > INT64_MAX)) {
        return std::nullopt;
    }
    const auto number = value.get<std::int64_t>();
    return number >= low && number <= high ? std::optional(number) : std::nullopt;
}

}  // namespace kze
