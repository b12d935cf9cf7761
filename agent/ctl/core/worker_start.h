/* How the start of the threat module manager's worker goes, which its init doesn't wait for. */
#ifndef KZE_AGENT_CTL_CORE_WORKER_START_H
#define KZE_AGENT_CTL_CORE_WORKER_START_H

#include <sys/types.h>

#include <string>

#include "agent/ctl/core/host_status.h"

namespace kze::ctl {

enum class worker_state {
    working,
    waiting, /* for the engine, with growing pauses */
    ended,
    unknown, /* nothing was seen of it in time, or not enough is logged */
};

/* Where the worker's log ends now: taken before the worker is started. */
off_t mark_worker_start();

/*
 * Waits a few seconds for the worker to get through its start, as its log tells it behind the mark
 * (what a worker before it says at its end doesn't count).
 * A worker that is told to stop before that doesn't notice, so that nobody else should be told yet
 * that the agent is up.
 */
worker_state wait_for_worker(const host_status &host, off_t mark);

/* "working", for a program */
const char *worker_state_name(worker_state state);
/* What to add for a person behind "... initialised"; empty for a worker that works. Throws failure
 * for one that has ended. */
std::string worker_note(worker_state state);

}  // namespace kze::ctl

#endif
