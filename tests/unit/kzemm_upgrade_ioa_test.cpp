#include <cerrno>
#include <climits>

#include "tests/unit/upgrade_test.h"

using fakes::at;
using fakes::engine_texts;
using fakes::file_call;
using fakes::log_lines;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

constexpr char query[] = "x_client_engine_query_version_str";
constexpr char update[] = "x_client_engine_update";
// Neither of the two codes that keep a pack, with their neighbours.
constexpr int dropping_codes[] = {-1, -7, -9, -13, -15, -16, -5, 1, 8, 14, INT_MIN, INT_MAX};

class kzemm_upgrade_ioa_test : public upgrade_test {
  protected:
    static constexpr char ioa_config[] = "linux_kzedbd.cfg";

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

    void drop_ioa(const std::string &name = "ioa_linux_en.tgz") const {
        drop_pack(name, ioa_config, "of " + name);
    }
    static void ioa_takes_it() { give_versions(ENGINE_IOA, {"5", "6"}); }

    std::string target() const { return in_tree("bin/../qd_agent/bin/") + "/kzedbd.cfg"; }
};

}  // namespace

// ---- query_ioa_engine ----

TEST_F(kzemm_upgrade_ioa_test, an_ioa_version_is_an_unsigned_decimal_number) {
    const std::vector<std::pair<std::string, unsigned long>> cases = {
        {"0", 0},
        {"42", 42},
        {"18446744073709551615", ULONG_MAX},
        {"18446744073709551616", ULONG_MAX},
        {"-1", ULONG_MAX},
        {" 7", 7},
        {"12abc", 12},
        {"3.9", 3},
        {"0x10", 0},
        {"010", 10},
        {"", 0},
        {"none", 0}};
    for (const auto &[text, expected] : cases) {
        fakes::set_engine_version(ENGINE_IOA, text);
        unsigned long version = 99;
        EXPECT_EQ(CUpgradeRelay::query_ioa_engine(version), 0);
        EXPECT_EQ(version, expected) << text;
    }
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_EQ(fakes::outstanding_engine_buffers(), 0U);
    EXPECT_EQ(engine_texts()[0], "x_client_engine_query_version_str(2)");
}

TEST_F(kzemm_upgrade_ioa_test, a_query_that_fails_leaves_the_version) {
    unsigned long version = 99;
    fakes::engine_returns(query, {-3});
    EXPECT_EQ(CUpgradeRelay::query_ioa_engine(version), 1);
    EXPECT_EQ(version, 99U);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "query ioa version failed:-3")));
    EXPECT_EQ(fakes::engine_frees(), 0U);
}

TEST_F(kzemm_upgrade_ioa_test, a_query_without_a_text_fails_with_the_code_0) {
    unsigned long version = 99;
    fakes::engine_hands_out_version(fakes::version_text::never);
    EXPECT_EQ(CUpgradeRelay::query_ioa_engine(version), 1);
    EXPECT_EQ(version, 99U);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "query ioa version failed:0")));
    EXPECT_EQ(fakes::engine_frees(), 0U);
}

TEST_F(kzemm_upgrade_ioa_test, the_text_of_a_failed_query_goes_back_unread) {
    unsigned long version = 99;
    fakes::set_engine_version(ENGINE_IOA, "5");
    fakes::engine_hands_out_version(fakes::version_text::always);
    fakes::engine_returns(query, {7});
    EXPECT_EQ(CUpgradeRelay::query_ioa_engine(version), 1);
    EXPECT_EQ(version, 99U);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "query ioa version failed:7")));
    EXPECT_EQ(fakes::engine_frees(), 1U);
}

// ---- upgrade_ioa_engine ----

TEST_F(kzemm_upgrade_ioa_test, an_ioa_update_without_a_path_is_refused) {
    EXPECT_EQ(CUpgradeRelay::upgrade_ioa_engine(nullptr), 1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "param is null!")));
    EXPECT_THAT(engine_texts(), IsEmpty());
}

TEST_F(kzemm_upgrade_ioa_test, an_unreadable_version_ends_an_ioa_update_before_it_begins) {
    fakes::engine_returns(query, {-3});
    EXPECT_EQ(CUpgradeRelay::upgrade_ioa_engine("/c"), 1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "upgrade ioa engine"), at(1, "query ioa version failed:-3")));
    EXPECT_EQ(updates(), 0U);
}

