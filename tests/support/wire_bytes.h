/*
 * Bytes of messages and of the frames around them, written out without the code under test and
 * without the generated classes.
 */
#ifndef KZEMDLMGR_TESTS_SUPPORT_WIRE_BYTES_H
#define KZEMDLMGR_TESTS_SUPPORT_WIRE_BYTES_H

#include <cstdint>
#include <string>

namespace wire {

inline std::string varint(uint64_t value) {
    std::string bytes;
    for (; value >= 0x80; value >>= 7) {
        bytes.push_back(static_cast<char>((value & 0x7F) | 0x80));
    }
    bytes.push_back(static_cast<char>(value));
    return bytes;
}

// A field that holds a number.
inline std::string number(uint32_t field, uint64_t value) {
    return varint(uint64_t{field} << 3) + varint(value);
}

// A field that holds a text or a message.
inline std::string bytes(uint32_t field, const std::string &value) {
    return varint(uint64_t{field} << 3 | 2) + varint(value.size()) + value;
}

// The same of a plain field, which isn't there when it holds nothing.
inline std::string plain_number(uint32_t field, uint64_t value) {
    return value == 0 ? std::string() : number(field, value);
}
inline std::string plain_bytes(uint32_t field, const std::string &value) {
    return value.empty() ? std::string() : bytes(field, value);
}

inline std::string integer(uint32_t value, int size, bool net_order) {
    std::string result;
    for (int i = 0; i < size; ++i) {
        const int shift = 8 * (net_order ? size - 1 - i : i);
        result.push_back(static_cast<char>(value >> shift & 0xFF));
    }
    return result;
}

// The header of a frame. The fields that every frame copies from its template hold something in
// each byte.
inline std::string header(uint32_t payload_size, bool net_order) {
    return "3200" + std::string("\x11\x12\x13\x14", 4) + integer(1, 2, net_order) + "abcdef" +
           integer(payload_size, 4, net_order);
}

constexpr size_t header_size = 20;

inline std::string frame(const std::string &payload, bool net_order = false) {
    return header(static_cast<uint32_t>(payload.size()), net_order) + payload;
}

inline std::string payload(const std::string &frame) {
    return frame.size() < header_size ? std::string() : frame.substr(header_size);
}

}  // namespace wire

#endif
