// The configuration object and its local side: the settings file and the file of the rule
// identifier, both real files in the test's own tree.

#include "config/kzemm_config.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>

#include "kzautil.h"
#include "tests/fakes/fake_central_config.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/inspectors.h"
#include "tests/fakes/plugin_test.h"

using fakes::at;
using fakes::log_lines;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using inspector = kzemm_config_inspector;

constexpr char settings_file[] = "config/kzemdlmgr.ini";
constexpr char rule_file[] = "config/kzectmrule.ini";
constexpr int last_switch_number = 300;  // that is looked at

kzemm_config &config() {
    return kzemm_config::get_instance();
}

size_t open_descriptors() {
    size_t number = 0;
    for (const auto &each : std::filesystem::directory_iterator("/proc/self/fd")) {
        number += each.is_symlink() ? 1 : 0;
    }
    return number;
}

class kzemm_config_test : public plugin_test {
  protected:
    void SetUp() override {
        plugin_test::SetUp();
        descriptors = open_descriptors();
    }

    void TearDown() override {
        plugin_test::TearDown();
        EXPECT_EQ(open_descriptors(), descriptors) << "descriptors are left";
    }

    // The path as the plug-in names it.
    std::string expanded(const std::string &file) const { return in_tree("bin/../" + file); }

    // What a rule file of the tree holds; "(none)" without the key.
    std::string stored_rule_id() const {
        void *const ini = kze_ini_file_load(in_tree(rule_file).c_str());
        const char *const id = kze_ini_file_get(ini, "ioa", "ruleid");
        const std::string result = id == nullptr ? "(none)" : id;
        kze_ini_file_free(ini);
        return result;
    }

  private:
    size_t descriptors = 0;
};

void expect_settings(unsigned int queue_size, unsigned int retry_times, unsigned int check_interval,
                     unsigned int max_interval) {
    EXPECT_EQ(config().get_task_queue_size(), queue_size);
    EXPECT_EQ(config().get_offline_retry_times(), retry_times);
    EXPECT_EQ(config().get_upgrade_check_interval(), check_interval);
    EXPECT_EQ(config().get_qd_start_max_intreval(), max_interval);
}

void expect_default_settings() {
    expect_settings(10, 10, 120, 300);
}

const auto default_settings_line =
    at(3, "queue_size: 10, retry_times: 10, check_interval: 120, max_intreval: 300");

// ---- the object ----

TEST_F(kzemm_config_test, begins_with_the_defaults_and_everything_off) {
    expect_default_settings();
    EXPECT_EQ(config().get_collect_report_cycle(), 120U);
    for (int number = 0; number <= last_switch_number; ++number) {
        EXPECT_FALSE(config().get_switch(static_cast<EMM_SWITCH_TYPE>(number))) << number;
    }
    EXPECT_EQ(inspector::ctmioa_rule_id(), "");
    EXPECT_FALSE(inspector::initialized());
    EXPECT_FALSE(inspector::cfgc_initialized());
    EXPECT_FALSE(inspector::has_library());
    EXPECT_FALSE(inspector::has_table());
    EXPECT_FALSE(inspector::has_client());
}

TEST_F(kzemm_config_test, is_one_object) {
    EXPECT_EQ(&kzemm_config::get_instance(), &kzemm_config::get_instance());
}

// ---- init and uninit ----

TEST_F(kzemm_config_test, makes_the_client_then_reads_both_files) {
    write_file(settings_file, "[basic]\ntask_queue_size = 50\n");
    write_file(rule_file, "[ioa]\nruleid = 7\n");
    EXPECT_EQ(config().init(), 0);
    EXPECT_TRUE(inspector::initialized());
    EXPECT_TRUE(inspector::cfgc_initialized());
    EXPECT_EQ(config().get_task_queue_size(), 50U);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "7");
    EXPECT_THAT(
        log_lines(),
        ElementsAre(
            at(3, "init cfgc"), at(3, "init cfgc succeed"),
            at(3, "queue_size: 50, retry_times: 10, check_interval: 120, max_intreval: 300"),
            at(3, "init kzemm_config succeed")));
}

