// What becomes of a credible event: the worker's callback, which the engine calls. The disposal
// itself has tests of its own.

#include <gmock/gmock.h>

#include "plugin/kzemm_data_conv.h"
#include "plugin/kzemm_work.h"
#include "tests/fakes/fake_engine.h"
#include "tests/fakes/fake_gateway.h"
#include "tests/fakes/fake_ipc.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/inspectors.h"
#include "tests/fakes/plugin_test.h"
#include "trace.pb.h"

using fakes::at;
using fakes::log_lines;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class kzemm_work_credible_test : public plugin_test {
  protected:
    void SetUp() override {
        plugin_test::SetUp();
        load_libraries();
        kzemm_work_inspector::ipc(work) = reinterpret_cast<vrd_ipc_st *>(&endpoint);
        kzemm_work_inspector::rpdsp_addr(work) = reinterpret_cast<vrd_addr_st *>(&address);
    }

    static void dispose_of(bool web, bool phishing) {
        kzemm_config_inspector::dispose_web_switch() = web;
        kzemm_config_inspector::dispose_phishing_switch() = phishing;
    }

    static void deliver(const std::string &data, void *user) {
        kzemm_work_inspector::qd_eng_sub_credible_cb(fakes::engine_buffer(data),
                                                     static_cast<unsigned int>(data.size()), user);
    }

    // An event of the web scene with one action, as the engine frames it.
    static std::string web_event() {
        kzav_trace::kzav_trace_info info;
        info.set_cmd(kzav_trace::TRACE_CMD_CREDIBLE_EVENT);
        auto *const rule = info.mutable_credible_event()->mutable_rule();
        rule->set_scene(static_cast<kzav_trace::KZAV_EVENT_SCENE>(1));
        rule->add_match_action();
        const std::string body = info.SerializeAsString();
        std::string frame;
        add_msg_header(body.data(), static_cast<uint32_t>(body.size()), frame, 1, 0);
        return frame;
    }

    kzemm_work_inspector work;

  private:
    char endpoint = 0;  // what the handles point to; nothing looks at it
    char address = 0;
};

// The switches of the two scenes, of which one at least is on.
class kzemm_work_credible_on_test : public kzemm_work_credible_test,
                                    public testing::WithParamInterface<std::pair<bool, bool>> {};

INSTANTIATE_TEST_SUITE_P(, kzemm_work_credible_on_test,
                         testing::Values(std::pair(true, false), std::pair(false, true),
                                         std::pair(true, true)));

}  // namespace

TEST_F(kzemm_work_credible_test, goes_up_as_it_came_while_nothing_is_disposed_of) {
    dispose_of(false, false);
    const std::string data("no \0event at all", 17);
    deliver(data, &work);
    ASSERT_THAT(fakes::gateway_sends(), SizeIs(1));
    EXPECT_EQ(fakes::gateway_sends()[0].type, 10);
    EXPECT_EQ(fakes::gateway_sends()[0].data, data);
    EXPECT_THAT(fakes::ipc_requests(), IsEmpty());
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "get qd_eng_sub_credible data"),
                                         at(3, "auto dispose is disabled, only send to thtgw"),
                                         at(3, "send data to thtgw success")));
}

TEST_F(kzemm_work_credible_test, is_freed_behind_the_gateway_call_and_only_once) {
    dispose_of(false, false);
    unsigned int frees_before = 77;
    fakes::on_gateway_send([&] { frees_before = fakes::engine_frees(); });
    deliver("text", &work);
    EXPECT_EQ(frees_before, 0U);
    EXPECT_EQ(fakes::engine_frees(), 1U);
}

TEST_F(kzemm_work_credible_test, is_freed_when_the_gateway_refuses_it) {
    dispose_of(false, false);
    fakes::gateway_returns(-1);
    deliver("text", &work);
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "get qd_eng_sub_credible data"),
                                         at(3, "auto dispose is disabled, only send to thtgw"),
                                         at(1, "send data to kzethtgw failed, type: 10")));
}

TEST_F(kzemm_work_credible_test, is_nothing_when_it_is_null_and_goes_to_the_engine_all_the_same) {
    dispose_of(false, false);
    kzemm_work_inspector::qd_eng_sub_credible_cb(nullptr, 4, &work);
    EXPECT_THAT(fakes::gateway_sends(), IsEmpty());
    EXPECT_EQ(fakes::engine_frees(), 1U) << "the client takes a null pointer";
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "get qd_eng_sub_credible data"),
                                         at(3, "auto dispose is disabled, only send to thtgw"),
                                         at(2, "data is null")));
}

TEST_P(kzemm_work_credible_on_test, is_read_as_soon_as_one_scene_is_disposed_of) {
    dispose_of(GetParam().first, GetParam().second);
    deliver("no event at all, though long enough", &work);
    EXPECT_THAT(fakes::gateway_sends(), IsEmpty());
    EXPECT_THAT(fakes::ipc_requests(), IsEmpty());
    EXPECT_EQ(fakes::engine_frees(), 1U);
    const std::vector<fakes::record> lines = log_lines();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_THAT(lines[0], at(3, "get qd_eng_sub_credible data"));
    EXPECT_THAT(lines[1], at(4, "start do auto dispose"));
    EXPECT_THAT(lines.back(), at(2, "do auto dispose failed"));
}

TEST_P(kzemm_work_credible_on_test, that_is_null_is_a_failure_and_goes_to_the_engine) {
    dispose_of(GetParam().first, GetParam().second);
    kzemm_work_inspector::qd_eng_sub_credible_cb(nullptr, 4, &work);
    EXPECT_EQ(fakes::engine_frees(), 1U);
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(3, "get qd_eng_sub_credible data"), at(4, "start do auto dispose"),
                    at(2, "qd_engine_sub_credible data is null"), at(2, "do auto dispose failed")));
}

TEST_F(kzemm_work_credible_test, is_disposed_of_through_the_workers_own_endpoint_and_address) {
    dispose_of(true, false);
    deliver(web_event(), &work);
    EXPECT_EQ(fakes::engine_frees(), 1U);
    ASSERT_THAT(fakes::gateway_sends(), SizeIs(1));
    EXPECT_EQ(fakes::gateway_sends()[0].type, 10);
    ASSERT_THAT(fakes::ipc_requests(), SizeIs(1));
    const fakes::ipc_request request = fakes::ipc_requests()[0];
    EXPECT_EQ(request.ipc, kzemm_work_inspector::ipc(work));
    EXPECT_EQ(request.addr, kzemm_work_inspector::rpdsp_addr(work));
    EXPECT_EQ(request.cmd, 10001U);
    EXPECT_THAT(log_lines().back(), at(3, HasSubstr("send auto dispose task to rpdsp")));
    fakes::ipc_answer(request, "");
}

TEST_F(kzemm_work_credible_test, is_the_engines_until_both_sends_are_made) {
    dispose_of(true, false);
    unsigned int frees_before = 77;
    fakes::on_gateway_send([&] { frees_before = fakes::engine_frees(); });
    deliver(web_event(), &work);
    EXPECT_EQ(frees_before, 0U);
    EXPECT_EQ(fakes::engine_frees(), 1U);
    fakes::ipc_answer(fakes::ipc_requests().at(0), "");
}
