/* Changing the log's level so that it lasts. */
#ifndef KZE_AGENT_HOST_LOG_LEVEL_H
#define KZE_AGENT_HOST_LOG_LEVEL_H

#include <string>

namespace kze::host {

/*
 * Makes a level, 0 to 4, the current one and writes it to "@/../config/log.ini", whose comments
 * stay. Returns what went wrong, empty when nothing did; the level is the current one in any case.
 * One thread at a time.
 */
std::string change_log_level(int level);

}  // namespace kze::host

#endif
