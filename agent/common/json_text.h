/* Parsing of JSON that comes from outside. */
#ifndef KZE_AGENT_COMMON_JSON_TEXT_H
#define KZE_AGENT_COMMON_JSON_TEXT_H

#include <cstdint>
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

/* A whole number from low to high; empty for any other number and any other value. Any thread. */
std::optional<std::int64_t> number_in(const nlohmann::json &value, std::int64_t low,
                                      std::int64_t high);

}  // namespace kze

#endif
