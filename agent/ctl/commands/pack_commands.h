/* kzectl pack: its commands, one source file each, and what they share. */
#ifndef KZE_AGENT_CTL_COMMANDS_PACK_COMMANDS_H
#define KZE_AGENT_CTL_COMMANDS_PACK_COMMANDS_H

#include <optional>
#include <string>
#include <vector>

#include "agent/ctl/commands/command_line.h"
#include "agent/ctl/core/pack_fate.h"

namespace kze::ctl {

void add_pack_make(CLI::App &group, command_line &line);
void add_pack_drop(CLI::App &group, command_line &line);
void add_pack_watch(CLI::App &group, command_line &line);

/* Where the packs lie. Throws failure when the path can't be made. */
std::string rule_directory_path();

/* What there is to see of the packs now: the directory, the engine's status, the plug-in's
 * interval. Hidden files are left out. */
pack_snapshot look_at_packs();

/* What tar finds in a pack, or nothing and its words when it can't read it. */
std::optional<std::vector<std::string>> pack_members(const std::string &path, std::string &problem);

/* Throws failure with the path and errno's text. */
[[noreturn]] void fail_with_errno(const std::string &path);

/* Makes the content of a file, or what a directory holds, outlast a crash. Throws failure. */
void sync_path(const std::string &path);

}  // namespace kze::ctl

#endif
