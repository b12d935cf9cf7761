/* What becomes of packs, told from the rule directory and the engine's loads. */
#include "agent/ctl/core/pack_fate.h"

#include <gmock/gmock.h>

#include <algorithm>

namespace kze_test {
namespace {

using kze::fate;
using kze::pack_event;
using kze::rule_kind;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using fates = std::vector<std::string>;

constexpr std::int64_t second = 1000000;
constexpr std::int64_t interval = 60 * second;

class pack_fates : public ::testing::Test {
  protected:
    pack_fates() {
        now.time_us = 1000000 * second;
        now.has_engine = true;
        now.versions = {{rule_kind::ioc, "1.0"}, {rule_kind::ioa, "1"}, {rule_kind::md, "1"}};
        now.interval_us = interval;
    }

    /* Something happens a second later than what was before. */
    void put(const std::string &name) {
        take(name);
        now.time_us += second;
        now.files.push_back({name, ++inodes, now.time_us, now.time_us});
    }
    void take(const std::string &name) {
        now.files.erase(std::remove_if(now.files.begin(), now.files.end(),
                                       [&name](const auto &file) { return file.name == name; }),
                        now.files.end());
    }
    void rename(const std::string &from, const std::string &to) {
        take(to);
        now.time_us += second;
        for (auto &file : now.files) {
            if (file.name == from) {
                file.name = to;
                file.changed_us = now.time_us;
            }
        }
    }
    /* The engine gets a rule file, which lies there, and answers. */
    kze::engine_load &load(rule_kind kind, const std::string &file, std::optional<int> code = 0) {
        put(file);
        now.time_us += second;
        kze::engine_load one;
        one.time_us = now.time_us;
        one.kind = kind;
        one.file = file;
        one.code = code;
        one.before = now.versions[kind];
        now.loads.push_back(one);
        return now.loads.back();
    }
    void rise(const std::string &version) {
        now.loads.back().after = version;
        now.versions[now.loads.back().kind] = version;
    }
    fates look() {
        now.time_us += second;
        fates told;
        for (const pack_event &event : follower.look(now)) {
            told.push_back(std::string(fate_text(event.what)) + " " + event.pack);
            last = event;
        }
        return told;
    }
    fates look_after(std::int64_t time) {
        now.time_us += time;
        return look();
    }

    kze::pack_snapshot now;
    pack_event last;
    std::string tar_says;
    kze::pack_follower follower{0, [this](const std::string &) { return tar_says; }};

