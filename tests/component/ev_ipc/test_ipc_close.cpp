#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>

#include "tests/support/ipc_test.h"
#include "tests/support/process_state.h"

namespace kze_test {
namespace {

// Like echo(), to requesters that may be gone.
void echo_to_whoever_is_left(const incoming &request) {
    vrd_ipc_response(request.ipc, request.from, request.id, request.cmd, request.body.data(),
                     static_cast<unsigned int>(request.body.size()));
}

class closing : public ipc_fixture {
  protected:
    loop_thread loop;
};

TEST_F(closing, completes_what_is_pending_before_it_returns) {
    test_endpoint service(loop, "service", [](const incoming &) {});
    temp_endpoint client(loop);
    const test_address address("service");
    const test_address nobody("nobody");
    replies got;
    loop.call([&] {
        for (unsigned int i = 0; i < 10; ++i) {
            got.request(client.get(), i % 2 == 0 ? address.get() : nobody.get(), i, "x");
        }
        vrd_ipc_destroy(client.get());
        EXPECT_EQ(got.count(), 10);
    });
    for (const auto &reply : got.wait(10)) {
        EXPECT_EQ(reply.status, VRD_IPC_E_CLOSED);
        EXPECT_FALSE(reply.had_data);
    }
    loop.call([] {});
    EXPECT_EQ(got.count(), 10);
}

TEST_F(closing, by_another_thread_completes_on_that_thread_before_it_returns) {
    test_endpoint service(loop, "service", [](const incoming &) {});
    temp_endpoint client(loop);
    const test_address address("service");
    replies got;
    got.request(client.get(), address.get(), 1, "x");
    vrd_ipc_destroy(client.get());
    EXPECT_EQ(got.count(), 1);
    const auto reply = got.wait(1).front();
    EXPECT_EQ(reply.status, VRD_IPC_E_CLOSED);
    EXPECT_TRUE(pthread_equal(reply.thread, pthread_self()));
}

// Makes the same request again whenever it fails, at most `times` times.
struct stubborn {
    vrd_ipc_st *ipc;
    const vrd_addr_st *to;
    int times;
    int ended = 0;
    int last_result = VRD_IPC_OK;
    int last_status = VRD_IPC_OK;

