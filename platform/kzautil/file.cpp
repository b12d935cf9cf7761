#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>

#include "kzautil.h"
#include "platform/common/descriptor.h"
#include "platform/kzautil/replacement.h"

namespace {

int copy_content(int from, replacement &to) {
    char buffer[64 * 1024];
    while (true) {
        const ssize_t length = read(from, buffer, sizeof buffer);
        if (length == 0) {
            return 0;
        }
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            return errno;
        }
        const int error = to.write(buffer, static_cast<size_t>(length));
        if (error != 0) {
            return error;
        }
    }
}

int copy_from(int from, const char *to) {
    struct stat status {};
    if (fstat(from, &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }
    replacement copy;
    int error = copy.open(to, 0600);
    copy.set_mode(status.st_mode);
    if (error == 0) {
        error = copy_content(from, copy);
    }
    return error == 0 ? copy.commit() : error;
}

}  // namespace

int kze_file_copy(const char *from, const char *to) {
    if (from == nullptr || to == nullptr) {
        return EINVAL;
    }
    const kze::descriptor file(open(from, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.valid()) {
        return errno;
    }
    try {
        return copy_from(file.get(), to);
    } catch (const std::exception &) {
        return ENOMEM;
    }
}

int kze_file_rename(const char *from, const char *to) {
    if (from == nullptr || to == nullptr) {
        return EINVAL;
    }
    if (rename(from, to) == 0) {
        return 0;
    }
    if (errno != EXDEV) {
        return errno;
    }
    const int error = kze_file_copy(from, to);
    if (error != 0) {
        return error;
    }
    return unlink(from) == 0 ? 0 : errno;
}
