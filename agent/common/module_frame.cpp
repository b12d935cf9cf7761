#include "agent/common/module_frame.h"

#include <cstdint>
#include <cstring>

namespace kze {
namespace {

bool is_net_order(byte_order order) {
    return order == byte_order::big_endian;
}

}  // namespace

std::string module_frame(std::string_view body, unsigned int proto_type, byte_order order) {
    const _module_header header =
        module_header(static_cast<std::uint16_t>(proto_type),
                      static_cast<std::uint32_t>(body.size()), is_net_order(order));
    std::string frame(module_header_size, '\0');
    std::memcpy(frame.data(), &header, sizeof(header));
    return frame.append(body);
}

std::string module_frame_problem(std::string_view frame, unsigned int proto_type,
                                 byte_order order) {
    if (frame.size() < module_header_size) {
        return "it has " + std::to_string(frame.size()) + " bytes, less than a header";
    }
    const _module_header header = read_module_header(frame.data());
    if (!has_module_version(header)) {
        return "it doesn't begin with the version \"3200\"";
    }
    if (const auto type = module_field(header.proto_type, is_net_order(order));
        type != proto_type) {
        return "its proto_type is " + std::to_string(type);
    }
    if (header.compress_flag != 0) {
        return "its compress_flag isn't 0";
    }
    const std::size_t follow = frame.size() - module_header_size;
    if (const auto length = module_field(header.msg_len, is_net_order(order)); length != follow) {
        return "its msg_len is " + std::to_string(length) + ", " + std::to_string(follow) +
               " bytes follow";
    }
    return {};
}

}  // namespace kze
