#include <map>
#include <set>

#include "tests/unit/worker_test.h"

using fakes::at;
using fakes::engine_texts;
using fakes::left_behind_by_design;
using fakes::let_pass;
using fakes::log_lines;
using fakes::open_timers;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

constexpr unsigned int cfg_period_ms = 5000;
constexpr unsigned int switch_period_ms = 180000;

// The capabilities in the order in which they are sent.
const int sent_order[] = {6, 1, 2, 13, 3, 14, 8, 15, 12, 17};

class kzemm_work_switching_test : public worker_test {
  protected:
    // What do_engine_swicth sends when these types are on and all others off.
    static std::vector<std::string> sent_with(const std::set<int> &on) {
        std::vector<std::string> result;
        for (const int type : sent_order) {
            result.push_back(control(type, on.count(type) != 0 ? 2 : 1));
        }
        return result;
    }

    static void refuse(const std::vector<int> &types) {
        for (const int type : types) {
            fakes::engine_control_returns(static_cast<_engine_type>(type), -1);
        }
    }

    static void accept(const std::vector<int> &types) {
        for (const int type : types) {
            fakes::engine_control_returns(static_cast<_engine_type>(type), 0);
        }
    }

    static std::vector<int> all_types() { return {std::begin(sent_order), std::end(sent_order)}; }

    // Lets one retry pass come and gives what it sent.
    static std::vector<std::string> retry_pass() {
        fakes::clear_journal();
        let_pass(switch_period_ms);
        return controls();
    }

    // The context of the armed retry.
    void *retry_context() { return fields::switch_timer(work)->user; }

    // Ends a retry as the worker's end does, which leaves the context behind.
    void end_retry() {
        left_behind_by_design(retry_context());
        work.stop_switch_timer();
    }
};

struct switch_row {
    const char *name;
    bool &(*field)();
    std::set<int> sent_as_on;
    const char *log_line;
    const char *second_log_line;
};

void PrintTo(const switch_row &row, std::ostream *out) {
    *out << row.name;
}

const switch_row switch_rows[] = {
    {"none",
     nullptr,
     {},
     "collect: 1, ioc: 1, ioa: 1, login ip:1, login time:1, scan:1, reverseshell:1, "
     "bruteforce_global: 1, detanal: 1",
     "set engine switch, on[2], off[1]. collect: 1, ioc: 1, ioa: 1, md: 1"},
    {"collect",
     kzemm_config_inspector::collect_switch,
     {6},
     "collect: 2, ioc: 1, ioa: 1, login ip:1, login time:1, scan:1, reverseshell:1, "
     "bruteforce_global: 1, detanal: 1",
     "set engine switch, on[2], off[1]. collect: 2, ioc: 1, ioa: 1, md: 1"},
    {"ioc",
     kzemm_config_inspector::ioc_switch,
     {1},
     "collect: 1, ioc: 2, ioa: 1, login ip:1, login time:1, scan:1, reverseshell:1, "
     "bruteforce_global: 1, detanal: 1",
     "set engine switch, on[2], off[1]. collect: 1, ioc: 2, ioa: 1, md: 1"},
    {"ioa_and_detanal_with_it",
     kzemm_config_inspector::ioa_switch,
     {2, 17},
     "collect: 1, ioc: 1, ioa: 2, login ip:1, login time:1, scan:1, reverseshell:1, "
     "bruteforce_global: 1, detanal: 2",
     "set engine switch, on[2], off[1]. collect: 1, ioc: 1, ioa: 2, md: 1"},
    {"md",
     kzemm_config_inspector::md_switch,
     {3},
     "collect: 1, ioc: 1, ioa: 1, login ip:1, login time:1, scan:1, reverseshell:1, "
     "bruteforce_global: 1, detanal: 1",
     "set engine switch, on[2], off[1]. collect: 1, ioc: 1, ioa: 1, md: 2"},
    {"abnormal_ip_login",
     kzemm_config_inspector::abnormal_ip_login_switch,
     {13},
     "collect: 1, ioc: 1, ioa: 1, login ip:2, login time:1, scan:1, reverseshell:1, "
     "bruteforce_global: 1, detanal: 1",
     "set engine switch, on[2], off[1]. collect: 1, ioc: 1, ioa: 1, md: 1"},
    {"abnormal_time_login",
     kzemm_config_inspector::abnormal_time_login_switch,
     {14},
     "collect: 1, ioc: 1, ioa: 1, login ip:1, login time:2, scan:1, reverseshell:1, "
     "bruteforce_global: 1, detanal: 1",
     "set engine switch, on[2], off[1]. collect: 1, ioc: 1, ioa: 1, md: 1"},
    {"abnormal_scan",
     kzemm_config_inspector::abnormal_scan_switch,
     {8},
     "collect: 1, ioc: 1, ioa: 1, login ip:1, login time:1, scan:2, reverseshell:1, "
     "bruteforce_global: 1, detanal: 1",
     "set engine switch, on[2], off[1]. collect: 1, ioc: 1, ioa: 1, md: 1"},
    {"reverseshell",
     kzemm_config_inspector::reverseshell_switch,
     {15},
     "collect: 1, ioc: 1, ioa: 1, login ip:1, login time:1, scan:1, reverseshell:2, "
     "bruteforce_global: 1, detanal: 1",
     "set engine switch, on[2], off[1]. collect: 1, ioc: 1, ioa: 1, md: 1"},
    {"bruteforce_global_which_is_never_sent",
     kzemm_config_inspector::bruteforce_global_switch,
     {},
     "collect: 1, ioc: 1, ioa: 1, login ip:1, login time:1, scan:1, reverseshell:1, "
     "bruteforce_global: 2, detanal: 1",
     "set engine switch, on[2], off[1]. collect: 1, ioc: 1, ioa: 1, md: 1"},
    {"bruteforce_ssh_behind_its_gate",
     kzemm_config_inspector::bruteforce_ssh_switch,
     {},
     "collect: 1, ioc: 1, ioa: 1, login ip:1, login time:1, scan:1, reverseshell:1, "
     "bruteforce_global: 1, detanal: 1",
     "set engine switch, on[2], off[1]. collect: 1, ioc: 1, ioa: 1, md: 1"},
};

