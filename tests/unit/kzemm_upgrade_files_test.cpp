#include <sys/stat.h>

#include <cerrno>
#include <ctime>

#include "tests/unit/upgrade_test.h"

using fakes::at;
using fakes::file_call;
using fakes::log_lines;
using fakes::texts;
using fakes::what;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

namespace {

class kzemm_upgrade_files_test : public upgrade_test {
  protected:
    static names list(const char *pattern, const char *directory) {
        names result;
        CUpgradeRelay::list_files(pattern, result, directory);
        return result;
    }
};

}  // namespace

// ---- list_files ----

TEST_F(kzemm_upgrade_files_test, listing_without_a_pattern_or_a_directory_is_refused) {
    EXPECT_THAT(list(nullptr, tree().c_str()), IsEmpty());
    EXPECT_THAT(list("*", nullptr), IsEmpty());
    EXPECT_THAT(log_lines(),
                ElementsAre(at(2, "Invalid param path ."), at(2, "Invalid param path .")));
}

TEST_F(kzemm_upgrade_files_test, a_directory_that_cannot_be_opened_gives_nothing_and_no_line) {
    write_file("a_file", "");
    names result = {"before"};
    CUpgradeRelay::list_files("*", result, in_tree("missing").c_str());
    CUpgradeRelay::list_files("*", result, in_tree("a_file").c_str());
    CUpgradeRelay::list_files("*", result, "");
    fakes::file_call_fails(file_call::open_directory, EACCES);
    CUpgradeRelay::list_files("*", result, rules().c_str());
    EXPECT_THAT(result, ElementsAre("before"));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_upgrade_files_test, listing_appends_and_tells_each_name_in_the_directorys_order) {
    for (const char *const name :
         {"ioc_c.tgz", "ioc_a.tgz", "ioc_b.tgz", "ioa_d.tgz", "ioc_e.tg"}) {
        write_rule(name);
    }
    names expected = in_directory_order("ioc_");
    expected.erase(std::find(expected.begin(), expected.end(), "ioc_e.tg"));
    lines told;
    for (const std::string &each : expected) {
        told.push_back(at(3, "find file name: " + each));
    }
    names result = {"ioc_a.tgz"};
    CUpgradeRelay::list_files("ioc_*.tgz", result, rules().c_str());
    expected.insert(expected.begin(), "ioc_a.tgz");
    EXPECT_EQ(result, expected);
    EXPECT_THAT(log_lines(), ElementsAreArray(told));
}

TEST_F(kzemm_upgrade_files_test, entries_are_listed_whatever_they_are) {
    std::filesystem::create_directory(in_tree("hlthreat_rule/ioc_directory.tgz"));
    std::filesystem::create_symlink("nowhere", in_tree("hlthreat_rule/ioc_link.tgz"));
    ASSERT_EQ(mkfifo(in_tree("hlthreat_rule/ioc_fifo.tgz").c_str(), 0600), 0);
    EXPECT_THAT(list("ioc_*.tgz", rules().c_str()),
                UnorderedElementsAre("ioc_directory.tgz", "ioc_link.tgz", "ioc_fifo.tgz"));
}

TEST_F(kzemm_upgrade_files_test, a_leading_period_needs_one_in_the_pattern) {
    write_rule(".hidden.tgz");
    write_rule("seen.tgz");
    EXPECT_THAT(list("*", rules().c_str()), ElementsAre("seen.tgz"));
    EXPECT_THAT(list("*.tgz", rules().c_str()), ElementsAre("seen.tgz"));
    EXPECT_THAT(list("[.]hidden.tgz", rules().c_str()), IsEmpty());
    EXPECT_THAT(list(".h*", rules().c_str()), ElementsAre(".hidden.tgz"));
}

// ---- retry_createprocess ----

TEST_F(kzemm_upgrade_files_test, retrying_nothing_or_no_times_is_refused) {
    EXPECT_EQ(CUpgradeRelay::retry_createprocess(nullptr, 3), -1);
    EXPECT_EQ(CUpgradeRelay::retry_createprocess("true", 0), -1);
    EXPECT_EQ(CUpgradeRelay::retry_createprocess("true", -1), -1);
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_THAT(fakes::sleeps(), IsEmpty());
    EXPECT_EQ(fakes::forks(), 0U);
}

TEST_F(kzemm_upgrade_files_test, a_command_that_works_runs_once) {
    EXPECT_EQ(CUpgradeRelay::retry_createprocess("true", 1), 0);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "create process by cmd = true"),
                                         at(3, "retry create process success!")));
    EXPECT_THAT(fakes::sleeps(), IsEmpty());
}

