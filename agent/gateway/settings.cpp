#include "agent/gateway/settings.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>

#include "agent/common/tree.h"
#include "agent/gateway/gateway.h"
#include "kzautil.h"
#include "vrdbase.h"

namespace kze::gateway {
namespace {

struct rule {
    const char *key;
    std::uint64_t settings::*field;
    std::uint64_t lowest;
    std::uint64_t highest;
};

constexpr rule rules[] = {
    {"queue_bytes", &settings::queue_bytes, 1U << 10, 1024U << 20},
    {"queue_records", &settings::queue_records, 1, 10000000},
    {"record_bytes", &settings::record_bytes, 1, 256U << 20},
    {"journal_bytes", &settings::journal_bytes, 1U << 10, std::uint64_t{1} << 40},
    {"commit_ms", &settings::commit_ms, 0, 100},
    {"retry_ms", &settings::retry_ms, 10, 60000},
    {"drain_ms", &settings::drain_ms, 0, 60000},
};

bool parse_number(const char *text, std::uint64_t &out) {
    if (text[0] < '0' || text[0] > '9') {
        return false;
    }
    char *end = nullptr;
    errno = 0;
    out = std::strtoull(text, &end, 10);
    return errno == 0 && *end == '\0';
}

void apply(const rule &wanted, const char *text, settings &to) {
    std::uint64_t value = 0;
    if (!parse_number(text, value) || value < wanted.lowest || value > wanted.highest) {
        kze_log(2, "gateway.ini: %s = %s is not from %llu to %llu, the default holds", wanted.key,
                text, static_cast<unsigned long long>(wanted.lowest),
                static_cast<unsigned long long>(wanted.highest));
        return;
    }
    to.*wanted.field = value;
}

}  // namespace

settings load_settings() {
    settings loaded;
    const std::string path = tree_path(GATEWAY_SETTINGS_PATH);
    if (is_file_exist(path.c_str()) == 0) {
        return loaded;
    }
    const std::unique_ptr<void, decltype(&kze_ini_file_free)> ini(kze_ini_file_load(path.c_str()),
                                                                  &kze_ini_file_free);
    if (ini == nullptr) {
        kze_log(2, "%s can't be read, the defaults hold", path.c_str());
        return loaded;
    }
    for (const rule &wanted : rules) {
        if (const char *text = kze_ini_file_get(ini.get(), "gateway", wanted.key)) {
            apply(wanted, text, loaded);
        }
    }
    return loaded;
}

}  // namespace kze::gateway
