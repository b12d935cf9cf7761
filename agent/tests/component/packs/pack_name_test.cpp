/* What a pack's name is taken for: as the plug-in takes it. */
#include "agent/ctl/core/pack_name.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "tests/support/upgrade_rules.h"

namespace kze_test {
namespace {

using kze::ioc_version;
using kze::judge_packs;
using kze::pack_form_text;
using kze::pack_judgement;
using kze::pack_name_warnings;
using kze::pack_verdict;
using kze::read_pack_name;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::map<std::string, pack_judgement> judged(const std::vector<std::string> &names,
                                             const std::optional<ioc_version> &engine = {}) {
    std::map<std::string, pack_judgement> by_name;
    for (const pack_judgement &each : judge_packs(names, engine)) {
        by_name[each.pack.name] = each;
    }
    return by_name;
}

TEST(pack_names, forms_are_told_apart_by_parsing_alone) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"ioc_full_5.0.tgz", "full 5.0"},
        {"ioc_inc_[4.9-5.1].tgz", "incremental 5.1"},
        {"ioc_update_1.2.tgz", "full 1.2"},
        {"ioc_x-1.2].3.tgz", "incremental 1.2"},
        {"ioc_full_x-1.2].3.tgz", "full 0.2 and incremental 1.2"},
        {"ioc_inc_[4.9-5.1.tgz", "neither form"},
        {"ioc_full_5.tgz", "neither form"},
        {"ioc_full_.tgz", "neither form"},
        {"ioc_.tgz", "neither form"},
        {"ioc_full_5.0.tgz.part", "no pack"},
        {".ioc_full_5.0.tgz", "no pack"},
        {"ioa_linux_en.tgz", "IOA"},
        {"ioa_linux_bk_17.tgz", "IOA backup"},
        {"md_linux.tgz", "MD"},
        {"md_linux_bk_.tgz", "MD backup"},
        {"md_linux_en.tgz", "no pack"},
    };
    for (const auto &[name, form] : cases) {
        EXPECT_EQ(pack_form_text(read_pack_name(name)), form) << name;
    }
}

TEST(pack_names, what_make_names_is_taken_by_one_form_alone_and_warns_of_nothing) {
    for (const char *version : {"0.1", "1.0", "5.1", "2147483647.2147483647"}) {
        const std::string full = kze::ioc_full_base_name(version) + ".tgz";
        EXPECT_EQ(pack_form_text(read_pack_name(full)), std::string("full ") + version);
        EXPECT_THAT(pack_name_warnings(full), IsEmpty());
        for (const char *from : {"any", "0.0", "4.9"}) {
            const std::string incremental = kze::ioc_incremental_base_name(from, version) + ".tgz";
            EXPECT_EQ(pack_form_text(read_pack_name(incremental)),
                      std::string("incremental ") + version);
            EXPECT_THAT(pack_name_warnings(incremental), IsEmpty());
        }
    }
    EXPECT_THAT(pack_name_warnings(kze::ioa_pack_name), IsEmpty());
    EXPECT_THAT(pack_name_warnings(kze::md_pack_name), IsEmpty());
}

TEST(pack_names, a_name_that_is_taken_otherwise_than_it_looks_has_a_warning) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"ioc_5.0.tgz", "neither form"},
        {"IOC_full_5.0.tgz", "nobody takes"},
        {"ioc_update_1.2.tgz", "full pack of version 1.2 because of the letter u"},
        {"ioc_full_v5.0.tgz", "full pack of version 0.0"},
        {"ioc_full_4294967297.0.tgz", "full pack of version 1.0"},
        {"ioc_full_-1.0.tgz", "not above 0.0"},
        {"ioc_inc_[1.0-x.2].tgz", "incremental pack of version 0.2"},
        {"ioc_full_x-1.2].3.tgz", "fits both forms"},
        {"ioc_'full_1.2.tgz", "single quote"},
        {"md_linux_bk_1.tgz", "a new pack is called md_linux.tgz"},
    };
    for (const auto &[name, warning] : cases) {
        const std::vector<std::string> warnings = pack_name_warnings(name);
        EXPECT_THAT(warnings, ::testing::Contains(HasSubstr(warning))) << name;
    }
}

TEST(pack_names, of_the_full_packs_the_highest_goes_and_incrementals_at_or_below_it_do_not) {
    const auto all = judged({"ioc_inc_[5.0-5.1].tgz", "ioc_full_4.0.tgz", "ioc_inc_[x-5.0].tgz",
                             "ioc_full_5.0.tgz", "ioc_inc_[x-4.9].tgz", "readme", "ioc_5.tgz"});
    EXPECT_EQ(all.at("ioc_full_5.0.tgz").order, 1U);
    EXPECT_EQ(all.at("ioc_inc_[5.0-5.1].tgz").order, 2U);
    for (const char *name : {"ioc_full_4.0.tgz", "ioc_inc_[x-5.0].tgz", "ioc_inc_[x-4.9].tgz"}) {
        EXPECT_EQ(all.at(name).verdict, pack_verdict::obsolete) << name;
    }
    EXPECT_EQ(all.at("readme").verdict, pack_verdict::ignored);
    EXPECT_EQ(all.at("ioc_5.tgz").verdict, pack_verdict::ignored);
}