TEST_F(kzemm_upgrade_files_test,
       a_command_that_fails_runs_as_often_as_asked_with_a_pause_behind_each) {
    EXPECT_EQ(CUpgradeRelay::retry_createprocess("false", 3), -1);
    lines expected;
    for (const char *const each : {"1", "2", "3"}) {
        expected.push_back(at(3, "create process by cmd = false"));
        expected.push_back(
            at(2, std::string("retry create process failed! retry time: ") + each + "."));
    }
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(fakes::sleeps(), ElementsAre(second, second, second));
}

TEST_F(kzemm_upgrade_files_test, one_failed_attempt_has_its_pause_too) {
    EXPECT_EQ(CUpgradeRelay::retry_createprocess("false", 1), -1);
    EXPECT_THAT(fakes::sleeps(), ElementsAre(second));
    EXPECT_EQ(fakes::forks(), 1U);
}

TEST_F(kzemm_upgrade_files_test, the_last_attempt_may_still_succeed) {
    int runs = 0;
    fakes::instead_of_commands([&](const std::string &) { return ++runs == 3 ? 0 : -1; });
    EXPECT_EQ(CUpgradeRelay::retry_createprocess("some command", 3), 0);
    EXPECT_EQ(runs, 3);
    EXPECT_THAT(fakes::sleeps(), ElementsAre(second, second));
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "retry create process failed! retry time: 1."),
                                         at(2, "retry create process failed! retry time: 2."),
                                         at(3, "retry create process success!")));
}

TEST_F(kzemm_upgrade_files_test, a_process_that_cannot_be_made_is_a_failed_attempt) {
    fakes::fork_fails(EAGAIN);
    EXPECT_EQ(CUpgradeRelay::retry_createprocess("true", 2), -1);
    EXPECT_EQ(fakes::forks(), 2U);
}

// ---- unzip_upgrade_rule ----

TEST_F(kzemm_upgrade_files_test, a_pack_is_unpacked_by_one_tar_and_stays) {
    drop_pack("a pack.tgz", "some.json", "rules");
    EXPECT_EQ(
        CUpgradeRelay::unzip_upgrade_rule(rule("a pack.tgz").c_str(), rules().c_str(), ".tgz"), 0);
    lines expected;
    append_unpacked(expected, "a pack.tgz");
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_EQ(read_file("hlthreat_rule/some.json"), "rules");
    EXPECT_TRUE(has_rule("a pack.tgz"));
    EXPECT_THAT(fakes::sleeps(), IsEmpty());
}

TEST_F(kzemm_upgrade_files_test, the_suffix_has_no_effect) {
    drop_pack("pack.tgz", "some.json");
    EXPECT_EQ(CUpgradeRelay::unzip_upgrade_rule(rule("pack.tgz").c_str(), rules().c_str(), ".zip"),
              0);
    EXPECT_TRUE(has_rule("some.json"));
}

TEST_F(kzemm_upgrade_files_test, a_corrupt_pack_costs_four_attempts_and_three_seconds) {
    write_rule("pack.tgz", "no archive");
    EXPECT_EQ(CUpgradeRelay::unzip_upgrade_rule(rule("pack.tgz").c_str(), rules().c_str(), ".tgz"),
              -1);
    lines expected;
    append_not_unpacked(expected, "pack.tgz");
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(fakes::sleeps(), ElementsAre(second, second, second));
    EXPECT_TRUE(has_rule("pack.tgz"));
}

TEST_F(kzemm_upgrade_files_test, an_attempt_of_the_retries_may_unpack_the_pack) {
    int runs = 0;
    fakes::instead_of_commands([&](const std::string &) { return ++runs == 4 ? 0 : -1; });
    EXPECT_EQ(CUpgradeRelay::unzip_upgrade_rule("/p", "/d", ".tgz"), 0);
    EXPECT_EQ(runs, 4);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "create process for unziping tgz failed!"),
                                         at(2, "retry create process failed! retry time: 1."),
                                         at(2, "retry create process failed! retry time: 2."),
                                         at(3, "retry create process success!"),
                                         at(3, "unzip file (/p) successfully!")));
}

TEST_F(kzemm_upgrade_files_test, a_missing_pack_and_a_directory_in_its_place_are_failed_unpacks) {
    std::filesystem::create_directory(in_tree("hlthreat_rule/pack.tgz"));
    for (const char *const name : {"pack.tgz", "missing.tgz"}) {
        EXPECT_EQ(CUpgradeRelay::unzip_upgrade_rule(rule(name).c_str(), rules().c_str(), ".tgz"),
                  -1);
    }
    EXPECT_EQ(fakes::forks(), 8U);
}

