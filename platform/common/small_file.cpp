#include "platform/common/small_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/common/descriptor.h"

namespace kze_small_file {

bool read(const std::string &path, size_t limit, std::string &out) {
    const kze::descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file.valid() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return false;
    }
    char buffer[4096];
    out.clear();
    while (out.size() <= limit) {
        const ssize_t length = ::read(file.get(), buffer, sizeof buffer);
        if (length == 0) {
            return true;
        }
        if (length < 0 && errno != EINTR) {
            return false;
        }
        out.append(buffer, length < 0 ? 0 : static_cast<size_t>(length));
    }
    return false;
}

}  // namespace kze_small_file
