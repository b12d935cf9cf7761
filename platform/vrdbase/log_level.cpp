// The level up to which records are written.
#include <atomic>
#include <cerrno>
#include <exception>
#include <string>

#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>

#include "platform/common/paths.h"
#include "platform/common/small_file.h"
#include "vrdbase.h"

namespace {

constexpr int default_level = 3;
constexpr int max_level = 4;
constexpr size_t max_file_size = 64 * 1024;

std::atomic<int> current_level{default_level};

int configured_level() {
    CSimpleIniCaseA settings;
    std::string data;
    const std::string path = kze_paths::expand("@/../config/log.ini");
    if (!kze_small_file::read(path, max_file_size, data) || settings.LoadData(data) < 0) {
        return default_level;
    }
    const std::string text = settings.GetValue("log", "level", "");
    const bool is_level = text.size() == 1 && text[0] >= '0' && text[0] <= '0' + max_level;
    return is_level ? text[0] - '0' : default_level;
}

__attribute__((constructor)) void load_level() {
    error_output_reload_level();
}

}  // namespace

int error_output_check(int level) {
    return level <= current_level.load(std::memory_order_relaxed);
}

int error_output_level(void) {
    return current_level.load(std::memory_order_relaxed);
}

int error_output_set_level(int level) {
    if (level < 0 || level > max_level) {
        return -1;
    }
    current_level.store(level, std::memory_order_relaxed);
    return 0;
}

void error_output_reload_level(void) {
    const int saved_errno = errno;
    try {
        current_level.store(configured_level(), std::memory_order_relaxed);
    } catch (const std::exception &) {
        // No memory to read the file: the level stays.
    }
    errno = saved_errno;
}
