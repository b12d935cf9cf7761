// The plug-in killed in the middle of an update of the custom rules.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <memory>

#include "kzautil.h"
#include "tests/support/child_process.h"
#include "tests/support/temp_tree.h"

namespace {

constexpr char rule_file[] = "config/kzectmrule.ini";
constexpr int more_steps_than_there_are = 1000;

class plugin_kill_test : public testing::Test {
  protected:
    void SetUp() override {
        const std::pair<const char *, const char *> modules[] = {
            {"load_client", "lib/libqdccl.so"},
            {"load_gateway", "agent_plugins/libkzethtgw.3.so"},
            {"test_central_config", "lib/libkzacfgc.so"}};
        for (const auto &[module, place] : modules) {
            std::filesystem::create_symlink(std::string(MODULE_DIRECTORY) + "/" + module + ".so",
                                            tree.path(place));
        }
        tree.write(rule_file, "; kept by hand\n[ioa]\nruleid = old\n");
    }

    // The identifier in the file; empty when there is none.
    std::string stored() const {
        const std::unique_ptr<void, decltype(&kze_ini_file_free)> ini(
            kze_ini_file_load(tree.path(rule_file).c_str()), &kze_ini_file_free);
        const char *const id =
            ini == nullptr ? nullptr : kze_ini_file_get(ini.get(), "ioa", "ruleid");
        return id == nullptr ? "" : id;
    }

    kze_test::temp_tree tree;
};

TEST_F(plugin_kill_test, at_any_step_of_an_update_leaves_the_old_identifier_or_the_new_one) {
    int kills_with_old = 0;
    int kills_with_new = 0;
    int status = -1;
    for (int at = 0; at < more_steps_than_there_are && status != 0; ++at) {
        tree.write(rule_file, "; kept by hand\n[ioa]\nruleid = old\n");
        kze_test::child_process plugin({RULE_UPDATE, std::to_string(at)});
        status = plugin.wait();
        if (status == 0) {
            break;
        }
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
            << "at step " << at << ": " << plugin.read_errors();
        const std::string id = stored();
        EXPECT_TRUE(id == "old" || id == "new")
            << "\"" << id << "\" at step " << at << ": " << tree.read(rule_file);
        EXPECT_NE(tree.read(rule_file).find("; kept by hand"), std::string::npos) << at;
        kills_with_old += id == "old" ? 1 : 0;
        kills_with_new += id == "new" ? 1 : 0;
    }
    EXPECT_EQ(status, 0) << "the update has no end";
    EXPECT_EQ(stored(), "new");
    // Each call on the way, and both sides of the rename.
    EXPECT_GE(kills_with_old, 7);
    EXPECT_GE(kills_with_new, 1);
    printf("killed at %d steps before the new identifier was in the file, and %d behind it\n",
           kills_with_old, kills_with_new);
}

}  // namespace
