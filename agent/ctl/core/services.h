/* The agent's services, started and stopped through the service tool. */
#ifndef KZE_AGENT_CTL_CORE_SERVICES_H
#define KZE_AGENT_CTL_CORE_SERVICES_H

#include <string>

#include "agent/common/services.h"
#include "agent/ctl/core/deadline.h"

namespace kze::ctl {

/*
 * Has the service tool start, stop or restart a service. The tool returns once the program is
 * started; this waits until it answers as well. Throws failure with the tool's words, or when the
 * service doesn't answer in time.
 */
void order_service(const std::string &verb, const agent_service &service, const deadline &until);

}  // namespace kze::ctl

#endif
