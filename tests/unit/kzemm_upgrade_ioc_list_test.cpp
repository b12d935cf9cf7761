#include <climits>
#include <string_view>

#include "tests/unit/upgrade_test.h"

using fakes::at;
using fakes::log_lines;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

constexpr char query[] = "x_client_engine_query_version_str";

class kzemm_upgrade_ioc_list_test : public upgrade_test {
  protected:
    struct sorted {
        names list;  // "name major.minor" of each pack, in order
        names deleted;
    };

    static sorted as_texts(const ioc_list &list, const names &deleted) {
        sorted result;
        for (size_t each = 0; each < list.size(); ++each) {
            const ioc_st pack = list[each];
            result.list.push_back(std::string(pack.name) + " " + std::to_string(pack.major) + "." +
                                  std::to_string(pack.minor));
        }
        result.deleted = deleted;
        return result;
    }
    static sorted full(const names &files) {
        ioc_list list;
        names deleted;
        CUpgradeRelay::get_max_full_version(files, list, deleted);
        return as_texts(list, deleted);
    }
    static sorted reorder(const names &files) {
        ioc_list list;
        names deleted;
        CUpgradeRelay::reorder_update(files, list, deleted);
        return as_texts(list, deleted);
    }

    static ioc_st version(int major, int minor) {
        ioc_st result;
        result.major = major;
        result.minor = minor;
        return result;
    }
};

}  // namespace

// ---- compare_ioc_version ----

TEST_F(kzemm_upgrade_ioc_list_test, versions_compare_by_major_then_minor_as_signed_numbers) {
    struct example {
        ioc_st old_version;
        ioc_st new_version;
        int result;
    };
    const example examples[] = {
        {version(1, 2), version(1, 3), 1},        {version(1, 3), version(1, 3), 0},
        {version(1, 4), version(1, 3), -1},       {version(1, 999), version(2, 0), 1},
        {version(2, 0), version(1, 999), -1},     {version(-1, 5), version(0, 0), 1},
        {version(0, 0), version(-1, 5), -1},      {version(INT_MIN, 0), version(INT_MAX, 0), 1},
        {version(0, INT_MAX), version(0, -1), -1}};
    const char *const words[] = {"ioc old version > new version", "ioc old version = new version",
                                 "ioc old version < new version"};
    for (const example &each : examples) {
        forget();
        int result = 99;
        EXPECT_EQ(CUpgradeRelay::compare_ioc_version(&each.new_version, &each.old_version, result),
                  0);
        EXPECT_EQ(result, each.result);
        EXPECT_THAT(log_lines(), ElementsAre(at(2, words[each.result + 1])));
    }
}

TEST_F(kzemm_upgrade_ioc_list_test, a_missing_version_is_refused_and_leaves_the_result) {
    const ioc_st some = version(1, 1);
    int result = 99;
    EXPECT_EQ(CUpgradeRelay::compare_ioc_version(nullptr, &some, result), -1);
    EXPECT_EQ(CUpgradeRelay::compare_ioc_version(&some, nullptr, result), -1);
    EXPECT_EQ(result, 99);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "param error"), at(1, "param error")));
}

// ---- query_ioc_engine_ver ----

TEST_F(kzemm_upgrade_ioc_list_test, the_engines_version_is_two_signed_decimals) {
    struct example {
        const char *text;
        int major;
        int minor;
    };
    for (const example &each :
         {example{"3.7", 3, 7}, example{"0.0", 0, 0}, example{"-1.-2", -1, -2},
          example{"1.2.3", 1, 2}, example{".5", 0, 5}, example{"5.", 5, 0}, example{".", 0, 0},
          example{"a.b", 0, 0}, example{"010.08x", 10, 8},
          example{"2147483648.4294967297", INT_MIN, 1}}) {
        forget();
        fakes::set_engine_version(ENGINE_IOC, each.text);
        EXPECT_EQ(relay->query_ioc_engine_ver(), 0);
        EXPECT_EQ(fields::ev(*relay).major, each.major) << each.text;
        EXPECT_EQ(fields::ev(*relay).minor, each.minor) << each.text;
        EXPECT_STREQ(fields::ev(*relay).name, "");
        EXPECT_THAT(
            log_lines(),
            ElementsAre(at(3, "query ioc engine result: ev.major:" + std::to_string(each.major) +
                                  ", ev.minor:" + std::to_string(each.minor))));
        EXPECT_THAT(fakes::engine_texts(), ElementsAre("x_client_engine_query_version_str(1)"));
    }
    EXPECT_EQ(fakes::engine_frees(), 10U);
}

