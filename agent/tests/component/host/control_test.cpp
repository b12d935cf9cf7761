/* Control requests between two programs of the agent, here in one. */
#include "agent/common/control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "tests/support/process_state.h"
#include "tests/support/temp_tree.h"
#include "vrdcl_ev.h"

namespace {

using kze::control_call;
using kze::control_result;
using kze::control_server;
using kze::control_ticket;
using kze_test::eventually;
using nlohmann::json;
using testing::HasSubstr;

constexpr unsigned int seconds = 20;

class control : public testing::Test {
  protected:
    json call(const json &request) {
        const control_result result = control_call("test_control", request, seconds);
        return result.answer.value_or(json{{"no answer", result.error}});
    }
    void serve(kze::control_handler handler) {
        ASSERT_TRUE(server_.start("test_control", std::move(handler)));
    }

    kze_test::temp_tree tree_;
    control_server server_;
};

json echo(const json &request) {
    return {{"ok", true}, {"echo", request}};
}

/* Sends bytes that control_call would not, and gives back the answer's text. */
std::string send_raw(const std::string &endpoint, unsigned int cmd, const std::string &body) {
    std::string answer = "none";
    std::thread([&] {
        cl_ev_loop_nowait(0);
        vrd_ipc_st *ipc = vrd_ipc_create_temp("raw", 0);
        vrd_addr_st *addr = vrd_addr_create(endpoint.c_str(), 0, 0);
        struct context {
            std::string text;
            bool done = false;
        } pending;
        vrd_ipc_make_request(
            ipc, addr, cmd, body.data(), static_cast<unsigned int>(body.size()),
            [](int status, unsigned int, const char *data, unsigned int len, void *user) {
                auto &mine = *static_cast<context *>(user);
                mine.text = status < 0 ? vrd_ipc_strerror(status) : std::string(data, len);
                mine.done = true;
            },
            &pending, seconds);
        while (!pending.done) {
            cl_event_loop_once();
        }
        vrd_addr_destroy(addr);
        vrd_ipc_destroy(ipc);
        answer = pending.text;
    }).join();
    return answer;
}

TEST_F(control, a_request_gets_its_answer) {
    serve(echo);
    EXPECT_EQ(call({{"op", "status"}, {"n", 1}}),
              (json{{"ok", true}, {"echo", {{"op", "status"}, {"n", 1}}}}));
}

TEST_F(control, the_handler_runs_on_the_servers_own_thread) {
    const std::thread::id here = std::this_thread::get_id();
    std::thread::id there = here;
    serve([&there](const json &) {
        there = std::this_thread::get_id();
        return json{{"ok", true}};
    });
    EXPECT_EQ(call({{"op", "x"}})["ok"], true);
    server_.stop();
    EXPECT_NE(there, here);
}

TEST_F(control, a_call_where_nobody_listens_says_how_to_start_the_agent) {
    const control_result result = control_call("test_control", {{"op", "status"}}, seconds);
    EXPECT_FALSE(result.answer);
    EXPECT_THAT(result.error,
                HasSubstr("the agent is not running in this tree: start it with kzectl up"));
    EXPECT_EQ(result.status, VRD_IPC_E_NO_PEER);
}

TEST_F(control, a_call_that_is_not_answered_in_time_says_so) {
    ASSERT_TRUE(server_.start("test_control", [](const json &, const control_ticket &) {
        return std::optional<json>();
    }));
    const control_result result = control_call("test_control", {{"op", "status"}}, 1);
    EXPECT_EQ(result.error, "\"test_control\" gave no answer within 1 s");
    EXPECT_EQ(result.status, VRD_IPC_E_TIMEOUT);
}

TEST_F(control, a_request_may_be_answered_later_from_another_thread) {
    std::thread later;
    ASSERT_TRUE(server_.start("test_control", [&later](const json &, const control_ticket &ticket) {
        later = std::thread([ticket] { ticket.answer({{"ok", true}, {"late", true}}); });
        return std::optional<json>();
    }));
    EXPECT_EQ(call({{"op", "x"}}), (json{{"ok", true}, {"late", true}}));
    server_.stop(); /* the handler has stored the thread by then */
    later.join();
}

TEST_F(control, an_answer_after_the_server_has_gone_is_no_error) {
    std::optional<control_ticket> kept;
    ASSERT_TRUE(server_.start("test_control", [&kept](const json &, const control_ticket &ticket) {
        kept = ticket;
        return std::optional<json>();
    }));
    control_call("test_control", {{"op", "x"}}, 1);
    server_.stop();
    ASSERT_TRUE(kept);
    kept->answer({{"ok", true}});
}

TEST_F(control, what_is_no_json_object_is_answered_with_the_reason) {
    serve(echo);
    EXPECT_EQ(json::parse(send_raw("test_control", kze::control_command, "{\"op\": "))["error"],
              "the request can't be read: line 1, column 8: not valid JSON");
    EXPECT_EQ(json::parse(send_raw("test_control", kze::control_command, "[1, 2]"))["error"],
              "the request can't be read: it is no object");
    EXPECT_EQ(json::parse(send_raw("test_control", kze::control_command, ""))["ok"], false);
    EXPECT_EQ(json::parse(
                  send_raw("test_control", kze::control_command, std::string(1000000, '[')))["ok"],
              false);
    EXPECT_EQ(call({{"op", "still there"}})["ok"], true);
}

TEST_F(control, another_command_is_refused) {
    serve(echo);
    EXPECT_EQ(json::parse(send_raw("test_control", 7, "{}"))["error"], "not a control request");
}

TEST_F(control, what_a_handler_throws_is_the_answers_error) {
    serve([](const json &request) -> json {
        if (request.contains("number")) {
            return {{"n", request["number"].get<int>()}};
        }
        throw std::runtime_error("the reason");
    });
    EXPECT_EQ(call({{"op", "x"}}), (json{{"ok", false}, {"error", "the reason"}}));
    EXPECT_EQ(call({{"number", "no number"}})["ok"], false);
}

TEST_F(control, bytes_that_are_no_utf8_do_not_cost_the_answer) {
    serve([](const json &) { return json{{"ok", true}, {"name", "\xff"}}; });
    EXPECT_EQ(call({{"op", "x"}})["name"], "\xef\xbf\xbd");
}

TEST_F(control, an_answer_that_is_too_long_is_told) {
    serve([](const json &) { return json{{"ok", true}, {"x", std::string(17 << 20, 'x')}}; });
    EXPECT_EQ(call({{"op", "x"}}),
              (json{{"ok", false}, {"error", "the answer is too long to be sent"}}));
}

TEST_F(control, a_request_that_is_too_long_is_told) {
    serve(echo);
    const control_result result =
        control_call("test_control", {{"op", std::string(17 << 20, 'x')}}, seconds);
    EXPECT_FALSE(result.answer);
    EXPECT_EQ(result.status, VRD_IPC_E_TOO_LARGE);
}

TEST_F(control, many_callers_at_once_get_their_own_answers) {
    serve(echo);
    std::vector<std::thread> callers;
    for (int c = 0; c < 8; ++c) {
        callers.emplace_back([this, c] {
            for (int i = 0; i < 20; ++i) {
                EXPECT_EQ(call({{"n", c * 100 + i}})["echo"]["n"], c * 100 + i);
            }
        });
    }
    for (std::thread &caller : callers) {
        caller.join();
    }
}

TEST_F(control, a_server_may_be_started_again_but_not_twice_at_once) {
    serve(echo);
    EXPECT_FALSE(server_.start("test_control", echo));
    server_.stop();
    server_.stop();
    serve(echo);
    EXPECT_EQ(call({{"op", "x"}})["ok"], true);
}

TEST_F(control, a_name_that_is_taken_or_bad_starts_no_server) {
    serve(echo);
    control_server other;
    EXPECT_FALSE(other.start("test_control", echo));
    EXPECT_FALSE(other.start("not/a/name", echo));
    EXPECT_TRUE(other.start("test_other", echo));
}

TEST_F(control, stops_though_its_directory_was_removed) {
    serve(echo);
    std::filesystem::remove_all(tree_.path("run"));
    server_.stop();
}

TEST_F(control, a_server_serves_no_timers_of_threads_without_a_loop) {
    serve(echo);
    EXPECT_EQ(cl_timerplus_start(
                  0, 0, 0, [](cl_timerplus *) {}, nullptr),
              nullptr);
}

TEST_F(control, many_starts_and_stops_leave_nothing) {
    serve(echo);
    call({{"op", "warm-up"}});
    server_.stop();
    const std::size_t threads = kze_test::thread_count();
    const std::size_t descriptors = kze_test::descriptor_count();
    for (int i = 0; i < 100; ++i) {
        serve(echo);
        ASSERT_EQ(call({{"n", i}})["ok"], true);
        server_.stop();
    }
    EXPECT_TRUE(kze_test::threads_become(threads));
    EXPECT_EQ(kze_test::descriptor_count(), descriptors);
    EXPECT_TRUE(std::filesystem::is_empty(tree_.path("run")));
}

}  // namespace
