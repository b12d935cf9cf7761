#include "agent/ctl/core/host_status.h"

#include "agent/ctl/core/output.h"

namespace kze::ctl {

using nlohmann::json;

host_status read_host_status(const json &answer) {
    host_status status;
    status.pid = answer.at("pid").get<int>();
    status.ready = answer.at("ready").get<bool>();
    status.log_level = answer.at("log_level").get<int>();
    status.uptime_s = answer.value("uptime_s", std::int64_t{0});
    for (const json &entry : answer.at("plugins")) {
        host_plugin plugin;
        plugin.name = entry.at("name").get<std::string>();
        plugin.state = entry.at("state").get<std::string>();
        plugin.problem = entry.value("problem", std::string());
        plugin.initialised = plugin.state == "initialised";
        status.plugins.push_back(std::move(plugin));
    }
    return status;
}

std::string failed_plugins(const host_status &status) {
    std::string text;
    for (const host_plugin &plugin : status.plugins) {
        if (!plugin.initialised) {
            text += (text.empty() ? "" : ", ") + plugin.name + " (" + plugin.state +
                    (plugin.problem.empty() ? "" : ": " + printable(plugin.problem)) + ")";
        }
    }
    return text;
}

}  // namespace kze::ctl
