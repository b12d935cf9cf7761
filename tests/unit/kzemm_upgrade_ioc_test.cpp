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
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr char query[] = "x_client_engine_query_version_str";
constexpr char update[] = "x_client_engine_update";

class kzemm_upgrade_ioc_test : public upgrade_test {
  protected:
    int handle() { return relay->upgrade_ioc_handle(); }

    static void engine_is_at(const std::string &version) {
        fakes::set_engine_version(ENGINE_IOC, version);
    }
    // The engine takes each file and is at the version that stands in its name from then on.
    static void engine_follows() {
        fakes::on_engine_call(update, [](const fakes::engine_call &call) {
            const size_t from = call.text.find_last_of("_-") + 1;
            engine_is_at(call.text.substr(from, call.text.rfind(".json") - from));
        });
    }
    // The versions that the next queries give; the last one stays.
    static void give_versions(const names &versions) {
        auto left = std::make_shared<names>(versions);
        fakes::on_engine_call(query, [left](const fakes::engine_call &) {
            engine_is_at(left->front());
            if (left->size() > 1) {
                left->erase(left->begin());
            }
        });
    }
    // The names of the files that the engine was given, in order.
    names applied() const {
        names result;
        for (const fakes::engine_call &each : fakes::engine_calls(update)) {
            const std::string start = "x_client_engine_update(1, " + rules() + "/";
            EXPECT_EQ(each.text.substr(0, start.size()), start);
            result.push_back(each.text.substr(start.size(), each.text.size() - start.size() - 1));
        }
        return result;
    }

    lines begin_lines() const {
        return {at(3, "upzipfiledir:" + rules() + ",iocfullflag:" + flag())};
    }
    static line found(const std::string &pack) { return at(3, "find file name: " + pack); }
    static line queried(int major, int minor) {
        return at(3, "query ioc engine result: ev.major:" + std::to_string(major) +
                         ", ev.minor:" + std::to_string(minor));
    }
    // The lines of a pack that the engine, below it, takes and confirms at once.
    void append_applied(lines &to, const std::string &name, int major, int minor) const {
        to.push_back(at(2, "ioc old version < new version"));
        append_unpacked(to, name + ".tgz");
        append(to, {at(3, "upgrade ioc engine"),
                    at(3, "invoke update interface success, waitting engine upgrade"),
                    at(3, "retry get ioc ver 0 times"), queried(major, minor),
                    at(2, "ioc old version = new version"),
                    at(3, "ioc file " + name + " upgrade successful")});
        append_deleted(to, rule(name + ".json"));
        append_deleted(to, rule(name + ".tgz"));
    }
};

}  // namespace

// ---- upgrade_ioc_handle ----

TEST_F(kzemm_upgrade_ioc_test, without_packs_the_engine_is_not_asked) {
    write_rule("ioc_full_1.0.json");
    write_rule("xioc_full_1.0.tgz");
    write_rule("ioc_full_1.0.tgz.part");
    write_file("config/ioc_full_tag", "");
    EXPECT_EQ(handle(), 0);
    EXPECT_THAT(log_lines(), ElementsAreArray(begin_lines()));
    EXPECT_THAT(engine_texts(), IsEmpty());
    EXPECT_EQ(entries().size(), 3U);
    EXPECT_TRUE(exists("config/ioc_full_tag"));
}

TEST_F(kzemm_upgrade_ioc_test, a_confirmed_pack_goes_with_its_file_and_the_flag) {
    engine_is_at("4.0");
    engine_follows();
    drop_ioc("ioc_full_5.0");
    write_file("config/ioc_full_tag", "");
    EXPECT_EQ(handle(), 0);
    lines expected = begin_lines();
    append(expected, {found("ioc_full_5.0.tgz"), queried(4, 0)});
    append_applied(expected, "ioc_full_5.0", 5, 0);
    append_deleted(expected, flag());
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(engine_texts(),
                ElementsAre("x_client_engine_query_version_str(1)",
                            "x_client_engine_update(1, " + rule("ioc_full_5.0.json") + ")",
                            "x_client_engine_query_version_str(1)"));
    EXPECT_THAT(entries(), IsEmpty());
    EXPECT_FALSE(exists("config/ioc_full_tag"));
    EXPECT_THAT(fakes::sleeps(), ElementsAre(5 * second));
}

