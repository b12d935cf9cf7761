#include "agent/host/log_level.h"

#include <cstring>
#include <memory>

#include "agent/common/tree.h"
#include "kzautil.h"
#include "vrdbase.h"

namespace kze::host {

std::string change_log_level(int level) {
    error_output_set_level(level);
    kze_log(3, "log level is now %d", level);
    const std::string path = tree_path("@/../config/log.ini");
    const bool exists = is_file_exist(path.c_str()) != 0;
    const std::unique_ptr<void, decltype(&kze_ini_file_free)> ini(
        kze_ini_file_load(exists ? path.c_str() : nullptr), &kze_ini_file_free);
    if (ini == nullptr) {
        return "the level is changed until the next start, but " + path + " can't be read";
    }
    kze_ini_file_set(ini.get(), "log", "level", std::to_string(level).c_str());
    const int result = kze_ini_file_save(ini.get(), path.c_str(), 0);
    if (result != 0) {
        return "the level is changed until the next start, but " + path +
               " can't be written: " + std::strerror(result);
    }
    return {};
}

}  // namespace kze::host
