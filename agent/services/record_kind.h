/* What services keep, each kind in a file of its own. */
#ifndef KZE_AGENT_SERVICES_RECORD_KIND_H
#define KZE_AGENT_SERVICES_RECORD_KIND_H

#include <climits>

namespace kze::services {

/* A kind of records. Constant. */
struct record_kind {
    const char *path;  /* of the file, by "@" */
    const char *table; /* in the file */
    const char *noun;  /* for people: "linkage replies" */
    int beginning;     /* bytes of a record's data that a list has */
};

/* Of every such file, in its user_version. */
constexpr int records_version = 1;

inline constexpr record_kind linkage_replies{"@/../var/lib/linkage.db", "replies",
                                             "linkage replies", 80};
/* Each is a JSON object (disposal_order.h). */
inline constexpr record_kind disposal_orders{"@/../var/lib/disposal.db", "orders",
                                             "disposal orders", INT_MAX};

}  // namespace kze::services

#endif