TEST_F(kzemm_config_test, only_logs_at_a_second_init) {
    init_config();
    write_file(settings_file, "[basic]\ntask_queue_size = 50\n");
    EXPECT_EQ(config().init(), 0);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "kzemm_config is initialized")));
    EXPECT_THAT(fakes::config_clients(), SizeIs(1));
    expect_default_settings();
}

TEST_F(kzemm_config_test, fails_without_a_central_client_although_both_files_are_fine) {
    write_file(settings_file, "[basic]\ntask_queue_size = 50\n");
    write_file(rule_file, "[ioa]\nruleid = 7\n");
    fakes::config_refuses_client();
    EXPECT_EQ(config().init(), -1);
    EXPECT_FALSE(inspector::initialized());
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "init cfgc"), at(1, "failed to create cfgc client"),
                                         at(1, "init cfgc failed")));
    expect_default_settings();
    EXPECT_EQ(inspector::ctmioa_rule_id(), "");
}

TEST_F(kzemm_config_test, makes_no_rule_file_when_there_is_no_central_client) {
    fakes::config_refuses_client();
    EXPECT_EQ(config().init(), -1);
    EXPECT_FALSE(std::filesystem::exists(in_tree(rule_file)));
}

TEST_F(kzemm_config_test, goes_on_without_a_settings_file) {
    write_file(rule_file, "[ioa]\nruleid = 7\n");
    EXPECT_EQ(config().init(), 0);
    EXPECT_TRUE(inspector::initialized());
    expect_default_settings();
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(3, "init cfgc"), at(3, "init cfgc succeed"),
                    at(2, "load ini file failed, path: " + expanded(settings_file)),
                    at(2, "load ini failed, use default"), at(3, "init kzemm_config succeed")));
}

TEST_F(kzemm_config_test, goes_on_with_an_unreadable_rule_file) {
    write_file(settings_file, "");
    std::filesystem::create_directory(in_tree(rule_file));
    EXPECT_EQ(config().init(), 0);
    EXPECT_TRUE(inspector::initialized());
    EXPECT_EQ(inspector::ctmioa_rule_id(), "");
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "init cfgc"), at(3, "init cfgc succeed"), default_settings_line,
                            at(0, "ini file load failed"), at(2, "load ctm rule failed"),
                            at(3, "init kzemm_config succeed")));
}

TEST_F(kzemm_config_test, goes_on_with_a_rule_file_without_the_key) {
    write_file(settings_file, "");
    write_file(rule_file, "[ioa]\nother = 7\n");
    EXPECT_EQ(config().init(), 0);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "");
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "init cfgc"), at(3, "init cfgc succeed"), default_settings_line,
                            at(1, "get custom ioa ruleid failed"), at(2, "load ctm rule failed"),
                            at(3, "init kzemm_config succeed")));
}

TEST_F(kzemm_config_test, goes_on_when_the_rule_file_cannot_be_created) {
    write_file(settings_file, "");
    fakes::ini_save_fails(ENOSPC);
    EXPECT_EQ(config().init(), 0);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "");
    EXPECT_FALSE(std::filesystem::exists(in_tree(rule_file)));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "init cfgc"), at(3, "init cfgc succeed"), default_settings_line,
                            at(1, "save file err"), at(2, "load ctm rule failed"),
                            at(3, "init kzemm_config succeed")));
}

TEST_F(kzemm_config_test, creates_the_rule_file_at_the_first_start) {
    write_file(settings_file, "");
    EXPECT_EQ(config().init(), 0);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "0");
    EXPECT_EQ(stored_rule_id(), "0");
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "init cfgc"), at(3, "init cfgc succeed"), default_settings_line,
                            at(3, "init kzemm_config succeed")));
}

TEST_F(kzemm_config_test, releases_the_client_at_uninit) {
    init_config();
    config().uninit();
    EXPECT_FALSE(inspector::initialized());
    EXPECT_FALSE(inspector::cfgc_initialized());
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "uninit cfgc succeed"), at(3, "uninit kzemm_config")));
}

