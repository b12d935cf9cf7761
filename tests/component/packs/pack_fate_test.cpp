/* What the plug-in's log tells about packs. */
#include "agent/packs/pack_fate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kze_test {
namespace {

using kze::fate;
using kze::pack_event;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const std::string rules = "/a/bin/../hlthreat_rule//";

class pack_fates : public ::testing::Test {
  protected:
    /* Feeds records of the relay's log; "fate pack" of each event. */
    std::vector<std::string> relay(const std::vector<std::string> &records) {
        std::vector<std::string> told;
        for (const std::string &text : records) {
            add(log.relay_record(text), told);
        }
        return told;
    }
    std::vector<std::string> host(const std::vector<std::string> &records) {
        std::vector<std::string> told;
        for (const std::string &text : records) {
            add(log.host_record(text), told);
        }
        return told;
    }
    void begin(const std::string &part) {
        relay({"start upgrade, ioc switch: 1, ioa switch: 1, md switch: 1", part});
    }
    /* An IOA or MD pack from its arrival to its unpacking. */
    std::vector<std::string> arrive(const std::string &name, const std::string &backup) {
        return relay({"new tgz_name: " + rules + name, "has new tgz, rename",
                      "tgz_rename_name: " + rules + backup, "deal tgz: " + rules + backup,
                      "unzip file (" + rules + backup + ") successfully!"});
    }

    kze::pack_log log;
    pack_event last;

