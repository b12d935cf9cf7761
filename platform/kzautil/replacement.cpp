#include "replacement.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>

namespace {

constexpr mode_t permission_bits = 0777;

std::string directory_of(const std::string &path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

std::string without_links(const std::string &path) {
    const std::unique_ptr<char, decltype(&free)> resolved(realpath(path.c_str(), nullptr), &free);
    return resolved == nullptr ? path : resolved.get();
}

int sync_directory(const std::string &path) {
    const Descriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory.valid() && fsync(directory.get()) == 0 ? 0 : errno;
}

int lock(int fd) {
    while (flock(fd, LOCK_EX) != 0)
        if (errno != EINTR)
            return errno;
    return 0;
}

bool is_named(int fd, const std::string &path) {
    struct stat opened {};
    struct stat named {};
    return fstat(fd, &opened) == 0 && lstat(path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

}  // namespace

Replacement::~Replacement() {
    if (file_.valid() && !path_.empty())
        unlink(path_.c_str());
}

int Replacement::open(const std::string &target, mode_t new_mode) {
    target_ = without_links(target);
    struct stat status {};
    if (stat(target_.c_str(), &status) != 0) {
        if (errno != ENOENT)
            return errno;
        status.st_mode = S_IFREG | new_mode;
    }
    if (!S_ISREG(status.st_mode))
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    mode_ = status.st_mode;
    const size_t name = target_.rfind('/') + 1;
    path_ = target_.substr(0, name) + "." + target_.substr(name) + ".new";
    return open_locked();
}

int Replacement::open_locked() {
    while (true) {
        Descriptor file(
            ::open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
        if (!file.valid())
            return errno;
        const int error = lock(file.get());
        if (error != 0)
            return error;
        // Whoever had the lock before has given the file its final name, or deleted it.
        if (!is_named(file.get(), path_))
            continue;
        file_ = std::move(file);
        return ftruncate(file_.get(), 0) == 0 ? 0 : errno;
    }
}

int Replacement::write(const char *data, size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(file_.get(), data, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return errno;
        data += written;
        size -= static_cast<size_t>(written);
    }
    return 0;
}

int Replacement::commit() {
    const mode_t mode = mode_ & permission_bits;
    // Its owner must be able to write what a crash may leave behind, or nobody could save again.
    if (fchmod(file_.get(), mode | S_IWUSR) != 0 || fsync(file_.get()) != 0 ||
        rename(path_.c_str(), target_.c_str()) != 0)
        return errno;
    path_.clear();
    if (fchmod(file_.get(), mode) != 0)
        return errno;
    return sync_directory(directory_of(target_));
}