TEST_F(kzemm_config_test, takes_an_uninit_without_an_init) {
    config().uninit();
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "uninit cfgc succeed"), at(3, "uninit kzemm_config")));
}

TEST_F(kzemm_config_test, reads_again_at_a_later_init_over_the_earlier_values) {
    write_file(settings_file,
               "[basic]\ntask_queue_size = 50\noffline_retry_times = 20\n"
               "[time]\nupgrade_check_interval = 200\nqd_start_max_interval = 1000\n");
    ASSERT_EQ(config().init(), 0);
    config().uninit();
    write_file(settings_file, "[basic]\ntask_queue_size = 60\n");
    ASSERT_EQ(config().init(), 0);
    expect_settings(60, 20, 200, 1000);
}

TEST_F(kzemm_config_test, keeps_the_earlier_values_when_the_settings_file_is_gone) {
    write_file(settings_file, "[basic]\ntask_queue_size = 50\n");
    ASSERT_EQ(config().init(), 0);
    config().uninit();
    std::filesystem::remove(in_tree(settings_file));
    ASSERT_EQ(config().init(), 0);
    EXPECT_EQ(config().get_task_queue_size(), 50U);
}

TEST_F(kzemm_config_test, goes_back_to_the_default_and_not_to_the_earlier_value) {
    write_file(settings_file, "[basic]\ntask_queue_size = 50\n");
    ASSERT_EQ(config().init(), 0);
    config().uninit();
    write_file(settings_file, "[basic]\ntask_queue_size = 101\n");
    ASSERT_EQ(config().init(), 0);
    EXPECT_EQ(config().get_task_queue_size(), 10U);
}

// ---- the settings file ----

TEST_F(kzemm_config_test, fails_to_load_a_missing_settings_file) {
    EXPECT_EQ(config().load(), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(2, "load ini file failed, path: " + expanded(settings_file))));
    expect_default_settings();
}

TEST_F(kzemm_config_test, fails_to_load_what_is_no_file) {
    std::filesystem::create_directory(in_tree(settings_file));
    EXPECT_EQ(config().load(), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(2, "load ini file failed, path: " + expanded(settings_file))));
}

TEST_F(kzemm_config_test, tests_no_range_when_the_settings_file_is_missing) {
    inspector::task_queue_size() = 1;
    EXPECT_EQ(config().load(), -1);
    EXPECT_EQ(config().get_task_queue_size(), 1U);
}

TEST_F(kzemm_config_test, loads_all_four_settings) {
    write_file(settings_file,
               "[basic]\ntask_queue_size = 50\noffline_retry_times = 20\n"
               "[time]\nupgrade_check_interval = 200\nqd_start_max_interval = 1000\n");
    EXPECT_EQ(config().load(), 0);
    expect_settings(50, 20, 200, 1000);
    EXPECT_THAT(
        log_lines(),
        ElementsAre(
            at(3, "queue_size: 50, retry_times: 20, check_interval: 200, max_intreval: 1000")));
}

TEST_F(kzemm_config_test, leaves_each_setting_alone_that_an_empty_file_does_not_name) {
    write_file(settings_file, "");
    inspector::task_queue_size() = 11;
    inspector::offline_retry_times() = 12;
    inspector::upgrade_check_interval() = 121;
    inspector::qd_start_max_interval() = 301;
    EXPECT_EQ(config().load(), 0);
    expect_settings(11, 12, 121, 301);
}

TEST_F(kzemm_config_test, takes_no_setting_from_another_section) {
    write_file(settings_file,
               "[time]\ntask_queue_size = 50\noffline_retry_times = 20\n"
               "[basic]\nupgrade_check_interval = 200\nqd_start_max_interval = 1000\n");
    EXPECT_EQ(config().load(), 0);
    expect_default_settings();
}

TEST_F(kzemm_config_test, reads_the_interval_under_its_key_and_not_under_the_getters_spelling) {
    write_file(settings_file, "[time]\nqd_start_max_intreval = 1000\n");
    EXPECT_EQ(config().load(), 0);
    expect_default_settings();
}

