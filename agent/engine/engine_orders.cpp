#include "agent/engine/engine_orders.h"

#include <algorithm>

#include "agent/common/md5.h"
#include "agent/engine/process_snapshot.h"

namespace kze::engine {
namespace {

constexpr std::string_view order_version = "3200";
constexpr std::uint32_t order_protocol = 1;

/* A big-endian number of up to four bytes. */
std::uint32_t number_at(std::string_view bytes, std::size_t offset, std::size_t size) {
    std::uint32_t value = 0;
    for (const char byte : bytes.substr(offset, size)) {
        value = value << 8 | static_cast<unsigned char>(byte);
    }
    return value;
}

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
    if (frame.substr(0, order_version.size()) != order_version) {
        problem = "its version is not 3200";
        return std::nullopt;
    }
    if (const std::uint32_t protocol = number_at(frame, 8, 2); protocol != order_protocol) {
        problem = "its protocol is " + std::to_string(protocol) + ", not 1";
        return std::nullopt;
    }
    const std::string_view body = frame.substr(order_head_size);
    if (const std::uint32_t length = number_at(frame, 16, 4); length != body.size()) {
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
