/* Telling the plug-in of changes of central configuration, through the configuration service. */
#ifndef KZE_AGENT_CTL_CORE_ANNOUNCEMENT_H
#define KZE_AGENT_CTL_CORE_ANNOUNCEMENT_H

#include <string>
#include <vector>

#include "agent/ctl/core/failure.h"

namespace kze::ctl {

/* What came of it. */
struct announcement {
    bool delivered = false;
    std::string problem;            /* empty when delivered */
    exit_status status = exit_done; /* of a command that is about the announcement alone */

    /* What to add to a line that tells of a change. */
    std::string note() const;
};

/* Announces a change of the modules, "abnormal_login" for instance. Doesn't throw failure: a change
 * is made all the same. */
announcement announce(const std::vector<std::string> &modules);

/* The module's name as it is announced, "base_collect" for "/mgr/base_collect"; empty for one that
 * isn't announced. */
std::string announced_name(const std::string &store_module);

}  // namespace kze::ctl

#endif