TEST_F(kzemm_config_test, warns_of_each_value_out_of_range_in_order) {
    write_file(settings_file,
               "[time]\nqd_start_max_interval = 1801\nupgrade_check_interval = 59\n"
               "[basic]\noffline_retry_times = 31\ntask_queue_size = 4\n");
    EXPECT_EQ(config().load(), 0);
    expect_default_settings();
    EXPECT_THAT(log_lines(),
                ElementsAre(at(2, "task_queue_size is beyond range, use default"),
                            at(2, "offline_retry_times is beyond range, use default"),
                            at(2, "upgrade_check_interval is beyond range, use default"),
                            at(2, "qd_start_max_intreval is beyond range, use default"),
                            default_settings_line));
}

struct setting {
    const char *name;
    const char *section;
    const char *key;
    unsigned int &(*field)();
    unsigned int min;
    unsigned int max;
    unsigned int dflt;
    const char *warning;
};

const setting settings[] = {
    {"task_queue_size", "basic", "task_queue_size", inspector::task_queue_size, 5, 100, 10,
     "task_queue_size is beyond range, use default"},
    {"offline_retry_times", "basic", "offline_retry_times", inspector::offline_retry_times, 5, 30,
     10, "offline_retry_times is beyond range, use default"},
    {"upgrade_check_interval", "time", "upgrade_check_interval", inspector::upgrade_check_interval,
     60, 300, 120, "upgrade_check_interval is beyond range, use default"},
    {"qd_start_max_interval", "time", "qd_start_max_interval", inspector::qd_start_max_interval,
     180, 1800, 300, "qd_start_max_intreval is beyond range, use default"},
};

class kzemm_config_setting_test : public kzemm_config_test,
                                  public testing::WithParamInterface<setting> {
  protected:
    // Loads a file with this value, the other settings at values that are good and no defaults.
    void load_value(const std::string &text) {
        inspector::task_queue_size() = 99;
        inspector::offline_retry_times() = 29;
        inspector::upgrade_check_interval() = 299;
        inspector::qd_start_max_interval() = 1799;
        write_file(settings_file, std::string("[") + GetParam().section + "]\n" + GetParam().key +
                                      " = " + text + "\n");
        fakes::clear_journal();
        EXPECT_EQ(config().load(), 0);
    }

    void expect_value(unsigned int value) const {
        for (const setting &each : settings) {
            const bool tested = each.field == GetParam().field;
            EXPECT_EQ(each.field(), tested ? value : each.max - 1) << each.name;
        }
    }

    void expect_stays(const std::string &text, unsigned int value) {
        SCOPED_TRACE(text);
        load_value(text);
        expect_value(value);
        EXPECT_THAT(log_lines(), ElementsAre(at(3, testing::StartsWith("queue_size: "))));
    }

    void expect_default(const std::string &text) {
        SCOPED_TRACE(text);
        load_value(text);
        expect_value(GetParam().dflt);
        EXPECT_THAT(log_lines(), ElementsAre(at(2, GetParam().warning),
                                             at(3, testing::StartsWith("queue_size: "))));
    }
};

INSTANTIATE_TEST_SUITE_P(, kzemm_config_setting_test, testing::ValuesIn(settings),
                         [](const auto &each) { return each.param.name; });

TEST_P(kzemm_config_setting_test, stays_within_its_range) {
    expect_stays(std::to_string(GetParam().min), GetParam().min);
    expect_stays(std::to_string(GetParam().min + 1), GetParam().min + 1);
    expect_stays(std::to_string(GetParam().max - 1), GetParam().max - 1);
    expect_stays(std::to_string(GetParam().max), GetParam().max);
}

TEST_P(kzemm_config_setting_test, goes_to_its_default_outside_and_no_other_setting_does) {
    expect_default(std::to_string(GetParam().min - 1));
    expect_default(std::to_string(GetParam().max + 1));
    expect_default("0");
    expect_default("4294967295");
}

