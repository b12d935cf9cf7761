/* The tap of the bus: a file of records (agent/common/record_file.h) of the newest publications. */
#ifndef KZE_AGENT_MESSAGE_BUS_TAP_H
#define KZE_AGENT_MESSAGE_BUS_TAP_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "agent/common/record_file.h"

namespace kze::bus {

constexpr char tap_path[] = "@/../var/lib/bus.db";

/* A record's kind is its event id. The disk is never waited for: publishers would wait with it. */
inline constexpr record_form tap_form{"publications",
                                      "published_us",
                                      "event",
                                      "size",
                                      "",
                                      "is no tap of the message bus",
                                      false,
                                      100,
                                      1024,
                                      0};

/* Of longer data the beginning is kept. */
constexpr std::size_t tap_kept_at_most = 4056;

/* What the tap keeps of a publication that comes now; the data stay the caller's. */
inline new_record publication(std::uint32_t event_id, std::string_view data) {
    return {data.substr(0, tap_kept_at_most), static_cast<std::int64_t>(data.size()),
            static_cast<int>(event_id)};
}

}  // namespace kze::bus

#endif
