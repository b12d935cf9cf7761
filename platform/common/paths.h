/*
 * Paths of the agent's tree, shared by the base libraries (each compiles its own copy).
 * Free functions without state: safe from any thread.
 */
#ifndef KZEMDLMGR_PLATFORM_COMMON_PATHS_H
#define KZEMDLMGR_PLATFORM_COMMON_PATHS_H

#include <sys/types.h>

#include <string>

namespace kze_paths {

// The directory of the running program, or KZE_AGENT_HOME; empty when it can't be told.
std::string program_directory();

// `path` with a leading "@" (followed by "/" or nothing) replaced; empty when that isn't possible.
std::string expand(const std::string &path);

// Makes a directory and its missing parents; parents get owner write and search besides `mode`.
// 0, also for a directory that exists, or an error number.
int make_directories(const std::string &path, mode_t mode);

}  // namespace kze_paths

#endif