TEST_F(kzemm_upgrade_ioa_test, the_codes_minus_8_and_minus_14_keep_an_ioa_pack) {
    fakes::set_engine_version(ENGINE_IOA, "5");
    for (const int code : {-8, -14}) {
        forget();
        fakes::engine_returns(update, {code});
        EXPECT_EQ(CUpgradeRelay::upgrade_ioa_engine("/c"), 1);
        EXPECT_THAT(log_lines(),
                    ElementsAre(at(3, "upgrade ioa engine"), at(3, "ul_ver_be:5"),
                                at(1, "invoke update func failed:" + std::to_string(code))));
    }
    EXPECT_THAT(fakes::sleeps(), IsEmpty());
}

TEST_F(kzemm_upgrade_ioa_test, any_other_code_drops_an_ioa_pack) {
    fakes::set_engine_version(ENGINE_IOA, "5");
    for (const int code : dropping_codes) {
        forget();
        fakes::engine_returns(update, {code});
        EXPECT_EQ(CUpgradeRelay::upgrade_ioa_engine("/c"), -1);
        EXPECT_THAT(log_lines(),
                    Contains(at(1, "invoke update func failed:" + std::to_string(code))));
    }
}

TEST_F(kzemm_upgrade_ioa_test, an_ioa_version_that_rises_in_the_last_attempt_is_in_time) {
    names versions(60, "5");
    versions.push_back("6");
    give_versions(ENGINE_IOA, versions);
    EXPECT_EQ(CUpgradeRelay::upgrade_ioa_engine("/c"), 0);
    EXPECT_THAT(fakes::sleeps(),
                ElementsAreArray(std::vector<fakes::microseconds>(60, 5 * second)));
    lines expected = {at(3, "upgrade ioa engine"), at(3, "ul_ver_be:5"),
                      at(3, "invoke update interface success, waitting engine upgrade")};
    for (int each = 0; each < 59; ++each) {
        expected.push_back(at(
            3, "retry get ioa ver " + std::to_string(each) + " times, ul_ver_be:5, ul_ver_af:5"));
    }
    append(expected, {at(3, "retry get ioa ver 59 times, ul_ver_be:5, ul_ver_af:6"),
                      at(3, "ioa upgrade success"), at(3, "i:59,ret:0")});
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
}

TEST_F(kzemm_upgrade_ioa_test, an_unchanged_ioa_version_counts_as_done_after_five_minutes) {
    give_versions(ENGINE_IOA, {"5"});
    EXPECT_EQ(CUpgradeRelay::upgrade_ioa_engine("/c"), 0);
    EXPECT_EQ(fakes::slept_us(), 300 * second);
    EXPECT_EQ(queries(), 61U);
    const std::vector<fakes::record> told = log_lines();
    ASSERT_EQ(told.size(), 65U);
    EXPECT_THAT(told[63],
                at(3, "ioa upgrade reach to max times, ul_ver_be is equal to ul_ver_af!"));
    EXPECT_THAT(told[64], at(3, "i:60,ret:0"));
}

TEST_F(kzemm_upgrade_ioa_test, an_ioa_version_that_falls_keeps_the_pack) {
    give_versions(ENGINE_IOA, {"5", "4"});
    EXPECT_EQ(CUpgradeRelay::upgrade_ioa_engine("/c"), 1);
    EXPECT_EQ(queries(), 61U);
    const std::vector<fakes::record> told = log_lines();
    ASSERT_EQ(told.size(), 65U);
    EXPECT_THAT(told[62], at(3, "retry get ioa ver 59 times, ul_ver_be:5, ul_ver_af:4"));
    EXPECT_THAT(told[63], at(1, "ioa upgrade reach to max times,return"));
    EXPECT_THAT(told[64], at(3, "i:60,ret:1"));
}

TEST_F(kzemm_upgrade_ioa_test, an_ioa_version_may_jump_and_may_fall_before_it_rises) {
    give_versions(ENGINE_IOA, {"5", "4", "5", "900"});
    EXPECT_EQ(CUpgradeRelay::upgrade_ioa_engine("/c"), 0);
    EXPECT_THAT(log_lines(), Contains(at(3, "i:2,ret:0")));
}

TEST_F(kzemm_upgrade_ioa_test, ioa_versions_are_compared_without_a_sign) {
    give_versions(ENGINE_IOA, {"9223372036854775807", "9223372036854775808"});
    EXPECT_EQ(CUpgradeRelay::upgrade_ioa_engine("/c"), 0);
    EXPECT_THAT(log_lines(), Contains(at(3,
                                         "retry get ioa ver 0 times, ul_ver_be:"
                                         "9223372036854775807, "
                                         "ul_ver_af:9223372036854775808")));
}

