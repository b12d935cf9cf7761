#include "platform/common/paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace kze_paths {

namespace {

int make_one(const std::string &path, mode_t mode) {
    if (mkdir(path.c_str(), mode) == 0) {
        return 0;
    }
    const int error = errno;
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        return 0;
    }
    return error;
}

}  // namespace

std::string program_directory() {
    const char *home = secure_getenv("KZE_AGENT_HOME");
    if (home != nullptr && *home != '\0') {
        return home;
    }
    char link[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", link, sizeof link);
    if (length <= 0 || length == sizeof link) {
        return {};
    }
    const std::string program(link, static_cast<size_t>(length));
    return program.substr(0, program.rfind('/'));
}

std::string expand(const std::string &path) {
    if (path != "@" && path.compare(0, 2, "@/") != 0) {
        return path;
    }
    const std::string directory = program_directory();
    return directory.empty() ? directory : directory + path.substr(1);
}

int make_directories(const std::string &path, mode_t mode) {
    // Only what is missing is made: an ancestor that can't be looked into may well lead to it.
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) {
        return S_ISDIR(status.st_mode) ? 0 : EEXIST;
    }
    const mode_t parent_mode = mode | S_IWUSR | S_IXUSR;
    for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
        if (path.find_first_not_of('/', end) == std::string::npos) {
            break;
        }
        const int error = make_one(path.substr(0, end), parent_mode);
        if (error != 0) {
            return error;
        }
    }
    return make_one(path, mode);
}

}  // namespace kze_paths
