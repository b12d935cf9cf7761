/*
 * What kzethtgw_async_send (libkzethtgw.3.so, declared in engine/qd_client.h) answers, and the
 * names of the gateway's files and counters. The header depends on nothing.
 */
#ifndef KZE_AGENT_GATEWAY_GATEWAY_H
#define KZE_AGENT_GATEWAY_GATEWAY_H

/* Results of kzethtgw_async_send. Nothing was taken unless it is GATEWAY_ACCEPTED. */
enum gateway_result {
    GATEWAY_ACCEPTED = 0,
    GATEWAY_NULL_DATA = -1,
    GATEWAY_NO_LENGTH = -2,
    GATEWAY_BAD_TYPE = -3,   /* outside 1 to 10 */
    GATEWAY_TOO_LONG = -4,   /* longer than the setting record_bytes, or than the whole queue */
    GATEWAY_QUEUE_FULL = -5, /* by bytes or by records; a later call may succeed */
    GATEWAY_NO_MEMORY = -6,  /* a later call may succeed */
    GATEWAY_NO_WRITER = -7,  /* the journal's thread can't be started, or the library is closing */
    GATEWAY_JOURNAL_FULL = -8, /* no room left in the setting journal_bytes */
};

/* Paths by "@". */
#define GATEWAY_JOURNAL_PATH "@/../var/lib/gateway.db"
#define GATEWAY_SETTINGS_PATH "@/../config/gateway.ini"
#define GATEWAY_LOG_PATH "@/../var/log/gateway"

/*
 * Rows of the journal's table "counters". All but the last only ever grow. Refused as invalid is
 * what got GATEWAY_NULL_DATA to GATEWAY_TOO_LONG, as full GATEWAY_QUEUE_FULL, GATEWAY_NO_MEMORY and
 * GATEWAY_JOURNAL_FULL; lost is what was accepted and never written.
 */
#define GATEWAY_COUNT_ACCEPTED "accepted"
#define GATEWAY_COUNT_REFUSED_INVALID "refused_invalid"
#define GATEWAY_COUNT_REFUSED_FULL "refused_full"
#define GATEWAY_COUNT_LOST "lost"
#define GATEWAY_COUNT_STORED_BYTES "stored_bytes" /* the sum of the sizes of what is there */

#endif
