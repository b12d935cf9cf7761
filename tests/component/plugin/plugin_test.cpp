#include "tests/component/plugin/plugin_test.h"

#include <dlfcn.h>
#if SANITIZED
#include <sanitizer/common_interface_defs.h>
#endif

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/process_state.h"
#include "vrdbase.h"
#include "vrdcl_ev.h"

namespace {

// The event library opens two descriptors at the first loop of a process, and keeps them.
void let_event_library_open_its_own() {
    pthread_t thread = 0;
    const auto nothing = [](void *) -> void * { return nullptr; };
    ASSERT_EQ(cl_ev_create_isolated_thread(&thread, nullptr, nothing, nullptr), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
}

// A sanitizer starts a process that finds names for it when it first needs one, and keeps two pipes
// to it.
void let_sanitizer_open_its_own() {
#if SANITIZED
    char name[256] = {};
    __sanitizer_symbolize_pc(__builtin_return_address(0), "%f", name, sizeof(name));
#endif
}

}  // namespace

// Reads what is new in a file, and returns where that ends.
size_t log_reader::read(const std::filesystem::path &from, size_t position) {
    std::ifstream file(from, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(position));
    std::string line;
    while (std::getline(file, line) && !file.eof()) {  // without its end it is still being written
        position += line.size() + 1;
        std::istringstream fields(line);
        std::string date, time, source;
        log_record record = {};
        fields >> date >> time >> record.level >> record.thread >> source;
        fields.get();
        std::getline(fields, record.text);
        known.push_back(record);
    }
    return position;
}

const std::vector<log_record> &log_reader::records() {
    std::error_code absent;
    const auto size = std::filesystem::file_size(path, absent);
    if (!absent && size < read_so_far) {  // it was rotated
        std::filesystem::path rotated = path;
        read(rotated.replace_extension(".1.log"), read_so_far);
        read_so_far = 0;
    }
    read_so_far = read(path, read_so_far);
    return known;
}

testing::AssertionResult has_in_order(const std::vector<log_record> &records,
                                      const std::vector<std::string> &texts) {
    auto next = texts.begin();
    for (const log_record &each : records) {
        if (next != texts.end() && each.text == *next) {
            ++next;
        }
    }
    if (next == texts.end()) {
        return testing::AssertionSuccess();
    }
    auto failure = testing::AssertionFailure() << "not found in its place: \"" << *next << "\" in";
    for (const log_record &each : records) {
        failure << "\n  " << each.level << " " << each.text;
    }
    return failure;
}

bool log_reader::has(const std::string &level, const std::string &text) {
    const auto &all = records();
    return std::any_of(all.begin(), all.end(), [&](const log_record &each) {
        return each.level == level && each.text == text;
    });
}

size_t log_reader::count(const std::string &text) {
    const auto &all = records();
    return static_cast<size_t>(std::count_if(
        all.begin(), all.end(), [&](const log_record &each) { return each.text == text; }));
}

std::string log_reader::last_error() {
    const auto &all = records();
    const auto error = std::find_if(all.rbegin(), all.rend(),
                                    [](const log_record &each) { return each.level == "ERROR"; });
    return error == all.rend() ? std::string() : error->text;
}

bool log_reader::await(const std::string &text, size_t times) {
    return kze_test::eventually([&] { return count(text) >= times; });
}

size_t open_descriptors() {
    size_t number = 0;
    for (const auto &each : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(each.path(), gone).string();
        number += !gone && target.find(".log") == std::string::npos ? 1 : 0;
    }
    return number;
}

void plugin_test::SetUp() {
    stage.reset();
    stage.set_config("/mgr/base_collect", "/adv_threats", "true");
    install("test_client", client_place);
    install("test_gateway", gateway_place);
    install("test_central_config", config_place);

    // The log libraries know the host's log by its directory at the first record of the process.
    // With this, each test of one process has its own.
    autolog_init("@/../var/log/host", 5);
    host = std::make_unique<log_reader>(tree.path("var/log/host/host.log").string());
    worker =
        std::make_unique<log_reader>(tree.path("var/log/agent/kzemdlmgr/kzemdlmgr.log").string());

    let_event_library_open_its_own();
    let_sanitizer_open_its_own();
    descriptors_before = open_descriptors();
    threads_before = kze_test::thread_count();
    plugin = dlopen(PLUGIN_FILE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(plugin, nullptr) << dlerror();
    init_function = reinterpret_cast<int (*)()>(dlsym(plugin, "kzemdlmgr_init"));
    uninit_function = reinterpret_cast<int (*)()>(dlsym(plugin, "kzemdlmgr_uninit"));
    ASSERT_NE(init_function, nullptr);
    ASSERT_NE(uninit_function, nullptr);
}

void plugin_test::TearDown() {
    ASSERT_NE(plugin, nullptr);
    ASSERT_EQ(dlclose(plugin), 0);
    EXPECT_EQ(dlopen(PLUGIN_FILE, RTLD_NOW | RTLD_NOLOAD), nullptr)
        << "the plug-in stays loaded, and with it its state";
    EXPECT_EQ(open_descriptors(), descriptors_before) << "descriptors are left";
    EXPECT_TRUE(kze_test::threads_become(threads_before));
    EXPECT_EQ(stage.buffers_out(), 0U) << "buffers of the engine are left";
    EXPECT_EQ(stage.config_objects(), 0) << "objects of central configuration are left";
    EXPECT_EQ(stage.client_thread(), 0) << "the engine client was not stopped";
    autolog_init(nullptr, 5);
}

void plugin_test::install(const std::string &module, const std::string &place) {
    remove(place);
    std::filesystem::create_symlink(std::string(MODULE_DIRECTORY) + "/" + module + ".so",
                                    tree.path(place));
}

void plugin_test::remove(const std::string &place) {
    std::filesystem::remove(tree.path(place));
}

std::string plugin_test::expanded(const std::string &place) const {
    return (tree.path("bin/..") / place).string();
}

void plugin_test::start() {
    const size_t starts = worker_log().count("work loop start");
    ASSERT_EQ(init(), 0) << host_log().last_error();
    ASSERT_TRUE(worker_log().await("work loop start", starts + 1)) << "the worker didn't come up";
}

void plugin_test::stop() {
    const size_t stops = worker_log().count("kzemm_work stopped");
    EXPECT_EQ(uninit(), 0);
    EXPECT_EQ(worker_log().count("kzemm_work stopped"), stops + 1);
}
