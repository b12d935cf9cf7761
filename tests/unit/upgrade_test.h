/*
 * The fixture for the upgrade relay: a relay on the test's own thread, a rule directory with real
 * packs, and short words for what the tests say often.
 */
#ifndef KZEMDLMGR_TESTS_UNIT_UPGRADE_TEST_H
#define KZEMDLMGR_TESTS_UNIT_UPGRADE_TEST_H

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/fakes/fake_engine.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/file_faults.h"
#include "tests/fakes/inspectors.h"
#include "tests/fakes/plugin_test.h"
#include "tests/fakes/virtual_time.h"
#include "upgrade/kzemm_upgrade.h"

constexpr fakes::microseconds second = 1000000;

class upgrade_test : public plugin_test {
  protected:
    using fields = kzemm_upgrade_inspector;
    using config = kzemm_config_inspector;
    using state = kzemm_upgrade_state;
    using line = testing::Matcher<const fakes::record &>;
    using lines = std::vector<line>;
    using names = std::vector<std::string>;

    void SetUp() override {
        plugin_test::SetUp();
        load_libraries();
        std::filesystem::create_directories(in_tree("hlthreat_rule"));
        std::filesystem::create_directories(in_tree("qd_agent/bin"));
        state::s_debug_adv_threat = false;
        state::s_md_tgz_path.clear();
        state::s_md_cfg_path.clear();
        state::s_md_last_result = 0;
        state::s_md_retry_times = 0;
        relay = std::make_unique<CUpgradeRelay>();
    }

    void TearDown() override {
        relay.reset();
        EXPECT_EQ(descriptors_into_tree(), 0U) << "descriptors are left open";
        plugin_test::TearDown();
    }

    // The rule directory and what lies in it, as the relay names them.
    std::string rules() const { return in_tree("bin/../hlthreat_rule/"); }
    std::string rule(const std::string &name) const { return rules() + "/" + name; }
    std::string flag() const { return in_tree("bin/../config/ioc_full_tag"); }

    void write_rule(const std::string &name, const std::string &text = "x") const {
        write_file("hlthreat_rule/" + name, text);
    }
    bool has_rule(const std::string &name) const { return exists("hlthreat_rule/" + name); }
    bool exists(const std::string &path) const {
        return std::filesystem::exists(std::filesystem::symlink_status(in_tree(path)));
    }
    // The names in a directory of the tree, sorted.
    names entries(const std::string &path = "hlthreat_rule") const {
        names result;
        for (const auto &each : std::filesystem::directory_iterator(in_tree(path))) {
            result.push_back(each.path().filename());
        }
        std::sort(result.begin(), result.end());
        return result;
    }
    // In the order that the directory gives.
    names in_directory_order(const std::string &part) const {
        names result;
        for (const auto &each : std::filesystem::directory_iterator(in_tree("hlthreat_rule"))) {
            if (each.path().filename().string().find(part) != std::string::npos) {
                result.push_back(each.path().filename());
            }
        }
        return result;
    }

    // Puts a real pack with one file into the rule directory.
    void drop_pack(const std::string &pack, const std::string &file,
                   const std::string &text = "{}") const {
        const std::string staging = in_tree("staging");
        std::filesystem::create_directory(staging);
        write_file("staging/" + file, text);
        const std::string command = "tar -czf '" + in_tree("hlthreat_rule/" + pack) + "' -C '" +
                                    staging + "' '" + file + "'";
        ASSERT_EQ(std::system(command.c_str()), 0);
        std::filesystem::remove_all(staging);
    }
    // A pack of IOC rules by its name without the extension.
    void drop_ioc(const std::string &name) const { drop_pack(name + ".tgz", name + ".json"); }

    std::string tar_command(const std::string &pack) const {
        return "tar -zxvf '" + rule(pack) + "' -C '" + rules() + "' ";
    }

    static void append(lines &to, const lines &more) {
        to.insert(to.end(), more.begin(), more.end());
    }
    void append_unpacked(lines &to, const std::string &pack) const {
        to.push_back(fakes::at(3, "create process by cmd = " + tar_command(pack)));
        to.push_back(fakes::at(3, "unzip file (" + rule(pack) + ") successfully!"));
    }
    // The lines of a pack that can't be unpacked, but for what the caller writes about it.
    void append_not_unpacked(lines &to, const std::string &pack) const {
        const std::string run = "create process by cmd = " + tar_command(pack);
        to.push_back(fakes::at(3, run));
        to.push_back(fakes::at(2, "create process for unziping tgz failed!"));
        for (int each = 1; each <= 3; ++each) {
            to.push_back(fakes::at(3, run));
            to.push_back(fakes::at(
                2, "retry create process failed! retry time: " + std::to_string(each) + "."));
        }
        to.push_back(fakes::at(2, "retry_createprocess for unziping tgz failed!"));
    }
    static void append_deleted(lines &to, const std::string &path) {
        to.push_back(fakes::at(3, "delete file (" + path + ")!"));
    }

    static void forget() {
        fakes::clear_journal();
        fakes::forget_engine_calls();
    }
    static size_t updates() {
        return fakes::engine_calls("x_client_engine_update").size() +
               fakes::engine_calls("x_client_engine_update_async").size();
    }
    static size_t queries() {
        return fakes::engine_calls("x_client_engine_query_version_str").size();
    }

    std::unique_ptr<CUpgradeRelay> relay;

  private:
    // A sanitizer may open others of its own.
    size_t descriptors_into_tree() const {
        size_t result = 0;
        for (const auto &each : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            const std::string target = std::filesystem::read_symlink(each.path(), gone);
            result += target.rfind(tree(), 0) == 0 ? 1 : 0;
        }
        return result;
    }
};

#endif
