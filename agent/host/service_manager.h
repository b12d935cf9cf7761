/* Words with the service manager that started the host, where one did. */
#ifndef KZE_AGENT_HOST_SERVICE_MANAGER_H
#define KZE_AGENT_HOST_SERVICE_MANAGER_H

namespace kze::host {

/* Every plug-in's init was called. */
void tell_ready();
/* The plug-ins' uninit is about to be called. */
void tell_stopping();

}  // namespace kze::host

#endif