TEST_F(kzemm_upgrade_files_test, a_target_directory_that_is_missing_fails_the_unpack) {
    drop_pack("pack.tgz", "some.json");
    EXPECT_EQ(CUpgradeRelay::unzip_upgrade_rule(rule("pack.tgz").c_str(),
                                                in_tree("missing").c_str(), ".tgz"),
              -1);
}

TEST_F(kzemm_upgrade_files_test, a_single_quote_breaks_the_command_line) {
    drop_pack("pack.tgz", "some.json");
    std::filesystem::rename(in_tree("hlthreat_rule/pack.tgz"), in_tree("hlthreat_rule/it's.tgz"));
    EXPECT_EQ(CUpgradeRelay::unzip_upgrade_rule(rule("it's.tgz").c_str(), rules().c_str(), ".tgz"),
              -1);
    lines expected;
    append_not_unpacked(expected, "it's.tgz");
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_FALSE(has_rule("some.json"));
}

TEST_F(kzemm_upgrade_files_test, a_command_line_of_1023_bytes_is_whole_and_a_longer_one_is_cut) {
    std::vector<std::string> commands;
    fakes::instead_of_commands([&](const std::string &command) {
        commands.push_back(command);
        return 0;
    });
    const std::string frame = "tar -zxvf '' -C '/d' ";
    for (const size_t more : {0U, 1U, 5U}) {
        const std::string pack(1023 - frame.size() + more, 'p');
        EXPECT_EQ(CUpgradeRelay::unzip_upgrade_rule(pack.c_str(), "/d", ".tgz"), 0);
        const std::string whole = "tar -zxvf '" + pack + "' -C '/d' ";
        EXPECT_EQ(commands.back(), whole.substr(0, 1023));
    }
}

// ---- test_for_solve ----

namespace {

class kzemm_upgrade_capture_test : public kzemm_upgrade_files_test {
  protected:
    void SetUp() override {
        kzemm_upgrade_files_test::SetUp();
        state::s_debug_adv_threat = true;
        write_rule("ioc_full_1.0.json", "refused");
    }

    static std::string stamp(time_t when) {
        tm parts = {};
        localtime_r(&when, &parts);
        return std::to_string(parts.tm_year + 1900) + "-" + std::to_string(parts.tm_mon + 1) + "-" +
               std::to_string(parts.tm_mday) + "--" + std::to_string(parts.tm_hour) + "." +
               std::to_string(parts.tm_min) + "." + std::to_string(parts.tm_sec);
    }

    // Captures a file and checks that the one new copy has this end of its name, behind the local
    // time of the call.
    void capture(const std::string &path, int error, const std::string &end) {
        const time_t before = time(nullptr);
        CUpgradeRelay::test_for_solve(path.c_str(), error);
        const time_t after = time(nullptr);
        names possible;
        for (time_t each = before; each <= after; ++each) {
            possible.push_back(stamp(each) + end);
        }
        ASSERT_EQ(entries("hlthreat_rule/tmp_dir").size(), 1U);
        EXPECT_THAT(possible, testing::Contains(entries("hlthreat_rule/tmp_dir")[0]));
    }

    const std::string refused = "ioc_full_1.0.json";
};

}  // namespace

TEST_F(kzemm_upgrade_capture_test, a_copy_has_the_time_the_code_and_the_name) {
    capture(rule(refused), -8, "_error_0xfffffff8_ioc_full_1.0.json");
    const std::string copy = entries("hlthreat_rule/tmp_dir")[0];
    EXPECT_EQ(read_file("hlthreat_rule/tmp_dir/" + copy), "refused");
    EXPECT_TRUE(has_rule(refused));
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_THAT(texts({what::file}),
                ElementsAre("mkdir " + rules() + "/tmp_dir/",
                            "copy " + rule(refused) + " to " + rules() + "/tmp_dir/" + copy));
}

TEST_F(kzemm_upgrade_capture_test, the_code_is_written_in_hexadecimal) {
    capture(rule(refused), 258, "_error_0x102_ioc_full_1.0.json");
}

TEST_F(kzemm_upgrade_capture_test, the_time_is_the_local_one) {
    setenv("TZ", "XYZ-7:30", 1);
    tzset();
    capture(rule(refused), 1, "_error_0x1_ioc_full_1.0.json");
    unsetenv("TZ");
    tzset();
}

