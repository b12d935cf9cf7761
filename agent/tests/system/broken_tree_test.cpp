/* Missing and broken parts give their defined lines in the log, and the host survives them. */
#include <filesystem>

#include "agent/tests/system/agent_tree.h"

namespace kze_test {
namespace {

class broken_tree : public system_test {
  protected:
    /* The plug-in's init fails; the host goes on without it and says so. */
    void up_without_the_plug_in() const {
        const command_result result = tree.ctl({"up"});
        EXPECT_EQ(result.status, failed) << result.out;
        EXPECT_NE(result.err.find("kzemdlmgr ("), std::string::npos) << result.err;
        EXPECT_NE(result.err.find(tree.path("var/log/host/host.log").string()), std::string::npos)
            << result.err;
        tree.see("load lib fiailed", 0, "host");
        expect_host_alive();
    }

    void expect_host_alive() const {
        EXPECT_NE(tree.pid_of("bin/kze_agent"), 0);
        tree.ask({"log-level"});
    }

    void replace(const std::string &below, const std::string &with) const {
        std::filesystem::remove(tree.path(below));
        std::filesystem::copy_file(with, tree.path(below));
    }
};

TEST_F(broken_tree, without_the_engines_client_library_the_plug_in_is_not_initialised) {
    tree.remove("lib/libqdccl.so");
    up_without_the_plug_in();
    tree.see(
        "dll open (" + tree.path("bin").string() + "/../lib/libqdccl.so) failed with error code", 0,
        "host");
    tree.see("load lib qdccl failed", 0, "host");
}

TEST_F(broken_tree, a_client_library_without_one_function_is_refused_by_that_functions_name) {
    replace("lib/libqdccl.so", KZE_QDCCL_WITHOUT_STATE);
    up_without_the_plug_in();
    tree.see("dll get (x_client_get_collect_state) addr failed with error code", 0, "host");
}

TEST_F(broken_tree, a_client_library_that_is_no_library_is_refused) {
    tree.write("lib/libqdccl.so", "this is no library\n");
    up_without_the_plug_in();
    tree.see("libqdccl.so) failed with error code", 0, "host");
}

TEST_F(broken_tree, without_the_gateway_library_the_plug_in_is_not_initialised) {
    tree.remove("agent_plugins/libkzethtgw.3.so");
    up_without_the_plug_in();
    tree.see("libkzethtgw.3.so) failed with error code", 0, "host");
    tree.see("load lib kzethtgw failed", 0, "host");
}

TEST_F(broken_tree, a_mended_library_is_found_by_a_reload) {
    std::filesystem::rename(tree.path("lib/libqdccl.so"), tree.path("lib/away"));
    up_without_the_plug_in();
    std::filesystem::rename(tree.path("lib/away"), tree.path("lib/libqdccl.so"));
    tree.must({"reload"});
    tree.see("x_client status 1");
    EXPECT_EQ(tree.ctl({"status"}).status, done);
}

TEST_F(broken_tree, a_host_without_the_plug_ins_library_goes_on) {
    tree.remove("agent_plugins/libkzemdlmgr.so");
    const command_result result = tree.ctl({"up"});
    EXPECT_EQ(result.status, failed);
    EXPECT_NE(result.err.find("kzemdlmgr ("), std::string::npos) << result.err;
    expect_host_alive();
}

TEST_F(broken_tree, without_the_configuration_client_the_worker_ends_and_the_host_survives) {
    tree.remove("lib/libkzacfgc.so");
    const command_result result = tree.ctl({"up"});
    EXPECT_EQ(result.status, failed) << result.out;
    EXPECT_NE(result.err.find("worker has ended"), std::string::npos) << result.err;
    tree.see("failed to initialize cfgc");
    tree.see("kzemm_config init failed");
    tree.see("init cfgc failed");
    tree.see("start kzemm_work failed");
    tree.see("kzemm_work stopped");
    expect_host_alive();
}

TEST_F(broken_tree, a_settings_file_that_is_missing_means_the_defaults) {
    std::filesystem::remove(tree.path("config/kzemdlmgr.ini"));
    tree.must({"up"});
    tree.see("load ini file failed, path: ");
    tree.see("load ini failed, use default");
    tree.see("qd_client_start, max_try_times: 10");
    tree.see("x_client status 1");
}

TEST_F(broken_tree, settings_that_make_no_sense_fall_back_to_their_defaults) {
    tree.write("config/kzemdlmgr.ini",
               "[basic]\ntask_queue_size = 1000\noffline_retry_times = abc\n"
               "[time]\nupgrade_check_interval = -1\nqd_start_max_interval = 200\n");
    tree.must({"up"});
    tree.see("task_queue_size is beyond range, use default");
    tree.see("offline_retry_times is beyond range, use default");
    tree.see("upgrade_check_interval is beyond range, use default");
    tree.see("queue_size: 10, retry_times: 10, check_interval: 120, max_intreval: 200");
    tree.see("x_client status 1");
}

TEST_F(broken_tree, a_settings_file_of_rubbish_does_no_harm) {
    tree.write("config/kzemdlmgr.ini", std::string("\x00\xFF[[[basic\n====\n\n[", 16));
    tree.must({"up"});
    tree.see("qd_client_start, max_try_times: 10");
    tree.see("x_client status 1");
}

TEST_F(broken_tree, a_missing_store_is_read_again_until_it_is_there) {
    tree.must({"up"});
    tree.see("cfgc GetValue failed, module: /mgr/base_collect, key: /adv_threats, err: ");
    tree.see("get from cfgc failed: switch[/adv_threats] module[/mgr/base_collect]");
    std::int64_t from = tree.see("get cfgc failed");
    from = tree.see("get cfgc failed", from);
    tree.switch_on();
    tree.see("set engine switch success, stop timer", from);
}

TEST_F(broken_tree, a_broken_store_is_read_again_until_it_is_mended) {
    tree.switch_on();
    std::string store;
    for (const auto &entry : std::filesystem::directory_iterator(tree.path("config/kzacfgc"))) {
        if (entry.path().extension() == ".json") {
            store = "config/kzacfgc/" + entry.path().filename().string();
        }
    }
    ASSERT_NE(store, "");
    const std::string good = tree.read(store);
    tree.write(store, good.substr(0, good.size() / 2));
    tree.must({"up"});
    std::int64_t from = tree.see("get cfgc failed");
    EXPECT_EQ(tree.capabilities_on().size(), 0U);
    from = tree.see("get cfgc failed", from);
    EXPECT_EQ(tree.ctl({"config", "list"}).status, failed);
    tree.write(store, good);
    tree.see("set engine switch success, stop timer", from);
    expect_host_alive();
}

TEST_F(broken_tree, a_value_of_another_type_counts_as_unreadable) {
    tree.must({"config", "set", "--type", "boolean", "/mgr/base_collect", "/adv_threats", "true"});
    tree.must({"up"});
    tree.see("value type: 1 error");
    std::int64_t from = tree.see("get cfgc failed");
    tree.switch_on();
    tree.see("set engine switch success, stop timer", from);
}

TEST_F(broken_tree, a_journal_that_is_no_journal_is_put_aside_and_data_is_kept) {
    tree.write("var/lib/gateway.db",
               "this is no journal, but it is here, and long enough to be read");
    tree.switch_on();
    tree.must({"up"});
    EXPECT_NE(tree.wait_record("origin", 0), 0);
}

}  // namespace
}  // namespace kze_test
