/* Paths of the agent's tree. */
#ifndef KZE_AGENT_COMMON_TREE_H
#define KZE_AGENT_COMMON_TREE_H

#include <string>

namespace kze {

/*
 * Expands the "@" at the beginning of a path, as in "@/../var/lib": the directory of the agent's
 * programs. Returns an empty text when the path is too long or can't be expanded. Any thread.
 */
std::string tree_path(const std::string &path);

}  // namespace kze

#endif