TEST_F(kzemm_upgrade_ioc_list_test, a_version_without_a_point_is_none_and_its_text_goes_back) {
    fields::ev(*relay) = version(3, 7);
    for (const char *const text : {"5", "", "version"}) {
        forget();
        fakes::set_engine_version(ENGINE_IOC, text);
        EXPECT_EQ(relay->query_ioc_engine_ver(), -1);
        EXPECT_THAT(log_lines(), ElementsAre(at(1, "ioc ver format error,can not find '.'!")));
    }
    EXPECT_EQ(fields::ev(*relay).major, 3);
    EXPECT_EQ(fakes::engine_frees(), 3U);
}

TEST_F(kzemm_upgrade_ioc_list_test, a_query_that_fails_leaves_the_version) {
    fields::ev(*relay) = version(3, 7);
    fakes::set_engine_version(ENGINE_IOC, "5.5");
    fakes::engine_returns(query, {-3});
    EXPECT_EQ(relay->query_ioc_engine_ver(), 1);
    fakes::engine_hands_out_version(fakes::version_text::never);
    EXPECT_EQ(relay->query_ioc_engine_ver(), 1);
    EXPECT_EQ(fakes::engine_frees(), 0U);
    fakes::engine_hands_out_version(fakes::version_text::always);
    fakes::engine_returns(query, {7});
    EXPECT_EQ(relay->query_ioc_engine_ver(), 1);
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_EQ(fields::ev(*relay).major, 3);
    EXPECT_EQ(fields::ev(*relay).minor, 7);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "query ioc version failed:-3"),
                                         at(1, "query ioc version failed:0"),
                                         at(1, "query ioc version failed:7")));
}

// ---- get_max_full_version ----

TEST_F(kzemm_upgrade_ioc_list_test, of_full_packs_the_highest_is_taken_and_the_others_go) {
    const sorted result = full({"ioc_full_1.999.tgz", "ioc_full_2.1.tgz", "ioc_full_2.0.tgz",
                                "ioc_full_2.2.tgz", "ioc_full_0.5.tgz"});
    EXPECT_THAT(result.list, ElementsAre("ioc_full_2.2 2.2"));
    EXPECT_THAT(result.deleted, ElementsAre("ioc_full_1.999.tgz", "ioc_full_2.0.tgz",
                                            "ioc_full_2.1.tgz", "ioc_full_0.5.tgz"));
}

TEST_F(kzemm_upgrade_ioc_list_test, without_names_there_is_no_full_pack) {
    EXPECT_THAT(full({}).list, IsEmpty());
    EXPECT_THAT(full({}).deleted, IsEmpty());
}

TEST_F(kzemm_upgrade_ioc_list_test, any_of_the_letters_f_u_and_l_makes_a_name_a_candidate) {
    for (const char *const name :
         {"ioc_f_1.2.tgz", "ioc_u_1.2.tgz", "ioc_l_1.2.tgz", "ioc_update_1.2.tgz",
          "ioc_linux_1.2.tgz", "ioc_xxl_1.2.tgz", "ioc_full_1.2.tgz", "ioc_luf_1.2.tgz"}) {
        const std::string cut = std::string(name).substr(0, std::string_view(name).size() - 4);
        EXPECT_THAT(full({name}).list, ElementsAre(cut + " 1.2")) << name;
    }
    for (const char *const name : {"ioc_all.tgz", "ioc_FULL_1.2.tgz", "ioc_x_1.2.tgz",
                                   "ioc_1.2.tgz", "ioc_x_1.2_full.tgz"}) {
        EXPECT_THAT(full({name}).list, IsEmpty()) << name;
        EXPECT_THAT(full({name}).deleted, IsEmpty()) << name;
    }
}

