/* Control requests to the agent's programs. */
#ifndef KZE_AGENT_CTL_CORE_ASK_H
#define KZE_AGENT_CTL_CORE_ASK_H

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace kze::ctl {

constexpr char host_endpoint[] = "agt_host";
constexpr char engine_endpoint[] = "qd_agent";
constexpr unsigned int ask_seconds = 10;

/* "the host", "the engine", or another service */
std::string program_at(const std::string &endpoint);

/*
 * The answer, or nothing when the program isn't running. Throws failure when it doesn't answer in
 * time (exit_timed_out) and when it refuses (exit_failed, with its words).
 */
std::optional<nlohmann::json> ask_if_running(const std::string &endpoint,
                                             const nlohmann::json &request,
                                             unsigned int seconds = ask_seconds);

/* The same, but throws failure (exit_not_running) when the program isn't running. */
nlohmann::json ask(const std::string &endpoint, const nlohmann::json &request,
                   unsigned int seconds = ask_seconds);

}  // namespace kze::ctl

#endif
