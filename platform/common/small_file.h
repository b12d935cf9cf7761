/*
 * Reading a small file whole; shared by the base libraries (each compiles its own copy).
 * A free function without state: safe from any thread.
 */
#ifndef KZEMDLMGR_PLATFORM_COMMON_SMALL_FILE_H
#define KZEMDLMGR_PLATFORM_COMMON_SMALL_FILE_H

#include <string>

namespace kze_small_file {

// The content of a regular file of at most `limit` bytes. False, with `out` unspecified, for what
// is missing, unreadable, of another kind or larger. Never waits on a pipe or a device.
bool read(const std::string &path, size_t limit, std::string &out);

}  // namespace kze_small_file

#endif