    int request() {
        last_result = vrd_ipc_make_request(ipc, to, 1, "x", 1, on_reply, this, 20);
        return last_result;
    }
    static void on_reply(int status, unsigned int, const char *, unsigned int, void *context) {
        auto *const self = static_cast<stubborn *>(context);
        ++self->ended;
        self->last_status = status;
        if (status < 0 && self->ended <= self->times) {
            self->request();
        }
    }
};

TEST_F(closing, completes_requests_that_its_completions_make) {
    test_endpoint service(loop, "service", [](const incoming &) {});
    temp_endpoint client(loop);
    const test_address address("service");
    stubborn asker{client.get(), address.get(), 3};
    loop.call([&] {
        asker.request();
        vrd_ipc_destroy(client.get());
        EXPECT_EQ(asker.ended, 4);
    });
    EXPECT_EQ(asker.last_status, VRD_IPC_E_CLOSED);
}

TEST_F(closing, comes_to_an_end_although_each_completion_makes_a_request) {
    temp_endpoint client(loop);
    const test_address nobody("nobody");
    stubborn asker{client.get(), nobody.get(), 1 << 30};
    loop.call([&] {
        asker.request();
        vrd_ipc_destroy(client.get());
    });
    EXPECT_EQ(asker.ended, 1 + 65536);
    EXPECT_EQ(asker.last_result, VRD_IPC_E_CLOSED);
}

TEST_F(closing, works_inside_each_kind_of_callback) {
    for (const std::string kind : {"request", "message", "reply"}) {
        replies got;
        counter destroyed;
        const auto destroy = [&](const incoming &event) {
            vrd_ipc_destroy(event.ipc);
            EXPECT_EQ(vrd_ipc_response(event.ipc, event.from, event.id, 1, "x", 1),
                      VRD_IPC_E_HANDLE);
            destroyed.add();
        };
        test_endpoint service(loop, "service", destroy, destroy);
        temp_endpoint client(loop);
        const test_address address("service");
        if (kind == "request") {
            got.request(client.get(), address.get(), 1, "x");
            EXPECT_EQ(got.wait(1).front().status, VRD_IPC_E_PEER_GONE);
        } else if (kind == "message") {
            EXPECT_EQ(vrd_ipc_send(client.get(), address.get(), 1, "x", 1), VRD_IPC_OK);
        } else {
            const test_address nobody("nobody");
            static counter *done;
            static vrd_ipc_st *self;
            done = &destroyed;
            self = client.get();
            vrd_ipc_make_request(
                client.get(), nobody.get(), 1, "x", 1,
                [](int, unsigned int, const char *, unsigned int, void *) {
                    vrd_ipc_destroy(self);
                    done->add();
                },
                nullptr, 5);
        }
        EXPECT_TRUE(destroyed.reaches(1)) << kind;
    }
}

TEST_F(closing, stops_a_callback_flood_of_frames_that_have_already_arrived) {
    counter first;
    std::atomic<int> calls{0};
    test_endpoint service(loop, "service", nullptr, [&](const incoming &message) {
        ++calls;
        vrd_ipc_destroy(message.ipc);
        first.add();
    });
    const raw_socket peer = raw_socket::connect_to(socket_path("service"));
    std::string many;
    for (int i = 0; i < 100; ++i) {
        many += frame_bytes(frame_message, 1, 0, "x");
    }
    peer.send(many);
    ASSERT_TRUE(first.reaches(1));
    EXPECT_TRUE(peer.ends());
    loop.call([] {});
    EXPECT_EQ(calls, 1);
}

TEST_F(closing, by_another_thread_waits_for_the_callback_that_runs) {
    for (int round = 0; round < 20; ++round) {
        counter entered;
        std::atomic<bool> inside{false};
        test_endpoint service(loop, "service", nullptr, [&](const incoming &) {
            inside = true;
            entered.add();
            be_busy(std::chrono::milliseconds(2));
            inside = false;
        });
        const raw_socket peer = raw_socket::connect_to(socket_path("service"));
        peer.send(frame_bytes(frame_message, 1, 0, "x") + frame_bytes(frame_message, 1, 0, "x"));
        ASSERT_TRUE(entered.reaches(1));
        vrd_ipc_destroy(service.get());
        EXPECT_FALSE(inside);
        const int at_end = entered.value();
        loop.call([] {});
        EXPECT_EQ(entered.value(), at_end);
    }
}

TEST_F(closing, frees_the_name_and_tells_the_peers_although_the_loop_doesnt_turn) {
    loop_thread other;
    test_endpoint service(loop, "service", echo);
    const raw_socket peer = raw_socket::connect_to(socket_path("service"));
    peer.send(frame_bytes(frame_request, 1, 1, "x"));
    std::vector<std::uint32_t> header;
    EXPECT_EQ(peer.receive_frame(&header), "x");
    counter held;
    counter release;
    loop.start([&] {
        held.add();
        EXPECT_TRUE(release.reaches(1));
    });
    ASSERT_TRUE(held.reaches(1));
    vrd_ipc_destroy(service.get());
    EXPECT_TRUE(peer.ends());
    {
        test_endpoint successor(other, "service", echo);
        temp_endpoint client(other);
        const test_address address("service");
        replies got;
        got.request(client.get(), address.get(), 1, "new");
        EXPECT_EQ(got.wait(1).front().body, "new");
        release.add();
        loop.call([] {});
        got.request(client.get(), address.get(), 1, "still");
        EXPECT_EQ(got.wait(2).back().body, "still");
    }
}

TEST_F(closing, makes_every_call_on_the_handle_an_error_on_any_thread) {
    temp_endpoint client(loop);
    const test_address address("nobody");
    vrd_ipc_st *const ipc = client.get();
    client.destroy();
    const auto check = [&](vrd_ipc_st *handle) {
        replies got;
        EXPECT_EQ(got.request(handle, address.get(), 1, "x"), VRD_IPC_E_HANDLE);
        EXPECT_EQ(vrd_ipc_send(handle, address.get(), 1, "x", 1), VRD_IPC_E_HANDLE);
        EXPECT_EQ(vrd_ipc_response(handle, address.get(), 1, 1, "x", 1), VRD_IPC_E_HANDLE);
        EXPECT_EQ(vrd_ipc_on_request(handle, nullptr, nullptr), VRD_IPC_E_HANDLE);
        EXPECT_EQ(vrd_ipc_msg_recv(handle, nullptr, nullptr), VRD_IPC_E_HANDLE);
        vrd_ipc_destroy(handle);
        EXPECT_EQ(got.count(), 0);
    };
    check(ipc);
    loop.call([&] { check(ipc); });
    check(nullptr);
    int anything = 0;
    check(reinterpret_cast<vrd_ipc_st *>(&anything));
}

TEST_F(closing, makes_every_use_of_an_address_an_error) {
    temp_endpoint client(loop);
    vrd_addr_st *const address = vrd_addr_create("nobody", 1, 2);
    vrd_addr_destroy(address);
    vrd_addr_destroy(address);
    vrd_addr_destroy(nullptr);
    replies got;
    EXPECT_EQ(got.request(client.get(), address, 1, "x"), VRD_IPC_E_ADDRESS);
    EXPECT_EQ(vrd_ipc_send(client.get(), address, 1, "x", 1), VRD_IPC_E_ADDRESS);
    EXPECT_EQ(vrd_ipc_response(client.get(), address, 1, 1, "x", 1), VRD_IPC_E_ADDRESS);
}

TEST_F(closing, handles_arent_used_again) {
    vrd_addr_st *const first = vrd_addr_create("nobody", 0, 0);
    vrd_addr_destroy(first);
    for (int i = 0; i < 10000; ++i) {
        vrd_addr_st *const next = vrd_addr_create("nobody", 0, 0);
        ASSERT_NE(next, first);
        vrd_addr_destroy(next);
    }
}

TEST_F(closing, the_address_of_a_peer_lives_as_long_as_its_connection) {
    incoming kept{};
    counter arrived;
    test_endpoint service(loop, "service", [&](const incoming &request) {
        kept = request;
        arrived.add();
    });
    test_endpoint other(loop, "other");
    {
        raw_socket peer = raw_socket::connect_to(socket_path("service"));
        peer.send(frame_bytes(frame_request, 1, 7, "x"));
        ASSERT_TRUE(arrived.reaches(1));
        vrd_addr_destroy(kept.from);  // not the caller's
        EXPECT_EQ(vrd_ipc_send(other.get(), kept.from, 1, "x", 1), VRD_IPC_E_ADDRESS);
        EXPECT_EQ(vrd_ipc_response(other.get(), kept.from, 7, 1, "x", 1), VRD_IPC_E_ADDRESS);
        EXPECT_EQ(vrd_ipc_send(kept.ipc, kept.from, 2, "y", 1), VRD_IPC_OK);
        std::vector<std::uint32_t> header;
        EXPECT_EQ(peer.receive_frame(&header), "y");
        EXPECT_EQ(header[1], frame_message);
    }
    EXPECT_TRUE(eventually(
        [&] { return vrd_ipc_send(kept.ipc, kept.from, 2, "y", 1) == VRD_IPC_E_ADDRESS; }));
    EXPECT_EQ(vrd_ipc_response(kept.ipc, kept.from, 7, 1, "x", 1), VRD_IPC_E_ADDRESS);
    replies got;
    EXPECT_EQ(got.request(kept.ipc, kept.from, 1, "x"), VRD_IPC_E_ADDRESS);
    EXPECT_EQ(got.count(), 0);
}

TEST_F(closing, an_ending_loop_completes_what_is_pending_and_its_endpoints_are_closed) {
    test_endpoint service(loop, "service", [](const incoming &) {});
    const test_address address("service");
    replies got;
    vrd_ipc_st *left = nullptr;
    vrd_ipc_st *named = nullptr;
    {
        loop_thread ending;
        ending.call([&] {
            left = vrd_ipc_create_temp("left", 0);
            named = vrd_ipc_create("named", 0);
        });
        got.request(left, address.get(), 3, "x");
    }
    const auto reply = got.wait(1).front();
    EXPECT_EQ(reply.status, VRD_IPC_E_CLOSED);
    EXPECT_EQ(reply.cmd, 3U);
    EXPECT_EQ(got.request(left, address.get(), 4, "x"), VRD_IPC_E_CLOSED);
    EXPECT_EQ(vrd_ipc_send(left, address.get(), 4, "x", 1), VRD_IPC_E_CLOSED);
    EXPECT_EQ(vrd_ipc_on_request(left, nullptr, nullptr), VRD_IPC_E_CLOSED);
    vrd_ipc_destroy(left);
    EXPECT_EQ(got.request(left, address.get(), 4, "x"), VRD_IPC_E_HANDLE);
    EXPECT_EQ(got.count(), 1);
    const test_endpoint again(loop, "named");  // the name is free
    vrd_ipc_destroy(named);
}

TEST_F(closing, an_endpoint_of_a_thread_without_loop_is_on_the_oldest_living_isolated_thread) {
    loop_thread younger;
    vrd_ipc_st *const ipc = vrd_ipc_create("service", 0);
    ASSERT_NE(ipc, nullptr);
    static std::atomic<pthread_t> where;
    vrd_ipc_on_request(
        ipc,
        [](vrd_ipc_st *self, vrd_addr_st *from, unsigned int id, unsigned int cmd, const char *data,
           unsigned int len, void *) {
            where = pthread_self();
            vrd_ipc_response(self, from, id, cmd, data, len);
        },
        nullptr);
    const test_address address("service");
    replies got;
    got.request(ipc, address.get(), 1, "x");
    EXPECT_TRUE(pthread_equal(got.wait(1).front().thread, loop.id()));
    EXPECT_TRUE(pthread_equal(where, loop.id()));
    vrd_ipc_destroy(ipc);
}

TEST_F(closing, without_any_loop_there_is_no_endpoint) {
    loop.stop();
    EXPECT_EQ(vrd_ipc_create("service", 0), nullptr);
    EXPECT_EQ(vrd_ipc_create_temp("service", 0), nullptr);
    EXPECT_TRUE(logs("service: no event loop for the endpoint"));
}

TEST_F(closing, races_with_requests_of_other_threads_and_each_that_was_taken_ends_once) {
    loop_thread other;
    test_endpoint service(other, "service", echo_to_whoever_is_left);
    const test_address address("service");
    for (int round = 0; round < 30; ++round) {
        temp_endpoint client(loop);
        vrd_ipc_st *const ipc = client.get();
        replies got;
        std::atomic<int> taken{0};
        std::vector<std::thread> makers;
        for (int t = 0; t < 3; ++t) {
            makers.emplace_back([&] {
                while (true) {
                    const int result = got.request(ipc, address.get(), 1, "x");
                    if (result != VRD_IPC_OK) {
                        EXPECT_TRUE(result == VRD_IPC_E_HANDLE || result == VRD_IPC_E_CLOSED);
                        break;
                    }
                    ++taken;
                }
            });
        }
        EXPECT_TRUE(eventually([&] { return taken > 20; }));
        if (round % 2 == 0) {
            vrd_ipc_destroy(ipc);
        } else {
            client.destroy();
        }
        for (std::thread &maker : makers) {
            maker.join();
        }
        EXPECT_EQ(got.count(), taken);
        loop.call([] {});
        EXPECT_EQ(got.count(), taken);
    }
}

TEST_F(closing, races_with_incoming_requests_on_every_side) {
    loop_thread other;
    for (int round = 0; round < 30; ++round) {
        test_endpoint service(loop, "service", echo_to_whoever_is_left);
        temp_endpoint client(other);
        const test_address address("service");
        replies got;
        for (int i = 0; i < 50; ++i) {
            ASSERT_EQ(got.request(client.get(), address.get(), 1, "x"), VRD_IPC_OK);
        }
        std::thread one([&] { vrd_ipc_destroy(service.get()); });
        std::thread two([&] { vrd_ipc_destroy(service.get()); });
        one.join();
        two.join();
        for (const auto &reply : got.wait(50)) {
            EXPECT_TRUE(reply.status == VRD_IPC_OK || reply.status == VRD_IPC_E_PEER_GONE)
                << reply.status;
        }
    }
}

TEST_F(closing, races_with_the_end_of_the_loop) {
    loop_thread other;
    test_endpoint service(other, "service", echo_to_whoever_is_left);
    const test_address address("service");
    for (int round = 0; round < 50; ++round) {
        loop_thread ending;
        vrd_ipc_st *ipc = nullptr;
        ending.call([&] { ipc = vrd_ipc_create("ending", 0); });
        ASSERT_NE(ipc, nullptr);
        replies got;
        std::atomic<int> taken{0};
        for (int i = 0; i < 10; ++i) {
            taken += got.request(ipc, address.get(), 1, "x") == VRD_IPC_OK ? 1 : 0;
        }
        std::thread closer([&] { vrd_ipc_destroy(ipc); });
        ending.stop();
        closer.join();
        EXPECT_EQ(got.count(), taken);
    }
}

// A request of `ipc` whose end holds the thread that destroys the endpoint until it is released.
struct held_end {
    counter begun;
    counter release;
    std::atomic<bool> over{false};

