/* kzectl engine credible. */
#ifndef KZE_AGENT_CTL_COMMANDS_CREDIBLE_COMMAND_H
#define KZE_AGENT_CTL_COMMANDS_CREDIBLE_COMMAND_H

#include <CLI/CLI.hpp>

#include "agent/ctl/commands/command_line.h"

namespace kze::ctl {

/* Adds the command to the group "engine". */
void add_credible_command(CLI::App &group, command_line &line);

}  // namespace kze::ctl

#endif
