#include "agent/services/disposal_settings.h"

#include <strings.h>

#include <initializer_list>
#include <memory>

#include "agent/common/tree.h"
#include "kzautil.h"

namespace kze::services {
namespace {

constexpr char section[] = "disposal";
constexpr char key[] = "kill";

using ini_ptr = std::unique_ptr<void, decltype(&kze_ini_file_free)>;

bool is_one_of(const char *text, std::initializer_list<const char *> words) {
    for (const char *word : words) {
        if (::strcasecmp(text, word) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::optional<bool> disposal_kills(std::string &problem) {
    const std::string path = tree_path(disposal_settings_path);
    if (is_file_exist(path.c_str()) == 0) {
        return false;
    }
    const ini_ptr ini(kze_ini_file_load(path.c_str()), &kze_ini_file_free);
    if (ini == nullptr) {
        problem = path + " can't be read";
        return std::nullopt;
    }
    const char *text = kze_ini_file_get(ini.get(), section, key);
    if (text == nullptr || is_one_of(text, {"no", "false", "off", "0"})) {
        return false;
    }
    if (is_one_of(text, {"yes", "true", "on", "1"})) {
        return true;
    }
    problem = path + ": \"" + key + "\" in [" + section + "] is neither yes nor no";
    return std::nullopt;
}

bool set_disposal_kills(bool kill, std::string &problem) {
    const std::string path = tree_path(disposal_settings_path);
    const bool there = is_file_exist(path.c_str()) != 0;
    const ini_ptr ini(kze_ini_file_load(there ? path.c_str() : nullptr), &kze_ini_file_free);
    if (ini == nullptr || kze_ini_file_set(ini.get(), section, key, kill ? "yes" : "no") != 0 ||
        kze_ini_file_save(ini.get(), path.c_str(), 0) != 0) {
        problem = path + " can't be changed";
        return false;
    }
    return true;
}

}  // namespace kze::services