TEST_P(kzemm_config_setting_test, takes_a_negative_number_as_a_very_large_one) {
    expect_default("-1");
}

TEST_P(kzemm_config_setting_test, takes_what_is_no_number_as_0) {
    expect_default("abc");
    expect_default("");
}

TEST_P(kzemm_config_setting_test, does_not_look_at_what_follows_the_digits) {
    expect_stays(std::to_string(GetParam().max) + "abc", GetParam().max);
    expect_stays(std::to_string(GetParam().min) + " 7", GetParam().min);
    expect_stays(std::to_string(GetParam().min) + ".9", GetParam().min);
}

TEST_P(kzemm_config_setting_test, is_a_decimal_number) {
    expect_stays("0" + std::to_string(GetParam().min), GetParam().min);
    expect_default("0x40");
}

TEST_F(kzemm_config_test, takes_12abc_as_12_and_abc_as_the_default) {
    write_file(settings_file, "[basic]\ntask_queue_size = 12abc\noffline_retry_times = abc\n");
    EXPECT_EQ(config().load(), 0);
    expect_settings(12, 10, 120, 300);
    EXPECT_THAT(
        log_lines(),
        ElementsAre(
            at(2, "offline_retry_times is beyond range, use default"),
            at(3, "queue_size: 12, retry_times: 10, check_interval: 120, max_intreval: 300")));
}

TEST_F(kzemm_config_test, keeps_good_values_when_their_range_is_checked) {
    inspector::task_queue_size() = 5;
    inspector::offline_retry_times() = 30;
    inspector::upgrade_check_interval() = 60;
    inspector::qd_start_max_interval() = 1800;
    config().check_content();
    expect_settings(5, 30, 60, 1800);
    EXPECT_THAT(log_lines(), IsEmpty());
}

// ---- the rule identifier ----

TEST_F(kzemm_config_test, reads_the_rule_identifier_as_it_stands) {
    write_file(rule_file, "[ioa]\nruleid = 2024-05 b_7\n");
    EXPECT_EQ(config().load_ctm_cfg_rule(), 0);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "2024-05 b_7");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_config_test, takes_an_empty_rule_identifier) {
    write_file(rule_file, "[ioa]\nruleid =\n");
    EXPECT_EQ(config().load_ctm_cfg_rule(), 0);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_config_test, creates_a_missing_rule_file_with_0) {
    EXPECT_EQ(config().load_ctm_cfg_rule(), 0);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "0");
    EXPECT_EQ(stored_rule_id(), "0");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_config_test, keeps_the_identifier_when_the_file_has_no_key) {
    write_file(rule_file, "[ioa]\nruleid = 7\n");
    ASSERT_EQ(config().load_ctm_cfg_rule(), 0);
    write_file(rule_file, "[other]\nruleid = 8\n");
    EXPECT_EQ(config().load_ctm_cfg_rule(), -1);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "7");
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "get custom ioa ruleid failed")));
}

TEST_F(kzemm_config_test, fails_with_a_rule_file_that_cannot_be_read) {
    std::filesystem::create_directory(in_tree(rule_file));
    EXPECT_EQ(config().load_ctm_cfg_rule(), -1);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "");
    EXPECT_THAT(log_lines(), ElementsAre(at(0, "ini file load failed")));
}

TEST_F(kzemm_config_test, fails_when_no_empty_document_can_be_made) {
    fakes::ini_load_of_empty_fails();
    EXPECT_EQ(config().load_ctm_cfg_rule(), -1);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "");
    EXPECT_FALSE(std::filesystem::exists(in_tree(rule_file)));
    EXPECT_THAT(log_lines(), ElementsAre(at(0, "ini file load failed")));
}

TEST_F(kzemm_config_test, answers_what_saving_the_new_rule_file_returned) {
    fakes::ini_save_fails(ENOSPC);
    EXPECT_EQ(config().load_ctm_cfg_rule(), ENOSPC);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "");
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "save file err")));
}

