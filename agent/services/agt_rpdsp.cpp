/* agt_rpdsp: the disposal service's process. */
#include "agent/common/tree.h"
#include "agent/services/disposal_service.h"
#include "agent/services/service_program.h"

namespace {

std::unique_ptr<kze::services::endpoint_service> make() {
    return std::make_unique<kze::services::disposal_service>(
        kze::tree_path(kze::services::disposal_path));
}

}  // namespace

int main() {
    return kze::services::run_service("agt_rpdsp", make);
}
