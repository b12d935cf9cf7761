#include "agent/host/plugin.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <utility>

#include "agent/common/tree.h"
#include "kzautil.h"
#include "vrdbase.h"

namespace kze::host {
namespace {

bool is_plugin_name(const std::string &name) {
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_';
    });
}

}  // namespace

std::string plugin_status::state() const {
    if (initialised) {
        return "initialised";
    }
    if (!loaded) {
        return "not loaded";
    }
    return init_result == 0 ? "stopped" : "init failed";
}

plugin::plugin(std::string name) {
    status_.name = std::move(name);
}

plugin::plugin(plugin &&other) noexcept
    : status_(std::move(other.status_)),
      handle_(std::exchange(other.handle_, nullptr)),
      init_(other.init_),
      uninit_(other.uninit_) {}

plugin::~plugin() {
    if (handle_ != nullptr) {
        unload();
    }
}

void plugin::fail(const std::string &problem) {
    status_.problem = problem;
    kze_log(1, "plug-in %s: %s", status_.name.c_str(), problem.c_str());
}

bool plugin::look_up(const char *suffix, function &out) {
    const std::string symbol = status_.name + suffix;
    void *address = nullptr;
    if (kze_dll_get_addr(handle_, symbol.c_str(), &address) != 0) {
        fail("its library has no function " + symbol);
        return false;
    }
    out = reinterpret_cast<function>(address);
    return true;
}

bool plugin::load() {
    if (handle_ != nullptr) {
        return true;
    }
    const std::string path = tree_path("@/../agent_plugins/lib" + status_.name + ".so");
    const int result = kze_dll_open(path.c_str(), &handle_);
    if (result != 0) {
        fail(path + " can't be loaded: " + std::strerror(result));
        return false;
    }
    if (!look_up("_init", init_) || !look_up("_uninit", uninit_)) {
        kze_dll_close(handle_);
        handle_ = nullptr;
        return false;
    }
    status_.loaded = true;
    return true;
}

void plugin::start() {
    if (status_.initialised || !load()) {
        return;
    }
    kze_log(3, "plug-in %s: init", status_.name.c_str());
    status_.init_result = init_();
    status_.initialised = status_.init_result == 0;
    if (!status_.initialised) {
        fail("init returned " + std::to_string(status_.init_result));
        return;
    }
    status_.problem.clear();
    kze_log(3, "plug-in %s: initialised", status_.name.c_str());
}

void plugin::stop() {
    if (!status_.initialised) {
        return;
    }
    kze_log(3, "plug-in %s: uninit", status_.name.c_str());
    const int result = uninit_();
    status_.initialised = false;
    if (result != 0) {
        kze_log(2, "plug-in %s: uninit returned %d", status_.name.c_str(), result);
    }
}

void plugin::unload() {
    stop();
    if (handle_ != nullptr) {
        kze_dll_close(handle_);
        handle_ = nullptr;
        status_.loaded = false;
    }
}

std::vector<std::string> plugin_names(const std::string &list) {
    std::string words = list;
    std::replace(words.begin(), words.end(), ',', ' ');
    std::istringstream input(words);
    std::vector<std::string> names;
    for (std::string name; input >> name;) {
        if (!is_plugin_name(name)) {
            kze_log(1, "agent.ini: \"%s\" is no name of a plug-in", name.c_str());
        } else if (std::find(names.begin(), names.end(), name) == names.end()) {
            names.push_back(name);
        }
    }
    return names;
}

}  // namespace kze::host