TEST_F(kzemm_upgrade_ioa_test, queries_that_fail_throughout_keep_the_ioa_pack) {
    std::vector<int> codes(61, -3);
    codes[0] = 0;
    fakes::set_engine_version(ENGINE_IOA, "5");
    fakes::engine_returns(query, codes);
    EXPECT_EQ(CUpgradeRelay::upgrade_ioa_engine("/c"), 1);
    lines expected = {at(3, "upgrade ioa engine"), at(3, "ul_ver_be:5"),
                      at(3, "invoke update interface success, waitting engine upgrade")};
    append(expected, lines(60, at(1, "query ioa version failed:-3")));
    append(expected, {at(1, "ioa upgrade reach to max times,return"), at(3, "i:60,ret:1")});
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
}

TEST_F(kzemm_upgrade_ioa_test, queries_that_fail_throughout_are_an_unchanged_version_0) {
    std::vector<int> codes(61, -3);
    codes[0] = 0;
    fakes::set_engine_version(ENGINE_IOA, "0");
    fakes::engine_returns(query, codes);
    EXPECT_EQ(CUpgradeRelay::upgrade_ioa_engine("/c"), 0);
    EXPECT_THAT(log_lines(), Contains(at(3, "i:60,ret:0")));
}

TEST_F(kzemm_upgrade_ioa_test, a_failed_query_costs_an_attempt_and_leaves_the_version_read) {
    // The last version that was read is the same as before the update.
    std::vector<int> codes(61, -3);
    codes[0] = 0;
    codes[1] = 0;
    fakes::set_engine_version(ENGINE_IOA, "5");
    fakes::engine_returns(query, codes);
    EXPECT_EQ(CUpgradeRelay::upgrade_ioa_engine("/c"), 0);
    EXPECT_EQ(queries(), 61U);
    EXPECT_THAT(log_lines(),
                Contains(at(3, "retry get ioa ver 0 times, ul_ver_be:5, ul_ver_af:5")));

    forget();
    give_versions(ENGINE_IOA, {"5", "5", "6"});
    fakes::engine_returns(query, {0, -3, 0});
    EXPECT_EQ(CUpgradeRelay::upgrade_ioa_engine("/c"), 0);
    EXPECT_THAT(log_lines(), Contains(at(3, "i:1,ret:0")));
}

// ---- upgrade_engine for IOA: each row of the files' fates ----

TEST_F(kzemm_upgrade_ioa_test, a_refused_for_now_ioa_pack_stays_and_its_file_is_moved) {
    fakes::set_engine_version(ENGINE_IOA, "5");
    for (const int code : {-8, -14}) {
        std::filesystem::remove(in_tree("qd_agent/bin/kzedbd.cfg"));
        drop_ioa("ioa_linux_bk_5.tgz");
        fakes::engine_returns(update, {code});
        EXPECT_EQ(handle_ioa(), 1);
        EXPECT_THAT(entries(), ElementsAre("ioa_linux_bk_5.tgz"));
        EXPECT_EQ(read_file("qd_agent/bin/kzedbd.cfg"), "of ioa_linux_bk_5.tgz");
    }
}

TEST_F(kzemm_upgrade_ioa_test, a_refused_ioa_pack_goes_and_its_file_is_moved) {
    fakes::set_engine_version(ENGINE_IOA, "5");
    drop_ioa("ioa_linux_bk_5.tgz");
    fakes::engine_returns(update, {-1});
    EXPECT_EQ(handle_ioa(), -1);
    EXPECT_THAT(entries(), IsEmpty());
    EXPECT_TRUE(exists("qd_agent/bin/kzedbd.cfg"));
}

TEST_F(kzemm_upgrade_ioa_test, an_ioa_pack_whose_first_query_fails_stays_and_its_file_is_moved) {
    fakes::engine_returns(query, {-1});
    drop_ioa("ioa_linux_bk_5.tgz");
    EXPECT_EQ(handle_ioa(), 1);
    EXPECT_THAT(entries(), ElementsAre("ioa_linux_bk_5.tgz"));
    EXPECT_TRUE(exists("qd_agent/bin/kzedbd.cfg"));
}