    void request(vrd_ipc_st *ipc, const vrd_addr_st *to) {
        vrd_ipc_make_request(
            ipc, to, 1, "x", 1,
            [](int, unsigned int, const char *, unsigned int, void *context) {
                auto *const self = static_cast<held_end *>(context);
                self->begun.add();
                EXPECT_TRUE(self->release.reaches(1));
                self->over = true;
            },
            this, 20);
    }
};

TEST_F(closing, on_the_loops_thread_waits_for_another_threads_that_has_begun) {
    test_endpoint service(loop, "service", [](const incoming &) {});
    const test_address address("service");
    loop_thread other;
    temp_endpoint client(other);
    held_end last;
    last.request(client.get(), address.get());
    std::thread closer([&] { vrd_ipc_destroy(client.get()); });
    ASSERT_TRUE(last.begun.reaches(1));
    counter second;
    bool was_over = false;
    counter returned;
    other.start([&] {
        second.add();
        vrd_ipc_destroy(client.get());
        was_over = last.over;
        returned.add();
    });
    ASSERT_TRUE(second.reaches(1));
    be_busy(std::chrono::milliseconds(20));
    last.release.add();
    EXPECT_TRUE(returned.reaches(1));
    EXPECT_TRUE(was_over);
    closer.join();
}

TEST_F(closing, at_the_loops_end_waits_for_another_threads_that_has_begun) {
    test_endpoint service(loop, "service", [](const incoming &) {});
    const test_address address("service");
    held_end last;
    vrd_ipc_st *ipc = nullptr;
    std::thread closer;
    std::thread releaser;
    {
        loop_thread ending;
        ending.call([&] { ipc = vrd_ipc_create_temp("ending", 0); });
        last.request(ipc, address.get());
        closer = std::thread([&] { vrd_ipc_destroy(ipc); });
        ASSERT_TRUE(last.begun.reaches(1));
        releaser = std::thread([&] {
            be_busy(std::chrono::milliseconds(20));
            last.release.add();
        });
    }
    EXPECT_TRUE(last.over);
    releaser.join();
    closer.join();
}

TEST_F(closing, inside_a_callback_doesnt_wait_for_another_thread_that_waits_for_the_callback) {
    counter entered;
    std::atomic<bool> returned{false};
    test_endpoint service(loop, "service", nullptr, [&](const incoming &message) {
        entered.add();
        EXPECT_TRUE(eventually(
            [&] { return vrd_ipc_on_request(message.ipc, nullptr, nullptr) == VRD_IPC_E_CLOSED; }));
        vrd_ipc_destroy(message.ipc);
        returned = true;
    });
    const raw_socket peer = raw_socket::connect_to(socket_path("service"));
    peer.send(frame_bytes(frame_message, 1, 0, "x"));
    ASSERT_TRUE(entered.reaches(1));
    vrd_ipc_destroy(service.get());
    EXPECT_TRUE(returned);
}

// Holds the lock of the sockets' directory, like a process that is stopped while it has it.
class locked_directory {
  public:
    explicit locked_directory(const std::filesystem::path &path)
        : fd_(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        EXPECT_EQ(flock(fd_, LOCK_EX | LOCK_NB), 0);
    }
    ~locked_directory() { release(); }
    locked_directory(const locked_directory &) = delete;
    locked_directory &operator=(const locked_directory &) = delete;

