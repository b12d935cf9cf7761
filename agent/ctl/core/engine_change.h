/* Changes of what outlives the engine: its answers, versions and states. */
#ifndef KZE_AGENT_CTL_CORE_ENGINE_CHANGE_H
#define KZE_AGENT_CTL_CORE_ENGINE_CHANGE_H

#include <nlohmann/json.hpp>

namespace kze::ctl {

/* Lets the engine carry out a settings request; without an engine it is left for its
 * start. Throws failure when it is refused. */
void change_engine_settings(const nlohmann::json &request);

}  // namespace kze::ctl

#endif