TEST_F(kzemm_upgrade_ioc_list_test, the_first_letter_counts_and_the_first_underscore_behind_it) {
    EXPECT_THAT(full({"ioc_nul_3.4_full_1.2.tgz"}).list, ElementsAre("ioc_nul_3.4_full_1.2 3.4"));
    EXPECT_THAT(full({"ioc_full_x_5.6.tgz"}).deleted, IsEmpty());
    EXPECT_THAT(full({"ioc_full_x_5.6.tgz"}).list, ElementsAre("ioc_full_x_5.6 0.6"));
}

TEST_F(kzemm_upgrade_ioc_list_test, a_name_with_a_piece_missing_is_passed_over) {
    for (const char *const name : {"ioc_full_5.tgz", "ioc_full_5", "ioc_full-5.0.tgz", "ioc_full",
                                   "", "f", "full_", "u_.", "ioc.full.5.0.tgz", "ioc_.full_tgz"}) {
        EXPECT_THAT(full({name}).list, IsEmpty()) << name;
        EXPECT_THAT(full({name}).deleted, IsEmpty()) << name;
    }
}

TEST_F(kzemm_upgrade_ioc_list_test, a_version_of_zero_is_deleted) {
    const sorted result = full({"ioc_full_0.0.tgz", "ioc_full_a.b.tgz", "ioc_full_..tgz"});
    EXPECT_THAT(result.list, IsEmpty());
    EXPECT_THAT(result.deleted,
                ElementsAre("ioc_full_0.0.tgz", "ioc_full_a.b.tgz", "ioc_full_..tgz"));
}

TEST_F(kzemm_upgrade_ioc_list_test, of_two_equal_full_packs_the_first_stays) {
    const sorted result = full({"ioc_full_2.1.tgz", "ioc_full_02.01.tgz", "ioc_full_2.1x.tgz"});
    EXPECT_THAT(result.list, ElementsAre("ioc_full_2.1 2.1"));
    EXPECT_THAT(result.deleted, ElementsAre("ioc_full_02.01.tgz", "ioc_full_2.1x.tgz"));
}

TEST_F(kzemm_upgrade_ioc_list_test, numbers_that_wrap_are_compared_as_signed_ones) {
    EXPECT_THAT(full({"ioc_full_4294967297.4294967298.tgz"}).list,
                ElementsAre("ioc_full_4294967297.4294967298 1.2"));
    EXPECT_THAT(full({"ioc_full_9223372036854775809.2.tgz"}).list,
                ElementsAre("ioc_full_9223372036854775809.2 1.2"));
    EXPECT_THAT(full({"ioc_full_2147483647.1.tgz"}).list,
                ElementsAre("ioc_full_2147483647.1 2147483647.1"));
    for (const char *const name : {"ioc_full_2147483648.1.tgz", "ioc_full_4294967295.1.tgz",
                                   "ioc_full_-1.9.tgz", "ioc_full_18446744073709551616.1.tgz",
                                   "ioc_full_0.2147483648.tgz", "ioc_full_0.4294967296.tgz"}) {
        EXPECT_THAT(full({name}).list, IsEmpty()) << name;
        EXPECT_THAT(full({name}).deleted, ElementsAre(name));
    }
    const sorted result =
        full({"ioc_full_2147483648.9.tgz", "ioc_full_1.4294967295.tgz", "ioc_full_1.0.tgz"});
    EXPECT_THAT(result.list, ElementsAre("ioc_full_1.0 1.0"));
    EXPECT_THAT(result.deleted,
                ElementsAre("ioc_full_2147483648.9.tgz", "ioc_full_1.4294967295.tgz"));
}

