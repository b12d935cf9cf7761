/* The engine's service. */
#ifndef KZE_AGENT_CTL_ENGINE_SERVICE_H
#define KZE_AGENT_CTL_ENGINE_SERVICE_H

#include <string>

#include "agent/ctl/deadline.h"

namespace kze::ctl {

/*
 * Has the service tool start, stop or restart the engine. The tool returns once the program is
 * started; this waits until it answers as well. Throws failure with the tool's words, or when the
 * engine doesn't answer in time.
 */
void order_engine_service(const std::string &verb, const deadline &until);

}  // namespace kze::ctl

#endif