// One test for each switch that is on by itself.
class kzemm_work_switch_row_test : public kzemm_work_switching_test,
                                   public testing::WithParamInterface<switch_row> {};

INSTANTIATE_TEST_SUITE_P(only, kzemm_work_switch_row_test, testing::ValuesIn(switch_rows),
                         [](const auto &row) { return std::string(row.param.name); });

// Brute force globally, by ssh, and the status that is sent for ssh.
struct gate_row {
    bool global;
    bool ssh;
    int status;
};

class kzemm_work_gate_test : public kzemm_work_switching_test,
                             public testing::WithParamInterface<gate_row> {};

INSTANTIATE_TEST_SUITE_P(global_and_ssh, kzemm_work_gate_test,
                         testing::Values(gate_row{false, false, 1}, gate_row{false, true, 1},
                                         gate_row{true, false, 1}, gate_row{true, true, 2}));

}  // namespace

// ---- do_engine_swicth ----

TEST_P(kzemm_work_switch_row_test, is_sent_in_the_fixed_order_and_logged) {
    if (GetParam().field != nullptr) {
        GetParam().field() = true;
    }
    work.do_engine_swicth();
    EXPECT_THAT(controls(), ElementsAreArray(sent_with(GetParam().sent_as_on)));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "ssh:1"), at(3, GetParam().log_line),
                            at(3, GetParam().second_log_line), at(3, "set engine switch success")));
}

TEST_F(kzemm_work_switching_test, all_switches_on_send_2_for_every_type) {
    for (const switch_row &row : switch_rows) {
        if (row.field != nullptr) {
            row.field() = true;
        }
    }
    work.do_engine_swicth();
    EXPECT_THAT(controls(), ElementsAreArray(sent_with({6, 1, 2, 13, 3, 14, 8, 15, 12, 17})));
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(3, "ssh:2"),
                    at(3,
                       "collect: 2, ioc: 2, ioa: 2, login ip:2, login time:2, scan:2, "
                       "reverseshell:2, bruteforce_global: 2, detanal: 2"),
                    at(3, "set engine switch, on[2], off[1]. collect: 2, ioc: 2, ioa: 2, md: 2"),
                    at(3, "set engine switch success")));
}

TEST_P(kzemm_work_gate_test, ssh_is_on_only_when_both_switches_are) {
    config::bruteforce_global_switch() = GetParam().global;
    config::bruteforce_ssh_switch() = GetParam().ssh;
    work.do_engine_swicth();
    EXPECT_THAT(controls(), testing::Contains(control(12, GetParam().status)));
    EXPECT_THAT(log_lines(),
                testing::Contains(at(3, "ssh:" + std::to_string(GetParam().status))).Times(1));
}

