/* Credible events about live processes of this host, as the engine delivers them. */
#ifndef KZE_AGENT_CTL_CORE_CREDIBLE_EVENT_H
#define KZE_AGENT_CTL_CORE_CREDIBLE_EVENT_H

#include <cstdint>
#include <string>
#include <vector>

namespace kze::ctl {

/* What an event is to tell. A plain value. */
struct credible_options {
    int scene = 1;                   /* a KZAV_EVENT_SCENE, or any other number */
    std::vector<std::uint64_t> pids; /* live processes */
    unsigned int actions = 1;        /* the processes are dealt out to so many */
    bool reused = false;   /* the processes that had these ids before: other creation times */
    std::string malformed; /* one of credible_defects; empty for a good event */
};

/* What can be wrong with an event, each by its name. */
extern const std::vector<std::string> credible_defects;

/*
 * The frame of an event: its rule, an action or more with the processes and their parents, of which
 * the former are the ones to dispose of, an alert, and some fields that its schema doesn't know.
 * Throws failure when one of the processes isn't there.
 */
std::string credible_frame(const credible_options &options);

}  // namespace kze::ctl

#endif
