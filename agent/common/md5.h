/* The MD5 of a file's content, by which the agent names executables. */
#ifndef KZE_AGENT_COMMON_MD5_H
#define KZE_AGENT_COMMON_MD5_H

#include <optional>
#include <string>

namespace kze {

/*
 * The MD5 of a regular file as 32 lower-case hexadecimal digits; empty when the file can't be read
 * or is no regular file. Any thread.
 */
std::optional<std::string> md5_of_file(const std::string &path);

/* The same for an open descriptor, read from its beginning without moving its offset. */
std::optional<std::string> md5_of_descriptor(int descriptor);

}  // namespace kze

#endif
