#include <cerrno>
#include <climits>
#include <thread>

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

constexpr char async_update[] = "x_client_engine_update_async";
constexpr char config_file[] = "linux_kzemsi.ptn";
constexpr char backup[] = "md_linux_bk_1.tgz";
constexpr int pending = -16;
constexpr int other_engine = -5;

class kzemm_upgrade_md_test : public upgrade_test {
  protected:
    int handle() { return relay->upgrade_eng_handle(CUpgradeRelay::ENGINE_MD); }
    void tick() {
        config::md_switch() = true;
        cl_timerplus timer = {relay.get()};
        CUpgradeRelay::timer_upgrade_callback(&timer);
    }

    void drop_backup() const { drop_pack(backup, config_file); }
    void drop_arrival() const { drop_pack("md_linux.tgz", config_file); }

    // The update in work, as upgrade_engine leaves it for the callback.
    void begin_update() const {
        write_rule(backup);
        write_rule(config_file);
        state::s_md_tgz_path = rule(backup);
        state::s_md_cfg_path = rule(config_file);
        state::s_md_last_result = pending;
    }
    static void end_update(int result, _engine_type type = ENGINE_MD) {
        CUpgradeRelay::on_md_engine_update_cb(type, result, nullptr);
    }
};

}  // namespace

// ---- upgrade_md_engine ----

TEST_F(kzemm_upgrade_md_test, an_update_without_a_path_is_refused) {
    state::s_md_last_result = 3;
    EXPECT_EQ(CUpgradeRelay::upgrade_md_engine(nullptr), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "param is null!")));
    EXPECT_EQ(state::s_md_last_result, 3);
    EXPECT_THAT(engine_texts(), IsEmpty());
}

TEST_F(kzemm_upgrade_md_test, an_update_is_pending_before_the_engine_is_called) {
    fakes::on_engine_call(async_update, [](const fakes::engine_call &) {
        EXPECT_EQ(state::s_md_last_result, pending);
    });
    EXPECT_EQ(CUpgradeRelay::upgrade_md_engine("/c"), 0);
    EXPECT_EQ(state::s_md_last_result, pending);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "upgrade md engine")));
    EXPECT_THAT(engine_texts(), ElementsAre("x_client_engine_update_async(3, /c)"));
    EXPECT_THAT(fakes::sleeps(), IsEmpty());
}

TEST_F(kzemm_upgrade_md_test, the_codes_minus_8_and_minus_14_are_no_failure) {
    state::s_md_retry_times = 4;
    for (const int code : {-8, -14}) {
        forget();
        fakes::engine_returns(async_update, {code});
        EXPECT_EQ(CUpgradeRelay::upgrade_md_engine("/c"), 0);
        EXPECT_EQ(state::s_md_last_result, -1);
        EXPECT_THAT(log_lines(),
                    ElementsAre(at(3, "upgrade md engine"),
                                at(1, "invoke update func failed: " + std::to_string(code))));
    }
    EXPECT_EQ(state::s_md_retry_times, 4);
}

TEST_F(kzemm_upgrade_md_test, any_other_code_is_a_failure_that_is_not_counted) {
    state::s_md_retry_times = 4;
    for (const int code : {-1, -7, -9, -13, -15, -16, -5, 1, 8, 14, INT_MIN, INT_MAX}) {
        forget();
        fakes::engine_returns(async_update, {code});
        EXPECT_EQ(CUpgradeRelay::upgrade_md_engine("/c"), -1);
        EXPECT_EQ(state::s_md_last_result, -1);
        EXPECT_THAT(log_lines(),
                    ElementsAre(at(3, "upgrade md engine"),
                                at(1, "invoke update func failed: " + std::to_string(code))));
    }
    EXPECT_EQ(state::s_md_retry_times, 4);
}

// ---- upgrade_engine for MD ----

TEST_F(kzemm_upgrade_md_test, the_paths_are_set_before_the_engine_is_called) {
    drop_backup();
    fakes::on_engine_call(async_update, [this](const fakes::engine_call &) {
        EXPECT_EQ(state::s_md_tgz_path, rule(backup));
        EXPECT_EQ(state::s_md_cfg_path, rule(config_file));
    });
    EXPECT_EQ(handle(), 0);
    EXPECT_EQ(updates(), 1U);
}

TEST_F(kzemm_upgrade_md_test, a_pack_refused_for_now_leaves_both_files_for_the_next_tick) {
    drop_backup();
    for (const int code : {-8, -14, -8}) {
        fakes::engine_returns(async_update, {code});
        tick();
        EXPECT_THAT(entries(), ElementsAre(config_file, backup));
        EXPECT_EQ(state::s_md_retry_times, 0);
    }
    EXPECT_EQ(updates(), 3U);
    EXPECT_THAT(log_lines(), Not(Contains(at(2, "update md rule failed !"))));
}

