/* What services keep, each kind in a file of its own. */
#ifndef KZE_AGENT_SERVICES_RECORD_FORMS_H
#define KZE_AGENT_SERVICES_RECORD_FORMS_H

#include "agent/common/record_file.h"

namespace kze::services {

constexpr char linkage_path[] = "@/../var/lib/linkage.db";
inline constexpr record_form linkage_replies{"replies", "received_us",
                                             nullptr,   "80",
                                             "",        "holds no linkage replies of version 1",
                                             true,      1000,
                                             1000,      std::int64_t{64} << 20};

/* Each is a JSON object (disposal_order.h). */
constexpr char disposal_path[] = "@/../var/lib/disposal.db";
inline constexpr record_form disposal_orders{"orders", "received_us",
                                             nullptr,  "size",
                                             "",       "holds no disposal orders of version 1",
                                             true,     1000,
                                             1000,     std::int64_t{64} << 20};

}  // namespace kze::services

#endif
