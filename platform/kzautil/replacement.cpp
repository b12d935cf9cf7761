#include "platform/kzautil/replacement.h"

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
    const kze::descriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory.valid() && fsync(directory.get()) == 0 ? 0 : errno;
}

int lock(int fd) {
    while (flock(fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

bool is_named(int fd, const std::string &path) {
    struct stat opened {};
    struct stat named {};
    return fstat(fd, &opened) == 0 && lstat(path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

}  // namespace

replacement::~replacement() {
    if (own_file.valid() && !path.empty()) {
        unlink(path.c_str());
    }
}

int replacement::open(const std::string &target, mode_t new_mode) {
    final_path = without_links(target);
    struct stat status {};
    if (stat(final_path.c_str(), &status) != 0) {
        if (errno != ENOENT) {
            return errno;
        }
        status.st_mode = S_IFREG | new_mode;
    }
    if (!S_ISREG(status.st_mode)) {
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }
    own_mode = status.st_mode;
    const size_t name = final_path.rfind('/') + 1;
    path = final_path.substr(0, name) + "." + final_path.substr(name) + ".new";
    return open_locked();
}

int replacement::open_locked() {
    while (true) {
        kze::descriptor file(
            ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
        if (!file.valid()) {
            return errno;
        }
        const int error = lock(file.get());
        if (error != 0) {
            return error;
        }
        // Whoever had the lock before has given the file its final name, or deleted it.
        if (!is_named(file.get(), path)) {
            continue;
        }
        own_file = std::move(file);
        return ftruncate(own_file.get(), 0) == 0 ? 0 : errno;
    }
}

int replacement::write(const char *data, size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(own_file.get(), data, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return errno;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return 0;
}

int replacement::commit() {
    const mode_t mode = own_mode & permission_bits;
    // Its owner must be able to write what a crash may leave behind, or nobody could save again.
    if (fchmod(own_file.get(), mode | S_IWUSR) != 0 || fsync(own_file.get()) != 0 ||
        rename(path.c_str(), final_path.c_str()) != 0) {
        return errno;
    }
    path.clear();
    if (fchmod(own_file.get(), mode) != 0) {
        return errno;
    }
    return sync_directory(directory_of(final_path));
}