TEST(pack_names, what_the_engine_has_by_then_is_too_old) {
    const std::vector<std::string> names = {"ioc_full_5.0.tgz", "ioc_inc_[5.0-5.1].tgz",
                                            "ioc_inc_[4.0-5.1].tgz"};
    auto all = judged(names, ioc_version{5, 0});
    EXPECT_EQ(all.at("ioc_full_5.0.tgz").verdict, pack_verdict::too_old);
    EXPECT_EQ(all.at("ioc_inc_[5.0-5.1].tgz").order, 1U);
    EXPECT_EQ(all.at("ioc_inc_[4.0-5.1].tgz").verdict, pack_verdict::too_old);
    all = judged(names, ioc_version{6, 0});
    for (const std::string &name : names) {
        EXPECT_EQ(all.at(name).verdict, pack_verdict::too_old) << name;
    }
}

TEST(pack_names, an_arrival_replaces_the_first_backup_and_leaves_the_other) {
    const std::vector<pack_judgement> all = judge_packs(
        {"md_linux_bk_2.tgz", "md_linux_bk_1.tgz", "md_linux.tgz", "ioa_linux_bk_1.tgz"}, {});
    EXPECT_EQ(all[0].verdict, pack_verdict::obsolete);
    EXPECT_EQ(all[1].verdict, pack_verdict::passed_over);
    EXPECT_EQ(all[2].verdict, pack_verdict::goes);
    EXPECT_EQ(all[3].verdict, pack_verdict::goes);
}

/* Names with all that confuses: letters, signs, missing and doubled marks. */
std::string random_name(std::mt19937 &random) {
    static const std::vector<std::string> pieces = {
        "full", "inc", "f", "u", "l",  "_",  "_", "-", "-", "]",          "]",          ".",
        ".",    "0",   "1", "2", "10", "07", "+", " ", "x", "4294967297", "2147483648", "["};
    std::string name = "ioc_";
    if (random() % 2 == 0) {
        const std::string version =
            std::to_string(random() % 3) + "." + std::to_string(random() % 4);
        name += random() % 3 == 0 ? "full_" + version : "inc_[0.0-" + version + "]";
    } else {
        for (std::size_t count = random() % 10; count != 0; --count) {
            name += pieces[random() % pieces.size()];
        }
    }
    return name + ".tgz";
}

/* What the plug-in makes of the names, by the statement of its rules that it is itself held
 * against. */
TEST(pack_names, the_judgement_is_the_plug_ins) {
    std::mt19937 random(7);
    std::size_t kept = 0;
    std::size_t deleted = 0;
    for (int round = 0; round < 20000; ++round) {
        std::set<std::string> unique;
        for (std::size_t count = random() % 8; count != 0; --count) {
            unique.insert(random_name(random));
        }
        std::vector<std::string> names(unique.begin(), unique.end());
        std::shuffle(names.begin(), names.end(), random);
        const auto order_of_packs = upgrade_rules::relay::sort_ioc(names);

        const auto all = judged(names);
        std::set<std::string> obsolete;
        for (const auto &[name, each] : all) {
            if (each.verdict == pack_verdict::obsolete) {
                obsolete.insert(name);
            }
        }
        ASSERT_EQ(obsolete,
                  std::set<std::string>(order_of_packs.drop.begin(), order_of_packs.drop.end()))
            << "round " << round;
        /* Rising versions: those that stand in both lists are deleted before their turn. */
        unsigned int order = 0;
        std::optional<ioc_version> reached;
        std::set<std::string> seen;
        for (const auto &pack : order_of_packs.apply) {
            const std::string name = pack.name + ".tgz";
            if (!seen.insert(name).second) {
                continue; /* of both forms; its first turn counts */
            }
            const ioc_version version{pack.at.first, pack.at.second};
            if (obsolete.count(name) == 0 && (!reached || *reached < version)) {
                const pack_judgement &each = all.at(name);
                EXPECT_EQ(each.verdict, pack_verdict::goes) << name << " in round " << round;
                EXPECT_GT(each.order, order) << name << " in round " << round;
                order = each.order;
                ++kept;
            }
            reached = version;
        }
        deleted += obsolete.size();
    }
    EXPECT_GT(kept, 10000U);
    EXPECT_GT(deleted, 10000U);
}

}  // namespace
}  // namespace kze_test