TEST_F(kzemm_upgrade_ioc_list_test, a_name_is_cut_at_its_last_point) {
    EXPECT_THAT(full({"ioc_full_1.2.3.tgz"}).list, ElementsAre("ioc_full_1.2.3 1.2"));
}

// ---- reorder_update ----

TEST_F(kzemm_upgrade_ioc_list_test, incrementals_above_the_full_pack_follow_it_in_rising_order) {
    const sorted result =
        reorder({"ioc_x-6.10].tgz", "ioc_x-5.1].tgz", "ioc_full_5.0.tgz", "ioc_x-4.9].tgz",
                 "ioc_x-5.0].tgz", "ioc_x-6.9].tgz", "ioc_full_4.0.tgz", "ioc_x-10.0].tgz"});
    EXPECT_THAT(result.list, ElementsAre("ioc_full_5.0 5.0", "ioc_x-5.1] 5.1", "ioc_x-6.9] 6.9",
                                         "ioc_x-6.10] 6.10", "ioc_x-10.0] 10.0"));
    EXPECT_THAT(result.deleted,
                ElementsAre("ioc_full_4.0.tgz", "ioc_x-4.9].tgz", "ioc_x-5.0].tgz"));
}

TEST_F(kzemm_upgrade_ioc_list_test, without_a_full_pack_incrementals_are_above_zero_or_go) {
    const sorted result =
        reorder({"ioc_x-2.0].tgz", "ioc_x-0.0].tgz", "ioc_x-a.b].tgz", "ioc_x-1.999].tgz",
                 "ioc_x-0.1].tgz", "ioc_x-4294967295.0].tgz"});
    EXPECT_THAT(result.list, ElementsAre("ioc_x-0.1] 0.1", "ioc_x-1.999] 1.999", "ioc_x-2.0] 2.0"));
    EXPECT_THAT(result.deleted,
                ElementsAre("ioc_x-0.0].tgz", "ioc_x-a.b].tgz", "ioc_x-4294967295.0].tgz"));
}

TEST_F(kzemm_upgrade_ioc_list_test, what_stands_before_the_dash_is_not_read) {
    EXPECT_THAT(reorder({"ioc_9.9-1.2]_more.tgz", "ioc_[3.1-3.2].tgz"}).list,
                ElementsAre("ioc_9.9-1.2]_more 1.2", "ioc_[3.1-3.2] 3.2"));
}

TEST_F(kzemm_upgrade_ioc_list_test, the_first_dash_counts_and_the_next_point_and_bracket) {
    EXPECT_THAT(reorder({"ioc_x-1.2-3.4].tgz"}).list, ElementsAre("ioc_x-1.2-3.4] 1.2"));
    EXPECT_THAT(reorder({"ioc_x-1.2.3]a]b.tgz"}).list, ElementsAre("ioc_x-1.2.3]a]b 1.2"));
    EXPECT_THAT(reorder({"ioc_x--1.2].tgz"}).deleted, ElementsAre("ioc_x--1.2].tgz"));
    EXPECT_THAT(reorder({"ioc_x]-1.2].tgz"}).list, ElementsAre("ioc_x]-1.2] 1.2"));
}

TEST_F(kzemm_upgrade_ioc_list_test, names_of_neither_form_go_nowhere) {
    for (const char *const name : {"ioc_x.tgz", "ioc_x-1].tgz", "ioc_x-1.2.tgz", "ioc_x]-1.2.tgz",
                                   "ioc_x_1.2].tgz", "ioc_full-1.2.tgz", "", "-", "-.", "."}) {
        EXPECT_THAT(reorder({name}).list, IsEmpty()) << name;
        EXPECT_THAT(reorder({name}).deleted, IsEmpty()) << name;
    }
}