TEST_F(kzemm_work_switching_test, a_cnapp_agent_sends_everything_on_but_the_reverse_shell) {
    fakes::set_cnapp_agent(1);
    work.do_engine_swicth();
    EXPECT_THAT(controls(), ElementsAreArray(sent_with({6, 1, 2, 13, 3, 14, 8, 12, 17})));
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(3, "ssh:1"), at(3, "cnapp agent will enable all switch"),
                    at(3,
                       "collect: 2, ioc: 2, ioa: 2, login ip:2, login time:2, scan:2, "
                       "reverseshell:1, bruteforce_global: 2, detanal: 2"),
                    at(3, "set engine switch, on[2], off[1]. collect: 2, ioc: 2, ioa: 2, md: 2"),
                    at(3, "set engine switch success")));
}

TEST_F(kzemm_work_switching_test, a_cnapp_agents_rule_pack_switches_read_true_afterwards) {
    fakes::set_cnapp_agent(-1);  // any answer but 0
    work.do_engine_swicth();
    const kzemm_config &instance = kzemm_config::get_instance();
    EXPECT_TRUE(instance.get_ioa_switch());
    EXPECT_TRUE(instance.get_ioc_switch());
    EXPECT_TRUE(instance.get_md_switch());
    EXPECT_FALSE(instance.get_collect_switch());
    EXPECT_FALSE(instance.get_reverseshell_switch());
    EXPECT_FALSE(instance.get_abnormal_ip_login_switch());
    EXPECT_FALSE(instance.get_abnormal_time_login_switch());
    EXPECT_FALSE(instance.get_abnormal_scan_switch());
    EXPECT_FALSE(instance.get_bruteforce_global_switch());
    EXPECT_FALSE(instance.get_bruteforce_ssh_switch());
}

TEST_F(kzemm_work_switching_test, a_cnapp_agents_reverse_shell_follows_its_switch) {
    fakes::set_cnapp_agent(1);
    config::reverseshell_switch() = true;
    work.do_engine_swicth();
    EXPECT_THAT(controls(), ElementsAreArray(sent_with({6, 1, 2, 13, 3, 14, 8, 15, 12, 17})));
}

TEST_F(kzemm_work_switching_test, an_ordinary_agent_changes_no_switch) {
    work.do_engine_swicth();
    EXPECT_FALSE(config::ioa_switch());
    EXPECT_FALSE(config::ioc_switch());
    EXPECT_FALSE(config::md_switch());
}

TEST_F(kzemm_work_switching_test, all_accepted_arms_no_timer) {
    work.do_engine_swicth();
    EXPECT_EQ(fields::switch_timer(work), nullptr);
    EXPECT_THAT(fakes::texts({fakes::what::timer}), IsEmpty());
}

TEST_F(kzemm_work_switching_test, a_refused_type_is_logged_and_the_others_go_out) {
    config::abnormal_scan_switch() = true;
    refuse({1, 8});
    work.do_engine_swicth();
    EXPECT_THAT(controls(), ElementsAreArray(sent_with({8})));
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(3, "ssh:1"),
                    at(3,
                       "collect: 1, ioc: 1, ioa: 1, login ip:1, login time:1, scan:2, "
                       "reverseshell:1, bruteforce_global: 1, detanal: 1"),
                    at(3, "set engine switch, on[2], off[1]. collect: 1, ioc: 1, ioa: 1, md: 1"),
                    at(2, "switch 1 status: 1 failed"), at(2, "switch 8 status: 2 failed"),
                    at(3, "need to retry switch engine"), at(3, "start switch timer success")));
    end_retry();
}

TEST_F(kzemm_work_switching_test, a_positive_result_of_the_engine_is_a_refusal_too) {
    fakes::engine_control_returns(ENGINE_MD, 1);
    work.do_engine_swicth();
    EXPECT_NE(fields::switch_timer(work), nullptr);
    end_retry();
}

// ---- the retry ----

TEST_F(kzemm_work_switching_test, the_retry_timer_is_armed_with_180_seconds) {
    refuse({13});
    work.do_engine_swicth();
    ASSERT_EQ(open_timers().size(), 1U);
    const fakes::timer_view timer = open_timers()[0];
    EXPECT_EQ(timer.handle, fields::switch_timer(work));
    EXPECT_EQ(timer.first_ms, switch_period_ms);
    EXPECT_EQ(timer.flags, 0U);
    EXPECT_EQ(timer.period_ms, switch_period_ms);
    EXPECT_EQ(timer.callback, &kzemm_work_inspector::switch_engine_cb);
    end_retry();
}

