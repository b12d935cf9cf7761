/* Messages that no client library would send. */
#include <optional>
#include <random>
#include <thread>

#include "agent/engine/engine_protocol.h"
#include "agent/tests/component/engine/client_fixture.h"
#include "vrdcl_ev.h"
#include "vrdipc.h"

namespace engine_test {
namespace {

using namespace kze::engine;

struct raw_answer {
    bool done = false;
    int status = 0;
    std::string bytes;
};

/* Sends one request as it is and waits for its answer, on a thread with a loop of its own. */
raw_answer send_raw(unsigned int command, const std::string &bytes) {
    raw_answer answer;
    std::thread sender([&] {
        cl_ev_loop_nowait(0);
        vrd_ipc_st *ipc = vrd_ipc_create_temp("raw", 0);
        vrd_addr_st *addr = vrd_addr_create(endpoint_name, 0, 0);
        const auto on_reply = [](int status, unsigned int, const char *data, unsigned int len,
                                 void *context) {
            auto *to = static_cast<raw_answer *>(context);
            to->done = true;
            to->status = status;
            to->bytes.assign(data == nullptr ? "" : data, len);
        };
        if (vrd_ipc_make_request(ipc, addr, command, bytes.data(),
                                 static_cast<unsigned int>(bytes.size()), on_reply, &answer,
                                 2) == 0) {
            while (!answer.done) {
                cl_event_loop_once();
            }
        }
        vrd_ipc_destroy(ipc);
        vrd_addr_destroy(addr);
    });
    sender.join();
    return answer;
}

/* The code in the answer to a request; nothing when there is no proper answer. */
std::optional<int> code_of(unsigned int command, const std::string &bytes) {
    const raw_answer answer = send_raw(command, bytes);
    const auto record =
        decode_record(answer.bytes.data(), static_cast<unsigned int>(answer.bytes.size()));
    return answer.status == 0 && record ? std::optional<int>(record->first) : std::nullopt;
}

class EngineMessages : public EngineClient {};

TEST_F(EngineMessages, what_is_no_record_or_no_command_is_refused) {
    tree.start_engine();
    for (const unsigned int command : {0U, 2U, 16U, 17U, 18U, 19U, 4000000000U}) {
        EXPECT_EQ(code_of(command, ""), invalid) << command;
        EXPECT_EQ(code_of(command, "short"), invalid) << command;
    }
    EXPECT_EQ(code_of(19, encode_record({1, 0, 0, 0, {}})), invalid);
}

TEST_F(EngineMessages, calls_with_no_known_number_are_refused) {
    tree.start_engine();
    for (const std::uint32_t call : {0U, engine_call_count + 1, UINT32_MAX}) {
        EXPECT_EQ(code_of(command_call, encode_record({call, 0, 0, 0, {}})), invalid) << call;
    }
}

TEST_F(EngineMessages, strangers_are_told_that_they_are_none_of_the_clients) {
    start_both();
    for (std::uint32_t call = 2; call <= engine_call_count; ++call) {
        EXPECT_EQ(code_of(command_call, encode_record({call, 0, 1, 1, "x"})), offline) << call;
    }
    EXPECT_EQ(code_of(command_ping, encode_record({0, 0, 0, 0, {}})), offline);
    EXPECT_EQ(code_of(command_next, encode_record({0, 0, 0, 0, {}})), offline);
    EXPECT_EQ(status().at("clients").size(), 1U);
}

TEST_F(EngineMessages, any_arguments_of_any_call_leave_the_engine_serving) {
    start_both();
    const auto client = status().at("clients").at(0).at("id").get<std::uint32_t>();
    std::mt19937 random(20240501);
    const int numbers[] = {0, 1, 2, 3, 7, -1, 1000, INT32_MAX, INT32_MIN};
    const std::string payloads[] = {"", "x", std::string("\0/\xff", 3), std::string(5000, '/')};
    for (int round = 0; round < 300; ++round) {
        /* All but x_client_stop, after which the client would be none. */
        const auto call = static_cast<std::uint32_t>(3 + random() % (engine_call_count - 2));
        const record request{call, client, numbers[random() % std::size(numbers)],
                             numbers[random() % std::size(numbers)],
                             payloads[random() % std::size(payloads)]};
        EXPECT_TRUE(code_of(command_call, encode_record(request)))
            << call << " " << request.first << " " << request.second;
    }
    EXPECT_EQ(library->x_client_engine_control(ENGINE_IOC, ENGINE_SWITCH_ON), 0);
    EXPECT_EQ(outages.count(), 0U);
}

TEST_F(EngineMessages, control_requests_that_make_no_sense_get_an_error_text) {
    tree.start_engine();
    for (const json &request :
         {json::object(), json{{"op", 1}}, json{{"op", "other"}}, json{{"op", "push"}},
          json{{"op", "push"}, {"kind", 1}, {"file", 2}}, json{{"op", "silent"}, {"seconds", -1}},
          json{{"op", "silent"}, {"seconds", 86401}}, json{{"op", "die"}, {"stay_down", "yes"}},
          json{{"op", "rule-text"}}, json{{"op", "rule-text"}, {"type", 7}}, json{{"op", "answer"}},
          json{{"op", "clear"}, {"call", "none"}}, json{{"op", "version"}}}) {
        const json answer = tree.ask(request);
        EXPECT_EQ(answer.at("ok"), false) << request;
        EXPECT_NE(answer.at("error"), "") << request;
    }
}

}  // namespace
}  // namespace engine_test