  private:
    void add(const std::vector<pack_event> &events, std::vector<std::string> &told) {
        for (const pack_event &event : events) {
            told.push_back(std::string(fate_text(event.what)) + " " + event.pack);
            last = event;
        }
    }
};

TEST_F(pack_fates, an_ioc_pack_is_unpacked_taken_and_applied_with_the_engines_version) {
    begin("upgrade ioc");
    EXPECT_THAT(
        relay({"query ioc engine result: ev.major:1, ev.minor:0",
               "unzip file (" + rules + "ioc_full_5.0.tgz) successfully!", "upgrade ioc engine",
               "invoke update interface success, waitting engine upgrade",
               "retry get ioc ver 0 times", "query ioc engine result: ev.major:5, ev.minor:0",
               "ioc old version = new version", "ioc file ioc_full_5.0 upgrade successful",
               "delete file (" + rules + "ioc_full_5.0.json)!",
               "delete file (" + rules + "ioc_full_5.0.tgz)!"}),
        ElementsAre("in work ioc_full_5.0.tgz", "in work ioc_full_5.0.tgz",
                    "applied ioc_full_5.0.tgz"));
    EXPECT_EQ(last.engine, "5.0");
    EXPECT_TRUE(is_end(last.what));
}

TEST_F(pack_fates, what_is_deleted_before_its_turn_is_obsolete_and_behind_the_engine_too_old) {
    begin("upgrade ioc");
    EXPECT_THAT(relay({"delete file (" + rules + "ioc_full_4.0.tgz)!",
                       "query ioc engine result: ev.major:6, ev.minor:0",
                       "ioc file version ioc_full_5.0 is too old",
                       "delete file (" + rules + "ioc_full_5.0.tgz)!"}),
                ElementsAre("obsolete ioc_full_4.0.tgz", "too old ioc_full_5.0.tgz"));
    EXPECT_THAT(last.reason, HasSubstr("6.0"));
}

TEST_F(pack_fates, a_refusal_is_kept_or_dropped_by_its_code) {
    for (const auto &[code, what] : std::vector<std::pair<int, fate>>{{-8, fate::refused_kept},
                                                                      {-14, fate::refused_kept},
                                                                      {-3, fate::refused_dropped},
                                                                      {5, fate::refused_dropped}}) {
        begin("upgrade ioc");
        relay({"unzip file (" + rules + "ioc_full_5.0.tgz) successfully!",
               "upgrade ioc engine failed with error code=" + std::to_string(code)});
        EXPECT_EQ(last.what, what) << code;
        EXPECT_EQ(last.code, code);
        if (what == fate::refused_dropped) {
            EXPECT_THAT(relay({"ioc upgrade failed,need delete tgz file",
                               "delete file (" + rules + "ioc_full_5.0.tgz)!"}),
                        IsEmpty())
                << "told once";
        }
        begin("upgrade ioa");
        arrive("ioa_linux_en.tgz", "ioa_linux_bk_1.tgz");
        relay({"invoke update func failed:" + std::to_string(code)});
        EXPECT_EQ(last.what, what) << code;
        begin("upgrade md, last result: 0, retry times: 0");
        arrive("md_linux.tgz", "md_linux_bk_1.tgz");
        relay({"upgrade md engine", "invoke update func failed: " + std::to_string(code)});
        EXPECT_EQ(last.what, what) << code;
        EXPECT_EQ(last.pack, "md_linux_bk_1.tgz");
        EXPECT_EQ(last.code, code);
    }
}

TEST_F(pack_fates, what_cannot_be_unpacked_or_confirmed_stays) {
    begin("upgrade ioc");
    EXPECT_THAT(relay({"unzip upgrade file ioc_full_5.0 failed"}),
                ElementsAre("unpack failed ioc_full_5.0.tgz"));
    EXPECT_FALSE(is_end(last.what));
    begin("upgrade ioc");
    relay({"unzip file (" + rules + "ioc_full_5.0.tgz) successfully!"});
    EXPECT_THAT(relay({"ioc upgrade reach to max times or query ioc ver failed,return"}),
                ElementsAre("not confirmed ioc_full_5.0.tgz"));
    EXPECT_FALSE(is_end(last.what));
    begin("upgrade ioa");
    EXPECT_THAT(relay({"unzip upgrade file ioa tgz file " + rules + "ioa_linux_bk_3.tgz failed"}),
                ElementsAre("unpack failed ioa_linux_bk_3.tgz"));
}

TEST_F(pack_fates, an_engine_that_does_not_tell_its_version_leaves_the_packs_waiting) {
    begin("upgrade ioc");
    EXPECT_THAT(relay({"query ioc version failed:-8"}), ElementsAre("waiting "));
    begin("upgrade ioc");
    EXPECT_THAT(relay({"ioc ver format error,can not find '.'!"}), ElementsAre("waiting "));
    EXPECT_THAT(last.reason, HasSubstr("no point"));
    relay({"unzip file (" + rules + "ioc_full_5.0.tgz) successfully!"});
    EXPECT_THAT(relay({"ioc ver format error,can not find '.'!"}), IsEmpty())
        << "one of sixty looks";
    begin("upgrade ioa");
    arrive("ioa_linux_en.tgz", "ioa_linux_bk_1.tgz");
    EXPECT_THAT(relay({"query ioa version failed:-8"}), ElementsAre("waiting ioa_linux_bk_1.tgz"));
    relay({"ul_ver_be:1", "invoke update interface success, waitting engine upgrade"});
    EXPECT_THAT(relay({"query ioa version failed:-8"}), IsEmpty()) << "one of sixty looks";
}

TEST_F(pack_fates, an_ioa_pack_gets_a_backups_name_and_replaces_the_one_before) {
    begin("upgrade ioa");
    EXPECT_THAT(relay({"bk_tgz_name: " + rules + "ioa_linux_bk_1.tgz",
                       "new tgz_name: " + rules + "ioa_linux_en.tgz", "has new tgz, rename",
                       "delete file (" + rules + "ioa_linux_bk_1.tgz)!",
                       "tgz_rename_name: " + rules + "ioa_linux_bk_2.tgz",
                       "deal tgz: " + rules + "ioa_linux_bk_2.tgz"}),
                ElementsAre("replaced ioa_linux_bk_1.tgz", "renamed ioa_linux_en.tgz"));
    EXPECT_EQ(last.reason, "ioa_linux_bk_2.tgz");
    EXPECT_THAT(relay({"unzip file (" + rules + "ioa_linux_bk_2.tgz) successfully!", "ul_ver_be:1",
                       "invoke update interface success, waitting engine upgrade",
                       "retry get ioa ver 0 times, ul_ver_be:1, ul_ver_af:12",
                       "ioa upgrade success", "delete file (" + rules + "ioa_linux_bk_2.tgz)!"}),
                ElementsAre("in work ioa_linux_bk_2.tgz", "in work ioa_linux_bk_2.tgz",
                            "applied ioa_linux_bk_2.tgz"));
    EXPECT_EQ(last.engine, "12");
}

TEST_F(pack_fates, an_arrival_that_cannot_be_renamed_waits) {
    begin("upgrade ioa");
    EXPECT_THAT(relay({"new tgz_name: " + rules + "ioa_linux_en.tgz", "has new tgz, rename",
                       "tgz_rename_name: " + rules + "ioa_linux_bk_2.tgz", "rename a to  b failed",
                       "get new tgz failed"}),
                ElementsAre("waiting ioa_linux_en.tgz"));
}

TEST_F(pack_fates, an_unchanged_ioa_version_counts_as_applied_and_a_fallen_one_as_not_confirmed) {
    begin("upgrade ioa");
    arrive("ioa_linux_en.tgz", "ioa_linux_bk_1.tgz");
    EXPECT_THAT(relay({"ioa upgrade reach to max times, ul_ver_be is equal to ul_ver_af!"}),
                ElementsAre("applied ioa_linux_bk_1.tgz"));
    begin("upgrade ioa");
    arrive("ioa_linux_en.tgz", "ioa_linux_bk_1.tgz");
    EXPECT_THAT(relay({"ioa upgrade reach to max times,return"}),
                ElementsAre("not confirmed ioa_linux_bk_1.tgz"));
}

TEST_F(pack_fates, the_end_of_an_md_update_is_told_by_another_threads_log) {
    begin("upgrade md, last result: 0, retry times: 0");
    EXPECT_THAT(arrive("md_linux.tgz", "md_linux_bk_5.tgz"),
                ElementsAre("renamed md_linux.tgz", "in work md_linux_bk_5.tgz"));
    EXPECT_THAT(relay({"upgrade md engine"}), ElementsAre("in work md_linux_bk_5.tgz"));
    EXPECT_THAT(host({"delete file (" + rules + "md_linux_bk_5.tgz)!",
                      "delete file (" + rules + "linux_kzemsi.ptn)!"}),
                ElementsAre("applied md_linux_bk_5.tgz"));
}

TEST_F(pack_fates, an_md_failure_keeps_the_pack_until_the_tenth) {
    begin("upgrade md, last result: 0, retry times: 0");
    arrive("md_linux.tgz", "md_linux_bk_5.tgz");
    relay({"upgrade md engine"});
    EXPECT_THAT(host({"delete file (" + rules + "linux_kzemsi.ptn)!"}),
                ElementsAre("refused and kept md_linux_bk_5.tgz"));
    EXPECT_THAT(relay({"upgrade md, last result: -5, retry times: 1"}),
                ElementsAre("waiting md_linux_bk_5.tgz"));
    EXPECT_THAT(last.reason, HasSubstr("-5"));
    EXPECT_THAT(last.reason, HasSubstr("1"));
    relay({"deal tgz: " + rules + "md_linux_bk_5.tgz",
           "unzip file (" + rules + "md_linux_bk_5.tgz) successfully!", "upgrade md engine"});
    EXPECT_THAT(host({"upgrade md error 10 times, delete " + rules + "md_linux_bk_5.tgz",
                      "delete file (" + rules + "md_linux_bk_5.tgz)!",
                      "delete file (" + rules + "linux_kzemsi.ptn)!"}),
                ElementsAre("refused and dropped md_linux_bk_5.tgz"));
}

TEST_F(pack_fates, a_pending_md_update_is_waited_for) {
    begin("upgrade md, last result: 0, retry times: 0");
    arrive("md_linux.tgz", "md_linux_bk_5.tgz");
    relay({"upgrade md engine"});
    EXPECT_THAT(relay({"upgrade md, last result: -16, retry times: 0"}),
                ElementsAre("waiting md_linux_bk_5.tgz"));
    EXPECT_THAT(last.reason, HasSubstr("called back"));
}

TEST_F(pack_fates, a_switch_that_is_off_is_told_once) {
    const std::string off = "start upgrade, ioc switch: 0, ioa switch: 1, md switch: 1";
    const std::string on = "start upgrade, ioc switch: 1, ioa switch: 1, md switch: 1";
    EXPECT_THAT(relay({off, off, on, off}), ElementsAre("waiting ", "waiting "));
    EXPECT_THAT(last.reason, HasSubstr("IOC is switched off"));
}

TEST_F(pack_fates, a_file_that_cannot_be_deleted_is_told) {
    begin("upgrade ioc");
    EXPECT_THAT(relay({"delete file (" + rules + "ioc_full_4.0.tgz) failed:1"}),
                ElementsAre("waiting ioc_full_4.0.tgz"));
}

TEST_F(pack_fates, the_interval_is_known_from_the_timer) {
    EXPECT_EQ(log.period_ms(), 0U);
    relay({"start upgrade timer(60000) success."});
    EXPECT_EQ(log.period_ms(), 60000U);
}

TEST_F(pack_fates, other_records_tell_nothing) {
    EXPECT_THAT(relay({"", "delete file (", "delete file (/a/b.json)!", "unzip file (", "upgrade ",
                       "ioc file  upgrade", "deal tgz: ", "start upgrade, nonsense"}),
                IsEmpty());
    EXPECT_THAT(host({"", "delete file (/a/ioc_full_5.0.tgz)!", "delete file ()!"}), IsEmpty());
}

}  // namespace
}  // namespace kze_test
