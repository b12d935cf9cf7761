#include "agent/ctl/core/announcement.h"

#include "agent/ctl/core/ask.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

constexpr char config_endpoint[] = "agt_cfgc";
/* A change isn't to wait long for a service that hangs. */
constexpr unsigned int announce_seconds = 3;

}  // namespace

std::string announcement::note() const {
    return delivered ? "; the plug-in is notified" : "; nobody is notified: " + problem;
}

announcement announce(const std::vector<std::string> &modules) {
    try {
        const auto answer = ask_if_running(
            config_endpoint, {{"op", "announce"}, {"modules", modules}}, announce_seconds);
        if (!answer) {
            return {false, program_at(config_endpoint) + " isn't running", exit_not_running};
        }
        if (!answer->value("delivered", false)) {
            return {false, answer->value("problem", std::string("no reason")), exit_not_running};
        }
        return {true, "", exit_done};
    } catch (const failure &failed) {
        return {false, failed.what(), failed.status()};
    }
}

std::string announced_name(const std::string &store_module) {
    static const std::string prefix = "/mgr/";
    if (store_module.compare(0, prefix.size(), prefix) != 0) {
        return {};
    }
    return store_module.substr(prefix.size());
}

}  // namespace kze::ctl
