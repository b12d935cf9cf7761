/* One command at a time starts or stops the agent of a tree. */
#ifndef KZE_AGENT_CTL_CORE_TREE_LOCK_H
#define KZE_AGENT_CTL_CORE_TREE_LOCK_H

#include "agent/ctl/core/deadline.h"
#include "platform/common/descriptor.h"

namespace kze::ctl {

/*
 * Held by up, down and reload while they are at work; the kernel frees it when kzectl dies. It lies
 * on the directory of the tree's programs, which no command empties. One thread at a time.
 */
class tree_lock {
  public:
    /* Waits until no other kzectl holds it. Throws failure (exit_timed_out) at the deadline. */
    explicit tree_lock(const deadline &until);

  private:
    descriptor directory_;
};

}  // namespace kze::ctl

#endif
