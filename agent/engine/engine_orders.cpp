#include "agent/engine/engine_orders.h"

#include <algorithm>

#include "agent/common/md5.h"
#include "agent/engine/process_snapshot.h"

namespace kze::engine {
namespace {

constexpr bool net_order = true;

bool is_printable(std::string_view bytes) {
    bool escaped = false;
    text_of_bytes(bytes, escaped);
    return !escaped && std::none_of(bytes.begin(), bytes.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte < 0x20 && c != '\n' && c != '\r' && c != '\t') || byte == 0x7f;
    });
}

}  // namespace

std::optional<std::string_view> body_of_order(std::string_view frame, std::string &problem) {
    if (frame.size() < order_head_size) {
        problem = "it has " + std::to_string(frame.size()) + " bytes, less than a head";
        return std::nullopt;
    }
    const _module_header header = read_module_header(frame.data());
    if (!has_module_version(header)) {
        problem = "its version is not 3200";
        return std::nullopt;
    }
    if (const auto protocol = module_field(header.proto_type, net_order);
        protocol != module_request) {
        problem = "its protocol is " + std::to_string(protocol) + ", not 1";
        return std::nullopt;
    }
    const std::string_view body = frame.substr(order_head_size);
    if (const auto length = module_field(header.msg_len, net_order); length != body.size()) {
        problem = "its head tells of " + std::to_string(length) + " bytes, " +
                  std::to_string(body.size()) + " follow";
        return std::nullopt;
    }
    return body;
}

nlohmann::json recognisable(std::string_view bytes) {
    nlohmann::json out = {{"md5", md5_of_bytes(bytes).value_or("")}};
    if (bytes.size() <= told_text_limit && is_printable(bytes)) {
        out["text"] = bytes;
    }
    return out;
}

}  // namespace kze::engine
