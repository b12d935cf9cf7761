#include "agent/common/tree.h"

#include <climits>

#include "kzautil.h"

namespace kze {

std::string tree_path(const std::string &path) {
    char expanded[PATH_MAX] = "";
    if (kze_dirutils_path_transform(path.c_str(), expanded, sizeof(expanded)) != 0) {
        return {};
    }
    return expanded;
}

}  // namespace kze
