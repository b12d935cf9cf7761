#include "agent/common/byte_text.h"

#include <algorithm>
#include <cstddef>

namespace kze {
namespace {

/* The length of the well-formed UTF-8 sequence that the text begins with; 0 when there is none. */
std::size_t utf8_sequence(std::string_view text) {
    const auto byte = [&](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
        return 1;
    }
    const std::size_t length = lead < 0xC2   ? 0
                               : lead < 0xE0 ? 2
                               : lead < 0xF0 ? 3
                               : lead < 0xF5 ? 4
                                             : 0;
    if (length == 0 || text.size() < length) {
        return 0;
    }
    for (std::size_t index = 1; index < length; ++index) {
        if ((byte(index) & 0xC0) != 0x80) {
            return 0;
        }
    }
    /* Overlong forms, surrogates and what lies beyond the last code point. */
    const unsigned char second = byte(1);
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second >= 0xA0) ||
        (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second >= 0x90)) {
        return 0;
    }
    return length;
}

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = utf8_sequence(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

}  // namespace

std::string text_of_bytes(std::string_view bytes, bool &escaped) {
    if (is_utf8(bytes)) {
        return std::string(bytes);
    }
    static constexpr char digits[] = "0123456789abcdef";
    escaped = true;
    std::string text;
    while (!bytes.empty()) {
        const std::size_t length = utf8_sequence(bytes);
        if (length == 0) {
            const auto byte = static_cast<unsigned char>(bytes[0]);
            text.append("\\x").append(1, digits[byte >> 4]).append(1, digits[byte & 0x0F]);
        } else if (bytes[0] == '\\') {
            text.append("\\\\");
        } else {
            text.append(bytes.substr(0, length));
        }
        bytes.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return text;
}

}  // namespace kze
