// Peers that misbehave, are slow or die. They speak for themselves, without the library.
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <thread>

#include "tests/support/ipc_test.h"
#include "tests/support/process_state.h"
#include "tests/support/sanitizers.h"

namespace kze_test {
namespace {

constexpr unsigned int max_body = VRD_IPC_MAX_BODY;

class peers : public ipc_fixture {
  protected:
    // A raw connection to the endpoint "service".
    raw_socket connect() const { return raw_socket::connect_to(socket_path("service")); }

    // The service answers a well-behaved peer.
    void expect_served() const {
        const raw_socket peer = connect();
        EXPECT_TRUE(peer.send(frame_bytes(frame_request, 11, 12, "still there?")));
        std::vector<std::uint32_t> header;
        EXPECT_EQ(peer.receive_frame(&header), "still there?");
        ASSERT_EQ(header.size(), 5U);
        EXPECT_EQ(header[1], frame_response);
        EXPECT_EQ(header[2], 11U);
        EXPECT_EQ(header[3], 12U);
    }

    loop_thread loop;
};

TEST_F(peers, that_break_the_format_are_disconnected_and_the_others_are_served) {
    test_endpoint service(loop, "service", echo);
    const std::string bad[] = {
        "GET / HTTP/1.1\r\nHost: localhost\r\n",
        std::string(20, '\0'),
        header_bytes(0, 1, 1, 0),
        header_bytes(5, 1, 1, 0),
        header_bytes(frame_message, 1, 1, 0),
        header_bytes(frame_request, 1, 1, max_body + 1),
        header_bytes(frame_response, 1, 1, 0xffffffff),
        header_bytes(frame_refusal, 1, 1, 9),
        frame_bytes(frame_message, 1, 0, "fine") + std::string(20, 'x'),
    };
    const raw_socket bystander = connect();
    for (const std::string &bytes : bad) {
        const raw_socket peer = connect();
        EXPECT_TRUE(peer.send(bytes));
        EXPECT_TRUE(peer.ends());
        EXPECT_TRUE(logs("peer broke the format, disconnected"));
        expect_served();
    }
    EXPECT_TRUE(bystander.send(frame_bytes(frame_request, 1, 1, "x")));
    std::vector<std::uint32_t> header;
    EXPECT_EQ(bystander.receive_frame(&header), "x");
}

TEST_F(peers, that_send_garbage_in_a_loop_get_one_line_and_a_sum) {
    test_endpoint service(loop, "service", echo);
    for (int i = 0; i < 50; ++i) {
        const raw_socket peer = connect();
        EXPECT_TRUE(peer.send(std::string(20, 'x')));
        EXPECT_TRUE(peer.ends());
    }
    expect_served();
    service.destroy();
    EXPECT_TRUE(logs("ipc: service: 49 more lines on broken formats were held back"));
    const std::string text = log_text();
    const std::string line = "peer broke the format, disconnected";
    EXPECT_EQ(text.find(line), text.rfind(line));
    EXPECT_NE(text.find(line), std::string::npos);
}

TEST_F(peers, that_use_a_request_id_twice_are_disconnected) {
    test_endpoint service(loop, "service", [](const incoming &request) {
        if (request.cmd != 1) {
            echo(request);
        }
    });
    const raw_socket peer = connect();
    peer.send(frame_bytes(frame_request, 2, 7, "a") + frame_bytes(frame_request, 2, 7, "b"));
    std::vector<std::uint32_t> header;
    EXPECT_EQ(peer.receive_frame(&header), "a");  // answered, so the id is free again
    EXPECT_EQ(peer.receive_frame(&header), "b");
    peer.send(frame_bytes(frame_request, 1, 8, "") + frame_bytes(frame_request, 1, 8, ""));
    EXPECT_TRUE(peer.ends());
    EXPECT_TRUE(logs("peer used a request id twice, disconnected"));
    expect_served();
}

TEST_F(peers, that_send_byte_by_byte_and_in_turns_are_served) {
    test_endpoint service(loop, "service", echo);
    const raw_socket one = connect();
    const raw_socket two = connect();
    const std::string first = frame_bytes(frame_request, 1, 1, "from one");
    const std::string second = frame_bytes(frame_request, 2, 1, "from two");
    ASSERT_EQ(first.size(), second.size());
    for (std::size_t i = 0; i < first.size(); ++i) {
        one.send(first.substr(i, 1));
        two.send(second.substr(i, 1));
    }
    std::vector<std::uint32_t> header;
    EXPECT_EQ(one.receive_frame(&header), "from one");
    EXPECT_EQ(two.receive_frame(&header), "from two");
}

TEST_F(peers, that_send_a_16_mib_message_in_pieces_are_served) {
    test_endpoint service(loop, "service", [](const incoming &request) {
        EXPECT_EQ(request.body.size(), max_body);
        EXPECT_EQ(vrd_ipc_response(request.ipc, request.from, request.id, 1, "got it", 6), 0);
    });
    const raw_socket peer = connect();
    const std::string frame = frame_bytes(frame_request, 1, 1, std::string(max_body, 'x'));
    EXPECT_TRUE(peer.send(frame));
    std::vector<std::uint32_t> header;
    EXPECT_EQ(peer.receive_frame(&header), "got it");
}

TEST_F(peers, that_die_anywhere_in_a_frame_disturb_nothing) {
    std::atomic<int> calls{0};
    test_endpoint service(
        loop, "service",
        [&](const incoming &request) {
            ++calls;
            echo(request);
        },
        [&](const incoming &) { ++calls; });
    const std::string frame = frame_bytes(frame_message, 1, 0, "0123456789");
    for (std::size_t length = 0; length < frame.size(); ++length) {
        const raw_socket peer = connect();
        peer.send(frame.substr(0, length));
    }
    EXPECT_TRUE(logs("connection ended within a message"));
    expect_served();
    EXPECT_EQ(calls, 1);
}

TEST_F(peers, that_die_after_a_whole_message_have_still_said_it) {
    std::vector<std::string> got;
    counter arrived;
    test_endpoint service(loop, "service", nullptr, [&](const incoming &message) {
        got.push_back(message.body);
        arrived.add();
    });
    {
        const raw_socket peer = connect();
        peer.send(frame_bytes(frame_message, 1, 0, "one") +
                  frame_bytes(frame_message, 1, 0, "two"));
    }
    ASSERT_TRUE(arrived.reaches(2));
    EXPECT_EQ(got, (std::vector<std::string>{"one", "two"}));
}

TEST_F(peers, that_die_before_their_answer_disturb_nothing) {
    incoming kept{};
    counter arrived;
    test_endpoint service(loop, "service", [&](const incoming &request) {
        if (request.cmd == 11) {
            echo(request);
            return;
        }
        kept = request;
        arrived.add();
    });
    {
        const raw_socket peer = connect();
        peer.send(frame_bytes(frame_request, 1, 1, "x"));
        ASSERT_TRUE(arrived.reaches(1));
    }
    EXPECT_TRUE(eventually([&] {
        return vrd_ipc_response(kept.ipc, kept.from, kept.id, 1, "x", 1) == VRD_IPC_E_ADDRESS;
    }));
    expect_served();
}

TEST_F(peers, that_flood_an_endpoint_dont_keep_others_and_timers_waiting) {
    std::atomic<int> flooded{0};
    test_endpoint service(loop, "service", echo, [&](const incoming &) { ++flooded; });
    std::atomic<bool> stop{false};
    std::string many;
    for (int i = 0; i < 2000; ++i) {
        many += frame_bytes(frame_message, 1, 0, "flood");
    }
    std::thread flooder([&] {
        const raw_socket peer = connect();
        while (!stop && peer.send(many)) {
        }
    });
    EXPECT_TRUE(eventually([&] { return flooded > 10000; }));
    for (int i = 0; i < 20; ++i) {
        expect_served();
        loop.call([] {});  // by a timer of the same loop
    }
    stop = true;
    flooder.join();
}

TEST_F(peers, that_never_read_their_answers_fill_their_own_queue_only) {
    std::atomic<int> answered{0};
    std::atomic<int> refused{0};
    std::atomic<int> other_results{0};
    const std::string answer(1 << 20, 'a');
    test_endpoint service(loop, "service", [&](const incoming &request) {
        if (request.cmd == 11) {
            echo(request);
            return;
        }
        const int result =
            vrd_ipc_response(request.ipc, request.from, request.id, 1, answer.data(), 1 << 20);
        ++(result == VRD_IPC_OK             ? answered
           : result == VRD_IPC_E_QUEUE_FULL ? refused
                                            : other_results);
    });
    const raw_socket peer = connect();
    for (std::uint32_t id = 1; id <= 80; ++id) {
        peer.send(frame_bytes(frame_request, 1, id, ""));
    }
    EXPECT_TRUE(eventually([&] { return answered + refused == 80; }));
    // The queue holds 64 MiB, less what 63 headers take; the socket has a part of one answer.
    EXPECT_EQ(answered, 64);
    EXPECT_EQ(refused, 16);
    EXPECT_EQ(other_results, 0);
    expect_served();
    // All that was accepted arrives, and the queue serves again.
    std::vector<std::uint32_t> header;
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(peer.receive_frame(&header).size(), answer.size());
    }
    EXPECT_TRUE(logs("16 messages dropped in all"));
    peer.send(frame_bytes(frame_request, 11, 100, "again"));
    EXPECT_EQ(peer.receive_frame(&header), "again");
}

// The other end has let go of the connection in both directions.
bool is_hung_up(const raw_socket &peer) {
    struct pollfd wait {};
    wait.fd = peer.fd();
    return poll(&wait, 1, 0) == 1 && (wait.revents & POLLHUP) != 0;
}

TEST_F(peers, that_shut_down_their_reading_side_are_disconnected_at_the_next_answer) {
    std::atomic<int> result{0};
    test_endpoint service(loop, "service", [&](const incoming &request) {
        if (request.cmd == 11) {
            echo(request);
            return;
        }
        result = vrd_ipc_response(request.ipc, request.from, request.id, 1, "x", 1);
    });
    const raw_socket peer = connect();
    ASSERT_EQ(shutdown(peer.fd(), SHUT_RD), 0);
    EXPECT_TRUE(peer.send(frame_bytes(frame_request, 1, 1, "")));
    EXPECT_TRUE(eventually([&] { return is_hung_up(peer); }));
    EXPECT_EQ(result, VRD_IPC_E_PEER_GONE);
    expect_served();
}

TEST_F(peers, that_shut_down_their_reading_side_are_disconnected_while_an_answer_is_queued) {
    const std::string answer(1 << 20, 'a');
    counter answered;
    test_endpoint service(loop, "service", [&](const incoming &request) {
        if (request.cmd == 11) {
            echo(request);
            return;
        }
        EXPECT_EQ(
            vrd_ipc_response(request.ipc, request.from, request.id, 1, answer.data(), 1 << 20),
            VRD_IPC_OK);
        answered.add();
    });
    const raw_socket peer = connect();
    EXPECT_TRUE(peer.send(frame_bytes(frame_request, 1, 1, "")));
    ASSERT_TRUE(answered.reaches(1));
    ASSERT_EQ(shutdown(peer.fd(), SHUT_RD), 0);
    // What the socket held already makes room for more when it is read.
    EXPECT_LT(peer.receive(answer.size()).size(), answer.size());
    EXPECT_TRUE(eventually([&] { return is_hung_up(peer); }));
    expect_served();
}

TEST_F(peers, that_never_read_make_sends_fail_with_a_code_of_its_own) {
    const raw_socket listener = raw_socket::listen_at(socket_path("silent"));
    temp_endpoint client(loop);
    const test_address silent("silent");
    const std::string body(1 << 20, 'x');
    int sent = 0;
    int result = VRD_IPC_OK;
    while (sent < 100 && result == VRD_IPC_OK) {
        result = vrd_ipc_send(client.get(), silent.get(), 1, body.data(), 1 << 20);
        sent += result == VRD_IPC_OK ? 1 : 0;
    }
    EXPECT_EQ(result, VRD_IPC_E_QUEUE_FULL);
    EXPECT_EQ(sent, 64);
    // A request meets the same limit, through its callback.
    replies got;
    EXPECT_EQ(got.request(client.get(), silent.get(), 7, body), VRD_IPC_OK);
    EXPECT_EQ(got.wait(1).front().status, VRD_IPC_E_QUEUE_FULL);
    EXPECT_TRUE(logs("message dropped"));
    // Another address isn't concerned.
    test_endpoint service(loop, "service", echo);
    const test_address address("service");
    got.request(client.get(), address.get(), 1, "x");
    EXPECT_EQ(got.wait(2).back().status, VRD_IPC_OK);
}

TEST_F(peers, may_have_16384_requests_unanswered_and_the_next_is_refused) {
    std::vector<incoming> kept;
    counter arrived;
    test_endpoint service(loop, "service", [&](const incoming &request) {
        kept.push_back(request);
        arrived.add();
    });
    const raw_socket peer = connect();
    std::string many;
    for (std::uint32_t id = 1; id <= 16385; ++id) {
        many += frame_bytes(frame_request, 1, id, "");
    }
    peer.send(many);
    std::vector<std::uint32_t> header;
    peer.receive_frame(&header);
    ASSERT_EQ(header.size(), 5U);
    EXPECT_EQ(header[1], frame_refusal);
    EXPECT_EQ(header[3], 16385U);
    EXPECT_EQ(header[4], 2U);
    ASSERT_TRUE(arrived.reaches(16384));
    // With one answered there is room for one more.
    echo(kept.front());
    peer.receive_frame(&header);
    EXPECT_EQ(header[1], frame_response);
    peer.send(frame_bytes(frame_request, 1, 16385, ""));
    EXPECT_TRUE(arrived.reaches(16385));
}

TEST_F(peers, that_refuse_a_request_for_too_many_end_it_with_busy) {
    const raw_socket listener = raw_socket::listen_at(socket_path("busy"));
    temp_endpoint client(loop);
    const test_address busy("busy");
    replies got;
    got.request(client.get(), busy.get(), 5, "x");
    const raw_socket peer = listener.accept();
    std::vector<std::uint32_t> header;
    EXPECT_EQ(peer.receive_frame(&header), "x");
    peer.send(header_bytes(frame_refusal, 5, header[3], 2));
    EXPECT_EQ(got.wait(1).front().status, VRD_IPC_E_BUSY);
}

TEST_F(peers, that_accept_and_never_answer_time_out) {
    const raw_socket listener = raw_socket::listen_at(socket_path("silent"));
    temp_endpoint client(loop);
    const test_address silent("silent");
    replies got;
    got.request(client.get(), silent.get(), 1, "x", 1);
    const raw_socket peer = listener.accept();
    EXPECT_EQ(got.wait(1).front().status, VRD_IPC_E_TIMEOUT);
}

TEST_F(peers, that_die_with_requests_of_ours_end_them_whatever_they_had_read_or_written) {
    const raw_socket listener = raw_socket::listen_at(socket_path("mortal"));
    temp_endpoint client(loop);
    const test_address mortal("mortal");
    replies got;
    const std::string answer = frame_bytes(frame_response, 2, 0, "12345");
    int expected = 0;
    // Dead before reading, after reading, and in each byte of its answer.
    for (std::size_t written = 0; written <= answer.size(); ++written) {
        got.request(client.get(), mortal.get(), 3, "request");
        {
            const raw_socket peer = listener.accept();
            std::vector<std::uint32_t> header;
            if (written > 0) {
                peer.receive_frame(&header);
                peer.send(answer.substr(0, written - 1));
            }
        }
        const auto reply = got.wait(++expected).back();
        EXPECT_EQ(reply.status, VRD_IPC_E_PEER_GONE) << written;
        EXPECT_EQ(reply.cmd, 3U);
    }
}

TEST_F(peers, that_answer_and_die_have_answered) {
    const raw_socket listener = raw_socket::listen_at(socket_path("mortal"));
    temp_endpoint client(loop);
    const test_address mortal("mortal");
    replies got;
    got.request(client.get(), mortal.get(), 3, "first");
    got.request(client.get(), mortal.get(), 4, "second");
    {
        const raw_socket peer = listener.accept();
        std::vector<std::uint32_t> header;
        EXPECT_EQ(peer.receive_frame(&header), "first");  // the second is left unread
        peer.send(frame_bytes(frame_response, 5, header[3], "answer"));
    }
    const auto all = got.wait(2);
    EXPECT_EQ(all[0].status, VRD_IPC_OK);
    EXPECT_EQ(all[0].body, "answer");
    EXPECT_EQ(all[1].status, VRD_IPC_E_PEER_GONE);
    EXPECT_EQ(all[1].cmd, 4U);
}

TEST_F(peers, cannot_answer_requests_that_went_to_others_or_to_nobody) {
    const raw_socket listener = raw_socket::listen_at(socket_path("honest"));
    const raw_socket liar_listener = raw_socket::listen_at(socket_path("liar"));
    temp_endpoint client(loop);
    const test_address honest("honest");
    const test_address liar("liar");
    replies got;
    got.request(client.get(), honest.get(), 1, "for the honest");
    got.request(client.get(), liar.get(), 1, "for the liar");
    const raw_socket honest_peer = listener.accept();
    const raw_socket liar_peer = liar_listener.accept();
    std::vector<std::uint32_t> header;
    EXPECT_EQ(honest_peer.receive_frame(&header), "for the honest");
    const std::uint32_t id = header[3];
    EXPECT_EQ(liar_peer.receive_frame(&header), "for the liar");
    liar_peer.send(
        frame_bytes(frame_response, 1, id, "lie") + frame_bytes(frame_response, 1, 0, "lie") +
        frame_bytes(frame_response, 1, 0xfffffff0, "lie") + header_bytes(frame_refusal, 1, id, 1) +
        frame_bytes(frame_response, 1, header[3], "own"));
    EXPECT_EQ(got.wait(1).front().body, "own");
    honest_peer.send(frame_bytes(frame_response, 1, id, "truth"));
    EXPECT_EQ(got.wait(2).back().body, "truth");
}

TEST_F(peers, that_were_restarted_are_reached_before_our_loop_has_seen_the_old_ones_end) {
    auto first = std::make_unique<raw_socket>(raw_socket::listen_at(socket_path("service")));
    temp_endpoint client(loop);
    const test_address address("service");
    replies got;
    got.request(client.get(), address.get(), 1, "one");
    auto peer = std::make_unique<raw_socket>(first->accept());
    std::vector<std::uint32_t> header;
    EXPECT_EQ(peer->receive_frame(&header), "one");
    peer->send(frame_bytes(frame_response, 1, header[3], "one"));
    got.wait(1);

    counter held;
    counter release;
    loop.start([&] {
        held.add();
        EXPECT_TRUE(release.reaches(1));
    });
    ASSERT_TRUE(held.reaches(1));
    peer.reset();
    first.reset();
    std::filesystem::remove(socket_path("service"));
    const raw_socket second = raw_socket::listen_at(socket_path("service"));
    EXPECT_EQ(got.request(client.get(), address.get(), 2, "two"), VRD_IPC_OK);
    EXPECT_EQ(vrd_ipc_send(client.get(), address.get(), 3, "three", 5), VRD_IPC_OK);
    release.add();
    const raw_socket again = second.accept();
    EXPECT_EQ(again.receive_frame(&header), "two");
    again.send(frame_bytes(frame_response, 2, header[3], "two"));
    EXPECT_EQ(again.receive_frame(&header), "three");
    const auto reply = got.wait(2).back();
    EXPECT_EQ(reply.status, VRD_IPC_OK);
    EXPECT_EQ(reply.body, "two");
}

// Takes all places of a listening socket, so that it takes no further connection.
std::vector<raw_socket> fill(const std::string &path, int places) {
    std::vector<raw_socket> taken;
    for (int i = 0; i < places; ++i) {
        taken.push_back(raw_socket::connect_to(path));
    }
    return taken;
}

TEST_F(peers, that_take_no_connection_now_get_what_was_said_once_they_do) {
    const raw_socket listener = raw_socket::listen_at(socket_path("full"), 0);
    temp_endpoint client(loop);
    const test_address full("full");
    const std::vector<raw_socket> taken = fill(socket_path("full"), 1);
    EXPECT_EQ(vrd_ipc_send(client.get(), full.get(), 1, "first", 5), VRD_IPC_OK);
    replies got;
    got.request(client.get(), full.get(), 2, "second");
    const raw_socket filler = listener.accept();
    const raw_socket peer = listener.accept();
    std::vector<std::uint32_t> header;
    EXPECT_EQ(peer.receive_frame(&header), "first");
    EXPECT_EQ(peer.receive_frame(&header), "second");
    peer.send(frame_bytes(frame_response, 3, header[3], "answer"));
    EXPECT_EQ(got.wait(1).front().body, "answer");
}

TEST_F(peers, that_never_take_a_connection_end_requests_by_their_limit) {
    const raw_socket listener = raw_socket::listen_at(socket_path("full"), 0);
    temp_endpoint client(loop);
    const test_address full("full");
    const std::vector<raw_socket> taken = fill(socket_path("full"), 1);
    replies got;
    got.request(client.get(), full.get(), 1, "x", 1);
    EXPECT_EQ(got.wait(1).front().status, VRD_IPC_E_TIMEOUT);
}

TEST_F(peers, that_die_while_they_take_no_connection_end_requests_at_once) {
    auto listener = std::make_unique<raw_socket>(raw_socket::listen_at(socket_path("full"), 0));
    temp_endpoint client(loop);
    const test_address full("full");
    const std::vector<raw_socket> taken = fill(socket_path("full"), 1);
    replies got;
    got.request(client.get(), full.get(), 1, "x");
    listener.reset();
    EXPECT_EQ(got.wait(1).front().status, VRD_IPC_E_NO_PEER);
}

TEST_F(peers, may_hold_256_connections_and_the_next_is_turned_away) {
    test_endpoint service(loop, "service", echo);
    std::vector<raw_socket> taken;
    std::vector<std::uint32_t> header;
    for (int i = 0; i < 256; ++i) {
        taken.push_back(connect());
        taken.back().send(frame_bytes(frame_request, 1, 1, "x"));
        ASSERT_EQ(taken.back().receive_frame(&header), "x") << i;
    }
    EXPECT_TRUE(connect().ends());
    EXPECT_TRUE(logs("256 connections already"));
    taken.pop_back();
    EXPECT_TRUE(eventually([&] {
        const raw_socket peer = connect();
        return peer.send(frame_bytes(frame_request, 1, 1, "x")) &&
               peer.receive_frame(&header) == "x";
    }));
}

TEST_F(peers, wait_while_no_descriptor_is_left_and_are_served_when_there_is) {
    if (address_sanitizer) {
        GTEST_SKIP() << "the undefined-behaviour checks need a descriptor themselves";
    }
    test_endpoint service(loop, "service", echo);
    expect_served();
    const raw_socket peer = connect();
    peer.send(frame_bytes(frame_request, 1, 1, "x"));
    std::vector<std::uint32_t> header;
    EXPECT_EQ(peer.receive_frame(&header), "x");
    // The limit comes down below what is open: it concerns new descriptors only.
    struct rlimit before {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    struct rlimit none = before;
    none.rlim_cur = 1;
    counter held;
    counter release;
    loop.start([&] {
        held.add();
        EXPECT_TRUE(release.reaches(1));
    });
    ASSERT_TRUE(held.reaches(1));
    const raw_socket late(raw_socket::connect_to(socket_path("service")));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    release.add();
    for (int i = 0; i < 3; ++i) {
        peer.send(frame_bytes(frame_request, 1, 1, "y"));
        EXPECT_EQ(peer.receive_frame(&header), "y");
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_TRUE(logs("no connection can be taken"));
    late.send(frame_bytes(frame_request, 1, 1, "z"));
    EXPECT_EQ(late.receive_frame(&header), "z");
}

}  // namespace
}  // namespace kze_test
