/* Credible events as they reached the gateway, for a person's eye and for programs. */
#ifndef KZE_AGENT_CTL_VIEWS_CREDIBLE_RECORD_H
#define KZE_AGENT_CTL_VIEWS_CREDIBLE_RECORD_H

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "agent/ctl/core/output.h"

namespace kze::ctl {

/*
 * What an event tells, from its body: agent_id, cmd, scene and disposal_state, each with its name
 * beside it, the rule, alerts, and actions with their processes, of which "alert" is true for those
 * that the action names. unknown_bytes counts the bytes of fields whose numbers are above those
 * of the schema, in the event, its rule, alerts, actions and processes. None for other bytes.
 */
std::optional<nlohmann::json> read_credible(std::string_view body);

/* In a line of a list: "DISPOSAL_STATE_AUTO_DISPOSING, EVENT_WEB, 1 action, 2 processes". */
std::string credible_text(const nlohmann::json &event);

/* The rows of the record's head. */
void add_credible_rows(const nlohmann::json &event, table &head);
/* Its actions, each with a table of its processes. */
void print_credible_actions(const nlohmann::json &event, const output &out);

}  // namespace kze::ctl

#endif
