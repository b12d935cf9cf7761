#include <gmock/gmock.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>

#include "tests/component/plugin/stage.h"
#include "tests/fakes/inspectors.h"
#include "tests/support/process_state.h"
#include "tests/support/temp_tree.h"
#include "upgrade/kzemm_upgrade.h"

using kze_test::eventually;
using testing::HasSubstr;

namespace {

class upgrade_life_test : public testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directories(tree.path("hlthreat_rule"));
        std::filesystem::create_directories(tree.path("qd_agent/bin"));
        std::filesystem::copy(TEST_CLIENT, tree.path("lib/libqdccl.so"));
        std::filesystem::copy(TEST_GATEWAY, tree.path("agent_plugins/libkzethtgw.3.so"));
        install_tar();
        plugin_stage::stage::instance().reset();
        ASSERT_EQ(kzemm_loader::get_instance().init(), 0);
        kzemm_config_inspector::reset();
        kzemm_config_inspector::upgrade_check_interval() = 1;
    }
    void TearDown() override {
        kzemm_loader::get_instance().uninit();
        EXPECT_EQ(plugin_stage::stage::instance().buffers_out(), 0U);
        setenv("PATH", path_before.c_str(), 1);
    }

    // A tar that tells that it runs, waits for one line through the gate and succeeds.
    void install_tar() {
        tree.write("tools/tar", "#!/bin/sh\n: > '" + tree.path("tar_runs").string() +
                                    "'\nread line < '" + tree.path("gate").string() + "'\n");
        chmod(tree.path("tools/tar").c_str(), 0700);
        ASSERT_EQ(mkfifo(tree.path("gate").c_str(), 0600), 0);
        setenv("PATH", (tree.path("tools").string() + ":" + path_before).c_str(), 1);
    }
    bool await_tar() const {
        return eventually([this] { return std::filesystem::exists(tree.path("tar_runs")); });
    }

    // The log of the upgrade thread.
    std::string log() const {
        std::string text;
        std::error_code none_yet;
        for (const auto &each : std::filesystem::directory_iterator(
                 tree.path("var/log/agent/kzemdlmgr/upgrade"), none_yet)) {
            text += tree.read("var/log/agent/kzemdlmgr/upgrade/" + each.path().filename().string());
        }
        return text;
    }
    size_t times_in_log(const std::string &text) const {
        const std::string all = log();
        size_t result = 0;
        for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) {
            ++result;
        }
        return result;
    }

    kze_test::temp_tree tree;

  private:
    const std::string path_before = getenv("PATH");
};

}  // namespace

TEST_F(upgrade_life_test, uninit_waits_for_the_running_pass_and_then_ends) {
    tree.write("hlthreat_rule/ioa_linux_en.tgz", "a pack");
    kzemm_config_inspector::ioa_switch() = true;
    auto relay = std::make_unique<CUpgradeRelay>();
    ASSERT_EQ(relay->init(), 0);
    ASSERT_TRUE(await_tar());

    std::atomic<bool> gate_opened{false};
    std::future<int> ended = std::async(std::launch::async, [&] {
        const int result = relay->uninit();
        EXPECT_TRUE(gate_opened) << "uninit didn't wait";
        return result;
    });
    // A uninit that doesn't wait is over by then.
    EXPECT_EQ(ended.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    gate_opened = true;
    tree.write("gate", "go on\n");
    EXPECT_EQ(ended.get(), 0);

    EXPECT_EQ(kzemm_upgrade_inspector::upgrade_timer(*relay), nullptr);
    EXPECT_THAT(log(), HasSubstr("unzip file ("));
    EXPECT_THAT(log(), HasSubstr("update ioa rule failed !"));
    EXPECT_THAT(log(), HasSubstr("upgrade thread loop stop"));
    EXPECT_EQ(times_in_log("start upgrade, ioc switch: 0, ioa switch: 1, md switch: 0"), 1U);
}

TEST_F(upgrade_life_test, lives_one_after_another_leave_nothing) {
    size_t threads = 0;
    size_t descriptors = 0;
    for (size_t round = 1; round <= 3; ++round) {
        CUpgradeRelay relay;
        ASSERT_EQ(relay.init(), 0);
        ASSERT_TRUE(
            eventually([&] { return times_in_log("start upgrade, ioc switch: 0") >= round; }));
        EXPECT_EQ(relay.uninit(), 0);
        if (round == 1) {
            // The first life opens what stays open, the files of the log.
            threads = kze_test::thread_count();
            descriptors = kze_test::descriptor_count();
        }
        EXPECT_TRUE(kze_test::threads_become(threads));
        EXPECT_EQ(kze_test::descriptor_count(), descriptors);
    }
    EXPECT_EQ(times_in_log("upgrade thread loop stop"), 3U);
}
