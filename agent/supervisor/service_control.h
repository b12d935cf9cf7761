/* Starting, stopping and looking at a service. */
#ifndef KZE_AGENT_SUPERVISOR_SERVICE_CONTROL_H
#define KZE_AGENT_SUPERVISOR_SERVICE_CONTROL_H

#include <string>

#include "agent/supervisor/service.h"

namespace kze::engine {

/*
 * The functions return an empty text for success, else the reason of the failure. They are for a
 * process that does nothing else: one thread at a time, and they wait.
 */

/* Starts the supervisor and returns when the program has been started; a service that runs is left
 * as it is. The supervisor is independent of the calling process and keeps nothing it had open. */
std::string start_service(const service &of);

/* Ends supervisor and program and returns when both are gone, at most about ten seconds later. */
std::string stop_service(const service &of);

/* Stops, starts, and returns when the service answers, within ten seconds of its start. */
std::string restart_service(const service &of);

enum class service_state {
    running,
    waiting, /* the program has ended and is about to be started again */
    down,
    unknown, /* the lock can't be read */
};

struct service_status {
    service_state state = service_state::unknown;
    pid_t supervisor = 0; /* 0: none */
    pid_t program = 0;    /* 0: none */
};

service_status look_at_service(const service &of);

}  // namespace kze::engine

#endif
