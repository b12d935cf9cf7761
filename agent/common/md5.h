/* The MD5 of files and bytes, by which the agent names executables and recognises data. */
#ifndef KZE_AGENT_COMMON_MD5_H
#define KZE_AGENT_COMMON_MD5_H

#include <optional>
#include <string>
#include <string_view>

namespace kze {

/*
 * The MD5 of a regular file as 32 lower-case hexadecimal digits; empty when the file can't be read
 * or is no regular file. Any thread.
 */
std::optional<std::string> md5_of_file(const std::string &path);

/* The same for an open descriptor, read from its beginning without moving its offset. */
std::optional<std::string> md5_of_descriptor(int descriptor);

/* The same for bytes in memory; empty when there is no memory for it. */
std::optional<std::string> md5_of_bytes(std::string_view bytes);

}  // namespace kze

#endif
