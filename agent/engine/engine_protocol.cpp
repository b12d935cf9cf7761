#include "agent/engine/engine_protocol.h"

#include <array>

namespace kze::engine {
namespace {

constexpr std::array<const char *, engine_call_count> call_names = {
    "x_client_start",
    "x_client_stop",
    "x_client_engine_update",
    "x_client_engine_update_async",
    "x_client_engine_update_by_data",
    "x_client_engine_control",
    "x_client_engine_query_version",
    "x_client_engine_query_version_str",
    "x_client_engine_set_runlevel",
    "x_client_engine_subscribe_alarm",
    "x_client_coordinate",
    "x_client_subscribe_origin_data",
    "x_client_register_coordinate_cb",
    "x_client_subscribe_clt",
    "x_client_engine_subscribe_credible",
    "x_client_coordinate_dispose_trc",
    "x_client_set_drive_switch",
    "x_client_get_drive_state",
    "x_client_get_collect_state",
};
static_assert(call_names.size() == static_cast<std::size_t>(engine_call::get_collect_state));

constexpr std::array<const char *, event_kind_count> event_names = {
    "alarm", "linkage", "append", "hunting", "origin", "credible", "clt", "completion",
};
static_assert(event_names.size() == static_cast<std::size_t>(event_kind::completion));

/* Names stand in the order of their numbers, which begin with 1. */
template <typename Number, std::size_t Count>
const char *name_of(const std::array<const char *, Count> &names, Number number) {
    const auto index = static_cast<std::size_t>(number);
    return index >= 1 && index <= Count ? names[index - 1] : "unknown";
}

template <typename Number, std::size_t Count>
std::optional<Number> number_of(const std::array<const char *, Count> &names,
                                std::string_view name) {
    for (std::size_t index = 0; index < Count; ++index) {
        if (name == names[index]) {
            return static_cast<Number>(index + 1);
        }
    }
    return std::nullopt;
}

void put_u32(std::string &out, std::uint32_t value) {
    for (unsigned int shift = 0; shift < 32; shift += 8) {
        out.push_back(static_cast<char>((value >> shift) & 0xFFU));
    }
}

std::uint32_t get_u32(const char *from) {
    std::uint32_t value = 0;
    for (unsigned int index = 0; index < 4; ++index) {
        value |= static_cast<std::uint32_t>(static_cast<unsigned char>(from[index])) << (index * 8);
    }
    return value;
}

}  // namespace

const char *call_name(engine_call call) {
    return name_of(call_names, call);
}

std::optional<engine_call> call_of_name(std::string_view name) {
    return number_of<engine_call>(call_names, name);
}

const char *event_name(event_kind kind) {
    return name_of(event_names, kind);
}

std::optional<event_kind> event_of_name(std::string_view name) {
    return number_of<event_kind>(event_names, name);
}

std::string encode_record(const record &from) {
    std::string bytes;
    if (from.payload.size() > payload_limit) {
        return bytes;
    }
    bytes.reserve(record_head_size + from.payload.size());
    put_u32(bytes, record_version);
    put_u32(bytes, from.what);
    put_u32(bytes, from.client);
    put_u32(bytes, static_cast<std::uint32_t>(from.first));
    put_u32(bytes, static_cast<std::uint32_t>(from.second));
    put_u32(bytes, static_cast<std::uint32_t>(from.payload.size()));
    bytes.append(from.payload);
    return bytes;
}

std::optional<record> decode_record(const char *data, unsigned int len) {
    if (data == nullptr || len < record_head_size || len > record_size_limit) {
        return std::nullopt;
    }
    if (get_u32(data) != record_version || get_u32(data + 20) != len - record_head_size) {
        return std::nullopt;
    }
    record into;
    into.what = get_u32(data + 4);
    into.client = get_u32(data + 8);
    into.first = static_cast<std::int32_t>(get_u32(data + 12));
    into.second = static_cast<std::int32_t>(get_u32(data + 16));
    into.payload = std::string_view(data + record_head_size, len - record_head_size);
    return into;
}

}  // namespace kze::engine
