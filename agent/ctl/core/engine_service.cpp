#include "agent/ctl/core/engine_service.h"

#include "agent/ctl/core/services.h"

namespace kze::ctl {

void order_engine_service(const std::string &verb, const deadline &until) {
    order_service(verb, *find_service(engine_service_name), until);
}

}  // namespace kze::ctl
