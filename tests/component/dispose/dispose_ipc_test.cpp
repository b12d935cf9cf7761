// Requests to the disposal service over the real IPC: how they arrive, and how they end when the
// service isn't there, or never answers and the plug-in stops. What isn't released at the end shows
// under the leak checker.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "datapath/kzemm_dispose.h"
#include "datapath/kzemm_gateway.h"
#include "tests/support/ipc_test.h"
#include "tests/support/wire_bytes.h"

namespace {

std::atomic<int> s_made{0};
kze_test::counter s_ended;

struct watched_request {
    vrd_ipc_reply_cb callback;
    void *context;
};

void on_end(int status, unsigned int cmd, const char *data, unsigned int len, void *context) {
    const std::unique_ptr<watched_request> request(static_cast<watched_request *>(context));
    request->callback(status, cmd, data, len, request->context);
    s_ended.add();
}

}  // namespace

// The linker leads the calls of the code under test here, so that their ends can be counted.
extern "C" int __real_vrd_ipc_make_request(vrd_ipc_st *ipc, const vrd_addr_st *addr,
                                           unsigned int cmd, const char *data, unsigned int size,
                                           vrd_ipc_reply_cb callback, void *context,
                                           unsigned int time_limit);
extern "C" int __wrap_vrd_ipc_make_request(vrd_ipc_st *ipc, const vrd_addr_st *addr,
                                           unsigned int cmd, const char *data, unsigned int size,
                                           vrd_ipc_reply_cb callback, void *context,
                                           unsigned int time_limit);

int __wrap_vrd_ipc_make_request(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int cmd,
                                const char *data, unsigned int size, vrd_ipc_reply_cb callback,
                                void *context, unsigned int time_limit) {
    ++s_made;
    return __real_vrd_ipc_make_request(ipc, addr, cmd, data, size, on_end,
                                       new watched_request{callback, context}, time_limit);
}

int send_data_via_gw(KZEMM_DATA_TYPE, char *, unsigned int) {
    return 0;
}

namespace kze_test {
namespace {

class dispose_ipc_test : public ipc_fixture {
  protected:
    void SetUp() override {
        ipc_fixture::SetUp();
        s_made = 0;
        ended_before = s_ended.value();
    }

    // The number of processes makes events of different sizes.
    static void dispose(vrd_ipc_st *ipc, const test_address &address, uint64_t processes) {
        kzav_trace_info info;
        info.set_agent_id("agent");
        auto &action = *info.mutable_credible_event()->mutable_rule()->add_match_action();
        action.add_alert_node_id(7);
        for (uint64_t i = 0; i < processes; ++i) {
            action.add_process_list()->set_node_id(7);
        }
        const _module_header header = {};
        EXPECT_TRUE(
            send_event_to_autodsp(info, &header, ipc, const_cast<vrd_addr_st *>(address.get())));
    }

    int ended() const { return s_ended.value() - ended_before; }

    loop_thread loop;
    int ended_before = 0;
};

TEST_F(dispose_ipc_test, arrives_as_it_was_framed_and_ends_with_the_answer) {
    std::string body;
    unsigned int cmd = 0;
    {
        test_endpoint service(loop, "agt_rpdsp", [&](const incoming &request) {
            body = request.body;
            cmd = request.cmd;
            echo(request);
        });
        temp_endpoint client(loop);
        const test_address address("agt_rpdsp");
        dispose(client.get(), address, 1000);
        EXPECT_TRUE(s_ended.reaches(ended_before + 1));
    }
    EXPECT_EQ(cmd, 10001U);
    kzerespdsppl_re::kze_respdsp_icdt_req request;
    ASSERT_TRUE(request.ParseFromString(wire::payload(body)));
    ASSERT_EQ(request.alert_info_size(), 1);
    EXPECT_EQ(request.alert_info(0).proc_info_size(), 1000);
    EXPECT_EQ(s_made, 1);
}

TEST_F(dispose_ipc_test, is_tried_four_times_when_the_service_is_not_there) {
    temp_endpoint client(loop);
    const test_address address("agt_rpdsp");
    dispose(client.get(), address, 1);
    EXPECT_TRUE(s_ended.reaches(ended_before + 4));
    EXPECT_EQ(s_made, 4);
    client.destroy();
    EXPECT_EQ(ended(), 4);
}

TEST_F(dispose_ipc_test, leaves_nothing_when_the_service_never_answers_and_the_endpoint_closes) {
    constexpr int events = 20;
    test_endpoint service(loop, "agt_rpdsp", [](const incoming &) {});
    temp_endpoint client(loop);
    const test_address address("agt_rpdsp");
    for (uint64_t i = 1; i <= events; ++i) {
        dispose(client.get(), address, i * 100);
    }
    EXPECT_EQ(s_made, events);
    client.destroy();
    EXPECT_EQ(s_made, 4 * events) << "the retries are made while the endpoint closes";
    EXPECT_EQ(ended(), 4 * events) << "and all have ended when it is closed";
}

}  // namespace
}  // namespace kze_test