TEST_F(kzemm_upgrade_capture_test, the_time_zone_is_that_of_now) {
    setenv("TZ", "XYZ-7:30", 1);
    tzset();
    setenv("TZ", "ABC+3", 1);  // nobody has told the C library yet
    const time_t before = time(nullptr);
    CUpgradeRelay::test_for_solve(rule(refused).c_str(), 1);
    const time_t after = time(nullptr);
    tzset();
    names possible;
    for (time_t each = before; each <= after; ++each) {
        possible.push_back(stamp(each) + "_error_0x1_ioc_full_1.0.json");
    }
    unsetenv("TZ");
    tzset();
    ASSERT_EQ(entries("hlthreat_rule/tmp_dir").size(), 1U);
    EXPECT_THAT(possible, testing::Contains(entries("hlthreat_rule/tmp_dir")[0]));
}

TEST_F(kzemm_upgrade_capture_test, the_directory_is_made_for_all_to_read) {
    const mode_t mask = umask(0);
    CUpgradeRelay::test_for_solve(rule(refused).c_str(), 1);
    umask(mask);
    struct stat made = {};
    ASSERT_EQ(stat(in_tree("hlthreat_rule/tmp_dir").c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0755U);
}

TEST_F(kzemm_upgrade_capture_test, captures_of_several_codes_lie_side_by_side) {
    CUpgradeRelay::test_for_solve(rule(refused).c_str(), 1);
    CUpgradeRelay::test_for_solve(rule(refused).c_str(), 2);
    EXPECT_EQ(entries("hlthreat_rule/tmp_dir").size(), 2U);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_upgrade_capture_test, without_a_path_nothing_happens) {
    CUpgradeRelay::test_for_solve(nullptr, 1);
    EXPECT_FALSE(has_rule("tmp_dir"));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_upgrade_capture_test, a_path_without_a_slash_is_refused_when_the_directory_is_made) {
    CUpgradeRelay::test_for_solve("bare.json", 1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "path param invaild!!")));
    EXPECT_THAT(entries("hlthreat_rule/tmp_dir"), IsEmpty());
}

TEST_F(kzemm_upgrade_capture_test, a_directory_that_cannot_be_made_ends_the_capture) {
    write_rule("tmp_dir", "a file in the way");
    CUpgradeRelay::test_for_solve(rule(refused).c_str(), 1);
    CUpgradeRelay::test_for_solve("bare.json", 1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "mkdir " + rules() + "/tmp_dir/ failed!!"),
                                         at(2, "mkdir " + rules() + "/tmp_dir/ failed!!")));
    EXPECT_EQ(read_file("hlthreat_rule/tmp_dir"), "a file in the way");
}

TEST_F(kzemm_upgrade_capture_test, any_code_of_the_directory_ends_the_capture) {
    for (const int code : {ENOSPC, EROFS, EACCES, -1}) {
        fakes::reset_file_faults();
        fakes::file_call_fails(file_call::make_directory, code);
        forget();
        CUpgradeRelay::test_for_solve(rule(refused).c_str(), 1);
        EXPECT_THAT(log_lines(), ElementsAre(at(2, "mkdir " + rules() + "/tmp_dir/ failed!!")));
        EXPECT_EQ(fakes::count(what::file), 1U);
    }
}

TEST_F(kzemm_upgrade_capture_test, a_copy_that_fails_costs_a_line) {
    for (const int code : {ENOSPC, EROFS, EACCES, -1}) {
        fakes::reset_file_faults();
        fakes::file_call_fails(file_call::copy, code);
        forget();
        CUpgradeRelay::test_for_solve(rule(refused).c_str(), 1);
        EXPECT_THAT(log_lines(),
                    ElementsAre(at(2, "file copy path " + rule(refused) + " failed!")));
    }
    EXPECT_THAT(entries("hlthreat_rule/tmp_dir"), IsEmpty());
}

TEST_F(kzemm_upgrade_capture_test, what_is_no_file_is_not_copied) {
    std::filesystem::create_directory(in_tree("hlthreat_rule/a.json"));
    std::filesystem::create_symlink("nowhere", in_tree("hlthreat_rule/b.json"));
    for (const char *const name : {"a.json", "b.json", "missing.json"}) {
        forget();
        CUpgradeRelay::test_for_solve(rule(name).c_str(), 1);
        EXPECT_THAT(log_lines(), ElementsAre(at(2, "file copy path " + rule(name) + " failed!")));
    }
    EXPECT_THAT(entries("hlthreat_rule/tmp_dir"), IsEmpty());
}

TEST_F(kzemm_upgrade_capture_test, a_path_that_ends_in_a_slash_has_no_name) {
    fakes::file_call_fails(file_call::copy, EISDIR);
    CUpgradeRelay::test_for_solve("/some/directory/", 16);
    EXPECT_THAT(texts({what::file})[1], MatchesRegex("copy /some/directory/ to .*_error_0x10_"));
}