TEST_F(kzemm_upgrade_md_test, any_other_refusal_deletes_both_files_at_once) {
    drop_backup();
    fakes::engine_returns(async_update, {-3});
    EXPECT_EQ(handle(), -1);
    EXPECT_THAT(entries(), IsEmpty());
    EXPECT_EQ(state::s_md_retry_times, 0);
    EXPECT_EQ(state::s_md_last_result, -1);
    const std::vector<fakes::record> told = log_lines();
    ASSERT_GE(told.size(), 3U);
    EXPECT_THAT(told[told.size() - 3], at(1, "invoke update func failed: -3"));
    EXPECT_THAT(told[told.size() - 2], at(3, "delete file (" + rule(backup) + ")!"));
    EXPECT_THAT(told[told.size() - 1], at(3, "delete file (" + rule(config_file) + ")!"));
}

TEST_F(kzemm_upgrade_md_test, files_that_cannot_be_deleted_cost_lines) {
    drop_backup();
    fakes::engine_returns(async_update, {-3});
    fakes::file_call_fails(file_call::remove, EROFS);
    EXPECT_EQ(handle(), -1);
    EXPECT_THAT(log_lines(), Contains(at(2, "delete file (" + rule(backup) + ") failed:30")));
    EXPECT_THAT(log_lines(), Contains(at(2, "delete file (" + rule(config_file) + ") failed:30")));
    EXPECT_THAT(entries(), ElementsAre(config_file, backup));
}

TEST_F(kzemm_upgrade_md_test, a_pack_without_its_file_is_handed_over_all_the_same) {
    drop_pack(backup, "other.ptn");
    fakes::engine_returns(async_update, {-3});
    EXPECT_EQ(handle(), -1);
    EXPECT_EQ(updates(), 1U);
    EXPECT_THAT(entries(), ElementsAre("other.ptn"));
    EXPECT_THAT(log_lines().back(), at(3, "delete file (" + rule(backup) + ")!"));
}

// ---- the callback ----

TEST_F(kzemm_upgrade_md_test, success_deletes_both_files_and_the_count) {
    begin_update();
    state::s_md_retry_times = 9;
    end_update(0);
    EXPECT_EQ(state::s_md_last_result, 0);
    EXPECT_EQ(state::s_md_retry_times, 0);
    EXPECT_THAT(entries(), IsEmpty());
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "delete file (" + rule(backup) + ")!"),
                                         at(3, "delete file (" + rule(config_file) + ")!")));
}

TEST_F(kzemm_upgrade_md_test, a_failure_is_counted_and_the_pack_stays) {
    begin_update();
    end_update(42);
    EXPECT_EQ(state::s_md_last_result, 42);
    EXPECT_EQ(state::s_md_retry_times, 1);
    EXPECT_THAT(entries(), ElementsAre(backup));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "delete file (" + rule(config_file) + ")!")));
}

TEST_F(kzemm_upgrade_md_test, another_engine_is_a_failure_whatever_its_result) {
    for (const int type : {1, 2, 0, 4, -3}) {
        for (const int result : {0, 7, pending}) {
            begin_update();
            state::s_md_retry_times = 2;
            end_update(result, static_cast<_engine_type>(type));
            EXPECT_EQ(state::s_md_last_result, other_engine);
            EXPECT_EQ(state::s_md_retry_times, 3);
            EXPECT_THAT(entries(), ElementsAre(backup));
        }
    }
}

TEST_F(kzemm_upgrade_md_test, the_ninth_failure_keeps_the_pack) {
    begin_update();
    state::s_md_retry_times = 8;
    end_update(-1);
    EXPECT_EQ(state::s_md_retry_times, 9);
    EXPECT_THAT(entries(), ElementsAre(backup));
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "delete file (" + rule(config_file) + ")!")));
}

TEST_F(kzemm_upgrade_md_test, the_tenth_failure_deletes_the_pack_and_the_count) {
    begin_update();
    state::s_md_retry_times = 9;
    end_update(-1);
    EXPECT_EQ(state::s_md_last_result, -1);
    EXPECT_EQ(state::s_md_retry_times, 0);
    EXPECT_THAT(entries(), IsEmpty());
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "upgrade md error 10 times, delete " + rule(backup)),
                                         at(3, "delete file (" + rule(backup) + ")!"),
                                         at(3, "delete file (" + rule(config_file) + ")!")));
}

TEST_F(kzemm_upgrade_md_test, without_paths_nothing_is_deleted) {
    end_update(0);
    EXPECT_THAT(log_lines(), IsEmpty());
    state::s_md_retry_times = 9;
    end_update(1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "upgrade md error 10 times, delete ")));
    EXPECT_EQ(fakes::count(what::file), 0U);
}

TEST_F(kzemm_upgrade_md_test, files_that_went_meanwhile_cost_nothing) {
    begin_update();
    std::filesystem::remove(in_tree(std::string("hlthreat_rule/") + backup));
    std::filesystem::remove(in_tree(std::string("hlthreat_rule/") + config_file));
    end_update(0);
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_EQ(state::s_md_last_result, 0);
}

TEST_F(kzemm_upgrade_md_test, files_that_the_callback_cannot_delete_cost_lines) {
    begin_update();
    fakes::file_call_fails(file_call::remove, EACCES);
    end_update(0);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "delete file (" + rule(backup) + ")!"),
                            at(2, "delete file (" + rule(backup) + ") failed:13"),
                            at(3, "delete file (" + rule(config_file) + ")!"),
                            at(2, "delete file (" + rule(config_file) + ") failed:13")));
    EXPECT_EQ(state::s_md_last_result, 0);
    EXPECT_EQ(state::s_md_retry_times, 0);
}