TEST_F(kzemm_upgrade_ioc_test, what_is_obsolete_goes_before_the_engine_is_asked) {
    engine_is_at("1.0");
    engine_follows();
    for (const char *const name :
         {"ioc_x-4.8", "ioc_x-4.9", "ioc_full_5.0", "ioc_full_4.0", "ioc_x-5.1"}) {
        drop_pack(std::string(name) + (name[4] == 'x' ? "].tgz" : ".tgz"),
                  std::string(name) + (name[4] == 'x' ? "].json" : ".json"));
    }
    fakes::on_engine_call(query, [this](const fakes::engine_call &) {
        EXPECT_FALSE(has_rule("ioc_x-4.8].tgz"));
        EXPECT_FALSE(has_rule("ioc_x-4.9].tgz"));
        EXPECT_FALSE(has_rule("ioc_full_4.0.tgz"));
    });
    fakes::on_engine_call(update, [](const fakes::engine_call &call) {
        engine_is_at(call.text.find("full") != std::string::npos ? "5.0" : "5.1");
    });
    EXPECT_EQ(handle(), 0);
    EXPECT_THAT(applied(), ElementsAre("ioc_full_5.0.json", "ioc_x-5.1].json"));
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(kzemm_upgrade_ioc_test, only_the_first_entry_queries_before_it_is_compared) {
    engine_is_at("1.0");
    engine_follows();
    for (const char *const name : {"ioc_x-2.0]_-2.0", "ioc_x-3.0]_-3.0", "ioc_x-4.0]_-4.0"}) {
        drop_ioc(name);
    }
    EXPECT_EQ(handle(), 0);
    EXPECT_EQ(updates(), 3U);
    EXPECT_EQ(queries(), 4U);
    EXPECT_EQ(engine_texts()[0], "x_client_engine_query_version_str(1)");
}

// Between the first pack and the second, the engine has gone on by itself. Nobody asks it.
TEST_F(kzemm_upgrade_ioc_test, later_entries_compare_with_the_version_that_the_polling_left) {
    engine_is_at("1.0");
    drop_ioc("ioc_x-2.0]");
    drop_ioc("ioc_x-3.0]");
    give_versions({"1.0", "2.0", "3.0"});
    EXPECT_EQ(handle(), 0);
    EXPECT_THAT(applied(), ElementsAre("ioc_x-2.0].json", "ioc_x-3.0].json"));
}

TEST_F(kzemm_upgrade_ioc_test, a_version_that_cannot_be_told_ends_the_pass_and_deletes_nothing) {
    drop_ioc("ioc_full_5.0");
    drop_ioc("ioc_x-6.0]");
    write_file("config/ioc_full_tag", "");
    fakes::engine_always_returns(query, 4);
    EXPECT_EQ(handle(), 1);
    EXPECT_THAT(log_lines().back(), at(1, "query ioc version failed:4"));
    fakes::engine_always_returns(query, 0);
    engine_is_at("5");
    EXPECT_EQ(handle(), -1);
    EXPECT_THAT(log_lines().back(), at(1, "ioc ver format error,can not find '.'!"));
    EXPECT_EQ(updates(), 0U);
    EXPECT_EQ(fakes::forks(), 0U);
    EXPECT_THAT(entries(), ElementsAre("ioc_full_5.0.tgz", "ioc_x-6.0].tgz"));
    EXPECT_TRUE(exists("config/ioc_full_tag"));
}

TEST_F(kzemm_upgrade_ioc_test, packs_at_or_below_the_engines_version_go_unapplied) {
    engine_is_at("5.1");
    write_rule("ioc_full_5.0.tgz");
    write_rule("ioc_x-5.1].tgz");
    write_file("config/ioc_full_tag", "");
    const names order = in_directory_order("ioc_");
    EXPECT_EQ(handle(), 0);
    lines expected = begin_lines();
    append(expected,
           {found(order[0]), found(order[1]), queried(5, 1), at(2, "ioc old version > new version"),
            at(2, "ioc file version ioc_full_5.0 is too old")});
    append_deleted(expected, rule("ioc_full_5.0.tgz"));
    append(expected, {at(2, "ioc old version = new version"),
                      at(2, "ioc file version ioc_x-5.1] is too old")});
    append_deleted(expected, rule("ioc_x-5.1].tgz"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(engine_texts(), ElementsAre("x_client_engine_query_version_str(1)"));
    EXPECT_THAT(entries(), IsEmpty());
    EXPECT_TRUE(exists("config/ioc_full_tag"));
}

TEST_F(kzemm_upgrade_ioc_test, of_two_packs_of_one_version_the_second_is_too_old) {
    engine_is_at("1.0");
    drop_ioc("ioc_a-2.0]");
    drop_ioc("ioc_b-2.0]");
    fakes::on_engine_call(update, [](const fakes::engine_call &) { engine_is_at("2.0"); });
    EXPECT_EQ(handle(), 0);
    EXPECT_EQ(updates(), 1U);
    EXPECT_EQ(queries(), 2U);
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(kzemm_upgrade_ioc_test, a_pack_that_cannot_be_unpacked_stays_and_ends_the_pass) {
    engine_is_at("1.0");
    write_rule("ioc_full_5.0.tgz", "no archive");
    write_rule("ioc_full_5.0.json", "half of it");
    drop_ioc("ioc_x-6.0]");
    const names order = in_directory_order(".tgz");
    write_file("config/ioc_full_tag", "");
    EXPECT_EQ(handle(), -1);
    lines expected = begin_lines();
    append(expected, {found(order[0]), found(order[1]), queried(1, 0),
                      at(2, "ioc old version < new version")});
    append_not_unpacked(expected, "ioc_full_5.0.tgz");
    expected.push_back(at(2, "unzip upgrade file ioc_full_5.0 failed"));
    append_deleted(expected, rule("ioc_full_5.0.json"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(entries(), ElementsAre("ioc_full_5.0.tgz", "ioc_x-6.0].tgz"));
    EXPECT_EQ(updates(), 0U);
    EXPECT_TRUE(exists("config/ioc_full_tag"));
}

TEST_F(kzemm_upgrade_ioc_test, a_pack_refused_for_now_stays_with_its_file_and_ends_the_pass) {
    engine_is_at("1.0");
    drop_ioc("ioc_full_5.0");
    drop_ioc("ioc_x-6.0]");
    write_file("config/ioc_full_tag", "");
    for (const int code : {-8, -14, -8}) {
        forget();
        fakes::engine_returns(update, {code});
        EXPECT_EQ(handle(), 1);
        const std::vector<fakes::record> told = log_lines();
        ASSERT_GE(told.size(), 3U);
        EXPECT_THAT(told[told.size() - 3], at(3, "upgrade ioc engine"));
        EXPECT_THAT(told[told.size() - 2],
                    at(2, "upgrade ioc engine failed with error code=" + std::to_string(code)));
        EXPECT_THAT(told[told.size() - 1], at(1, "ioc upgrade failed,no need delete tgz file"));
        EXPECT_THAT(entries(),
                    ElementsAre("ioc_full_5.0.json", "ioc_full_5.0.tgz", "ioc_x-6.0].tgz"));
    }
    EXPECT_TRUE(exists("config/ioc_full_tag"));
    EXPECT_THAT(fakes::sleeps(), IsEmpty());
}

TEST_F(kzemm_upgrade_ioc_test, a_pack_refused_with_any_other_code_goes_and_its_file_stays) {
    engine_is_at("1.0");
    drop_ioc("ioc_x-6.0]");
    write_file("config/ioc_full_tag", "");
    for (const int code : {-1, -7, -9, -13, -15, 1, 8, 14, INT_MIN, INT_MAX}) {
        drop_ioc("ioc_full_5.0");
        forget();
        fakes::engine_returns(update, {code});
        EXPECT_EQ(handle(), -1);
        const std::vector<fakes::record> told = log_lines();
        ASSERT_GE(told.size(), 3U);
        EXPECT_THAT(told[told.size() - 3],
                    at(2, "upgrade ioc engine failed with error code=" + std::to_string(code)));
        EXPECT_THAT(told[told.size() - 2], at(1, "ioc upgrade failed,need delete tgz file"));
        EXPECT_THAT(told[told.size() - 1],
                    at(3, "delete file (" + rule("ioc_full_5.0.tgz") + ")!"));
        EXPECT_THAT(entries(), ElementsAre("ioc_full_5.0.json", "ioc_x-6.0].tgz"));
    }
    EXPECT_TRUE(exists("config/ioc_full_tag"));
}

TEST_F(kzemm_upgrade_ioc_test, a_pack_that_is_not_confirmed_stays_without_its_file) {
    engine_is_at("1.0");
    drop_ioc("ioc_full_5.0");
    drop_ioc("ioc_x-6.0]");
    write_file("config/ioc_full_tag", "");
    EXPECT_EQ(handle(), 1);
    EXPECT_EQ(fakes::slept_us(), 300 * second);
    EXPECT_EQ(queries(), 61U);
    EXPECT_EQ(updates(), 1U);
    EXPECT_THAT(entries(), ElementsAre("ioc_full_5.0.tgz", "ioc_x-6.0].tgz"));
    EXPECT_TRUE(exists("config/ioc_full_tag"));
    const std::vector<fakes::record> told = log_lines();
    EXPECT_THAT(told[told.size() - 3], at(3, "delete file (" + rule("ioc_full_5.0.json") + ")!"));
    EXPECT_THAT(told[told.size() - 2],
                at(1, "ioc upgrade reach to max times or query ioc ver failed,return"));
    EXPECT_THAT(told[told.size() - 1], at(1, "ioc upgrade failed,no need delete tgz file"));
}

TEST_F(kzemm_upgrade_ioc_test, a_pack_that_the_engine_jumps_past_stays_until_the_next_tick) {
    engine_is_at("1.0");
    drop_ioc("ioc_full_5.0");
    fakes::on_engine_call(update, [](const fakes::engine_call &) { engine_is_at("5.1"); });
    EXPECT_EQ(handle(), 1);
    EXPECT_THAT(entries(), ElementsAre("ioc_full_5.0.tgz"));
    EXPECT_EQ(handle(), 0);
    EXPECT_EQ(updates(), 1U);
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(kzemm_upgrade_ioc_test, a_pack_that_is_refused_for_now_stays_for_ever) {
    engine_is_at("1.0");
    drop_ioc("ioc_full_5.0");
    fakes::engine_always_returns(update, -8);
    for (int round = 0; round < 50; ++round) {
        EXPECT_EQ(handle(), 1);
    }
    EXPECT_TRUE(has_rule("ioc_full_5.0.tgz"));
    EXPECT_EQ(updates(), 50U);
}

TEST_F(kzemm_upgrade_ioc_test, a_name_of_both_forms_is_deleted_and_then_cannot_be_unpacked) {
    engine_is_at("1.0");
    drop_ioc("ioc_lnx_-3.4]");
    EXPECT_EQ(handle(), -1);
    lines expected = begin_lines();
    expected.push_back(found("ioc_lnx_-3.4].tgz"));
    append_deleted(expected, rule("ioc_lnx_-3.4].tgz"));
    append(expected, {queried(1, 0), at(2, "ioc old version < new version")});
    append_not_unpacked(expected, "ioc_lnx_-3.4].tgz");
    expected.push_back(at(2, "unzip upgrade file ioc_lnx_-3.4] failed"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(kzemm_upgrade_ioc_test, names_of_neither_form_stay_and_are_ignored) {
    write_rule("ioc_5.0.tgz");
    write_rule("ioc_full_5.tgz");
    write_rule("ioc_x-5.0.tgz");
    EXPECT_EQ(handle(), 0);
    EXPECT_EQ(entries().size(), 3U);
    EXPECT_THAT(engine_texts(), IsEmpty());
}

TEST_F(kzemm_upgrade_ioc_test, a_name_with_an_u_and_an_underscore_is_a_full_pack) {
    engine_is_at("1.1");
    engine_follows();
    drop_ioc("ioc_update_1.2");
    EXPECT_EQ(handle(), 0);
    EXPECT_THAT(applied(), ElementsAre("ioc_update_1.2.json"));
}

TEST_F(kzemm_upgrade_ioc_test, the_engines_negative_version_is_below_every_pack) {
    engine_is_at("-1.0");
    engine_follows();
    drop_ioc("ioc_full_0.1");
    EXPECT_EQ(handle(), 0);
    EXPECT_EQ(updates(), 1U);
}

TEST_F(kzemm_upgrade_ioc_test, each_pass_with_work_reads_the_version_anew) {
    engine_is_at("1.0");
    engine_follows();
    drop_ioc("ioc_full_5.0");
    EXPECT_EQ(handle(), 0);
    engine_is_at("0.1");
    drop_ioc("ioc_full_4.0");
    EXPECT_EQ(handle(), 0);
    EXPECT_THAT(applied(), ElementsAre("ioc_full_5.0.json", "ioc_full_4.0.json"));
}

// ---- file faults ----

TEST_F(kzemm_upgrade_ioc_test, deletions_that_fail_cost_lines_and_change_nothing) {
    engine_is_at("4.0");
    engine_follows();
    drop_ioc("ioc_full_5.0");
    write_rule("ioc_x-4.0].tgz");
    write_file("config/ioc_full_tag", "");
    fakes::file_call_fails(file_call::remove, EACCES);
    EXPECT_EQ(handle(), 0);
    for (const std::string &path :
         {rule("ioc_x-4.0].tgz"), rule("ioc_full_5.0.json"), rule("ioc_full_5.0.tgz"), flag()}) {
        EXPECT_THAT(log_lines(), Contains(at(3, "delete file (" + path + ")!")));
        EXPECT_THAT(log_lines(), Contains(at(2, "delete file (" + path + ") failed:13")));
    }
    EXPECT_EQ(entries().size(), 3U);
    // The next tick finds them too old and deletes them again.
    fakes::reset_file_faults();
    EXPECT_EQ(handle(), 0);
    EXPECT_THAT(entries(), ElementsAre("ioc_full_5.0.json"));
    EXPECT_EQ(updates(), 1U);
}

TEST_F(kzemm_upgrade_ioc_test, directories_in_the_place_of_packs_are_unpacked_or_deleted_in_vain) {
    engine_is_at("1.0");
    std::filesystem::create_directory(in_tree("hlthreat_rule/ioc_full_5.0.tgz"));
    std::filesystem::create_directory(in_tree("hlthreat_rule/ioc_full_4.0.tgz"));
    EXPECT_EQ(handle(), -1);
    EXPECT_THAT(log_lines(), Contains(at(2, "delete file (" + rule("ioc_full_4.0.tgz") +
                                                ") failed:" + std::to_string(EISDIR))));
    EXPECT_THAT(log_lines(), Contains(at(2, "unzip upgrade file ioc_full_5.0 failed")));
    EXPECT_EQ(entries().size(), 2U);
}

TEST_F(kzemm_upgrade_ioc_test, a_dangling_link_is_no_file_to_delete_and_no_pack_to_unpack) {
    engine_is_at("1.0");
    std::filesystem::create_symlink("nowhere", in_tree("hlthreat_rule/ioc_full_5.0.tgz"));
    std::filesystem::create_symlink("nowhere", in_tree("hlthreat_rule/ioc_full_4.0.tgz"));
    EXPECT_EQ(handle(), -1);
    EXPECT_EQ(fakes::forks(), 4U);
    EXPECT_THAT(texts({what::file}), Not(Contains("delete " + rule("ioc_full_4.0.tgz"))));
    EXPECT_EQ(entries().size(), 2U);
}

TEST_F(kzemm_upgrade_ioc_test, a_pack_that_vanishes_before_it_is_unpacked_ends_the_pass) {
    engine_is_at("1.0");
    drop_ioc("ioc_full_5.0");
    fakes::on_engine_call(query, [this](const fakes::engine_call &) {
        std::filesystem::remove(in_tree("hlthreat_rule/ioc_full_5.0.tgz"));
    });
    EXPECT_EQ(handle(), -1);
    EXPECT_THAT(log_lines().back(), at(2, "unzip upgrade file ioc_full_5.0 failed"));
}

TEST_F(kzemm_upgrade_ioc_test, a_pack_without_its_file_is_handed_over_all_the_same) {
    engine_is_at("1.0");
    drop_pack("ioc_full_5.0.tgz", "other.json");
    fakes::engine_returns(update, {-2});
    EXPECT_EQ(handle(), -1);
    EXPECT_THAT(applied(), ElementsAre("ioc_full_5.0.json"));
    EXPECT_THAT(entries(), ElementsAre("other.json"));
}

TEST_F(kzemm_upgrade_ioc_test, a_rule_directory_that_cannot_be_opened_is_an_empty_one) {
    drop_ioc("ioc_full_5.0");
    for (const int code : {EACCES, ENOENT, ENOTDIR, EMFILE}) {
        fakes::reset_file_faults();
        fakes::file_call_fails(file_call::open_directory, code);
        forget();
        EXPECT_EQ(handle(), 0);
        EXPECT_THAT(log_lines(), ElementsAreArray(begin_lines()));
    }
}

TEST_F(kzemm_upgrade_ioc_test, a_process_that_cannot_be_made_is_a_failed_unpack) {
    engine_is_at("1.0");
    drop_ioc("ioc_full_5.0");
    fakes::fork_fails(EAGAIN);
    EXPECT_EQ(handle(), -1);
    EXPECT_EQ(fakes::forks(), 4U);
    EXPECT_THAT(entries(), ElementsAre("ioc_full_5.0.tgz"));
}

// ---- paths that are too long ----

TEST_F(kzemm_upgrade_ioc_test, a_path_of_1023_bytes_is_whole_and_a_longer_one_is_empty) {
    const std::string folder = "/../hlthreat_rule/";
    const std::string tag = "/../config/ioc_full_tag";
    for (const size_t length :
         {1023 - tag.size(), 1024 - tag.size(), 1023 - folder.size(), 1024 - folder.size()}) {
        const std::string home = "/" + std::string(length - 1, 'h');
        setenv("KZE_AGENT_HOME", home.c_str(), 1);
        forget();
        EXPECT_EQ(handle(), 0);
        const std::string rules_path =
            length + folder.size() < 1024 ? home + folder : std::string();
        const std::string tag_path = length + tag.size() < 1024 ? home + tag : std::string();
        EXPECT_THAT(log_lines(),
                    ElementsAre(at(3, "upzipfiledir:" + rules_path + ",iocfullflag:" + tag_path)));
    }
}
