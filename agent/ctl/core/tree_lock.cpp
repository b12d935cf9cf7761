#include "agent/ctl/core/tree_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstring>

#include "agent/common/tree.h"
#include "agent/ctl/core/failure.h"

namespace kze::ctl {
namespace {

constexpr int look_period_ms = 20;

failure cannot_lock() {
    return failure(exit_failed, "can't lock " + tree_path("@") + ": " + std::strerror(errno));
}

}  // namespace

tree_lock::tree_lock(const deadline &until)
    : directory_(::open(tree_path("@").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (!directory_.valid()) {
        throw cannot_lock();
    }
    while (::flock(directory_.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            throw cannot_lock();
        }
        if (until.passed()) {
            throw failure(exit_timed_out,
                          "another kzectl is starting, stopping or reloading this agent and "
                          "didn't end in time; nothing is done");
        }
        until.pause_ms(look_period_ms);
    }
}

}  // namespace kze::ctl
