/* What the host's own process uses. */
#ifndef KZE_AGENT_HOST_PROCESS_FIGURES_H
#define KZE_AGENT_HOST_PROCESS_FIGURES_H

namespace kze::host {

struct process_figures {
    long rss_kb = 0; /* resident memory in KiB */
    long threads = 0;
    long descriptors = 0;
};

/* A figure that can't be had is 0. Any thread. */
process_figures own_figures();

}  // namespace kze::host

#endif