TEST_F(kzemm_upgrade_ioc_list_test, a_name_of_both_forms_may_be_in_the_list_and_to_be_deleted) {
    const sorted lower = reorder({"ioc_lnx_-3.4].tgz"});
    EXPECT_THAT(lower.list, ElementsAre("ioc_lnx_-3.4] 3.4"));
    EXPECT_THAT(lower.deleted, ElementsAre("ioc_lnx_-3.4].tgz"));

    const sorted below_another = reorder({"ioc_full_9.0.tgz", "ioc_lnx_1.0-9.1].tgz"});
    EXPECT_THAT(below_another.list, ElementsAre("ioc_full_9.0 9.0", "ioc_lnx_1.0-9.1] 9.1"));
    EXPECT_THAT(below_another.deleted, ElementsAre("ioc_lnx_1.0-9.1].tgz"));
}

TEST_F(kzemm_upgrade_ioc_list_test, a_name_of_both_forms_may_be_in_the_list_twice) {
    const sorted twice = reorder({"ioc_full_5.0-6.1].tgz"});
    EXPECT_THAT(twice.list, ElementsAre("ioc_full_5.0-6.1] 5.0", "ioc_full_5.0-6.1] 6.1"));
    EXPECT_THAT(twice.deleted, IsEmpty());
}

TEST_F(kzemm_upgrade_ioc_list_test, a_name_of_both_forms_may_be_to_be_deleted_twice) {
    const sorted twice = reorder({"ioc_lnx_0.0-0.0].tgz"});
    EXPECT_THAT(twice.list, IsEmpty());
    EXPECT_THAT(twice.deleted, ElementsAre("ioc_lnx_0.0-0.0].tgz", "ioc_lnx_0.0-0.0].tgz"));
}

TEST_F(kzemm_upgrade_ioc_list_test, two_incrementals_of_one_version_both_stay) {
    const sorted result = reorder({"ioc_b-1.1].tgz", "ioc_a-1.1].tgz", "ioc_c-1.0].tgz"});
    ASSERT_EQ(result.list.size(), 3U);
    EXPECT_EQ(result.list[0], "ioc_c-1.0] 1.0");
    EXPECT_THAT(names(result.list.begin() + 1, result.list.end()),
                UnorderedElementsAre("ioc_a-1.1] 1.1", "ioc_b-1.1] 1.1"));
    EXPECT_THAT(result.deleted, IsEmpty());
}

TEST_F(kzemm_upgrade_ioc_list_test, a_name_longer_than_the_record_is_cut) {
    for (const size_t length : {1022U, 1023U, 1024U, 3000U}) {
        ioc_list list;
        names deleted;
        const std::string end = "-1.2]";
        const std::string name = std::string(length - end.size(), 'x') + end;
        CUpgradeRelay::reorder_update({name + ".tgz"}, list, deleted);
        ASSERT_EQ(list.size(), 1U);
        EXPECT_EQ(list[0].name, name.substr(0, 1023));
        EXPECT_EQ(list[0].major, 1);
    }
}

TEST_F(kzemm_upgrade_ioc_list_test, a_hundred_thousand_names_are_sorted) {
    names files;
    for (int each = 0; each < 100000; ++each) {
        const int mixed = static_cast<int>(each * 7919LL % 100000);
        files.push_back("ioc_x-" + std::to_string(mixed / 300) + "." + std::to_string(mixed % 300) +
                        "].tgz");
    }
    ioc_list list;
    names deleted;
    CUpgradeRelay::reorder_update(files, list, deleted);
    EXPECT_THAT(deleted, ElementsAre("ioc_x-0.0].tgz"));
    ASSERT_EQ(list.size(), 99999U);
    for (int each = 1; each < 100000; ++each) {
        const ioc_st pack = list[static_cast<size_t>(each) - 1];
        ASSERT_EQ(pack.major * 300 + pack.minor, each);
        ASSERT_EQ(pack.name,
                  "ioc_x-" + std::to_string(pack.major) + "." + std::to_string(pack.minor) + "]");
    }
}