TEST_F(kzemm_upgrade_md_test, a_callback_from_within_the_call_counts) {
    drop_backup();
    fakes::on_engine_call(async_update, [](const fakes::engine_call &) { end_update(6); });
    EXPECT_EQ(handle(), 0);
    EXPECT_EQ(state::s_md_last_result, 6);
    EXPECT_EQ(state::s_md_retry_times, 1);
    EXPECT_THAT(entries(), ElementsAre(backup));
}

// ---- the whole of an update, over several ticks ----

TEST_F(kzemm_upgrade_md_test, only_the_callback_ends_a_pending_update) {
    drop_arrival();
    tick();
    ASSERT_EQ(state::s_md_last_result, pending);
    const names waiting = entries();
    drop_arrival();
    for (int round = 0; round < 200; ++round) {
        tick();
    }
    EXPECT_EQ(updates(), 1U);
    EXPECT_TRUE(has_rule("md_linux.tgz"));
    EXPECT_EQ(entries().size(), waiting.size() + 1);
    std::thread client([] { end_update(0); });
    client.join();
    tick();
    EXPECT_EQ(updates(), 2U);
    EXPECT_FALSE(has_rule("md_linux.tgz"));
}

TEST_F(kzemm_upgrade_md_test, an_engine_that_never_calls_back_holds_up_md_until_the_next_relay) {
    drop_arrival();
    tick();
    end_update(6);
    tick();
    ASSERT_EQ(state::s_md_last_result, pending);
    ASSERT_EQ(state::s_md_retry_times, 1);
    relay.reset();
    EXPECT_EQ(state::s_md_last_result, pending);
    relay = std::make_unique<CUpgradeRelay>();
    EXPECT_EQ(state::s_md_last_result, 0);
    EXPECT_EQ(state::s_md_retry_times, 1) << "the count of failures stays";
    forget();
    tick();
    EXPECT_THAT(log_lines(), Contains(at(3, "upgrade md, last result: 0, retry times: 1")));
    EXPECT_EQ(updates(), 1U) << "the backup is found again";
    end_update(0);
}

TEST_F(kzemm_upgrade_md_test, a_new_relay_keeps_the_result_of_an_update_that_ended) {
    for (const int result : {6, -5, -1, 0}) {
        state::s_md_last_result = result;
        relay = std::make_unique<CUpgradeRelay>();
        EXPECT_EQ(state::s_md_last_result, result);
    }
}

TEST_F(kzemm_upgrade_md_test, an_engine_that_reports_pending_stops_md_as_a_pending_update_does) {
    drop_arrival();
    tick();
    end_update(pending);
    EXPECT_EQ(state::s_md_retry_times, 1);
    tick();
    EXPECT_EQ(updates(), 1U);
}

TEST_F(kzemm_upgrade_md_test, ten_failures_in_a_row_delete_the_pack) {
    drop_arrival();
    for (int round = 1; round <= 10; ++round) {
        tick();
        EXPECT_EQ(updates(), static_cast<size_t>(round));
        EXPECT_TRUE(has_rule(config_file)) << "each try unpacks the backup again";
        end_update(round == 5 ? 0x7fffffff : -round);
    }
    EXPECT_THAT(entries(), IsEmpty());
    tick();
    EXPECT_EQ(updates(), 10U);
    EXPECT_EQ(state::s_md_retry_times, 0);
}

TEST_F(kzemm_upgrade_md_test, refusals_between_failures_neither_count_nor_begin_anew) {
    drop_arrival();
    for (int round = 1; round <= 9; ++round) {
        fakes::engine_returns(async_update, {round % 2 == 0 ? -8 : -14, 0});
        tick();
        tick();
        end_update(3);
        EXPECT_EQ(state::s_md_retry_times, round);
    }
    EXPECT_EQ(entries().size(), 1U);
    tick();
    end_update(3);
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(kzemm_upgrade_md_test, a_success_or_an_arrival_begins_the_count_anew) {
    drop_arrival();
    for (int round = 0; round < 9; ++round) {
        tick();
        end_update(3);
    }
    EXPECT_EQ(state::s_md_retry_times, 9);
    drop_arrival();
    tick();
    EXPECT_EQ(state::s_md_retry_times, 0);
    EXPECT_EQ(entries().size(), 2U);
    end_update(3);
    EXPECT_EQ(state::s_md_retry_times, 1);
    tick();
    end_update(0);
    EXPECT_EQ(state::s_md_retry_times, 0);
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(kzemm_upgrade_md_test, a_failed_update_is_followed_by_the_next_tick_at_once) {
    drop_arrival();
    tick();
    end_update(0, ENGINE_IOA);
    forget();
    tick();
    EXPECT_THAT(log_lines(), Contains(at(3, "upgrade md, last result: -5, retry times: 1")));
    EXPECT_EQ(updates(), 1U);
}
