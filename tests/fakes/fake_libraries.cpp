#include "tests/fakes/fake_libraries.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>

#include "kzautil.h"
#include "tests/fakes/fake_bus.h"
#include "tests/fakes/fake_central_config.h"
#include "tests/fakes/fake_engine.h"
#include "tests/fakes/fake_gateway.h"
#include "tests/fakes/journal.h"

namespace {

struct library {
    fakes::symbols exported;
    int open_code = 0;
    bool open_keeps_handle = false;
    int close_code = 0;
    std::map<std::string, int> missing_symbols;
    std::map<std::string, int> found_codes;
    unsigned int opened = 0;
    std::vector<std::string> looked_up;
};

// What a handle points to.
struct handle {
    std::string file;
};

struct libraries_state {
    std::map<std::string, library> libraries;
    std::map<void *, std::unique_ptr<handle>> handles;
    std::vector<std::string> paths;
};

std::mutex s_mutex;
libraries_state s_state;

// The library of a handle; null, with a failure, for one that is not open.
library *find_open(void *opened, const char *function) {
    const auto found = s_state.handles.find(opened);
    if (found == s_state.handles.end()) {
        ADD_FAILURE() << function << " on a handle that is not open";
        return nullptr;
    }
    return &s_state.libraries[found->second->file];
}

}  // namespace

namespace fakes {

void add_library(const std::string &file, const symbols &exported) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.libraries[file].exported = exported;
}

void library_missing(const std::string &file, int code) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.libraries[file].open_code = code;
}

void library_open_keeps_handle(const std::string &file, int code) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.libraries[file].open_code = code;
    s_state.libraries[file].open_keeps_handle = true;
}

void symbol_missing(const std::string &file, const std::string &symbol, int code) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.libraries[file].missing_symbols[symbol] = code;
}

void symbol_found_with_code(const std::string &file, const std::string &symbol, int code) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.libraries[file].found_codes[symbol] = code;
}

void library_close_fails(const std::string &file, int code) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.libraries[file].close_code = code;
}

void library_works(const std::string &file) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    library &changed = s_state.libraries[file];
    changed.open_code = 0;
    changed.open_keeps_handle = false;
    changed.close_code = 0;
    changed.missing_symbols.clear();
    changed.found_codes.clear();
}

unsigned int times_opened(const std::string &file) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.libraries[file].opened;
}

unsigned int open_handles(const std::string &file) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    unsigned int number = 0;
    for (const auto &each : s_state.handles) {
        number += each.second->file == file ? 1 : 0;
    }
    return number;
}

unsigned int open_handles() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return static_cast<unsigned int>(s_state.handles.size());
}

std::vector<std::string> opened_paths() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.paths;
}

std::vector<std::string> looked_up(const std::string &file) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.libraries[file].looked_up;
}

void forget_one_handle(const std::string &file) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    for (auto each = s_state.handles.begin(); each != s_state.handles.end(); ++each) {
        if (each->second->file == file) {
            s_state.handles.erase(each);
            return;
        }
    }
    ADD_FAILURE() << "no handle of " << file << " is open";
}

void reset_libraries() {
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_state = libraries_state();
    }
    add_library(engine_library, engine_symbols());
    add_library(gateway_library, gateway_symbols());
    add_library(config_library, config_symbols());
    add_library(bus_library, bus_symbols());
}

}  // namespace fakes

int kze_dll_open(const char *path, void **handle_out) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.paths.emplace_back(path);
    std::string file = path;
    file.erase(0, file.rfind('/') + 1);
    const auto found = s_state.libraries.find(file);
    const int code = found == s_state.libraries.end() ? 2 : found->second.open_code;
    if (code != 0) {
        if (found == s_state.libraries.end() || !found->second.open_keeps_handle) {
            *handle_out = nullptr;
        }
        return code;
    }
    fakes::note(fakes::what::library, "open " + file);
    ++found->second.opened;
    auto opened = std::make_unique<handle>(handle{file});
    *handle_out = opened.get();
    s_state.handles[*handle_out] = std::move(opened);
    return 0;
}

int kze_dll_get_addr(void *opened, const char *name, void **address_out) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    *address_out = nullptr;
    library *const found = find_open(opened, "kze_dll_get_addr");
    if (found == nullptr) {
        return 22;
    }
    found->looked_up.emplace_back(name);
    const auto missing = found->missing_symbols.find(name);
    if (missing != found->missing_symbols.end()) {
        return missing->second;
    }
    const auto exported = found->exported.find(name);
    if (exported == found->exported.end()) {
        return 2;
    }
    *address_out = exported->second;
    const auto code = found->found_codes.find(name);
    return code == found->found_codes.end() ? 0 : code->second;
}

int kze_dll_close(void *opened) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    library *const found = find_open(opened, "kze_dll_close");
    if (found == nullptr) {
        return 22;
    }
    fakes::note(fakes::what::library, "close " + s_state.handles[opened]->file);
    const int code = found->close_code;
    s_state.handles.erase(opened);
    return code;
}
