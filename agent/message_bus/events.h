/* What the bus knows of the events that are published on it. */
#ifndef KZE_AGENT_MESSAGE_BUS_EVENTS_H
#define KZE_AGENT_MESSAGE_BUS_EVENTS_H

#include <cstdint>
#include <string_view>

namespace kze::bus {

/* A text that ends with a zero byte behind what was published. */
constexpr std::uint32_t event_origin = 18;
/* Seven bytes, with no promise about what follows them. */
constexpr std::uint32_t event_offline = 1022;

/* The word for an event's id, "origin" for instance; "unknown" for one without a name. */
const char *event_name(std::uint32_t event_id);

/*
 * The data of an event, whose record has no length: it follows from the id. Nothing of an event
 * without a name. Reads no byte beyond that length; a null pointer is allowed.
 */
std::string_view event_data(std::uint32_t event_id, const char *data);

}  // namespace kze::bus

#endif
