/* Parsing of JSON that comes from outside. */
#ifndef KZE_AGENT_COMMON_JSON_TEXT_H
#define KZE_AGENT_COMMON_JSON_TEXT_H

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace kze {

/* Arrays and objects within each other; what is deeper could exhaust the stack of whoever copies
 * or prints it. */
constexpr int json_depth_bound = 64;

/*
 * Parses a whole text. On failure the result is empty and problem says where and why, as in
 * "line 3, column 7: not valid JSON"; lines and columns (in bytes) count from 1. Any thread.
 */
std::optional<nlohmann::json> parse_json(std::string_view text, std::string &problem);

}  // namespace kze

#endif