TEST_F(kzemm_work_switching_test, only_the_refused_type_is_sent_again_after_180_seconds) {
    refuse({13});
    work.do_engine_swicth();
    accept({13});
    fakes::clear_journal();
    let_pass(switch_period_ms - 1);
    EXPECT_THAT(controls(), IsEmpty());
    fakes::watch_release(retry_context());
    let_pass(1);
    EXPECT_THAT(controls(), ElementsAre(control(13, 1)));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "switch 13 status: 1 succeed"), at(3, "stop switch timer"),
                            at(3, "set engine switch success, stop timer")));
    EXPECT_EQ(fields::switch_timer(work), nullptr);
    EXPECT_THAT(open_timers(), IsEmpty());
    EXPECT_TRUE(fakes::watched_was_released());
}

TEST_F(kzemm_work_switching_test, a_failed_pass_keeps_the_types_and_counts) {
    refuse({6, 17});
    work.do_engine_swicth();
    EXPECT_THAT(retry_pass(), ElementsAre(control(6, 1), control(17, 1)));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(2, "switch 6 status: 1 failed"), at(2, "switch 17 status: 1 failed"),
                            at(3, "sitch engine try times: 1")));
    EXPECT_NE(fields::switch_timer(work), nullptr);
    end_retry();
}

TEST_F(kzemm_work_switching_test, a_pass_that_clears_a_part_leaves_the_rest_and_counts) {
    refuse({1, 2, 3});
    work.do_engine_swicth();
    accept({2});
    EXPECT_THAT(retry_pass(), ElementsAre(control(1, 1), control(2, 1), control(3, 1)));
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(2, "switch 1 status: 1 failed"), at(3, "switch 2 status: 1 succeed"),
                    at(2, "switch 3 status: 1 failed"), at(3, "sitch engine try times: 1")));
    accept({1});
    EXPECT_THAT(retry_pass(), ElementsAre(control(1, 1), control(3, 1)));
    EXPECT_THAT(log_lines(), testing::Contains(at(3, "sitch engine try times: 2")));
    accept({3});
    EXPECT_THAT(retry_pass(), ElementsAre(control(3, 1)));
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "switch 3 status: 1 succeed"), at(3, "stop switch timer"),
                            at(3, "set engine switch success, stop timer")));
    EXPECT_EQ(fields::switch_timer(work), nullptr);
}

TEST_F(kzemm_work_switching_test, the_retry_ends_after_six_passes_in_eighteen_minutes) {
    refuse(all_types());
    work.do_engine_swicth();
    fakes::watch_release(retry_context());
    for (int pass = 1; pass <= 5; ++pass) {
        EXPECT_THAT(retry_pass(), ElementsAreArray(sent_with({})));
        EXPECT_EQ(log_lines().size(), 11U);
        EXPECT_THAT(log_lines().back(), at(3, "sitch engine try times: " + std::to_string(pass)));
        EXPECT_NE(fields::switch_timer(work), nullptr);
        EXPECT_FALSE(fakes::watched_was_released());
    }
    EXPECT_THAT(retry_pass(), ElementsAreArray(sent_with({})));
    std::vector<fakes::record> lines = log_lines();
    lines.erase(lines.begin(), lines.begin() + 10);
    EXPECT_THAT(lines,
                ElementsAre(at(3, "sitch engine try times: 6"),
                            at(2, "switch engine over max times 5"), at(3, "stop switch timer")));
    EXPECT_EQ(fields::switch_timer(work), nullptr);
    EXPECT_THAT(open_timers(), IsEmpty());
    EXPECT_TRUE(fakes::watched_was_released());
    EXPECT_EQ(fakes::now_us(), 18ULL * 60 * 1000000);
    EXPECT_THAT(retry_pass(), IsEmpty());
}

TEST_F(kzemm_work_switching_test, success_in_the_sixth_pass_ends_without_the_warning) {
    refuse({8});
    work.do_engine_swicth();
    for (int pass = 1; pass <= 5; ++pass) {
        retry_pass();
    }
    accept({8});
    retry_pass();
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "switch 8 status: 1 succeed"), at(3, "stop switch timer"),
                            at(3, "set engine switch success, stop timer")));
}

