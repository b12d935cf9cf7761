/* agt_cfgc: the configuration service's process. */
#include "agent/common/tree.h"
#include "agent/services/config_service.h"
#include "agent/services/service_program.h"

namespace {

std::unique_ptr<kze::services::endpoint_service> make() {
    return std::make_unique<kze::services::config_service>(kze::tree_path("@/../config/kzacfgc"));
}

}  // namespace

int main() {
    return kze::services::run_service("agt_cfgc", make);
}
