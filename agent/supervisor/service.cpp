#include "agent/supervisor/service.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "agent/common/tree.h"
#include "kzautil.h"

namespace kze::engine {
namespace {

descriptor open_run_file(const std::string &name) {
    const std::string directory = tree_path("@/../run");
    if (directory.empty() || kze_dirutils_mkdir(directory.c_str(), 0700) != 0) {
        return descriptor();
    }
    const std::string path = directory + "/" + name;
    return descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
}

struct flock whole_file_write_lock() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

}  // namespace

std::string service_names() {
    std::string names;
    for (const service &known : agent_services) {
        names += names.empty() ? known.name : std::string(" ") + known.name;
    }
    return names;
}

supervisor_lock::supervisor_lock(const service &of)
    : file_(open_run_file(std::string(of.name) + ".lock")) {}

bool supervisor_lock::take() {
    struct flock lock = whole_file_write_lock();
    return file_.get() >= 0 && ::fcntl(file_.get(), F_SETLK, &lock) == 0;
}

pid_t supervisor_lock::holder() const {
    struct flock lock = whole_file_write_lock();
    if (file_.get() < 0 || ::fcntl(file_.get(), F_GETLK, &lock) != 0) {
        return -1;
    }
    return lock.l_type == F_UNLCK ? 0 : lock.l_pid;
}

command_lock::command_lock(const service &of)
    : file_(open_run_file(std::string(of.name) + ".command.lock")) {
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::seconds(30);
    while (file_.get() >= 0 && !held_ && clock::now() < deadline) {
        held_ = ::flock(file_.get(), LOCK_EX | LOCK_NB) == 0;
        if (!held_) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
}

pid_t parent_of(pid_t process) {
    const std::string path = "/proc/" + std::to_string(process) + "/stat";
    const std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(path.c_str(), "re"), std::fclose);
    char text[512] = "";
    if (file == nullptr || std::fgets(text, sizeof(text), file.get()) == nullptr) {
        return 0;
    }
    /* The name may hold anything but ends with the last parenthesis; state and parent follow. */
    const char *behind_name = std::strrchr(text, ')');
    int parent = 0;
    return behind_name != nullptr && std::sscanf(behind_name, ") %*c %d", &parent) == 1 ? parent
                                                                                        : 0;
}

pid_t child_of(pid_t parent) {
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(::opendir("/proc"), ::closedir);
    while (const dirent *entry = directory == nullptr ? nullptr : ::readdir(directory.get())) {
        const auto process = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        if (process > 0 && parent_of(process) == parent) {
            return process;
        }
    }
    return 0;
}

}  // namespace kze::engine
