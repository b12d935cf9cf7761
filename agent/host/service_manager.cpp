#include "agent/host/service_manager.h"

#if KZE_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace kze::host {

#if KZE_HAVE_SYSTEMD
void tell_ready() {
    sd_notify(0, "READY=1");
}

void tell_stopping() {
    sd_notify(0, "STOPPING=1");
}
#else
void tell_ready() {}

void tell_stopping() {}
#endif

}  // namespace kze::host
