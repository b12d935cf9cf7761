/* The main function of a service's program. */
#ifndef KZE_AGENT_SERVICES_SERVICE_PROGRAM_H
#define KZE_AGENT_SERVICES_SERVICE_PROGRAM_H

#include <memory>

#include "agent/services/endpoint_service.h"

namespace kze::services {

/* Makes the service, which isn't opened yet. Called on the serving thread. */
using service_maker = std::unique_ptr<endpoint_service> (*)();

/*
 * Serves on a thread of its own until SIGTERM or SIGINT, with the log in var/log/<name>. To be
 * called by main, with one thread, and its result returned: 0 after an ordinary end, 1 when the
 * service could not be made or opened.
 */
int run_service(const char *name, service_maker make);

}  // namespace kze::services

#endif
