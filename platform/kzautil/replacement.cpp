#include "replacement.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

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
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return errno;
    const int error = fsync(fd) == 0 ? 0 : errno;
    close(fd);
    return error;
}

}  // namespace

Replacement::~Replacement() {
    if (fd_ < 0)
        return;
    unlink(path_.c_str());
    close(fd_);
}

int Replacement::open(const std::string &target, mode_t new_mode) {
    target_ = without_links(target);
    const size_t name = target_.rfind('/') + 1;
    path_ = target_.substr(0, name) + "." + target_.substr(name) + ".new";
    struct stat status {};
    if (stat(target_.c_str(), &status) != 0) {
        if (errno != ENOENT)
            return errno;
        status.st_mode = S_IFREG | new_mode;
    }
    if (!S_ISREG(status.st_mode))
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    const int error = open_locked();
    return error != 0 ? error : set_mode(status.st_mode);
}

int Replacement::open_locked() {
    while (true) {
        const int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd < 0)
            return errno;
        int result = 0;
        do
            result = flock(fd, LOCK_EX);
        while (result != 0 && errno == EINTR);
        // Whoever had the lock before has given the file its final name, or deleted it.
        struct stat opened {};
        struct stat named {};
        const bool ours = result == 0 && fstat(fd, &opened) == 0 &&
                          lstat(path_.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
                          opened.st_ino == named.st_ino;
        if (ours && ftruncate(fd, 0) == 0) {
            fd_ = fd;
            return 0;
        }
        const int error = errno;
        close(fd);
        if (result != 0 || ours)
            return error;
    }
}

int Replacement::set_mode(mode_t mode) {
    return fchmod(fd_, mode & permission_bits) == 0 ? 0 : errno;
}

int Replacement::write(const char *data, size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd_, data, size);
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
    if (fsync(fd_) != 0 || rename(path_.c_str(), target_.c_str()) != 0)
        return errno;
    close(fd_);
    fd_ = -1;
    return sync_directory(directory_of(target_));
}
