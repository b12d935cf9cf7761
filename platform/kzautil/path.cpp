#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <string>

#include "kzautil.h"
#include "platform/common/paths.h"

int kze_dirutils_path_transform(const char *path, char *out, unsigned int size) {
    if (out == nullptr || size == 0) {
        return -1;
    }
    try {
        const std::string result = path == nullptr ? std::string() : kze_paths::expand(path);
        const bool known = path != nullptr && (*path == '\0' || !result.empty());
        if (known && result.size() < size) {
            memcpy(out, result.c_str(), result.size() + 1);
            return 0;
        }
    } catch (const std::exception &) {
        // No memory: a failure like the others.
    }
    *out = '\0';
    return -1;
}

int kze_dirutils_mkdir(const char *path, unsigned int mode) {
    if (path == nullptr) {
        return EINVAL;
    }
    try {
        return kze_paths::make_directories(path, static_cast<mode_t>(mode));
    } catch (const std::exception &) {
        return ENOMEM;
    }
}

int kze_path_is_exist_u(const char *path) {
    struct stat status {};
    return path != nullptr && stat(path, &status) == 0;
}

int is_file_exist(const char *path) {
    return kze_path_is_exist_u(path);
}

int kze_path_del_file_u(const char *path) {
    if (path == nullptr) {
        return EINVAL;
    }
    return unlink(path) == 0 ? 0 : errno;
}
