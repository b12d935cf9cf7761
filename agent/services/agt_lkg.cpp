/* agt_lkg: the linkage service's process. */
#include "agent/common/tree.h"
#include "agent/services/linkage_service.h"
#include "agent/services/service_program.h"

namespace {

std::unique_ptr<kze::services::endpoint_service> make() {
    return std::make_unique<kze::services::linkage_service>(
        kze::tree_path(kze::services::linkage_path));
}

}  // namespace

int main() {
    return kze::services::run_service("agt_lkg", make);
}
