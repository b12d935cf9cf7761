#include "agent/ctl/core/engine_change.h"

#include <string>

#include "agent/common/tree.h"
#include "agent/ctl/core/ask.h"
#include "agent/ctl/core/failure.h"
#include "agent/engine/engine_settings.h"
#include "agent/engine/left_requests.h"

namespace kze::ctl {

void change_engine_settings(const nlohmann::json &request) {
    if (ask_if_running(engine_endpoint, request)) {
        return;
    }
    std::string error = engine::engine_settings::check(request);
    if (error.empty()) {
        error =
            engine::leave_request(tree_path(engine::settings_file) + engine::left_suffix, request);
    }
    if (!error.empty()) {
        throw failure(exit_failed, "refused: " + error);
    }
    /* One that has started meanwhile may have looked before. */
    ask_if_running(engine_endpoint, {{"op", "take-left"}});
}

}  // namespace kze::ctl