TEST_F(kzemm_work_switching_test, a_failure_after_the_used_up_retry_arms_it_afresh) {
    refuse({8});
    work.do_engine_swicth();
    for (int pass = 1; pass <= 6; ++pass) {
        retry_pass();
    }
    ASSERT_EQ(fields::switch_timer(work), nullptr);
    work.do_engine_swicth();
    ASSERT_NE(fields::switch_timer(work), nullptr);
    retry_pass();
    EXPECT_THAT(log_lines(), testing::Contains(at(3, "sitch engine try times: 1")));
    for (int pass = 2; pass <= 6; ++pass) {
        EXPECT_NE(fields::switch_timer(work), nullptr);
        retry_pass();
    }
    EXPECT_EQ(fields::switch_timer(work), nullptr);
}

TEST_F(kzemm_work_switching_test, a_second_failure_replaces_the_pending_list_and_the_count) {
    refuse({1, 2});
    work.do_engine_swicth();
    retry_pass();
    retry_pass();
    accept({1, 2});
    refuse({14});
    left_behind_by_design(retry_context());
    fakes::clear_journal();
    work.do_engine_swicth();
    EXPECT_THAT(fakes::texts({fakes::what::timer, fakes::what::log}),
                ElementsAre("ssh:1", testing::_, testing::_, "switch 14 status: 1 failed",
                            "need to retry switch engine", "switch timer exist, stop old", "stop 1",
                            "close 1", "stop switch timer", "start 2 180000/180000",
                            "start switch timer success"));
    EXPECT_THAT(log_lines(), testing::Contains(at(3, "switch timer exist, stop old")));
    EXPECT_EQ(open_timers().size(), 1U);
    EXPECT_THAT(retry_pass(), ElementsAre(control(14, 1)));
    EXPECT_THAT(log_lines(), testing::Contains(at(3, "sitch engine try times: 1")));
    end_retry();
}

TEST_F(kzemm_work_switching_test, a_replaced_retry_runs_180_seconds_from_the_replacement) {
    refuse({1});
    work.do_engine_swicth();
    let_pass(switch_period_ms - 1000);
    left_behind_by_design(retry_context());
    work.do_engine_swicth();
    fakes::clear_journal();
    let_pass(switch_period_ms - 1);
    EXPECT_THAT(controls(), IsEmpty());
    let_pass(1);
    EXPECT_THAT(controls(), ElementsAre(control(1, 1)));
    end_retry();
}

TEST_F(kzemm_work_switching_test, a_full_success_meanwhile_leaves_the_pending_retry) {
    refuse({1});
    work.do_engine_swicth();
    accept({1});
    work.do_engine_swicth();
    EXPECT_NE(fields::switch_timer(work), nullptr);
    EXPECT_THAT(retry_pass(), ElementsAre(control(1, 1)));
    EXPECT_EQ(fields::switch_timer(work), nullptr);
}

TEST_F(kzemm_work_switching_test, each_pass_takes_the_status_anew) {
    refuse({8});
    work.do_engine_swicth();
    EXPECT_THAT(retry_pass(), ElementsAre(control(8, 1)));
    config::abnormal_scan_switch() = true;
    EXPECT_THAT(retry_pass(), ElementsAre(control(8, 2)));
    EXPECT_THAT(log_lines(), testing::Contains(at(2, "switch 8 status: 2 failed")));
    end_retry();
}

TEST_F(kzemm_work_switching_test, a_retry_does_not_know_the_gate_of_brute_force) {
    config::bruteforce_ssh_switch() = true;
    refuse({12});
    work.do_engine_swicth();
    EXPECT_THAT(controls(), testing::Contains(control(12, 1)));
    EXPECT_THAT(retry_pass(), ElementsAre(control(12, 2)));
    end_retry();
}

TEST_F(kzemm_work_switching_test, a_retry_does_not_know_the_cnapp_override) {
    fakes::set_cnapp_agent(1);
    refuse(all_types());
    work.do_engine_swicth();
    EXPECT_THAT(controls(), ElementsAreArray(sent_with({6, 1, 2, 13, 3, 14, 8, 12, 17})));
    // What the switches say: those of the rule packs were set to true.
    EXPECT_THAT(retry_pass(), ElementsAreArray(sent_with({1, 2, 3, 17})));
    end_retry();
}

TEST_F(kzemm_work_switching_test, a_retry_that_cannot_be_armed_releases_its_context) {
    refuse({3});
    fakes::fail_timer_start(1);
    work.do_engine_swicth();
    std::vector<fakes::record> lines = log_lines();
    lines.erase(lines.begin(), lines.begin() + 3);
    EXPECT_THAT(
        lines, ElementsAre(at(2, "switch 3 status: 1 failed"), at(3, "need to retry switch engine"),
                           at(2, "start switch timer failed")));
    EXPECT_EQ(fields::switch_timer(work), nullptr);
    EXPECT_TRUE(fakes::watched_was_released());
}

