/* What the host tells of itself. */
#ifndef KZE_AGENT_CTL_CORE_HOST_STATUS_H
#define KZE_AGENT_CTL_CORE_HOST_STATUS_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace kze::ctl {

struct host_plugin {
    std::string name;
    std::string state;   /* the host's word for it */
    std::string problem; /* why it isn't initialised */
    bool initialised = false;
};

struct host_status {
    int pid = 0;
    bool ready = false; /* every plug-in's init was called */
    int log_level = 0;
    std::int64_t uptime_s = 0;
    std::vector<host_plugin> plugins;
};

/* The plug-ins that aren't initialised, with the reasons; empty when all are. */
std::string failed_plugins(const host_status &status);

/* Reads the host's answer to a status request. Throws when it makes no sense. */
host_status read_host_status(const nlohmann::json &answer);

}  // namespace kze::ctl

#endif
