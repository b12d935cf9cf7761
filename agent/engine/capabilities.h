/* The engine's capabilities by number and name. */
#ifndef KZE_AGENT_ENGINE_CAPABILITIES_H
#define KZE_AGENT_ENGINE_CAPABILITIES_H

#include <array>
#include <optional>
#include <string_view>

#include "engine/qd_client.h"

namespace kze::engine {

struct capability {
    int type;
    const char *name;
};

/* What x_client_engine_control switches. */
constexpr std::array<capability, 11> capabilities = {{
    {ENGINE_IOC, "ioc"},
    {ENGINE_IOA, "ioa"},
    {ENGINE_MD, "md"},
    {ENGINE_BRUTEFORCE_GLOBAL, "bruteforce_global"},
    {ENGINE_COLLECT, "collect"},
    {ENGINE_ABNORMAL_SCAN, "abnormal_scan"},
    {ENGINE_BRUTEFORCE_SSH, "bruteforce_ssh"},
    {ENGINE_ABNORMAL_IP_LOGIN, "abnormal_ip_login"},
    {ENGINE_ABNORMAL_TIME_LOGIN, "abnormal_time_login"},
    {ENGINE_REVERSESHELL, "reverseshell"},
    {ENGINE_DETANAL, "detanal"},
}};

/* The capability's name, as "collect"; null for a number that is none. */
const char *capability_name(int type);
/* The same for what takes rules: custom IOA rules do too. */
const char *rules_name(int type);
/* The number of what takes rules, by its name or by that number as a text. */
std::optional<int> rules_type(std::string_view name);
/* "ioc", "ioa" or "md", which have a version and load files; null for another number. */
const char *versioned_name(int type);

}  // namespace kze::engine

#endif