    void release() {
        if (fd_ >= 0) {
            close(std::exchange(fd_, -1));
        }
    }

  private:
    int fd_;
};

TEST_F(closing, keeps_nobody_waiting_while_it_waits_to_give_the_name_back) {
    test_endpoint service(loop, "service", echo);
    replies got;
    temp_endpoint client(loop);
    const test_address address("service");
    got.request(client.get(), address.get(), 1, "x");
    EXPECT_EQ(got.wait(1).front().status, VRD_IPC_OK);
    locked_directory lock(tree.path("run"));
    std::atomic<bool> returned{false};
    std::thread closer([&] {
        vrd_ipc_destroy(service.get());
        returned = true;
    });
    // Its callbacks and calls end at once, and so do its connections; the loop turns.
    EXPECT_TRUE(eventually(
        [&] { return vrd_ipc_on_request(service.get(), nullptr, nullptr) == VRD_IPC_E_CLOSED; }));
    EXPECT_TRUE(eventually([&] {
        got.request(client.get(), address.get(), 1, "x");
        return got.wait(got.count()).back().status != VRD_IPC_OK;
    }));
    EXPECT_EQ(vrd_ipc_send(service.get(), address.get(), 1, "x", 1), VRD_IPC_E_CLOSED);
    loop.call([] {});
    EXPECT_FALSE(returned);
    lock.release();
    closer.join();
    EXPECT_FALSE(std::filesystem::exists(socket_path("service")));
}

TEST_F(closing, on_the_loops_thread_waits_only_briefly_to_give_the_name_back) {
    test_endpoint service(loop, "service", echo);
    {
        const locked_directory lock(tree.path("run"));
        const auto begin = std::chrono::steady_clock::now();
        service.destroy();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1500));
        EXPECT_TRUE(logs("service.sock stays behind in "));
    }
    // What stays behind is nobody's, and is replaced.
    const test_endpoint again(loop, "service", echo);
    temp_endpoint client(loop);
    const test_address address("service");
    replies got;
    got.request(client.get(), address.get(), 1, "x");
    EXPECT_EQ(got.wait(1).front().status, VRD_IPC_OK);
}

