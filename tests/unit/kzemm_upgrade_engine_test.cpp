#include <cerrno>
#include <climits>

#include "tests/unit/upgrade_test.h"

using fakes::at;
using fakes::engine_texts;
using fakes::file_call;
using fakes::log_lines;
using fakes::texts;
using fakes::what;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr char query[] = "x_client_engine_query_version_str";
constexpr int pending = -16;
class kzemm_upgrade_engine_test : public upgrade_test {
  protected:
    static constexpr char ioa_config[] = "linux_kzedbd.cfg";
    static constexpr char md_config[] = "linux_kzemsi.ptn";

    // The versions that the next queries give; the last one stays.
    static void give_versions(_engine_type type, const names &versions) {
        auto left = std::make_shared<names>(versions);
        fakes::on_engine_call(query, [type, left](const fakes::engine_call &) {
            fakes::set_engine_version(type, left->front());
            if (left->size() > 1) {
                left->erase(left->begin());
            }
        });
    }

    int handle_ioa() { return relay->upgrade_eng_handle(CUpgradeRelay::ENGINE_IOA); }
    int handle_md() { return relay->upgrade_eng_handle(CUpgradeRelay::ENGINE_MD); }

    void drop_ioa(const std::string &name = "ioa_linux_en.tgz") const {
        drop_pack(name, ioa_config, "of " + name);
    }
    void drop_md(const std::string &name = "md_linux.tgz") const {
        drop_pack(name, md_config, "of " + name);
    }
    // What upgrade_ioa_engine is given for a pass, with the version rising at once.
    static void ioa_takes_it() { give_versions(ENGINE_IOA, {"5", "6"}); }

    std::string target() const { return in_tree("bin/../qd_agent/bin/") + "/kzedbd.cfg"; }

    // The lines up to the unpacked configuration file, with the backup 77 made of an arrival.
    lines arrival_lines(const std::string &arrival, const std::string &backup,
                        const std::string &config_file) const {
        lines result = {at(3, "new tgz_name: " + rule(arrival)), at(3, "has new tgz, rename"),
                        at(3, "tgz_rename_name: " + rule(backup))};
        append(result, deal_lines(backup, config_file));
        return result;
    }
    lines deal_lines(const std::string &backup, const std::string &config_file) const {
        lines result = {at(3, "deal tgz: " + rule(backup))};
        append_unpacked(result, backup);
        result.push_back(at(3, "cfg_path: " + rule(config_file)));
        return result;
    }
    lines left_lines(const std::string &backup, const std::string &arrival) const {
        return {at(3, "find file name: " + backup), at(3, "bk_tgz_name: " + rule(backup)),
                at(3, "new tgz_name: " + rule(arrival))};
    }
    static lines ioa_success_lines() {
        return {at(3, "upgrade ioa engine"),
                at(3, "ul_ver_be:5"),
                at(3, "invoke update interface success, waitting engine upgrade"),
                at(3, "retry get ioa ver 0 times, ul_ver_be:5, ul_ver_af:6"),
                at(3, "ioa upgrade success"),
                at(3, "i:0,ret:0")};
    }
};

}  // namespace

// ---- upgrade_eng_handle: finding the pack ----

TEST_F(kzemm_upgrade_engine_test, any_other_engine_is_refused) {
    for (const int type : {0, 3, -1, INT_MAX}) {
        forget();
        EXPECT_EQ(relay->upgrade_eng_handle(static_cast<CUpgradeRelay::engine_type_e>(type)), -1);
        EXPECT_THAT(log_lines(), ElementsAre(at(1, "eng_type invalid: " + std::to_string(type))));
        EXPECT_EQ(fakes::count(what::file), 0U);
    }
}

