/*
 * The bytes of a packed message.
 *
 * They are one MessagePack value: an array of two, the name and a map of the fields. Name, keys and
 * values are of the family "bin", since they need not be UTF-8. Lengths are big-endian, and written
 * in the shortest form that holds them:
 *
 *   array         92
 *   bin           c4 <1 byte of length>, c5 <2 bytes> or c6 <4 bytes>, and the bytes
 *   map           80 + n for n up to 15 fields, de <2 bytes> or df <4 bytes>, and n times key,
 *   value
 *
 * The fields stand in the order of their keys' bytes. The message "trust_ip" with the one field
 * "module", whose value is "trust_ip", has 30 bytes:
 *
 *   92                               array of two
 *   c4 08 74 72 75 73 74 5f 69 70    the name
 *   81                               map of one
 *   c4 06 6d 6f 64 75 6c 65          the key
 *   c4 08 74 72 75 73 74 5f 69 70    the value
 *
 * What is read may have its fields in any order and its lengths in any of the forms. Everything
 * else is refused: other types, a 0 byte in the name, which is a text, a key that stands twice,
 * more than a message can hold, bytes missing at the end or following it. The format has no
 * version, no checksum and no types of values.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDAUX_FORMAT_H
#define KZEMDLMGR_PLATFORM_VRDAUX_FORMAT_H

#include <cstddef>
#include <memory>
#include <string_view>

#include "platform/vrdaux/message.h"

namespace kze_message {

// The bytes that write() needs. At most 65 MiB.
std::size_t packed_size(const xmsg &message);

// Writes exactly packed_size() bytes.
void write(const xmsg &message, char *out);

// Null when the bytes are anything but one message. Throws std::bad_alloc. What is taken of memory
// is bounded by the bytes that are there and by XMSG_MAX_FIELDS, whatever lengths they claim.
std::unique_ptr<xmsg> read(std::string_view bytes);

}  // namespace kze_message

#endif
