#include <cerrno>

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
using testing::EndsWith;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr char query[] = "x_client_engine_query_version_str";
constexpr char update[] = "x_client_engine_update";

class kzemm_upgrade_ioc_update_test : public upgrade_test {
  protected:
    int handle() { return relay->upgrade_ioc_handle(); }

    static void engine_is_at(const std::string &version) {
        fakes::set_engine_version(ENGINE_IOC, version);
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
    static line queried(int major, int minor) {
        return at(3, "query ioc engine result: ev.major:" + std::to_string(major) +
                         ", ev.minor:" + std::to_string(minor));
    }
    static ioc_st target(const std::string &name, int major, int minor) {
        ioc_st result;
        name.copy(result.name, sizeof(result.name) - 1);
        result.major = major;
        result.minor = minor;
        return result;
    }
};

}  // namespace

// ---- upgrade_ioc_engine ----

TEST_F(kzemm_upgrade_ioc_update_test, an_update_without_a_path_is_refused) {
    const ioc_st pack = target("p", 2, 0);
    EXPECT_EQ(relay->upgrade_ioc_engine(nullptr, &pack), 1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "upgrade ioc engine invalid param!")));
    EXPECT_THAT(engine_texts(), IsEmpty());
}

TEST_F(kzemm_upgrade_ioc_update_test, a_version_that_is_equal_in_the_last_attempt_is_in_time) {
    names versions(59, "1.9");
    versions.push_back("2.0");
    give_versions(versions);
    write_rule("p.json");
    const ioc_st pack = target("p", 2, 0);
    EXPECT_EQ(relay->upgrade_ioc_engine(rule("p.json").c_str(), &pack), 0);
    lines expected = {at(3, "upgrade ioc engine"),
                      at(3, "invoke update interface success, waitting engine upgrade")};
    for (int each = 0; each < 59; ++each) {
        append(expected, {at(3, "retry get ioc ver " + std::to_string(each) + " times"),
                          queried(1, 9), at(2, "ioc old version < new version")});
    }
    append(expected,
           {at(3, "retry get ioc ver 59 times"), queried(2, 0),
            at(2, "ioc old version = new version"), at(3, "ioc file p upgrade successful")});
    append_deleted(expected, rule("p.json"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(fakes::sleeps(),
                ElementsAreArray(std::vector<fakes::microseconds>(60, 5 * second)));
}

TEST_F(kzemm_upgrade_ioc_update_test, polling_wants_equality_and_not_a_rise) {
    give_versions({"2.1"});
    write_rule("p.json");
    const ioc_st pack = target("p", 2, 0);
    EXPECT_EQ(relay->upgrade_ioc_engine(rule("p.json").c_str(), &pack), 1);
    EXPECT_EQ(queries(), 60U);
    EXPECT_FALSE(has_rule("p.json"));
    size_t compared = 0;
    for (const fakes::record &each : log_lines()) {
        compared += each.text == "ioc old version > new version" ? 1 : 0;
    }
    EXPECT_EQ(compared, 60U);
    EXPECT_THAT(log_lines().back(),
                at(1, "ioc upgrade reach to max times or query ioc ver failed,return"));
}

TEST_F(kzemm_upgrade_ioc_update_test, a_failed_query_costs_an_attempt) {
    engine_is_at("2.0");
    fakes::engine_returns(query, {-3, 0});
    const ioc_st pack = target("p", 2, 0);
    EXPECT_EQ(relay->upgrade_ioc_engine("/p.json", &pack), 0);
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(3, "upgrade ioc engine"),
                    at(3, "invoke update interface success, waitting engine upgrade"),
                    at(3, "retry get ioc ver 0 times"), at(1, "query ioc version failed:-3"),
                    at(2, "query ioc engine failed, continue"), at(3, "retry get ioc ver 1 times"),
                    queried(2, 0), at(2, "ioc old version = new version"),
                    at(3, "ioc file p upgrade successful")));
}

