#include <algorithm>
#include <atomic>
#include <set>
#include <thread>

#include "tests/support/ipc_test.h"
#include "tests/support/process_state.h"

namespace kze_test {
namespace {

constexpr unsigned int max_body = VRD_IPC_MAX_BODY;

unsigned int size_of(const std::string &body) {
    return static_cast<unsigned int>(body.size());
}

// One loop for both ends; what is asked for is answered from the same thread.
class requests : public ipc_fixture {
  protected:
    loop_thread loop;
};

TEST_F(requests, are_answered_with_command_and_body) {
    test_endpoint service(loop, "service", [](const incoming &request) {
        EXPECT_EQ(request.cmd, 1004U);
        EXPECT_EQ(request.body, std::string("a\0b", 3));
        EXPECT_EQ(vrd_ipc_response(request.ipc, request.from, request.id, 77, "pong", 4), 0);
    });
    temp_endpoint client(loop);
    const test_address address("service");
    replies got;
    EXPECT_EQ(got.request(client.get(), address.get(), 1004, std::string("a\0b", 3)), VRD_IPC_OK);
    const auto reply = got.wait(1).front();
    EXPECT_EQ(reply.status, 0);
    EXPECT_EQ(reply.cmd, 77U);
    EXPECT_EQ(reply.body, "pong");
}

TEST_F(requests, without_a_body_arrive_with_data_that_isnt_null) {
    test_endpoint service(loop, "service", [](const incoming &request) {
        EXPECT_TRUE(request.had_data);
        EXPECT_EQ(request.body, "");
        EXPECT_EQ(vrd_ipc_response(request.ipc, request.from, request.id, 1, nullptr, 0), 0);
    });
    temp_endpoint client(loop);
    const test_address address("service");
    replies got;
    EXPECT_EQ(vrd_ipc_make_request(client.get(), address.get(), 1, nullptr, 0, replies::on_reply,
                                   &got, 20),
              VRD_IPC_OK);
    const auto reply = got.wait(1).front();
    EXPECT_EQ(reply.status, 0);
    EXPECT_TRUE(reply.had_data);
    EXPECT_EQ(reply.body, "");
}

TEST_F(requests, run_their_callbacks_on_the_loop_of_each_endpoints_creator) {
    loop_thread other;
    std::atomic<bool> right{false};
    test_endpoint service(other, "service", [&](const incoming &request) {
        right = pthread_equal(pthread_self(), other.id()) != 0;
        echo(request);
    });
    temp_endpoint client(loop);
    const test_address address("service");
    replies got;
    got.request(client.get(), address.get(), 1, "x");
    EXPECT_TRUE(pthread_equal(got.wait(1).front().thread, loop.id()));
    EXPECT_TRUE(right);
}

TEST_F(requests, never_end_inside_the_call_that_makes_them) {
    temp_endpoint client(loop);
    const test_address nobody("nobody");
    replies got;
    loop.call([&] {
        EXPECT_EQ(got.request(client.get(), nobody.get(), 9, "x"), VRD_IPC_OK);
        EXPECT_EQ(got.count(), 0);
    });
    const auto reply = got.wait(1).front();
    EXPECT_EQ(reply.status, VRD_IPC_E_NO_PEER);
    EXPECT_EQ(reply.cmd, 9U);
    EXPECT_FALSE(reply.had_data);
}

TEST_F(requests, are_answered_later_in_another_order_and_from_another_thread) {
    std::vector<incoming> kept;
    counter arrived;
    test_endpoint service(loop, "service", [&](const incoming &request) {
        kept.push_back(request);
        arrived.add();
    });
    temp_endpoint client(loop);
    const test_address address("service");
    replies got;
    for (unsigned int i = 0; i < 3; ++i) {
        got.request(client.get(), address.get(), i, std::to_string(i));
    }
    ASSERT_TRUE(arrived.reaches(3));
    int answered = 0;
    for (const std::size_t i : {2U, 0U, 1U}) {
        echo(kept[i]);
        const auto all = got.wait(++answered);
        EXPECT_EQ(all.back().body, std::to_string(i));
        EXPECT_EQ(all.back().cmd, i);
    }
}

TEST_F(requests, are_answered_only_once) {
    std::vector<int> results;
    test_endpoint service(loop, "service", [&](const incoming &request) {
        for (int i = 0; i < 2; ++i) {
            results.push_back(vrd_ipc_response(request.ipc, request.from, request.id, 1, "x", 1));
        }
        results.push_back(vrd_ipc_response(request.ipc, request.from, request.id + 1, 1, "x", 1));
    });
    temp_endpoint client(loop);
    const test_address address("service");
    replies got;
    got.request(client.get(), address.get(), 1, "x");
    got.wait(1);
    loop.call([] {});
    EXPECT_EQ(got.count(), 1);
    EXPECT_EQ(results, (std::vector<int>{VRD_IPC_OK, VRD_IPC_E_NO_REQUEST, VRD_IPC_E_NO_REQUEST}));
}

TEST_F(requests, to_an_endpoint_that_takes_none_fail_at_once) {
    test_endpoint service(loop, "service");
    temp_endpoint client(loop);
    const test_address address("service");
    replies got;
    got.request(client.get(), address.get(), 5, "x");
    const auto reply = got.wait(1).front();
    EXPECT_EQ(reply.status, VRD_IPC_E_NO_HANDLER);
    EXPECT_EQ(reply.cmd, 5U);
}

TEST_F(requests, reach_the_callback_that_was_set_last) {
    test_endpoint service(loop, "service", [](const incoming &) { FAIL(); });
    vrd_ipc_on_request(
        service.get(),
        [](vrd_ipc_st *self, vrd_addr_st *from, unsigned int id, unsigned int, const char *,
           unsigned int, void *) { vrd_ipc_response(self, from, id, 42, nullptr, 0); },
        nullptr);
    temp_endpoint client(loop);
    const test_address address("service");
    replies got;
    got.request(client.get(), address.get(), 1, "x");
    EXPECT_EQ(got.wait(1).front().cmd, 42U);
    EXPECT_EQ(vrd_ipc_on_request(service.get(), nullptr, nullptr), VRD_IPC_OK);
    got.request(client.get(), address.get(), 1, "x");
    EXPECT_EQ(got.wait(2).back().status, VRD_IPC_E_NO_HANDLER);
}

TEST_F(requests, that_arent_answered_end_after_their_time_limit_and_a_late_answer_is_nothing) {
    incoming kept{};
    counter arrived;
    test_endpoint service(loop, "service", [&](const incoming &request) {
        if (request.cmd == 1) {
            kept = request;
            arrived.add();
        } else {
            echo(request);
        }
    });
    temp_endpoint client(loop);
    const test_address address("service");
    replies got;
    const auto begin = std::chrono::steady_clock::now();
    got.request(client.get(), address.get(), 1, "x", 1);
    const auto reply = got.wait(1).front();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_EQ(reply.status, VRD_IPC_E_TIMEOUT);
    EXPECT_EQ(reply.cmd, 1U);
    ASSERT_TRUE(arrived.reaches(1));
    echo(kept);
    // The connection carries what is behind the late answer.
    got.request(client.get(), address.get(), 2, "y");
    EXPECT_EQ(got.wait(2).back().body, "y");
    EXPECT_EQ(got.count(), 2);
}

TEST_F(requests, with_a_shorter_limit_dont_wait_for_the_limits_of_earlier_ones) {
    test_endpoint service(loop, "service", [](const incoming &) {});
    replies got;
    temp_endpoint client(loop);
    const test_address address("service");
    got.request(client.get(), address.get(), 60, "x", 60);
    got.request(client.get(), address.get(), 1, "x", 1);
    EXPECT_EQ(got.wait(1).front().cmd, 1U);
    client.destroy();
    EXPECT_EQ(got.wait(2).back().status, VRD_IPC_E_CLOSED);
}

TEST_F(requests, outlive_the_address_they_were_made_with) {
    std::vector<incoming> kept;
    counter arrived;
    test_endpoint service(loop, "service", [&](const incoming &request) {
        kept.push_back(request);
        arrived.add();
    });
    temp_endpoint client(loop);
    replies got;
    {
        const test_address address("service");
        got.request(client.get(), address.get(), 1, "x");
    }
    ASSERT_TRUE(arrived.reaches(1));
    echo(kept.front());
    EXPECT_EQ(got.wait(1).front().status, VRD_IPC_OK);
}

TEST_F(requests, to_addresses_of_one_name_share_a_connection) {
    std::vector<vrd_addr_st *> from;
    test_endpoint service(loop, "service", [&](const incoming &request) {
        from.push_back(request.from);
        echo(request);
    });
    temp_endpoint client(loop);
    replies got;
    for (int i = 0; i < 3; ++i) {
        const test_address address("service");
        got.request(client.get(), address.get(), 1, "x");
        got.wait(i + 1);
    }
    EXPECT_EQ(std::set<vrd_addr_st *>(from.begin(), from.end()).size(), 1U);
}

TEST_F(requests, may_be_made_to_the_endpoint_itself) {
    test_endpoint service(loop, "service", echo);
    const test_address address("service");
    replies got;
    got.request(service.get(), address.get(), 1, "me");
    EXPECT_EQ(got.wait(1).front().body, "me");
}

TEST_F(requests, may_be_made_to_the_sender_of_a_message_that_has_no_name_of_its_own) {
    replies got;
    test_endpoint service(loop, "service", nullptr, [&](const incoming &message) {
        got.request(message.ipc, message.from, 6, "who are you");
    });
    temp_endpoint client(loop);
    EXPECT_EQ(
        vrd_ipc_on_request(
            client.get(),
            [](vrd_ipc_st *self, vrd_addr_st *from, unsigned int id, unsigned int cmd, const char *,
               unsigned int, void *) { vrd_ipc_response(self, from, id, cmd, "client", 6); },
            nullptr),
        VRD_IPC_OK);
    const test_address address("service");
    EXPECT_EQ(vrd_ipc_send(client.get(), address.get(), 1, nullptr, 0), VRD_IPC_OK);
    EXPECT_EQ(got.wait(1).front().body, "client");
}

TEST_F(requests, of_many_threads_are_each_answered_once) {
    loop_thread other;
    test_endpoint service(other, "service", echo);
    temp_endpoint client(loop);
    const test_address address("service");
    constexpr unsigned int threads = 4;
    constexpr unsigned int each = 300;
    replies got[threads];
    std::vector<std::thread> makers;
    for (unsigned int t = 0; t < threads; ++t) {
        makers.emplace_back([&, t] {
            for (unsigned int i = 0; i < each; ++i) {
                EXPECT_EQ(
                    got[t].request(client.get(), address.get(), i, std::to_string(t * each + i)),
                    VRD_IPC_OK);
            }
        });
    }
    for (std::thread &maker : makers) {
        maker.join();
    }
    for (unsigned int t = 0; t < threads; ++t) {
        std::set<std::string> bodies;
        for (const auto &reply : got[t].wait(each)) {
            EXPECT_EQ(reply.status, VRD_IPC_OK);
            EXPECT_EQ(reply.body, std::to_string(t * each + reply.cmd));
            bodies.insert(reply.body);
        }
        EXPECT_EQ(bodies.size(), each);
    }
}

TEST_F(requests, of_16_mib_and_their_answers_arrive_and_one_byte_more_is_refused) {
    int too_large = 0;
    test_endpoint service(loop, "service", [&](const incoming &request) {
        std::string longer = request.body + "y";
        too_large = vrd_ipc_response(request.ipc, request.from, request.id, request.cmd,
                                     longer.data(), max_body + 1);
        echo(request);  // it is still to be answered
    });
    loop_thread other;
    temp_endpoint client(other);
    const test_address address("service");
    replies got;
    const std::string body(max_body, 'x');
    EXPECT_EQ(got.request(client.get(), address.get(), 1, body), VRD_IPC_OK);
    const auto reply = got.wait(1).front();
    EXPECT_EQ(reply.status, VRD_IPC_OK);
    EXPECT_TRUE(reply.body == body);
    EXPECT_EQ(too_large, VRD_IPC_E_TOO_LARGE);

    EXPECT_EQ(got.request(client.get(), address.get(), 2, body + "x"), VRD_IPC_OK);
    EXPECT_EQ(got.wait(2).back().status, VRD_IPC_E_TOO_LARGE);
    EXPECT_EQ(vrd_ipc_send(client.get(), address.get(), 3, (body + "x").data(), max_body + 1),
              VRD_IPC_E_TOO_LARGE);
}

TEST_F(requests, with_wrong_arguments_are_refused_and_never_call_back) {
    test_endpoint service(loop, "service", echo);
    temp_endpoint client(loop);
    const test_address address("service");
    replies got;
    vrd_ipc_st *const ipc = client.get();
    const auto make = [&](vrd_ipc_st *from, const vrd_addr_st *to, const char *data,
                          vrd_ipc_reply_cb callback) {
        return vrd_ipc_make_request(from, to, 1, data, 1, callback, &got, 5);
    };
    EXPECT_EQ(make(nullptr, address.get(), "x", replies::on_reply), VRD_IPC_E_HANDLE);
    EXPECT_EQ(make(ipc, nullptr, "x", replies::on_reply), VRD_IPC_E_ADDRESS);
    EXPECT_EQ(make(ipc, address.get(), nullptr, replies::on_reply), VRD_IPC_E_ARGUMENT);
    EXPECT_EQ(make(ipc, address.get(), "x", nullptr), VRD_IPC_E_ARGUMENT);
    EXPECT_EQ(vrd_ipc_send(ipc, address.get(), 1, nullptr, 1), VRD_IPC_E_ARGUMENT);
    EXPECT_EQ(vrd_ipc_response(ipc, address.get(), 1, 1, nullptr, 1), VRD_IPC_E_ARGUMENT);
    EXPECT_EQ(vrd_ipc_response(ipc, address.get(), 1, 1, "x", 1), VRD_IPC_E_ADDRESS);
    got.request(ipc, address.get(), 1, "last");
    EXPECT_EQ(got.wait(1).front().body, "last");
    EXPECT_EQ(got.count(), 1);
}

class messages : public requests {};

TEST_F(messages, arrive_with_command_and_body) {
    std::vector<incoming> got;
    counter arrived;
    test_endpoint service(loop, "service", nullptr, [&](const incoming &message) {
        got.push_back(message);
        arrived.add();
    });
    temp_endpoint client(loop);
    const test_address address("service");
    EXPECT_EQ(vrd_ipc_send(client.get(), address.get(), 5, "text", 4), VRD_IPC_OK);
    EXPECT_EQ(vrd_ipc_send(client.get(), address.get(), 6, nullptr, 0), VRD_IPC_OK);
    ASSERT_TRUE(arrived.reaches(2));
    EXPECT_EQ(got[0].cmd, 5U);
    EXPECT_EQ(got[0].body, "text");
    EXPECT_EQ(got[1].cmd, 6U);
    EXPECT_TRUE(got[1].had_data);
    EXPECT_EQ(got[1].body, "");
}

TEST_F(messages, to_nobody_are_refused) {
    temp_endpoint client(loop);
    const test_address address("nobody");
    EXPECT_EQ(vrd_ipc_send(client.get(), address.get(), 5, "x", 1), VRD_IPC_E_NO_PEER);
}

TEST_F(messages, that_nobody_listens_for_are_dropped_and_disturb_nothing) {
    test_endpoint service(loop, "service", echo);
    temp_endpoint client(loop);
    const test_address address("service");
    EXPECT_EQ(vrd_ipc_send(client.get(), address.get(), 5, "x", 1), VRD_IPC_OK);
    replies got;
    got.request(client.get(), address.get(), 1, "x");
    EXPECT_EQ(got.wait(1).front().status, VRD_IPC_OK);
}

TEST_F(messages, keep_their_order_when_more_come_than_the_socket_holds) {
    loop_thread other;
    counter held;
    counter release;
    std::vector<std::string> got;
    counter arrived;
    constexpr int count = 500;
    test_endpoint service(other, "service", nullptr, [&](const incoming &message) {
        got.push_back(message.body);
        arrived.add();
    });
    temp_endpoint client(loop);
    const test_address address("service");
    other.start([&] {
        held.add();
        EXPECT_TRUE(release.reaches(1));
    });
    ASSERT_TRUE(held.reaches(1));
    for (int i = 0; i < count; ++i) {
        const std::string body = std::to_string(i) + std::string(10000, '.');
        ASSERT_EQ(vrd_ipc_send(client.get(), address.get(), 1, body.data(), size_of(body)),
                  VRD_IPC_OK);
    }
    release.add();
    ASSERT_TRUE(arrived.reaches(count));
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(got[static_cast<std::size_t>(i)], std::to_string(i) + std::string(10000, '.'));
    }
}

TEST_F(messages, of_16_mib_arrive) {
    loop_thread other;
    std::string got;
    counter arrived;
    test_endpoint service(other, "service", nullptr, [&](const incoming &message) {
        got = message.body;
        arrived.add();
    });
    temp_endpoint client(loop);
    const test_address address("service");
    std::string body(max_body, 'x');
    for (std::size_t i = 0; i < body.size(); i += 4096) {
        body[i] = static_cast<char>(i / 4096 % 251);
    }
    EXPECT_EQ(vrd_ipc_send(client.get(), address.get(), 1, body.data(), max_body), VRD_IPC_OK);
    ASSERT_TRUE(arrived.reaches(1));
    EXPECT_TRUE(got == body);
}

class errors : public ipc_fixture {};

TEST_F(errors, each_code_has_a_text_of_its_own) {
    std::set<std::string> texts;
    const int lowest = VRD_IPC_E_CLOSED;
    for (int code = VRD_IPC_OK; code >= lowest; --code) {
        texts.insert(vrd_ipc_strerror(code));
    }
    EXPECT_EQ(texts.size(), static_cast<std::size_t>(1 - lowest));
    for (const int unknown : {1, lowest - 1, -1000}) {
        EXPECT_STREQ(vrd_ipc_strerror(unknown), "unknown error");
        EXPECT_EQ(texts.count("unknown error"), 0U);
    }
}

}  // namespace
}  // namespace kze_test
