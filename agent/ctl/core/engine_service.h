/* The engine's service. */
#ifndef KZE_AGENT_CTL_CORE_ENGINE_SERVICE_H
#define KZE_AGENT_CTL_CORE_ENGINE_SERVICE_H

#include <string>

#include "agent/ctl/core/deadline.h"

namespace kze::ctl {

/* order_service for the engine. */
void order_engine_service(const std::string &verb, const deadline &until);

}  // namespace kze::ctl

#endif