TEST_F(kzemm_upgrade_ioc_update_test, a_query_that_fails_throughout_keeps_the_pack) {
    engine_is_at("2");
    write_rule("p.json");
    const ioc_st pack = target("p", 2, 0);
    EXPECT_EQ(relay->upgrade_ioc_engine(rule("p.json").c_str(), &pack), 1);
    lines expected = {at(3, "upgrade ioc engine"),
                      at(3, "invoke update interface success, waitting engine upgrade")};
    for (int each = 0; each < 60; ++each) {
        append(expected, {at(3, "retry get ioc ver " + std::to_string(each) + " times"),
                          at(1, "ioc ver format error,can not find '.'!"),
                          at(2, "query ioc engine failed, continue")});
    }
    append_deleted(expected, rule("p.json"));
    expected.push_back(at(1, "ioc upgrade reach to max times or query ioc ver failed,return"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
}

// The version was equal to the pack's before the update; what counts is what the polling reads.
TEST_F(kzemm_upgrade_ioc_update_test, the_version_of_before_confirms_nothing) {
    fields::ev(*relay) = target("", 2, 0);
    fakes::engine_always_returns(query, 5);
    const ioc_st pack = target("p", 2, 0);
    EXPECT_EQ(relay->upgrade_ioc_engine("/p.json", &pack), 1);
}

TEST_F(kzemm_upgrade_ioc_update_test, a_missing_target_ends_the_polling_at_once) {
    engine_is_at("2.0");
    write_rule("p.json");
    EXPECT_EQ(relay->upgrade_ioc_engine(rule("p.json").c_str(), nullptr), 1);
    lines expected = {at(3, "upgrade ioc engine"),
                      at(3, "invoke update interface success, waitting engine upgrade"),
                      at(3, "retry get ioc ver 0 times"),
                      queried(2, 0),
                      at(1, "param error"),
                      at(2, "compare ioc engine version failed return")};
    append_deleted(expected, rule("p.json"));
    expected.push_back(at(1, "ioc upgrade reach to max times or query ioc ver failed,return"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_EQ(queries(), 1U);
}

// ---- the capture ----

TEST_F(kzemm_upgrade_ioc_update_test, a_refused_file_is_captured_when_debugging) {
    engine_is_at("1.0");
    drop_pack("ioc_full_5.0.tgz", "ioc_full_5.0.json", "the rules");
    state::s_debug_adv_threat = true;
    fakes::engine_returns(update, {-8, -9});
    EXPECT_EQ(handle(), 1);
    EXPECT_EQ(handle(), -1);
    const names kept = entries("hlthreat_rule/tmp_dir");
    ASSERT_EQ(kept.size(), 2U);
    EXPECT_THAT(kept,
                testing::UnorderedElementsAre(EndsWith("_error_0xfffffff8_ioc_full_5.0.json"),
                                              EndsWith("_error_0xfffffff7_ioc_full_5.0.json")));
    EXPECT_EQ(read_file("hlthreat_rule/tmp_dir/" + kept[0]), "the rules");
    EXPECT_THAT(entries(), ElementsAre("ioc_full_5.0.json", "tmp_dir"));
}

TEST_F(kzemm_upgrade_ioc_update_test, without_debugging_nothing_is_captured) {
    engine_is_at("1.0");
    drop_ioc("ioc_full_5.0");
    fakes::engine_returns(update, {-9});
    EXPECT_EQ(handle(), -1);
    EXPECT_FALSE(has_rule("tmp_dir"));
    EXPECT_THAT(texts({what::file}), Not(Contains("mkdir " + rules() + "/tmp_dir/")));
}

TEST_F(kzemm_upgrade_ioc_update_test, neither_a_polling_in_vain_nor_a_bad_pack_is_captured) {
    engine_is_at("1.0");
    state::s_debug_adv_threat = true;
    drop_ioc("ioc_full_5.0");
    EXPECT_EQ(handle(), 1);
    write_rule("ioc_full_5.0.tgz", "no archive");
    EXPECT_EQ(handle(), -1);
    EXPECT_FALSE(has_rule("tmp_dir"));
}

TEST_F(kzemm_upgrade_ioc_update_test, refused_ioa_and_md_files_are_not_captured) {
    state::s_debug_adv_threat = true;
    fakes::set_engine_version(ENGINE_IOA, "5");
    drop_pack("ioa_linux_en.tgz", "linux_kzedbd.cfg");
    drop_pack("md_linux.tgz", "linux_kzemsi.ptn");
    fakes::engine_returns(update, {-1});
    fakes::engine_returns("x_client_engine_update_async", {-1});
    EXPECT_EQ(relay->upgrade_eng_handle(CUpgradeRelay::ENGINE_IOA), -1);
    EXPECT_EQ(relay->upgrade_eng_handle(CUpgradeRelay::ENGINE_MD), -1);
    EXPECT_FALSE(has_rule("tmp_dir"));
}

TEST_F(kzemm_upgrade_ioc_update_test, a_capture_that_fails_changes_nothing) {
    engine_is_at("1.0");
    state::s_debug_adv_threat = true;
    for (const file_call kind : {file_call::make_directory, file_call::copy}) {
        for (const int code : {-8, -9}) {
            drop_ioc("ioc_full_5.0");
            fakes::reset_file_faults();
            fakes::file_call_fails(kind, ENOSPC);
            fakes::engine_returns(update, {code});
            EXPECT_EQ(handle(), code == -8 ? 1 : -1);
            EXPECT_EQ(has_rule("ioc_full_5.0.tgz"), code == -8);
            EXPECT_TRUE(has_rule("ioc_full_5.0.json"));
        }
    }
}
