#include "tests/fakes/plugin_test.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/fakes/fake_bus.h"
#include "tests/fakes/fake_central_config.h"
#include "tests/fakes/fake_engine.h"
#include "tests/fakes/fake_gateway.h"
#include "tests/fakes/fake_ipc.h"
#include "tests/fakes/fake_libraries.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/file_faults.h"
#include "tests/fakes/inspectors.h"
#include "tests/fakes/message_faults.h"
#include "tests/fakes/thread_watch.h"
#include "tests/fakes/threads.h"
#include "tests/fakes/virtual_time.h"

void reset_fakes() {
    kzemm_loader_inspector::reset();
    kzemm_config_inspector::reset();
    kzemm_invoke_inspector::reset();
    fakes::reset_virtual_time();
    fakes::reset_engine();
    fakes::reset_gateway();
    fakes::reset_bus();
    fakes::reset_config();
    fakes::reset_libraries();
    fakes::reset_ipc();
    fakes::reset_faults();
    fakes::reset_file_faults();
    fakes::reset_thread_watch();
    fakes::reset_messages();
    fakes::reset_threads();
    fakes::reset_log();
    fakes::forget_hooks();
    fakes::clear_journal();
}

void plugin_test::SetUp() {
    std::string name = (std::filesystem::temp_directory_path() / "kze_unit_XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory = name;
    for (const char *const folder : {"bin", "lib", "config"}) {
        std::filesystem::create_directory(in_tree(folder));
    }
    setenv("KZE_AGENT_HOME", in_tree("bin").c_str(), 1);
    reset_fakes();
}

void plugin_test::TearDown() {
    if (kzemm_config_inspector::cfgc_initialized()) {
        kzemm_config::get_instance().uninit();
    }
    if (kzemm_loader_inspector::qdccl_handle() != nullptr ||
        kzemm_loader_inspector::kzethtgw_handle() != nullptr) {
        kzemm_loader::get_instance().uninit();
    }
    kzemm_invoke::GetInstance().UnInitialize();  // which the plug-in itself never does
    EXPECT_EQ(fakes::bus_frame_references(), 0) << "the bus's object was not released";
    EXPECT_EQ(fakes::open_timers().size(), 0U) << "timers are left open";
    EXPECT_EQ(fakes::unjoined_threads(), 0U) << "threads are left";
    EXPECT_EQ(fakes::unjoined_kze_threads(), 0U) << "task threads are left";
    EXPECT_THAT(fakes::take_left_ipc_handles(), testing::IsEmpty())
        << "endpoints or addresses are left open";
    EXPECT_EQ(fakes::open_messages(), 0) << "messages were not released";
    EXPECT_EQ(fakes::outstanding_engine_buffers(), 0U) << "engine buffers were not given back";
    EXPECT_EQ(fakes::open_handles(), 0U) << "libraries are left open";
    EXPECT_EQ(fakes::config_open().values, 0U) << "configuration values were not freed";
    EXPECT_EQ(fakes::config_open().clients, 0U) << "configuration clients were not deleted";
    EXPECT_EQ(fakes::config_open().tables, 0U) << "operation tables were not destroyed";
    reset_fakes();
    unsetenv("KZE_AGENT_HOME");
    std::filesystem::remove_all(directory);
}

void plugin_test::write_file(const std::string &path, const std::string &text) const {
    std::ofstream(in_tree(path)) << text;
}

std::string plugin_test::read_file(const std::string &path) const {
    std::ostringstream text;
    text << std::ifstream(in_tree(path)).rdbuf();
    return text.str();
}

void plugin_test::install_vrd_services(int status) const {
    write_file("bin/vrd_services", "#!/bin/sh\necho \"$@\" >> '" + in_tree("service_calls") +
                                       "'\nexit " + std::to_string(status) + "\n");
    chmod(in_tree("bin/vrd_services").c_str(), 0700);
}

std::string plugin_test::service_calls() const {
    return read_file("service_calls");
}

void plugin_test::install_bus() const {
    std::filesystem::create_directory(in_tree("agent_plugins"));
    write_file("agent_plugins/libkzamb.1.so", "");
}

void plugin_test::load_libraries() {
    ASSERT_EQ(kzemm_loader::get_instance().init(), 0);
    fakes::clear_journal();
}

void plugin_test::init_config() {
    ASSERT_EQ(kzemm_config::get_instance().init(), 0);
    fakes::clear_journal();
}
