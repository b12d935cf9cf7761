/* The engine's status for a person's eye. */
#ifndef KZE_AGENT_CTL_VIEWS_ENGINE_VIEW_H
#define KZE_AGENT_CTL_VIEWS_ENGINE_VIEW_H

#include <nlohmann/json.hpp>

#include "agent/ctl/core/output.h"

namespace kze::ctl {

/* Capabilities, clients, set answers and versions of an engine's status answer. */
void print_engine(const nlohmann::json &status, const output &out);

/* The packs and rule texts of a status answer, one line each. */
void print_rules(const nlohmann::json &status, const output &out);

/* Rule texts as a status tells them, each with its whole "text". */
void print_rule_texts(const nlohmann::json &texts, const output &out);

/* The drive switches of a status answer and the last orders. */
void print_drive(const nlohmann::json &status, const output &out);

/* The capabilities alone, on and off, several on a line. */
void print_capabilities(const nlohmann::json &status, const output &out, std::size_t indent);

}  // namespace kze::ctl

#endif
