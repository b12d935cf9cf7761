/* The gateway's settings. */
#ifndef KZE_AGENT_GATEWAY_SETTINGS_H
#define KZE_AGENT_GATEWAY_SETTINGS_H

#include <cstdint>

namespace kze::gateway {

/* Plain values, with the defaults that hold where gateway.ini says nothing. */
struct settings {
    std::uint64_t queue_bytes = 64U << 20;
    std::uint64_t queue_records = 100000;
    std::uint64_t record_bytes = 32U << 20;
    std::uint64_t journal_bytes = 1024U << 20;
    std::uint64_t commit_ms = 50;  /* the longest that a record waits for others to join it */
    std::uint64_t retry_ms = 500;  /* between two attempts while the journal can't be written */
    std::uint64_t drain_ms = 2000; /* for what is queued when the library closes on a bad disk */
};

/*
 * Reads "@/../config/gateway.ini", section "gateway", where each key has its field's name. A value
 * that is no number or out of its range is logged and its default holds.
 */
settings load_settings();

}  // namespace kze::gateway

#endif