  private:
    ino_t inodes = 0;
};

TEST_F(pack_fates, an_ioc_pack_is_in_work_until_its_rules_and_itself_are_gone) {
    look();
    put("ioc_full_5.0.tgz");
    EXPECT_THAT(look(), ElementsAre("new ioc_full_5.0.tgz"));
    EXPECT_THAT(last.reason, HasSubstr("number 1 in the order"));
    EXPECT_THAT(last.reason, HasSubstr("every 60 s"));
    load(rule_kind::ioc, "ioc_full_5.0.json");
    EXPECT_THAT(look(), ElementsAre("in work ioc_full_5.0.tgz"));
    rise("5.0");
    EXPECT_THAT(look(), IsEmpty());
    take("ioc_full_5.0.json");
    EXPECT_THAT(look(), IsEmpty()) << "the pack goes next";
    take("ioc_full_5.0.tgz");
    EXPECT_THAT(look(), ElementsAre("applied ioc_full_5.0.tgz"));
    EXPECT_EQ(last.engine, "5.0");
    EXPECT_TRUE(follower.is_empty());
}

TEST_F(pack_fates, what_goes_without_a_load_is_obsolete_too_old_or_gone_by_its_version) {
    now.versions[rule_kind::ioc] = "6.0";
    for (const char *name :
         {"ioc_full_4.0.tgz", "ioc_full_5.0.tgz", "ioc_inc_[any-7.0].tgz", "md_linux.tgz"}) {
        put(name);
    }
    look();
    now.files.clear();
    EXPECT_THAT(look(), ElementsAre("obsolete ioc_full_4.0.tgz", "too old ioc_full_5.0.tgz",
                                    "gone ioc_inc_[any-7.0].tgz", "gone md_linux.tgz"));
}

TEST_F(pack_fates, a_refusal_is_kept_or_dropped_by_its_code) {
    look();
    for (const std::optional<int> code :
         {std::optional(-8), std::optional(-14), std::optional<int>()}) {
        put("ioc_full_5.0.tgz");
        load(rule_kind::ioc, "ioc_full_5.0.json", code);
        EXPECT_THAT(look(), ::testing::Contains("refused and kept ioc_full_5.0.tgz"));
        EXPECT_EQ(last.code, code);
        put("md_linux_bk_1.tgz");
        load(rule_kind::md, "linux_kzemsi.ptn", code);
        EXPECT_THAT(look(), ::testing::Contains("refused and kept md_linux.tgz"));
    }
    put("ioc_full_6.0.tgz");
    load(rule_kind::ioc, "ioc_full_6.0.json", -3);
    put("ioa_linux_bk_1.tgz");
    load(rule_kind::ioa, "linux_kzedbd.cfg", -7);
    look();
    take("ioc_full_6.0.tgz");
    EXPECT_THAT(look(), ElementsAre("refused and dropped ioc_full_6.0.tgz"));
    EXPECT_EQ(last.code, -3);
    take("ioa_linux_bk_1.tgz");
    take("linux_kzedbd.cfg");
    EXPECT_THAT(look(), ElementsAre("refused and dropped ioa_linux_en.tgz"));
    EXPECT_EQ(last.code, -7);
}

TEST_F(pack_fates, a_kept_pack_may_be_applied_by_a_later_load) {
    put("ioc_full_5.0.tgz");
    load(rule_kind::ioc, "ioc_full_5.0.json", -8);
    look();
    load(rule_kind::ioc, "ioc_full_5.0.json");
    rise("5.0");
    EXPECT_THAT(look(), ElementsAre("in work ioc_full_5.0.tgz"));
    take("ioc_full_5.0.json");
    take("ioc_full_5.0.tgz");
    EXPECT_THAT(look(), ElementsAre("applied ioc_full_5.0.tgz"));
}

TEST_F(pack_fates, an_ioc_version_that_does_not_get_there_is_not_confirmed_after_five_minutes) {
    put("ioc_full_5.0.tgz");
    load(rule_kind::ioc, "ioc_full_5.0.json");
    rise("5.5");
    look();
    EXPECT_THAT(look_after(290 * second), IsEmpty());
    take("ioc_full_5.0.json");
    EXPECT_THAT(look_after(10 * second), ElementsAre("not confirmed ioc_full_5.0.tgz"));
    take("ioc_full_5.0.tgz");
    EXPECT_THAT(look(), ElementsAre("too old ioc_full_5.0.tgz"));
}

TEST_F(pack_fates, a_pack_that_is_taken_away_in_work_counts_as_gone) {
    put("ioc_full_5.0.tgz");
    load(rule_kind::ioc, "ioc_full_5.0.json");
    look();
    take("ioc_full_5.0.tgz");
    EXPECT_THAT(look(), IsEmpty());
    take("ioc_full_5.0.json");
    EXPECT_THAT(look(), ElementsAre("gone ioc_full_5.0.tgz"));
}

TEST_F(pack_fates, an_arrival_gets_a_backups_name_and_replaces_the_one_before) {
    put("ioa_linux_bk_1.tgz");
    put("ioa_linux_en.tgz");
    EXPECT_THAT(look(), ElementsAre("waiting ioa_linux_bk_1.tgz", "waiting ioa_linux_en.tgz"));
    take("ioa_linux_bk_1.tgz");
    rename("ioa_linux_en.tgz", "ioa_linux_bk_2.tgz");
    EXPECT_THAT(look(), ElementsAre("replaced ioa_linux_bk_1.tgz", "renamed ioa_linux_en.tgz"));
    EXPECT_EQ(last.reason, "ioa_linux_bk_2.tgz");
    load(rule_kind::ioa, "linux_kzedbd.cfg");
    EXPECT_THAT(look(), ElementsAre("in work ioa_linux_en.tgz"));
    rise("12");
    take("ioa_linux_bk_2.tgz");
    take("linux_kzedbd.cfg");
    EXPECT_THAT(look(), ElementsAre("applied ioa_linux_en.tgz"));
    EXPECT_EQ(last.engine, "12");
}

TEST_F(pack_fates, an_arrival_that_is_renamed_and_applied_between_two_looks_is_told_of) {
    put("md_linux.tgz");
    look();
    load(rule_kind::md, "linux_kzemsi.ptn").callback = 0;
    rise("7");
    now.files.clear();
    EXPECT_THAT(look(), ElementsAre("renamed md_linux.tgz", "in work md_linux.tgz",
                                    "applied md_linux.tgz"));
    EXPECT_EQ(last.engine, "7");
}

TEST_F(pack_fates, an_unchanged_ioa_version_counts_as_applied_and_a_fallen_one_as_not_confirmed) {
    for (const auto &[version, end] : {std::pair("5", "applied ioa_linux_en.tgz"),
                                       std::pair("4", "not confirmed ioa_linux_en.tgz")}) {
        now.versions[rule_kind::ioa] = "5";
        put("ioa_linux_bk_1.tgz");
        load(rule_kind::ioa, "linux_kzedbd.cfg");
        rise(version);
        look();
        now.files.clear();
        EXPECT_THAT(look(), IsEmpty()) << "not within the five minutes";
        EXPECT_THAT(look_after(300 * second), ElementsAre(end));
    }
}

TEST_F(pack_fates, an_md_pack_waits_for_the_callback_which_keeps_or_drops_it) {
    put("md_linux_bk_5.tgz");
    load(rule_kind::md, "linux_kzemsi.ptn");
    look();
    EXPECT_THAT(look_after(1000 * second), IsEmpty());
    now.loads.back().callback = -5;
    take("linux_kzemsi.ptn");
    EXPECT_THAT(look(), ElementsAre("refused and kept md_linux.tgz"));
    EXPECT_THAT(last.reason, HasSubstr("-5"));
    load(rule_kind::md, "linux_kzemsi.ptn").callback = -5;
    EXPECT_THAT(look(), ElementsAre("in work md_linux.tgz"));
    now.files.clear();
    EXPECT_THAT(look(), ElementsAre("refused and dropped md_linux.tgz"));
}

TEST_F(pack_fates, what_a_look_has_passed_over_is_unpack_failed_if_tar_says_so) {
    put("ioc_full_5.0.tgz");
    put("ioc_inc_[any-5.1].tgz");
    put("md_linux_bk_5.tgz");
    look();
    tar_says = "unexpected end";
    EXPECT_THAT(look_after(interval), IsEmpty());
    EXPECT_THAT(look_after(10 * second),
                ElementsAre("unpack failed ioc_full_5.0.tgz", "unpack failed md_linux_bk_5.tgz"))
        << "what stands behind has not had its turn";
    EXPECT_THAT(last.reason, HasSubstr("unexpected end"));
    EXPECT_THAT(look(), IsEmpty()) << "told once";
    put("ioc_full_5.0.tgz");
    EXPECT_THAT(look(), ElementsAre("replaced ioc_full_5.0.tgz"));
    tar_says = "";
    EXPECT_THAT(look_after(interval + 10 * second), ElementsAre("waiting ioc_full_5.0.tgz"));
    EXPECT_THAT(last.reason, HasSubstr("never reached the engine"));
}

TEST_F(pack_fates, while_another_pack_is_in_work_nothing_is_left_behind) {
    put("ioc_full_5.0.tgz");
    put("md_linux_bk_5.tgz");
    load(rule_kind::ioc, "ioc_full_5.0.json");
    look();
    EXPECT_THAT(look_after(200 * second), IsEmpty());
    rise("5.0");
    take("ioc_full_5.0.json");
    take("ioc_full_5.0.tgz");
    EXPECT_THAT(look(), ElementsAre("applied ioc_full_5.0.tgz", "waiting md_linux_bk_5.tgz"));
}

TEST_F(pack_fates, what_holds_up_the_packs_of_a_kind_is_told_once_and_only_if_there_are_some) {
    now.off = {rule_kind::ioc, rule_kind::ioa};
    put("ioc_full_5.0.tgz");
    EXPECT_THAT(look(), ElementsAre("waiting ioc_full_5.0.tgz", "waiting "));
    EXPECT_EQ(last.reason, "IOC is switched off");
    EXPECT_THAT(look_after(2 * interval), IsEmpty());
    now.has_engine = false;
    EXPECT_THAT(look(), ElementsAre("waiting "));
    EXPECT_THAT(last.reason, HasSubstr("doesn't answer"));
}

TEST_F(pack_fates, the_past_is_told_from_the_moment_that_is_asked_for) {
    load(rule_kind::md, "linux_kzemsi.ptn").callback = 0;
    load(rule_kind::ioc, "ioc_full_4.0.json");
    rise("4.0");
    const std::int64_t moment = now.time_us;
    put("ioc_inc_[any-6.0].tgz");
    load(rule_kind::ioc, "ioc_full_5.0.json");
    rise("5.0");
    take("linux_kzemsi.ptn");
    take("ioc_full_4.0.json");
    take("ioc_full_5.0.json");
    EXPECT_THAT(look(), ElementsAre("in work md_linux.tgz", "applied md_linux.tgz",
                                    "in work ioc_full_4.0.tgz", "applied ioc_full_4.0.tgz",
                                    "in work ioc_full_5.0.tgz", "applied ioc_full_5.0.tgz",
                                    "waiting ioc_inc_[any-6.0].tgz"));
    kze::pack_follower later{moment, [](const std::string &) { return ""; }};
    const std::vector<pack_event> events = later.look(now);
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(events[0].pack, "ioc_full_5.0.tgz");
    EXPECT_EQ(events[0].time_us, now.loads.back().time_us);
}

TEST_F(pack_fates, what_is_in_work_at_the_moment_that_is_asked_for_is_followed_to_its_end) {
    put("ioc_full_5.0.tgz");
    load(rule_kind::ioc, "ioc_full_5.0.json");
    kze::pack_follower later{now.time_us, [](const std::string &) { return ""; }};
    now.time_us += second;
    EXPECT_EQ(later.look(now).size(), 1U);
    rise("5.0");
    now.files.clear();
    now.time_us += second;
    const std::vector<pack_event> events = later.look(now);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].what, fate::applied);
}

/* Or else a load would count as done because its file didn't lie there yet. */
TEST_F(pack_fates, a_load_between_the_directory_and_the_engine_is_judged_at_the_next_look) {
    put("ioa_linux_bk_1.tgz");
    look();
    load(rule_kind::ioa, "linux_kzedbd.cfg").time_us += 10 * second;
    rise("12");
    take("linux_kzedbd.cfg");
    EXPECT_THAT(look(), ElementsAre("in work ioa_linux_en.tgz"));
    put("linux_kzedbd.cfg");
    EXPECT_THAT(look_after(10 * second), IsEmpty());
}

TEST_F(pack_fates, files_that_are_no_packs_are_not_told_of) {
    put("notes.txt");
    put("ioc_full_5.0.json");
    EXPECT_THAT(look(), IsEmpty());
    now.files.clear();
    EXPECT_THAT(look(), IsEmpty());
}

}  // namespace
}  // namespace kze_test