TEST_F(kzemm_work_switching_test, retry_switch_engine_tells_whether_it_was_armed) {
    EXPECT_EQ(work.retry_switch_engine({ENGINE_IOC, ENGINE_IOA}), 0);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "start switch timer success")));
    left_behind_by_design(retry_context());
    fakes::fail_timer_start(1);
    EXPECT_EQ(work.retry_switch_engine({ENGINE_MD}), -1);
    EXPECT_EQ(fields::switch_timer(work), nullptr);
}

TEST_F(kzemm_work_switching_test, without_memory_for_the_context_there_is_no_retry) {
    fakes::fail_allocation(1);
    EXPECT_EQ(work.retry_switch_engine({ENGINE_MD}), -1);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "new context failed")));
    EXPECT_THAT(open_timers(), IsEmpty());
    EXPECT_EQ(fields::switch_timer(work), nullptr);
}

TEST_F(kzemm_work_switching_test, without_memory_a_pending_retry_stays) {
    refuse({3});
    work.do_engine_swicth();
    cl_timerplus *const pending = fields::switch_timer(work);
    fakes::fail_allocation(1);
    EXPECT_EQ(work.retry_switch_engine({ENGINE_IOC}), -1);
    EXPECT_EQ(fields::switch_timer(work), pending);
    EXPECT_THAT(retry_pass(), ElementsAre(control(3, 1)));
    end_retry();
}

TEST_F(kzemm_work_switching_test, what_there_is_no_memory_for_is_not_retried) {
    const auto fail_for_17 = [] {
        fakes::at_record(fakes::what::log, "switch 17 status: 1 failed",
                         [] { fakes::fail_throwing_new(1); });
    };
    refuse({17});
    fail_for_17();
    work.do_engine_swicth();
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(log_lines(), Contains(at(1, "no memory to retry switch 17")));
    EXPECT_THAT(log_lines().back(), at(3, "need to retry switch engine"));
    EXPECT_EQ(fields::switch_timer(work), nullptr);
    EXPECT_THAT(open_timers(), IsEmpty());

    refuse({3, 17});
    fail_for_17();
    work.do_engine_swicth();
    EXPECT_THAT(retry_pass(), ElementsAre(control(3, 1)));
    end_retry();
}

TEST_F(kzemm_work_switching_test, an_unknown_type_in_the_list_is_sent_as_off) {
    EXPECT_EQ(work.retry_switch_engine({static_cast<_engine_type>(5)}), 0);
    EXPECT_THAT(retry_pass(), ElementsAre(control(5, 1)));
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "type 5 error"), at(3, "switch 5 status: 1 succeed"),
                                         at(3, "stop switch timer"),
                                         at(3, "set engine switch success, stop timer")));
}

TEST_F(kzemm_work_switching_test, a_retry_sends_in_the_order_of_its_list) {
    refuse({17, 6, 12});
    EXPECT_EQ(work.retry_switch_engine({ENGINE_DETANAL, ENGINE_COLLECT, ENGINE_BRUTEFORCE_SSH}), 0);
    EXPECT_THAT(retry_pass(), ElementsAre(control(17, 1), control(6, 1), control(12, 1)));
    end_retry();
}

TEST_F(kzemm_work_switching_test, stop_switch_timer_logs_with_and_without_a_timer) {
    work.stop_switch_timer();
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "stop switch timer")));
    EXPECT_EQ(work.retry_switch_engine({ENGINE_MD}), 0);
    left_behind_by_design(retry_context());
    fakes::clear_journal();
    work.stop_switch_timer();
    EXPECT_THAT(fakes::texts({fakes::what::timer, fakes::what::log}),
                ElementsAre("stop 1", "close 1", "stop switch timer"));
    EXPECT_EQ(fields::switch_timer(work), nullptr);
}

// ---- set_qd_swicth and the repeated read of the configuration ----

namespace {

class kzemm_work_set_switch_test : public kzemm_work_switching_test {
  protected:
    void SetUp() override {
        kzemm_work_switching_test::SetUp();
        init_config();
    }

