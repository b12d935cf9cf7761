/* kzectl engine rules, rise and drive: what the engine holds. */
#ifndef KZE_AGENT_CTL_COMMANDS_ENGINE_RULES_COMMANDS_H
#define KZE_AGENT_CTL_COMMANDS_ENGINE_RULES_COMMANDS_H

#include "agent/ctl/commands/command_line.h"

namespace kze::ctl {

/* Adds them to the group "engine". */
void add_engine_rules_commands(CLI::App &group, command_line &line);

}  // namespace kze::ctl

#endif
