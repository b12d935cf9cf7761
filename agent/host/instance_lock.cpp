#include "agent/host/instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "agent/common/tree.h"
#include "kzautil.h"

namespace kze::host {
namespace {

/* The number that the holder has written; empty while it hasn't. */
std::string holder(int file) {
    char text[32] = "";
    const ssize_t size = pread(file, text, sizeof(text) - 1, 0);
    return size <= 0 ? std::string() : std::string(text, std::strcspn(text, "\n"));
}

}  // namespace

instance_lock::result instance_lock::take() {
    const std::string path = tree_path("@/../run/kze_agent.lock");
    kze_dirutils_mkdir(tree_path("@/../run").c_str(), 0700);
    file_.reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file_.valid()) {
        problem_ = path + ": " + std::strerror(errno);
        return result::failed;
    }
    if (flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            problem_ = path + ": " + std::strerror(errno);
            return result::failed;
        }
        problem_ = "a host runs in this tree already, process " + holder(file_.get());
        return result::held_by_another;
    }
    const std::string process = std::to_string(getpid()) + "\n";
    if (ftruncate(file_.get(), 0) != 0 ||
        pwrite(file_.get(), process.data(), process.size(), 0) < 0) {
        problem_ = path + ": " + std::strerror(errno);
        return result::failed;
    }
    return result::taken;
}

}  // namespace kze::host
