/* The process that keeps a service running. */
#ifndef KZE_AGENT_SUPERVISOR_SUPERVISOR_H
#define KZE_AGENT_SUPERVISOR_SUPERVISOR_H

#include "agent/supervisor/service.h"

namespace kze::engine {

/* What the supervisor writes to its report descriptor once the service's program runs; anything
 * else it writes there is the reason why it doesn't. */
constexpr char supervisor_ready[] = "ready";

/*
 * Runs the service's program until SIGTERM or SIGINT comes: starts it again two seconds after it
 * ended, unless it ended with exit_stay_down. The program gets SIGTERM when the supervisor is told
 * to leave, SIGKILL when it is still there five seconds later or when the supervisor dies.
 *
 * Writes one report to the descriptor and closes it. Returns the process's exit status: 0 after an
 * ordinary end, 1 when the program could not be started the first time. Must be called by a process
 * with one thread, as its main duty: it blocks signals and waits for children.
 */
int supervise(const service &of, int report_descriptor);

}  // namespace kze::engine

#endif
