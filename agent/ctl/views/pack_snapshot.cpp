/* What there is to see of rule packs: what lies there, what the engine tells, how often the plug-in
 * looks. */
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "agent/common/json_text.h"
#include "agent/common/tree.h"
#include "agent/ctl/commands/pack_commands.h"
#include "agent/ctl/core/ask.h"
#include "kzautil.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

constexpr unsigned int engine_seconds = 3;
constexpr char plugin_settings[] = "@/../config/kzemdlmgr.ini";
/* Of the plug-in's own reading of its settings, in seconds. */
constexpr unsigned long shortest_interval = 60;
constexpr unsigned long longest_interval = 300;
constexpr unsigned long default_interval = 120;

constexpr std::int64_t second_us = 1000000;

struct named_kind {
    rule_kind kind;
    const char *name; /* the engine's */
};
constexpr named_kind named_kinds[] = {
    {rule_kind::ioc, "ioc"}, {rule_kind::ioa, "ioa"}, {rule_kind::md, "md"}};

std::int64_t in_us(const timespec &time) {
    return time.tv_sec * second_us + time.tv_nsec / 1000;
}

std::int64_t interval_us() {
    const std::string path = tree_path(plugin_settings);
    unsigned long seconds = default_interval;
    if (is_file_exist(path.c_str()) != 0) {
        const std::unique_ptr<void, decltype(&kze_ini_file_free)> ini(
            kze_ini_file_load(path.c_str()), &kze_ini_file_free);
        const char *text = ini == nullptr
                               ? nullptr
                               : kze_ini_file_get(ini.get(), "time", "upgrade_check_interval");
        seconds = text == nullptr ? default_interval : std::strtoul(text, nullptr, 10);
    }
    const bool is_possible = seconds >= shortest_interval && seconds <= longest_interval;
    return static_cast<std::int64_t>(is_possible ? seconds : default_interval) * second_us;
}

std::vector<rule_directory_file> files_in(const std::string &path) {
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(::opendir(path.c_str()), &::closedir);
    std::vector<rule_directory_file> found;
    while (const dirent *entry = directory == nullptr ? nullptr : ::readdir(directory.get())) {
        struct stat info {};
        if (entry->d_name[0] != '.' && ::lstat((path + "/" + entry->d_name).c_str(), &info) == 0) {
            found.push_back({entry->d_name, info.st_ino, in_us(info.st_mtim), in_us(info.st_ctim)});
        }
    }
    return found;
}

/* Nothing for a file from elsewhere. */
std::optional<engine_load> read_load(const json &told, const std::filesystem::path &directory) {
    const std::filesystem::path path(told.value("file", std::string()));
    const auto kind = number_in(told.at("type"), static_cast<int>(rule_kind::ioc),
                                static_cast<int>(rule_kind::md));
    std::error_code error;
    if (!kind || std::filesystem::weakly_canonical(path.parent_path(), error) != directory) {
        return std::nullopt;
    }
    engine_load load;
    load.time_us = told.value("time_us", std::int64_t{0});
    load.kind = static_cast<rule_kind>(*kind);
    load.file = path.filename().string();
    load.before = told.value("before", std::string());
    load.after = told.value("after", std::string());
    if (told.contains("code")) {
        load.code = told.at("code").get<int>();
    }
    if (told.contains("callback")) {
        load.callback = told.at("callback").get<int>();
    }
    return load;
}

void read_status(const json &status, const std::string &path, pack_snapshot &into) {
    into.has_engine = true;
    into.engine_since_us = into.time_us - status.value("uptime_s", std::int64_t{0}) * second_us;
    const json versions = status.value("versions", json::object());
    const json capabilities = status.value("capabilities", json::object());
    for (const auto &[kind, name] : named_kinds) {
        if (versions.contains(name)) {
            into.versions[kind] = versions.value(name, std::string());
        }
        if (!capabilities.value(name, false)) {
            into.off.insert(kind);
        }
    }
    std::error_code error;
    const std::filesystem::path directory = std::filesystem::weakly_canonical(path, error);
    for (const json &told : status.value("loads", json::array())) {
        if (std::optional<engine_load> load = read_load(told, directory)) {
            into.loads.push_back(std::move(*load));
        }
    }
}

}  // namespace

pack_snapshot look_at_packs() {
    const std::string path = rule_directory_path();
    pack_snapshot now;
    now.time_us =
        std::chrono::system_clock::now().time_since_epoch() / std::chrono::microseconds(1);
    now.interval_us = interval_us();
    now.files = files_in(path);
    try {
        if (const auto status =
                ask_if_running(engine_endpoint, {{"op", "status"}}, engine_seconds)) {
            read_status(*status, path, now);
        }
    } catch (const failure &) {
        /* It doesn't answer: nothing is known of it. */
    }
    return now;
}

}  // namespace kze::ctl