TEST_F(closing, ends_although_callbacks_threw) {
    const auto fail = [](const incoming &) { throw std::bad_alloc(); };
    test_endpoint service(loop, "service", fail, fail);
    temp_endpoint client(loop);
    const test_address address("service");
    const test_address nobody("nobody");
    counter ended;
    const auto on_reply = [](int, unsigned int, const char *, unsigned int, void *context) {
        static_cast<counter *>(context)->add();
        throw std::runtime_error("of a user");
    };
    ASSERT_EQ(vrd_ipc_send(client.get(), address.get(), 1, "x", 1), VRD_IPC_OK);
    EXPECT_TRUE(logs("a callback for messages threw an exception: std::bad_alloc"));
    ASSERT_EQ(vrd_ipc_make_request(client.get(), address.get(), 1, "x", 1, on_reply, &ended, 20),
              VRD_IPC_OK);
    EXPECT_TRUE(logs("a callback for requests threw an exception: std::bad_alloc"));
    ASSERT_EQ(vrd_ipc_make_request(client.get(), nobody.get(), 1, "x", 1, on_reply, &ended, 20),
              VRD_IPC_OK);
    ASSERT_TRUE(ended.reaches(1));
    EXPECT_TRUE(logs("a callback for a reply threw an exception: of a user"));
    vrd_ipc_destroy(service.get());  // the other request is lost with it
    EXPECT_TRUE(ended.reaches(2));
    vrd_ipc_destroy(client.get());
}

TEST_F(closing, goes_on_to_its_end_although_its_completions_throw) {
    test_endpoint service(loop, "service", [](const incoming &) {});
    temp_endpoint client(loop);
    const test_address address("service");
    counter ended;
    for (int i = 0; i < 3; ++i) {
        vrd_ipc_make_request(
            client.get(), address.get(), 1, "x", 1,
            [](int, unsigned int, const char *, unsigned int, void *context) {
                static_cast<counter *>(context)->add();
                throw std::bad_alloc();
            },
            &ended, 20);
    }
    vrd_ipc_destroy(client.get());
    EXPECT_EQ(ended.value(), 3);
    EXPECT_EQ(vrd_ipc_send(client.get(), address.get(), 1, "x", 1), VRD_IPC_E_HANDLE);
}

}  // namespace
}  // namespace kze_test
