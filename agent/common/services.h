/* The services of the agent: the processes beside the host. */
#ifndef KZE_AGENT_COMMON_SERVICES_H
#define KZE_AGENT_COMMON_SERVICES_H

#include <string_view>

namespace kze {

/* A service; all that starts, stops, finds or shows services goes by the table below. Immutable. */
struct agent_service {
    const char *name;     /* what the service tool calls it */
    const char *program;  /* its path within the tree */
    const char *endpoint; /* where its control requests are answered; its log is named so too */
    const char *log;      /* the name by which "kzectl log" knows its log */
    const char *title;    /* in a row of "kzectl status" */
    const char *spoken;   /* in a sentence */
};

inline constexpr char engine_service_name[] = "10qd_agent";

/* In the order in which they are started; they are stopped the other way round. */
inline constexpr agent_service agent_services[] = {
    {"05agt_cfgc", "bin/agt_cfgc", "agt_cfgc", "agt_cfgc", "Configuration",
     "the configuration service"},
    {"06agt_lkg", "bin/agt_lkg", "agt_lkg", "agt_lkg", "Linkage", "the linkage service"},
    {"07agt_rpdsp", "bin/agt_rpdsp", "agt_rpdsp", "agt_rpdsp", "Disposal", "the disposal service"},
    {engine_service_name, "qd_agent/bin/qd_agent", "qd_agent", "engine", "Engine", "the engine"},
};

/* The service of that name, or null. */
constexpr const agent_service *find_service(std::string_view name) {
    for (const agent_service &known : agent_services) {
        if (name == known.name) {
            return &known;
        }
    }
    return nullptr;
}

/* The service that answers at that endpoint, or null. */
constexpr const agent_service *find_service_at(std::string_view endpoint) {
    for (const agent_service &known : agent_services) {
        if (endpoint == known.endpoint) {
            return &known;
        }
    }
    return nullptr;
}

}  // namespace kze

#endif