TEST_F(kzemm_upgrade_engine_test, without_a_pack_there_is_nothing_to_do) {
    for (const char *const name : {"md_linux_en.tgz", "ioa_linux.tgz", "ioa_linux_bk.tgz",
                                   "md_linux_bk_1.tgz.part", "ioc_full_1.0.tgz"}) {
        write_rule(name);
    }
    EXPECT_EQ(handle_ioa(), 0);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "new tgz_name: " + rule("ioa_linux_en.tgz")),
                                         at(3, "no tgz exist")));
    forget();
    EXPECT_EQ(handle_md(), 0);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "new tgz_name: " + rule("md_linux.tgz")), at(3, "no tgz exist")));
    EXPECT_THAT(engine_texts(), IsEmpty());
    EXPECT_EQ(entries().size(), 5U);
}

TEST_F(kzemm_upgrade_engine_test, an_ioa_arrival_is_moved_aside_unpacked_and_applied) {
    fakes::set_rand_by_time(77);
    ioa_takes_it();
    drop_ioa();
    EXPECT_EQ(handle_ioa(), 0);
    lines expected = arrival_lines("ioa_linux_en.tgz", "ioa_linux_bk_77.tgz", ioa_config);
    append(expected, ioa_success_lines());
    append_deleted(expected, rule("ioa_linux_bk_77.tgz"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(engine_texts(), ElementsAre("x_client_engine_query_version_str(2)",
                                            "x_client_engine_update(2, " + rule(ioa_config) + ")",
                                            "x_client_engine_query_version_str(2)"));
    EXPECT_THAT(entries(), IsEmpty());
    EXPECT_EQ(read_file("qd_agent/bin/kzedbd.cfg"), "of ioa_linux_en.tgz");
}

TEST_F(kzemm_upgrade_engine_test, an_md_arrival_is_moved_aside_unpacked_and_handed_over) {
    fakes::set_rand_by_time(77);
    drop_md();
    EXPECT_EQ(handle_md(), 0);
    lines expected = arrival_lines("md_linux.tgz", "md_linux_bk_77.tgz", md_config);
    expected.push_back(at(3, "upgrade md engine"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(engine_texts(),
                ElementsAre("x_client_engine_update_async(3, " + rule(md_config) + ")"));
    const fakes::engine_call call = fakes::engine_calls()[0];
    EXPECT_TRUE(fakes::is_callback(call.callback, CUpgradeRelay::on_md_engine_update_cb));
    EXPECT_EQ(call.context, nullptr);
    EXPECT_EQ(state::s_md_last_result, pending);
    EXPECT_EQ(state::s_md_tgz_path, rule("md_linux_bk_77.tgz"));
    EXPECT_EQ(state::s_md_cfg_path, rule(md_config));
    EXPECT_THAT(entries(), ElementsAre(md_config, "md_linux_bk_77.tgz"));
}

TEST_F(kzemm_upgrade_engine_test, a_backup_that_was_left_is_taken_up_again) {
    ioa_takes_it();
    drop_ioa("ioa_linux_bk_5.tgz");
    drop_md("md_linux_bk_.tgz");
    EXPECT_EQ(handle_ioa(), 0);
    lines expected = left_lines("ioa_linux_bk_5.tgz", "ioa_linux_en.tgz");
    append(expected, deal_lines("ioa_linux_bk_5.tgz", ioa_config));
    append(expected, ioa_success_lines());
    append_deleted(expected, rule("ioa_linux_bk_5.tgz"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));

    forget();
    state::s_md_retry_times = 4;
    EXPECT_EQ(handle_md(), 0);
    expected = left_lines("md_linux_bk_.tgz", "md_linux.tgz");
    append(expected, deal_lines("md_linux_bk_.tgz", md_config));
    expected.push_back(at(3, "upgrade md engine"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_EQ(state::s_md_retry_times, 4);
}

TEST_F(kzemm_upgrade_engine_test, a_new_arrival_replaces_the_waiting_backup) {
    fakes::set_rand_by_time(77);
    ioa_takes_it();
    write_rule("ioa_linux_bk_5.tgz", "no archive");
    drop_ioa();
    EXPECT_EQ(handle_ioa(), 0);
    lines expected = left_lines("ioa_linux_bk_5.tgz", "ioa_linux_en.tgz");
    expected.push_back(at(3, "has new tgz, rename"));
    append_deleted(expected, rule("ioa_linux_bk_5.tgz"));
    expected.push_back(at(3, "tgz_rename_name: " + rule("ioa_linux_bk_77.tgz")));
    append(expected, deal_lines("ioa_linux_bk_77.tgz", ioa_config));
    append(expected, ioa_success_lines());
    append_deleted(expected, rule("ioa_linux_bk_77.tgz"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(
        texts({what::file}),
        ElementsAre("opendir " + rules(), "delete " + rule("ioa_linux_bk_5.tgz"),
                    "rename " + rule("ioa_linux_en.tgz") + " to " + rule("ioa_linux_bk_77.tgz"),
                    "run " + tar_command("ioa_linux_bk_77.tgz"),
                    "delete " + rule("ioa_linux_bk_77.tgz"),
                    "move " + rule(ioa_config) + " to " + target()));
}

TEST_F(kzemm_upgrade_engine_test, only_an_md_arrival_begins_the_count_of_failures_anew) {
    state::s_md_retry_times = 4;
    drop_ioa();
    handle_ioa();
    EXPECT_EQ(state::s_md_retry_times, 4);
    drop_md();
    handle_md();
    EXPECT_EQ(state::s_md_retry_times, 0);
}

TEST_F(kzemm_upgrade_engine_test, of_two_backups_the_first_of_the_directory_is_handled) {
    ioa_takes_it();
    drop_ioa("ioa_linux_bk_1.tgz");
    drop_ioa("ioa_linux_bk_2.tgz");
    const names found = in_directory_order("ioa_linux_bk_");
    EXPECT_EQ(handle_ioa(), 0);
    EXPECT_THAT(log_lines(), Contains(at(3, "bk_tgz_name: " + rule(found[0]))));
    EXPECT_THAT(log_lines(), Not(Contains(at(3, "bk_tgz_name: " + rule(found[1])))));
    EXPECT_THAT(entries(), ElementsAre(found[1]));
    EXPECT_EQ(read_file("qd_agent/bin/kzedbd.cfg"), "of " + found[0]);
}

TEST_F(kzemm_upgrade_engine_test, an_arrival_deletes_the_first_backup_and_leaves_the_others) {
    fakes::set_rand_by_time(77);
    drop_md("md_linux_bk_1.tgz");
    drop_md("md_linux_bk_2.tgz");
    drop_md();
    const names found = in_directory_order("md_linux_bk_");
    EXPECT_EQ(handle_md(), 0);
    EXPECT_FALSE(has_rule(found[0]));
    EXPECT_TRUE(has_rule(found[1]));
    EXPECT_EQ(state::s_md_tgz_path, rule("md_linux_bk_77.tgz"));
}

TEST_F(kzemm_upgrade_engine_test, a_number_that_is_taken_overwrites_that_backup) {
    drop_md("md_linux_bk_1.tgz");
    drop_md("md_linux_bk_2.tgz");
    drop_md();
    const names found = in_directory_order("md_linux_bk_");
    fakes::set_rand_by_time(found[1] == "md_linux_bk_1.tgz" ? 1 : 2);
    EXPECT_EQ(handle_md(), 0);
    EXPECT_THAT(entries(), ElementsAre(md_config, found[1]));
    EXPECT_EQ(read_file(std::string("hlthreat_rule/") + md_config), "of md_linux.tgz");
}

TEST_F(kzemm_upgrade_engine_test, the_number_is_written_as_it_is) {
    for (const int number : {0, INT_MAX, -3}) {
        fakes::set_rand_by_time(number);
        drop_md();
        EXPECT_EQ(handle_md(), 0);
        EXPECT_EQ(state::s_md_tgz_path, rule("md_linux_bk_" + std::to_string(number) + ".tgz"));
        CUpgradeRelay::on_md_engine_update_cb(::ENGINE_MD, 0, nullptr);
    }
}

// ---- upgrade_eng_handle: what fails on the way ----

TEST_F(kzemm_upgrade_engine_test, an_arrival_that_cannot_be_moved_stays_and_the_backup_is_gone) {
    fakes::set_rand_by_time(77);
    for (const int code : {EACCES, EROFS, ENOSPC, ENOENT, EXDEV}) {
        drop_md();
        drop_md("md_linux_bk_5.tgz");
        state::s_md_retry_times = 4;
        fakes::reset_file_faults();
        fakes::set_rand_by_time(77);
        fakes::file_call_fails(file_call::rename, code);
        forget();
        EXPECT_EQ(handle_md(), -1);
        lines expected = left_lines("md_linux_bk_5.tgz", "md_linux.tgz");
        expected.push_back(at(3, "has new tgz, rename"));
        append_deleted(expected, rule("md_linux_bk_5.tgz"));
        expected.push_back(at(3, "tgz_rename_name: " + rule("md_linux_bk_77.tgz")));
        expected.push_back(at(1, "rename " + rule("md_linux.tgz") + " to  " +
                                     rule("md_linux_bk_77.tgz") + " failed"));
        expected.push_back(at(1, "get new tgz failed"));
        EXPECT_THAT(log_lines(), ElementsAreArray(expected));
        EXPECT_THAT(entries(), ElementsAre("md_linux.tgz"));
        EXPECT_EQ(state::s_md_retry_times, 4);
    }
}

TEST_F(kzemm_upgrade_engine_test, an_arrival_that_vanishes_before_it_is_moved_is_a_failure) {
    drop_ioa();
    fakes::on_file_call([this](file_call kind, bool done) {
        if (kind == file_call::rename && !done) {
            std::filesystem::remove(in_tree("hlthreat_rule/ioa_linux_en.tgz"));
        }
    });
    EXPECT_EQ(handle_ioa(), -1);
    EXPECT_THAT(log_lines(), Contains(at(1, "get new tgz failed")));
    EXPECT_THAT(engine_texts(), IsEmpty());
}

TEST_F(kzemm_upgrade_engine_test, a_backup_that_cannot_be_deleted_costs_a_line) {
    fakes::set_rand_by_time(77);
    ioa_takes_it();
    drop_ioa("ioa_linux_bk_5.tgz");
    drop_ioa();
    fakes::file_call_fails(file_call::remove, EACCES, "ioa_linux_bk_");
    EXPECT_EQ(handle_ioa(), 0);
    lines expected = left_lines("ioa_linux_bk_5.tgz", "ioa_linux_en.tgz");
    expected.push_back(at(3, "has new tgz, rename"));
    append_deleted(expected, rule("ioa_linux_bk_5.tgz"));
    expected.push_back(at(2, "delete file (" + rule("ioa_linux_bk_5.tgz") + ") failed:13"));
    expected.push_back(at(3, "tgz_rename_name: " + rule("ioa_linux_bk_77.tgz")));
    append(expected, deal_lines("ioa_linux_bk_77.tgz", ioa_config));
    append(expected, ioa_success_lines());
    append_deleted(expected, rule("ioa_linux_bk_77.tgz"));
    expected.push_back(at(2, "delete file (" + rule("ioa_linux_bk_77.tgz") + ") failed:13"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(entries(), ElementsAre("ioa_linux_bk_5.tgz", "ioa_linux_bk_77.tgz"));
}

TEST_F(kzemm_upgrade_engine_test, a_directory_in_the_place_of_a_backup_stays_and_fails) {
    std::filesystem::create_directory(in_tree("hlthreat_rule/md_linux_bk_1.tgz"));
    EXPECT_EQ(handle_md(), -1);
    drop_md();
    forget();
    EXPECT_EQ(handle_md(), 0);
    EXPECT_THAT(log_lines(), Contains(at(2, "delete file (" + rule("md_linux_bk_1.tgz") +
                                                ") failed:" + std::to_string(EISDIR))));
    EXPECT_TRUE(has_rule("md_linux_bk_1.tgz"));
}

TEST_F(kzemm_upgrade_engine_test, a_directory_in_the_place_of_an_arrival_becomes_a_backup) {
    fakes::set_rand_by_time(77);
    std::filesystem::create_directory(in_tree("hlthreat_rule/md_linux.tgz"));
    EXPECT_EQ(handle_md(), -1);
    EXPECT_THAT(entries(), ElementsAre("md_linux_bk_77.tgz"));
    EXPECT_EQ(state::s_md_last_result, 0);
}

TEST_F(kzemm_upgrade_engine_test, a_dangling_link_is_no_arrival_and_a_bad_backup) {
    std::filesystem::create_symlink("nowhere", in_tree("hlthreat_rule/ioa_linux_en.tgz"));
    EXPECT_EQ(handle_ioa(), 0);
    EXPECT_THAT(log_lines(), Contains(at(3, "no tgz exist")));
    std::filesystem::create_symlink("nowhere", in_tree("hlthreat_rule/ioa_linux_bk_1.tgz"));
    EXPECT_EQ(handle_ioa(), -1);
    EXPECT_EQ(entries().size(), 2U);
}

TEST_F(kzemm_upgrade_engine_test, a_backup_that_cannot_be_unpacked_stays_for_every_tick) {
    write_rule("ioa_linux_bk_5.tgz", "no archive");
    write_rule("md_linux_bk_6.tgz", "no archive");
    state::s_md_last_result = 3;
    for (int round = 0; round < 12; ++round) {
        forget();
        EXPECT_EQ(handle_ioa(), -1);
        lines expected = left_lines("ioa_linux_bk_5.tgz", "ioa_linux_en.tgz");
        expected.push_back(at(3, "deal tgz: " + rule("ioa_linux_bk_5.tgz")));
        append_not_unpacked(expected, "ioa_linux_bk_5.tgz");
        expected.push_back(
            at(1, "unzip upgrade file ioa tgz file " + rule("ioa_linux_bk_5.tgz") + " failed"));
        EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    }
    forget();
    EXPECT_EQ(handle_md(), -1);
    lines expected = left_lines("md_linux_bk_6.tgz", "md_linux.tgz");
    expected.push_back(at(3, "deal tgz: " + rule("md_linux_bk_6.tgz")));
    append_not_unpacked(expected, "md_linux_bk_6.tgz");
    expected.push_back(
        at(1, "unzip upgrade file ioa tgz file " + rule("md_linux_bk_6.tgz") + " failed"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(entries(), ElementsAre("ioa_linux_bk_5.tgz", "md_linux_bk_6.tgz"));
    EXPECT_THAT(engine_texts(), IsEmpty());
    EXPECT_EQ(state::s_md_last_result, 3);
    EXPECT_EQ(state::s_md_retry_times, 0);
}

TEST_F(kzemm_upgrade_engine_test, a_rule_directory_that_cannot_be_opened_hides_the_backup_alone) {
    fakes::set_rand_by_time(77);
    drop_md("md_linux_bk_5.tgz");
    drop_md();
    fakes::file_call_fails(file_call::open_directory, EMFILE);
    EXPECT_EQ(handle_md(), 0);
    EXPECT_EQ(entries().size(), 3U);
    EXPECT_EQ(state::s_md_tgz_path, rule("md_linux_bk_77.tgz"));
}

TEST_F(kzemm_upgrade_engine_test, a_composed_path_is_cut_at_1023_bytes) {
    const std::string home = "/" + std::string(999, 'h');
    setenv("KZE_AGENT_HOME", home.c_str(), 1);
    EXPECT_EQ(relay->upgrade_eng_handle(CUpgradeRelay::ENGINE_IOA), 0);
    const std::string whole = home + "/../hlthreat_rule//ioa_linux_en.tgz";
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "new tgz_name: " + whole.substr(0, 1023)),
                                         at(3, "no tgz exist")));
}
