/* One host for each tree. */
#ifndef KZE_AGENT_HOST_INSTANCE_LOCK_H
#define KZE_AGENT_HOST_INSTANCE_LOCK_H

#include <string>

#include "platform/common/descriptor.h"

namespace kze::host {

/* Holds "@/../run/kze_agent.lock" as long as it lives, or the process. One thread at a time. */
class instance_lock {
  public:
    enum class result { taken, held_by_another, failed };

    /* Takes the lock, makes run/ where missing, and notes the process in the file. */
    result take();
    /* Why it wasn't taken. */
    const std::string &problem() const { return problem_; }

  private:
    descriptor file_{-1};
    std::string problem_;
};

}  // namespace kze::host

#endif
