#include "platform/vrdbase/log_text.h"

#include <algorithm>
#include <cstdio>

namespace kze_log_text {

namespace {

// The length of the UTF-8 character at `at`, or 0 where there is none in its shortest form.
size_t character_length(const std::string &text, size_t at) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(at);
    if (first < 0x80) {
        return 1;
    }
    size_t length = 0;
    unsigned int code = 0;
    if (first >= 0xC2 && first <= 0xDF) {
        length = 2;
        code = first & 0x1FU;
    } else if (first >= 0xE0 && first <= 0xEF) {
        length = 3;
        code = first & 0x0FU;
    } else if (first >= 0xF0 && first <= 0xF4) {
        length = 4;
        code = first & 0x07U;
    } else {
        return 0;
    }
    if (text.size() - at < length) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0U) != 0x80U) {
            return 0;
        }
        code = (code << 6U) | (byte(at + i) & 0x3FU);
    }
    const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    return overlong || surrogate || code > 0x10FFFF ? 0 : length;
}

// C0, DEL, C1 and the Unicode line and paragraph separators.
bool is_control(const std::string &text, size_t at, size_t length) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[at + i]); };
    if (length == 1) {
        return byte(0) < 0x20 || byte(0) == 0x7F;
    }
    if (length == 2) {
        return byte(0) == 0xC2 && byte(1) < 0xA0;
    }
    return length == 3 && byte(0) == 0xE2 && byte(1) == 0x80 &&
           (byte(2) == 0xA8 || byte(2) == 0xA9);
}

void append_escaped_byte(std::string &out, char c) {
    static const char digits[] = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
        case '\t':
            out += "\\t";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        default:
            out += "\\x";
            out += digits[byte >> 4U];
            out += digits[byte & 0x0FU];
    }
}

}  // namespace

std::string format(const char *format, va_list arguments) {
    if (format == nullptr) {
        return "(null)";
    }
    va_list again;
    va_copy(again, arguments);
    std::string text(1024, '\0');
    int length = vsnprintf(text.data(), text.size(), format, arguments);
    if (length >= 0 && static_cast<size_t>(length) >= text.size()) {
        text.resize(std::min(static_cast<size_t>(length), max_text) + 1);
        length = vsnprintf(text.data(), text.size(), format, again);
    }
    va_end(again);
    if (length < 0) {
        return std::string("(not formattable) ") + format;
    }
    text.resize(std::min(static_cast<size_t>(length), max_text));
    if (static_cast<size_t>(length) > max_text) {
        text += " [cut, " + std::to_string(length) + " bytes]";
    }
    return text;
}

void append_escaped(std::string &out, const std::string &text) {
    for (size_t at = 0; at < text.size();) {
        // Most of a text is a run of plain characters, which is taken over at once.
        size_t plain = at;
        while (plain < text.size() && text[plain] >= ' ' && text[plain] <= '~') {
            ++plain;
        }
        out.append(text, at, plain - at);
        at = plain;
        if (at == text.size()) {
            break;
        }
        const size_t length = character_length(text, at);
        if (length != 0 && !is_control(text, at, length)) {
            out.append(text, at, length);
            at += length;
            continue;
        }
        for (size_t end = at + std::max<size_t>(length, 1); at < end; ++at) {
            append_escaped_byte(out, text[at]);
        }
    }
}

}  // namespace kze_log_text
