/* The gateway's journal: a file of records (agent/common/record_file.h), and counters beside them.
 */
#ifndef KZE_AGENT_GATEWAY_JOURNAL_H
#define KZE_AGENT_GATEWAY_JOURNAL_H

#include <string>

#include "agent/common/record_file.h"

namespace kze::gateway {

/*
 * A record's kind is its KZEMM_DATA_TYPE. A list has the first 20 bytes of it, for decode_header,
 * 80 of an order's result (KZEMM_DATA_LINKAGE, _APPEND and _HUNTING), or 4,096 of a short kind
 * whose content a list shows (KZEMM_DATA_CTMIOA_RESULT and _HELLO). Nothing is ever dropped.
 */
inline constexpr record_form journal_form{
    "records",
    "accepted_us",
    "type",
    "CASE WHEN type IN (8, 9) THEN 4096 WHEN type IN (2, 3, 4) THEN 80 ELSE 20 END",
    "CREATE INDEX records_by_type ON records(type, id);"
    "CREATE TABLE counters(name TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;",
    "is no journal of version 1",
    true,
    100,
    0,
    0};

/* Of the rows GATEWAY_COUNT_... */
constexpr char counters_table[] = "counters";

/* The word for a KZEMM_DATA_TYPE, "alarm" for instance; "unknown" for a number without a name. */
const char *data_type_name(int type);
/* The number for such a word; 0 when there is none. */
int data_type_number(const std::string &name);

}  // namespace kze::gateway

#endif
