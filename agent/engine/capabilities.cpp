#include "agent/engine/capabilities.h"

#include <string>

namespace kze::engine {
namespace {

constexpr capability custom_ioa = {ENGINE_CUSTOM_IOA, "custom_ioa"};

bool is_named(const capability &one, std::string_view name) {
    return name == one.name || name == std::to_string(one.type);
}

}  // namespace

const char *capability_name(int type) {
    for (const capability &one : capabilities) {
        if (one.type == type) {
            return one.name;
        }
    }
    return nullptr;
}

const char *rules_name(int type) {
    return type == custom_ioa.type ? custom_ioa.name : capability_name(type);
}

std::optional<int> rules_type(std::string_view name) {
    for (const capability &one : capabilities) {
        if (is_named(one, name)) {
            return one.type;
        }
    }
    return is_named(custom_ioa, name) ? std::optional<int>(custom_ioa.type) : std::nullopt;
}

const char *versioned_name(int type) {
    return type >= ENGINE_IOC && type <= ENGINE_MD ? capability_name(type) : nullptr;
}

}  // namespace kze::engine
