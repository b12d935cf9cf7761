#include "agent/common/module_frame.h"

#include <cstdint>

namespace kze {
namespace {

constexpr std::string_view version = "3200";
constexpr std::size_t compress_at = 6;
constexpr std::size_t proto_type_at = 8;
constexpr std::size_t msg_len_at = 16;

std::size_t place_of(std::size_t byte, std::size_t bytes, byte_order order) {
    return 8 * (order == byte_order::big_endian ? bytes - 1 - byte : byte);
}

void put_number(std::string &frame, std::size_t at, std::size_t bytes, std::size_t value,
                byte_order order) {
    for (std::size_t i = 0; i < bytes; ++i) {
        frame[at + i] = static_cast<char>(value >> place_of(i, bytes, order) & 0xFFU);
    }
}

std::uint32_t number_at(std::string_view frame, std::size_t at, std::size_t bytes,
                        byte_order order) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < bytes; ++i) {
        value |= std::uint32_t{static_cast<unsigned char>(frame[at + i])}
                 << place_of(i, bytes, order);
    }
    return value;
}

}  // namespace

std::string module_frame(std::string_view body, unsigned int proto_type, byte_order order) {
    std::string frame(module_header_size, '\0');
    frame.replace(0, version.size(), version);
    put_number(frame, proto_type_at, 2, proto_type, order);
    put_number(frame, msg_len_at, 4, body.size(), order);
    return frame.append(body);
}

std::string module_frame_problem(std::string_view frame, unsigned int proto_type,
                                 byte_order order) {
    if (frame.size() < module_header_size) {
        return "it has " + std::to_string(frame.size()) + " bytes, less than a header";
    }
    if (frame.substr(0, version.size()) != version) {
        return "it doesn't begin with the version \"3200\"";
    }
    if (const auto type = number_at(frame, proto_type_at, 2, order); type != proto_type) {
        return "its proto_type is " + std::to_string(type);
    }
    if (number_at(frame, compress_at, 2, order) != 0) {
        return "its compress_flag isn't 0";
    }
    const std::size_t follow = frame.size() - module_header_size;
    if (const auto length = number_at(frame, msg_len_at, 4, order); length != follow) {
        return "its msg_len is " + std::to_string(length) + ", " + std::to_string(follow) +
               " bytes follow";
    }
    return {};
}

}  // namespace kze
