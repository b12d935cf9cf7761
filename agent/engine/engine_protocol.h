/*
 * What the engine and its client library say to each other through the endpoint "qd_agent".
 *
 * Every message, in either direction, is one record: a head of 24 bytes, each number little-endian,
 * and the payload behind it.
 *
 *   offset 0   version, 1
 *   offset 4   what: an engine_call in a request and in its answer, an event_kind in an event
 *   offset 8   client: the number that x_client_start was answered with; 0 in its request, and in
 *              events, but for the end of an asynchronous call
 *   offset 12  first, signed: an argument; in an answer the code that the call returns
 *   offset 16  second, signed: an argument or a value
 *   offset 20  length of the payload, which is all that follows
 *
 * agent/docs/engine.md tells what each call and event puts into its record.
 */
#ifndef KZE_AGENT_ENGINE_ENGINE_PROTOCOL_H
#define KZE_AGENT_ENGINE_ENGINE_PROTOCOL_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kze::engine {

constexpr char endpoint_name[] = "qd_agent";

/* IPC commands beside the control requests' 1. */
enum ipc_command : unsigned int {
    command_call = 16, /* an engine_call; answered with its result */
    command_ping = 17, /* each second; second is the number of buffers that are handed out */
    command_next = 18, /* answered with the next event, once there is one */
};

constexpr std::uint32_t record_version = 1;
constexpr std::size_t record_head_size = 24;
/* What an IPC message carries at most, and what that leaves for a payload. */
constexpr std::size_t record_size_limit = 16U << 20;
constexpr std::size_t payload_limit = record_size_limit - record_head_size;

/* The client's functions that reach the engine. The numbers are the protocol's; new ones go to the
 * end. */
enum class engine_call : std::uint32_t {
    start = 1,
    stop,
    engine_update,
    engine_update_async,
    engine_update_by_data,
    engine_control,
    engine_query_version,
    engine_query_version_str,
    engine_set_runlevel,
    engine_subscribe_alarm,
    coordinate,
    subscribe_origin_data,
    register_coordinate_cb,
    subscribe_clt,
    engine_subscribe_credible,
    coordinate_dispose_trc,
    set_drive_switch,
    get_drive_state,
    get_collect_state,
};
constexpr std::uint32_t engine_call_count = 19;

/* The function's full name, as "x_client_start". */
const char *call_name(engine_call call);
/* The call of that name, or nothing. */
std::optional<engine_call> call_of_name(std::string_view name);

/* What the engine sends of its own accord. */
enum class event_kind : std::uint32_t {
    alarm = 1,
    linkage,
    append,
    hunting,
    origin,
    credible,
    clt,
    completion, /* ends an asynchronous call: first is its ticket, second its result, and in the
                   client's place is the engine type that the callback is told */
};
constexpr std::uint32_t event_kind_count = 8;

const char *event_name(event_kind kind);
std::optional<event_kind> event_of_name(std::string_view name);

/* Codes that the client's functions return of themselves. The engine adds those it was told to. */
enum client_error : int {
    client_ok = 0,
    client_invalid = -1,   /* an argument that can't be meant */
    client_failed = -2,    /* no memory, or an answer that makes no sense */
    client_bad_rules = -7, /* the engine: a rule file that isn't valid */
    client_offline = -8,   /* no engine; what was to be loaded is worth keeping */
    client_timeout = -14,  /* the engine didn't answer in time; likewise */
};

/* The payload of an answer whose value is to stay unread, so that the out-parameter stays as it is;
 * an answer with a text has an empty one. */
constexpr char unwritten_mark[] = "unwritten";

/* One message. The payload belongs to whoever made the record. */
struct record {
    std::uint32_t what = 0;
    std::uint32_t client = 0;
    std::int32_t first = 0;
    std::int32_t second = 0;
    std::string_view payload;
};

/* The record's bytes; empty when the payload is longer than payload_limit. */
std::string encode_record(const record &from);

/* Reads a message; the payload is a view into data. Nothing when it is no whole record. */
std::optional<record> decode_record(const char *data, unsigned int len);

}  // namespace kze::engine

#endif
