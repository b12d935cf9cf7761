/* What becomes of a process that is to be ended. */
#ifndef KZE_AGENT_SERVICES_PROCESS_FATE_H
#define KZE_AGENT_SERVICES_PROCESS_FATE_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>

namespace kze::services {

/* A process as an order describes it. A plain value. */
struct described_process {
    std::uint64_t pid = 0;
    std::uint64_t create_time = 0; /* clock ticks since the host started */
    std::string path;              /* of its executable, as text_of_bytes makes it */
    std::string md5;               /* of what it executes, 32 hexadecimal digits */
};

enum class fate {
    ended,    /* by this service */
    reported, /* it is the one described, and nothing was done to it */
    gone,     /* no process has the id, or it had ended already */
    another,  /* a process has the id, but not the one described */
    refused,  /* it is none that may be ended */
    invalid,  /* the description is none of a process */
    failed,   /* it could not be looked at, or doesn't end */
};

/* "ended" and so on. */
const char *fate_name(fate what);

struct process_fate {
    fate what = fate::failed;
    int code = 0; /* a DSP_ERROR_CODE */
    std::string reason;
};

/* By which a file that has not changed is known: device, number, size, times of change. */
using executable_state = std::tuple<dev_t, ino_t, off_t, time_t, long, time_t, long>;

/* How the processes of an order are disposed of, and what that has used up and read. A plain value.
 */
struct disposal_rules {
    bool kill = false; /* otherwise they are only looked at */
    std::string tree;  /* the agent's tree, without links: its own programs are never ended */
    /* How long processes that were told to end may still be waited for; waiting uses it up. */
    std::chrono::milliseconds wait_left{2000};
    /* The same of the short waits behind that, which an ordinary end needs. */
    std::chrono::milliseconds short_waits_left{3000};
    std::map<executable_state, std::string> known_md5;
};

/*
 * Compares the live process of that id with the description, and ends it where all of it fits. The
 * process is held by a descriptor from before the comparison until after the signal: an id that is
 * given to another process meanwhile is not hit. Any thread.
 */
process_fate dispose_of(const described_process &wanted, disposal_rules &rules);

}  // namespace kze::services

#endif
