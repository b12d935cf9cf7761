#include "agent/engine/left_requests.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "kzautil.h"
#include "platform/common/descriptor.h"
#include "vrdbase.h"

namespace kze::engine {
namespace {

using nlohmann::json;

/* Invalid, with errno, when it can't be opened and locked. */
descriptor open_locked(const std::string &path, int flags) {
    descriptor file(::open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK, 0600));
    while (file.valid() && ::flock(file.get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            return descriptor();
        }
    }
    return file;
}

std::string read_all(int file) {
    std::string text;
    std::array<char, 4096> part;
    for (ssize_t got = 1; got > 0;) {
        got = ::pread(file, part.data(), part.size(), static_cast<off_t>(text.size()));
        text.append(part.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    return text;
}

}  // namespace

std::string leave_request(const std::string &path, const json &request) {
    kze_dirutils_mkdir(path.substr(0, path.rfind('/')).c_str(), 0700);
    const descriptor file = open_locked(path, O_WRONLY | O_CREAT | O_APPEND);
    /* On a line of its own, also behind one that a full disk has cut. */
    const std::string line = "\n" + request.dump() + "\n";
    if (!file.valid() ||
        ::write(file.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        return "can't write " + path + ": " + std::strerror(errno);
    }
    return {};
}

void take_left_requests(const std::string &path, const std::function<void(const json &)> &apply) {
    const descriptor file = open_locked(path, O_RDWR);
    std::istringstream lines(file.valid() ? read_all(file.get()) : std::string());
    for (std::string line; std::getline(lines, line);) {
        const json request = json::parse(line, nullptr, false);
        if (request.is_object()) {
            apply(request);
        } else if (!line.empty()) {
            kze_log(2, "%s: a line is no request, left out", path.c_str());
        }
    }
    if (file.valid() && ::ftruncate(file.get(), 0) != 0) {
        kze_log(1, "%s can't be emptied: %s", path.c_str(), std::strerror(errno));
    }
}

}  // namespace kze::engine
