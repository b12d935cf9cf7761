/* Bytes from outside as UTF-8 text. */
#ifndef KZE_AGENT_COMMON_BYTE_TEXT_H
#define KZE_AGENT_COMMON_BYTE_TEXT_H

#include <string>
#include <string_view>

namespace kze {

/*
 * Bytes as UTF-8 text: unchanged when they are well-formed UTF-8; otherwise each byte that is not
 * stands as \xNN and each backslash as two, and escaped becomes true (it is never set to false).
 * Any thread.
 */
std::string text_of_bytes(std::string_view bytes, bool &escaped);

}  // namespace kze

#endif
