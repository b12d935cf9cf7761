#include "agent/ctl/engine_change.h"

#include <string>

#include "agent/common/tree.h"
#include "agent/ctl/ask.h"
#include "agent/ctl/failure.h"
#include "agent/engine/engine_settings.h"

namespace kze::ctl {

void change_engine_settings(const nlohmann::json &request) {
    if (ask_if_running(engine_endpoint, request)) {
        return;
    }
    engine::engine_settings settings(tree_path(engine::settings_file));
    const nlohmann::json answer = settings.apply(request);
    if (!answer.value("ok", false)) {
        throw failure(exit_failed, "refused: " + answer.value("error", std::string()));
    }
}

}  // namespace kze::ctl