TEST_F(kzemm_upgrade_ioa_test, an_ioa_pack_with_an_unchanged_version_goes) {
    give_versions(ENGINE_IOA, {"5"});
    drop_ioa("ioa_linux_bk_5.tgz");
    EXPECT_EQ(handle_ioa(), 0);
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(kzemm_upgrade_ioa_test, an_ioa_pack_whose_version_never_rises_stays) {
    give_versions(ENGINE_IOA, {"5", "4"});
    drop_ioa("ioa_linux_bk_5.tgz");
    EXPECT_EQ(handle_ioa(), 1);
    EXPECT_THAT(entries(), ElementsAre("ioa_linux_bk_5.tgz"));
}

TEST_F(kzemm_upgrade_ioa_test, the_first_ioa_file_ever_is_moved_and_later_ones_are_deleted) {
    for (const char *const name : {"ioa_linux_bk_1.tgz", "ioa_linux_bk_2.tgz"}) {
        ioa_takes_it();
        drop_ioa(name);
        forget();
        EXPECT_EQ(handle_ioa(), 0);
        EXPECT_THAT(entries(), IsEmpty());
        EXPECT_EQ(read_file("qd_agent/bin/kzedbd.cfg"), "of ioa_linux_bk_1.tgz");
    }
    const std::vector<fakes::record> told = log_lines();
    EXPECT_THAT(told[told.size() - 2], at(3, "delete file (" + rule("ioa_linux_bk_2.tgz") + ")!"));
    EXPECT_THAT(told.back(), at(3, "delete file (" + rule(ioa_config) + ")!"));
}

TEST_F(kzemm_upgrade_ioa_test, an_ioa_file_that_cannot_be_moved_costs_a_line_and_stays) {
    for (const int code : {EACCES, EROFS, ENOSPC, -1}) {
        fakes::reset_file_faults();
        fakes::file_call_fails(file_call::move, code, ioa_config);
        ioa_takes_it();
        drop_ioa("ioa_linux_bk_1.tgz");
        EXPECT_EQ(handle_ioa(), 0);
        EXPECT_THAT(log_lines().back(),
                    at(1, "failed to rename " + rule(ioa_config) + " to " + target()));
        EXPECT_THAT(entries(), ElementsAre(ioa_config));
    }
}

TEST_F(kzemm_upgrade_ioa_test, a_missing_program_directory_costs_a_line) {
    std::filesystem::remove_all(in_tree("qd_agent"));
    ioa_takes_it();
    drop_ioa("ioa_linux_bk_1.tgz");
    EXPECT_EQ(handle_ioa(), 0);
    EXPECT_THAT(log_lines().back(),
                at(1, "failed to rename " + rule(ioa_config) + " to " + target()));
}

TEST_F(kzemm_upgrade_ioa_test, an_ioa_pack_without_its_file_is_handed_over_all_the_same) {
    drop_pack("ioa_linux_bk_1.tgz", "other.cfg");
    fakes::set_engine_version(ENGINE_IOA, "5");
    fakes::engine_returns(update, {-2});
    EXPECT_EQ(handle_ioa(), -1);
    EXPECT_EQ(updates(), 1U);
    EXPECT_THAT(log_lines().back(),
                at(1, "failed to rename " + rule(ioa_config) + " to " + target()));
    EXPECT_THAT(entries(), ElementsAre("other.cfg"));

    // With a target there is nothing to delete and so no line.
    write_file("qd_agent/bin/kzedbd.cfg", "");
    drop_pack("ioa_linux_bk_1.tgz", "other.cfg");
    fakes::engine_returns(update, {-2});
    EXPECT_EQ(handle_ioa(), -1);
    EXPECT_THAT(log_lines().back(), at(3, "delete file (" + rule("ioa_linux_bk_1.tgz") + ")!"));
}

TEST_F(kzemm_upgrade_ioa_test, a_directory_in_the_targets_place_counts_as_the_target) {
    std::filesystem::create_directory(in_tree("qd_agent/bin/kzedbd.cfg"));
    ioa_takes_it();
    drop_ioa("ioa_linux_bk_1.tgz");
    EXPECT_EQ(handle_ioa(), 0);
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(kzemm_upgrade_ioa_test, a_dangling_link_in_the_targets_place_is_replaced) {
    std::filesystem::create_symlink("nowhere", in_tree("qd_agent/bin/kzedbd.cfg"));
    ioa_takes_it();
    drop_ioa("ioa_linux_bk_1.tgz");
    EXPECT_EQ(handle_ioa(), 0);
    EXPECT_EQ(read_file("qd_agent/bin/kzedbd.cfg"), "of ioa_linux_bk_1.tgz");
    EXPECT_FALSE(exists("qd_agent/bin/nowhere"));
}
