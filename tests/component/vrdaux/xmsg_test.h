// What the tests of the message container share.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "vrdaux.h"

struct xmsg_releaser {
    void operator()(xmsg *msg) const { xmsg_release(msg); }
};
using message = std::unique_ptr<xmsg, xmsg_releaser>;

inline message new_message(const std::string &name = "test") {
    return message(xmsg_new(name.c_str()));
}

inline int add(const message &msg, std::string_view key, std::string_view value) {
    return xmsg_add(msg.get(), key.data(), static_cast<unsigned short>(key.size()), value.data(),
                    static_cast<unsigned int>(value.size()));
}

// The value of `key` with all its bytes; nothing where there is no such field.
inline std::optional<std::string> get(const message &msg, std::string_view key) {
    unsigned int size = 0;
    const char *value =
        xmsg_get(msg.get(), key.data(), static_cast<unsigned short>(key.size()), &size, nullptr);
    if (value == nullptr)
        return std::nullopt;
    EXPECT_EQ(value[size], '\0') << "the value isn't terminated";
    return std::string(value, size);
}

// The message's bytes; empty where it can't be packed.
inline std::string packed(const message &msg) {
    std::string bytes(static_cast<std::size_t>(xmsg_pack_size(msg.get())), '\0');
    const int written = xmsg_pack(msg.get(), bytes.data(), static_cast<unsigned int>(bytes.size()));
    EXPECT_EQ(written, static_cast<int>(bytes.size()));
    return bytes;
}

// From a copy of exactly these bytes, so that a read beyond them is seen.
inline message unpacked(std::string_view bytes) {
    const auto copy = std::make_unique<char[]>(bytes.size());
    bytes.copy(copy.get(), bytes.size());
    return message(xmsg_unpack(copy.get(), static_cast<unsigned int>(bytes.size())));
}

// MessagePack's forms, written down by hand.
inline std::string big_endian(std::size_t number, int bytes) {
    std::string text;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
        text += static_cast<char>(number >> shift & 0xff);
    return text;
}
inline std::string bin8(std::string_view bytes) {
    return "\xc4" + big_endian(bytes.size(), 1) + std::string(bytes);
}
inline std::string bin16(std::string_view bytes) {
    return "\xc5" + big_endian(bytes.size(), 2) + std::string(bytes);
}
inline std::string bin32(std::string_view bytes) {
    return "\xc6" + big_endian(bytes.size(), 4) + std::string(bytes);
}
inline std::string map32(std::size_t fields) {
    return "\xdf" + big_endian(fields, 4);
}

// A message named "test", up to its map.
inline std::string head() {
    return "\x92" + bin8("test");
}
