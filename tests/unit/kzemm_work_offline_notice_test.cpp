// The notice on the message bus that the engine's client came back after an outage.

#include "tests/fakes/fake_bus.h"
#include "tests/unit/worker_test.h"

using fakes::let_pass;
using fakes::log_lines;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr unsigned int watch_period_ms = 1000;

class kzemm_work_offline_notice_test : public worker_test {
  protected:
    void SetUp() override {
        worker_test::SetUp();
        init_config();
    }

    // Puts the worker where the engine's going away leaves it, with its endpoint and the watch
    // armed.
    void go_offline_with_watch() {
        ASSERT_EQ(work.init_ipc(), 0);
        ASSERT_EQ(work.qd_client_start(), 0);
        ASSERT_EQ(work.start_qd_timer(), 0);
        fakes::engine_goes_offline();
        fakes::clear_journal();
    }
};

}  // namespace

TEST_F(kzemm_work_offline_notice_test, the_end_of_an_outage_is_published_behind_everything_else) {
    fakes::advise_plugin();
    go_offline_with_watch();
    let_pass(watch_period_ms);
    const auto order = fakes::texts({fakes::what::log, fakes::what::bus_log, fakes::what::engine,
                                     fakes::what::timer, fakes::what::ipc, fakes::what::bus});
    ASSERT_GE(order.size(), 3U);
    EXPECT_THAT(std::vector<std::string>(order.end() - 3, order.end()),
                ElementsAre("destroy address agt_cfgc", fakes::bus_text(3, "rec one message."),
                            "dispatch 1022"));
    ASSERT_EQ(fakes::bus_events().size(), 1U);
    EXPECT_EQ(fakes::bus_events()[0].data, "offline");
}

TEST_F(kzemm_work_offline_notice_test,
       the_notice_is_published_also_when_the_modules_cannot_be_asked_for) {
    fakes::advise_plugin();
    go_offline_with_watch();
    fakes::addr_create_fails("agt_cfgc");
    let_pass(watch_period_ms);
    EXPECT_THAT(fakes::texts({fakes::what::bus}), ElementsAre("dispatch 1022"));
}

TEST_F(kzemm_work_offline_notice_test, each_outage_has_one_notice) {
    fakes::advise_plugin();
    go_offline_with_watch();
    let_pass(watch_period_ms);
    let_pass(watch_period_ms);
    EXPECT_EQ(fakes::bus_events().size(), 1U);
    fakes::engine_goes_offline();
    let_pass(watch_period_ms);
    EXPECT_EQ(fakes::bus_events().size(), 2U);
}

TEST_F(kzemm_work_offline_notice_test, no_notice_is_published_for_an_engine_that_stays_away) {
    install_vrd_services();
    config::offline_retry_times() = 5;
    fakes::advise_plugin();
    go_offline_with_watch();
    fakes::engine_always_returns("x_client_start", -1);
    let_pass(watch_period_ms);
    EXPECT_THAT(fakes::bus_events(), IsEmpty());
    EXPECT_THAT(fakes::bus_lines(), IsEmpty());
}

TEST_F(kzemm_work_offline_notice_test, a_look_at_an_online_client_publishes_nothing) {
    fakes::advise_plugin();
    EXPECT_EQ(work.qd_client_start(), 0);
    work.check_qd_status();
    EXPECT_THAT(fakes::bus_events(), IsEmpty());
}

TEST_F(kzemm_work_offline_notice_test, the_notice_is_a_success_whatever_becomes_of_it) {
    EXPECT_EQ(work.qd_client_offline_to_fmb(), 0);
    EXPECT_THAT(fakes::bus_lines(), ElementsAre(fakes::bus_at(0, "bus need init first.")));
    fakes::clear_journal();
    fakes::advise_plugin();
    fakes::bus_dispatch_returns(-1);
    EXPECT_EQ(work.qd_client_offline_to_fmb(), 0);
    EXPECT_THAT(fakes::bus_lines(), ElementsAre(fakes::bus_at(3, "rec one message."),
                                                fakes::bus_at(0, "Error to Invoke data.")));
    EXPECT_THAT(log_lines(), IsEmpty());
}
