/*
 * Settings requests that were made while there was no engine: lines of JSON in a file beside its
 * settings, which the engine takes when it starts. Whoever leaves or takes some holds the file's
 * lock meanwhile, so that none is lost between them.
 */
#ifndef KZE_AGENT_ENGINE_LEFT_REQUESTS_H
#define KZE_AGENT_ENGINE_LEFT_REQUESTS_H

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

namespace kze::engine {

/* Appended to the path of the settings. */
constexpr char left_suffix[] = ".left";

/* Returns what went wrong, an empty text when nothing did. path is absolute. */
std::string leave_request(const std::string &path, const nlohmann::json &request);

/* Gives each request that was left to `apply`, in their order, and empties the file. What is no
 * JSON is logged and goes too. */
void take_left_requests(const std::string &path,
                        const std::function<void(const nlohmann::json &)> &apply);

}  // namespace kze::engine

#endif