TEST_F(kzemm_config_test, cannot_create_the_rule_file_without_its_folder) {
    std::filesystem::remove(in_tree("config"));
    EXPECT_NE(config().load_ctm_cfg_rule(), 0);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "");
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "save file err")));
}

TEST_F(kzemm_config_test, stores_a_new_identifier_in_the_file_and_then_here) {
    write_file(rule_file, "; a comment\n[ioa]\nruleid = 7\nother = kept\n");
    EXPECT_EQ(config().set_ctmioa_rule_id("rules 8"), 0);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "rules 8");
    EXPECT_EQ(stored_rule_id(), "rules 8");
    EXPECT_THAT(read_file(rule_file), testing::HasSubstr("; a comment\n"));
    EXPECT_THAT(read_file(rule_file), testing::HasSubstr("other = kept\n"));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "update ruleid success")));
}

TEST_F(kzemm_config_test, adds_the_key_to_a_rule_file_without_it) {
    write_file(rule_file, "");
    EXPECT_EQ(config().set_ctmioa_rule_id("8"), 0);
    EXPECT_EQ(stored_rule_id(), "8");
}

TEST_F(kzemm_config_test, reads_the_stored_identifier_at_the_next_start) {
    ASSERT_EQ(config().load_ctm_cfg_rule(), 0);
    ASSERT_EQ(config().set_ctmioa_rule_id("8"), 0);
    inspector::reset();
    ASSERT_EQ(config().load_ctm_cfg_rule(), 0);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "8");
}

TEST_F(kzemm_config_test, does_not_create_again_a_rule_file_that_was_deleted_meanwhile) {
    ASSERT_EQ(config().load_ctm_cfg_rule(), 0);
    std::filesystem::remove(in_tree(rule_file));
    EXPECT_EQ(config().set_ctmioa_rule_id("8"), -1);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "0");
    EXPECT_FALSE(std::filesystem::exists(in_tree(rule_file)));
    EXPECT_THAT(log_lines(), ElementsAre(at(0, "ini file load failed")));
}

TEST_F(kzemm_config_test, keeps_the_old_identifier_here_and_in_the_file_when_saving_fails) {
    write_file(rule_file, "[ioa]\nruleid = 7\n");
    ASSERT_EQ(config().load_ctm_cfg_rule(), 0);
    fakes::ini_save_fails(EIO);
    EXPECT_EQ(config().set_ctmioa_rule_id("8"), EIO);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "7");
    EXPECT_EQ(stored_rule_id(), "7");
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "save file err")));
}

TEST_F(kzemm_config_test, refuses_an_identifier_that_the_file_can_not_hold) {
    write_file(rule_file, "[ioa]\nruleid = 7\n");
    ASSERT_EQ(config().load_ctm_cfg_rule(), 0);
    EXPECT_NE(config().set_ctmioa_rule_id("8\n9"), 0);
    EXPECT_EQ(inspector::ctmioa_rule_id(), "7");
    EXPECT_EQ(stored_rule_id(), "7");
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "save file err")));
}

// No question is asked before level 0, whatever the log answers to the other levels.
TEST_F(kzemm_config_test, logs_level_0_without_asking_whether_it_is_written) {
    std::filesystem::create_directory(in_tree(rule_file));
    fakes::set_log_level(-1);
    EXPECT_EQ(config().init(), 0);
    EXPECT_EQ(config().set_ctmioa_rule_id("8"), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(0, "ini file load failed"), at(0, "ini file load failed")));
}

// ---- the switches of the rule packs ----

TEST_F(kzemm_config_test, sets_exactly_the_three_switches_of_the_rule_packs) {
    for (const bool on : {true, false}) {
        config().set_upgrad_switch(on);
        for (int number = 0; number <= last_switch_number; ++number) {
            const bool of_packs =
                number == EMM_SWITCH_IOA || number == EMM_SWITCH_IOC || number == EMM_SWITCH_MD;
            EXPECT_EQ(config().get_switch(static_cast<EMM_SWITCH_TYPE>(number)), on && of_packs)
                << number;
        }
    }
    EXPECT_THAT(log_lines(), IsEmpty());
}

}  // namespace
