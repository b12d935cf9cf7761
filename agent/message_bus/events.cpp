#include "agent/message_bus/events.h"

#include <cstring>

namespace kze::bus {
namespace {

constexpr std::size_t offline_size = 7;
/* A text that has no end within this is shown to here. */
constexpr std::size_t text_at_most = std::size_t{16} << 20;

}  // namespace

const char *event_name(std::uint32_t event_id) {
    switch (event_id) {
        case event_origin:
            return "origin";
        case event_offline:
            return "offline";
        default:
            return "unknown";
    }
}

std::string_view event_data(std::uint32_t event_id, const char *data) {
    if (data == nullptr) {
        return {};
    }
    switch (event_id) {
        case event_origin:
            return {data, strnlen(data, text_at_most)};
        case event_offline:
            return {data, offline_size};
        default:
            return {};
    }
}

}  // namespace kze::bus