    // The lines of an evaluation whose first key can't be read.
    static std::vector<testing::Matcher<const fakes::record &>> unreadable_lines() {
        return {at(1,
                   "cfgc GetValue failed, module: /mgr/base_collect, key: /adv_threats, err: no "
                   "such value."),
                at(2, "get from cfgc failed: switch[/adv_threats] module[/mgr/base_collect]"),
                at(1, "get cfgc failed")};
    }
};

}  // namespace

TEST_F(kzemm_work_set_switch_test, a_readable_configuration_goes_to_the_engine) {
    make_config_readable("true");
    EXPECT_EQ(work.set_qd_swicth(), 0);
    std::vector<std::string> expected = {"x_client_subscribe_origin_data(120)"};
    for (const std::string &each : sent_with({6, 1, 2, 3, 15, 17})) {
        expected.push_back(each);
    }
    EXPECT_THAT(engine_texts(), ElementsAreArray(expected));
    EXPECT_EQ(fields::cfg_timer(work), nullptr);
    EXPECT_THAT(fakes::texts({fakes::what::timer}), IsEmpty());
}

TEST_F(kzemm_work_set_switch_test, an_unreadable_configuration_sends_the_switches_as_they_stand) {
    EXPECT_EQ(work.set_qd_swicth(), 0);
    auto expected = unreadable_lines();
    expected.push_back(at(3, "get cfgc switch failed, start retry"));
    expected.push_back(at(3, "cancel subscribe origin data success"));
    expected.push_back(at(3, "ssh:1"));
    expected.push_back(at(3, switch_rows[0].log_line));
    expected.push_back(at(3, switch_rows[0].second_log_line));
    expected.push_back(at(3, "set engine switch success"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    std::vector<std::string> sent = {"x_client_subscribe_origin_data(1)"};
    for (const std::string &each : sent_with({})) {
        sent.push_back(each);
    }
    EXPECT_THAT(engine_texts(), ElementsAreArray(sent));
    work.stop_cfg_timer();
}

TEST_F(kzemm_work_set_switch_test, an_unreadable_configuration_is_read_again_after_5_seconds) {
    EXPECT_EQ(work.set_qd_swicth(), 0);
    ASSERT_EQ(open_timers().size(), 1U);
    const fakes::timer_view timer = open_timers()[0];
    EXPECT_EQ(timer.handle, fields::cfg_timer(work));
    EXPECT_EQ(timer.first_ms, cfg_period_ms);
    EXPECT_EQ(timer.flags, 0U);
    EXPECT_EQ(timer.period_ms, cfg_period_ms);
    EXPECT_EQ(timer.callback, &kzemm_work_inspector::set_engine_switch_cb);
    EXPECT_EQ(timer.user, &work);
    work.stop_cfg_timer();
}

TEST_F(kzemm_work_set_switch_test, switches_of_an_earlier_evaluation_are_sent_when_it_fails_later) {
    make_config_readable("true");
    EXPECT_EQ(work.set_qd_swicth(), 0);
    make_config_unreadable();
    fakes::clear_journal();
    EXPECT_EQ(work.set_qd_swicth(), 0);
    EXPECT_THAT(controls(), ElementsAreArray(sent_with({6, 1, 2, 3, 15, 17})));
    work.stop_cfg_timer();
}

TEST_F(kzemm_work_set_switch_test, with_the_timer_armed_a_second_failure_sends_nothing) {
    EXPECT_EQ(work.set_qd_swicth(), 0);
    fakes::clear_journal();
    EXPECT_EQ(work.set_qd_swicth(), 0);
    auto expected = unreadable_lines();
    expected.push_back(at(3, "get cfgc switch failed, start retry"));
    expected.push_back(at(2, "cfgc timer exist"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(fakes::texts({fakes::what::engine, fakes::what::timer}), IsEmpty());
    EXPECT_EQ(open_timers().size(), 1U);
    work.stop_cfg_timer();
}

TEST_F(kzemm_work_set_switch_test, when_the_timer_cannot_be_armed_nothing_is_sent) {
    fakes::fail_timer_start(1);
    EXPECT_EQ(work.set_qd_swicth(), -1);
    auto expected = unreadable_lines();
    expected.push_back(at(3, "get cfgc switch failed, start retry"));
    expected.push_back(at(2, "start cfgc timer failed, use default"));
    EXPECT_THAT(log_lines(), ElementsAreArray(expected));
    EXPECT_THAT(engine_texts(), IsEmpty());
    EXPECT_EQ(fields::cfg_timer(work), nullptr);
}

TEST_F(kzemm_work_set_switch_test, without_a_central_client_the_read_is_repeated_too) {
    kzemm_config::get_instance().uninit();
    fakes::clear_journal();
    EXPECT_EQ(work.set_qd_swicth(), 0);
    EXPECT_NE(fields::cfg_timer(work), nullptr);
    EXPECT_THAT(controls(), ElementsAreArray(sent_with({})));
    work.stop_cfg_timer();
}

TEST_F(kzemm_work_set_switch_test, a_readable_configuration_meanwhile_leaves_the_timer_armed) {
    EXPECT_EQ(work.set_qd_swicth(), 0);
    make_config_readable();
    fakes::clear_journal();
    EXPECT_EQ(work.set_qd_swicth(), 0);
    EXPECT_THAT(controls(), ElementsAreArray(sent_with({})));
    EXPECT_NE(fields::cfg_timer(work), nullptr);
    work.stop_cfg_timer();
}

TEST_F(kzemm_work_set_switch_test, the_repeated_read_has_no_limit_and_does_nothing_on_failure) {
    EXPECT_EQ(work.set_qd_swicth(), 0);
    for (int read = 0; read < 1000; ++read) {
        fakes::clear_journal();
        let_pass(cfg_period_ms);
        EXPECT_THAT(log_lines(), ElementsAreArray(unreadable_lines()));
        EXPECT_THAT(fakes::texts({fakes::what::engine, fakes::what::timer}), IsEmpty());
    }
    EXPECT_NE(fields::cfg_timer(work), nullptr);
    work.stop_cfg_timer();
}

TEST_F(kzemm_work_set_switch_test, the_first_good_read_stops_the_timer_and_switches_the_engine) {
    EXPECT_EQ(work.set_qd_swicth(), 0);
    make_config_readable("true");
    fakes::clear_journal();
    let_pass(cfg_period_ms - 1);
    EXPECT_THAT(fakes::texts({fakes::what::engine, fakes::what::log}), IsEmpty());
    let_pass(1);
    EXPECT_EQ(fields::cfg_timer(work), nullptr);
    EXPECT_THAT(open_timers(), IsEmpty());

    std::vector<std::string> expected = {"stop 1", "close 1",
                                         "x_client_subscribe_origin_data(120)"};
    for (const std::string &each : sent_with({6, 1, 2, 3, 15, 17})) {
        expected.push_back(each);
    }
    EXPECT_THAT(fakes::texts({fakes::what::engine, fakes::what::timer}),
                ElementsAreArray(expected));
    std::vector<std::string> lines = fakes::texts({fakes::what::log});
    EXPECT_THAT(std::vector<std::string>(lines.end() - 10, lines.end()),
                ElementsAre("set engine switch success, stop timer", "stop cfg timer",
                            testing::StartsWith("cfgc GetValue failed"),
                            "get collect report cycle from cfgc failed, ues default",
                            "set report cycle failed, use default",
                            "qd subscribe origin data success, cycle: 120", "ssh:1",
                            testing::StartsWith("collect: 2"),
                            testing::StartsWith("set engine switch, on[2], off[1]."),
                            "set engine switch success"));
    EXPECT_THAT(log_lines(), testing::Contains(at(3, "set engine switch success, stop timer")));
}

TEST_F(kzemm_work_set_switch_test, a_refusal_after_the_repeated_read_starts_the_retry) {
    EXPECT_EQ(work.set_qd_swicth(), 0);
    make_config_readable();
    refuse({2});
    let_pass(cfg_period_ms);
    EXPECT_EQ(fields::cfg_timer(work), nullptr);
    EXPECT_NE(fields::switch_timer(work), nullptr);
    end_retry();
}

TEST_F(kzemm_work_set_switch_test, a_failed_origin_subscription_does_not_keep_the_orders_back) {
    make_config_readable();
    fakes::engine_always_returns("x_client_subscribe_origin_data", -1);
    EXPECT_EQ(work.set_qd_swicth(), 0);
    EXPECT_THAT(controls(), ElementsAreArray(sent_with({})));
}

TEST_F(kzemm_work_set_switch_test, stop_cfg_timer_logs_with_and_without_a_timer) {
    work.stop_cfg_timer();
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "stop cfg timer")));
    EXPECT_EQ(work.set_qd_swicth(), 0);
    fakes::clear_journal();
    work.stop_cfg_timer();
    EXPECT_THAT(fakes::texts({fakes::what::timer, fakes::what::log}),
                ElementsAre("stop 1", "close 1", "stop cfg timer"));
    EXPECT_EQ(fields::cfg_timer(work), nullptr);
}
