/* kzectl config module. */
#ifndef KZE_AGENT_CTL_COMMANDS_MODULE_COMMANDS_H
#define KZE_AGENT_CTL_COMMANDS_MODULE_COMMANDS_H

#include <CLI/CLI.hpp>

#include "agent/central_config/store.h"
#include "agent/ctl/commands/command_line.h"

namespace kze::ctl {

/* Adds "module" with its commands to the group "config". */
void add_module_commands(CLI::App &group, command_line &line);

/* The store of this tree. */
config::store open_store();
/* Throws failure for a store_result that is none of success. */
[[noreturn]] void fail_for_store(int result, const config::store &of);

}  // namespace kze::ctl

#endif
