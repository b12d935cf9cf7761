/* Whether the disposal service ends processes. */
#ifndef KZE_AGENT_SERVICES_DISPOSAL_SETTINGS_H
#define KZE_AGENT_SERVICES_DISPOSAL_SETTINGS_H

#include <optional>
#include <string>

namespace kze::services {

constexpr char disposal_settings_path[] = "@/../config/agent.ini";

/*
 * The key "kill" of the section "disposal": yes, true, on or 1 for ending processes; no, false,
 * off, 0, no key and no file for reporting them only. None, with a problem in words, when the file
 * can't be read or the value is neither. Any thread.
 */
std::optional<bool> disposal_kills(std::string &problem);

/* Writes the key. False, with a problem in words, when that fails. */
bool set_disposal_kills(bool kill, std::string &problem);

}  // namespace kze::services

#endif
