// Where sockets lie, whose they are, and what a library must leave alone.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <set>
#include <thread>

#include "tests/support/ipc_test.h"
#include "tests/support/process_state.h"

namespace kze_test {
namespace {

mode_t mode_of(const std::filesystem::path &path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & ALLPERMS;
}

mode_t current_umask() {
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
}

std::set<int> open_descriptors() {
    std::set<int> open;
    for (int fd = 0; fd < 1024; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0) {
            open.insert(fd);
        }
    }
    return open;
}

// Runs in a child process, which then waits to be killed.
class child_with_endpoint {
  public:
    explicit child_with_endpoint(const char *name) {
        int ready[2];
        EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
        pid_ = fork();
        if (pid_ == 0) {
            cl_ev_loop_nowait(0);
            const char answer = vrd_ipc_create(name, 0) != nullptr ? 'y' : 'n';
            if (write(ready[1], &answer, 1) == 1) {
                while (cl_event_loop_once() == 0) {
                }
            }
            _exit(0);
        }
        close(ready[1]);
        char answer = 0;
        EXPECT_EQ(read(ready[0], &answer, 1), 1);
        close(ready[0]);
        made_ = answer == 'y';
    }
    ~child_with_endpoint() { end(); }
    child_with_endpoint(const child_with_endpoint &) = delete;
    child_with_endpoint &operator=(const child_with_endpoint &) = delete;

    bool made() const { return made_; }
    void end() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = 0;
        }
    }

  private:
    pid_t pid_ = 0;
    bool made_ = false;
};

void expect_echo(vrd_ipc_st *client, const std::string &name) {
    const test_address address(name);
    replies got;
    ASSERT_EQ(got.request(client, address.get(), 1, "hello"), VRD_IPC_OK);
    const auto reply = got.wait(1).front();
    EXPECT_EQ(reply.status, VRD_IPC_OK) << vrd_ipc_strerror(reply.status);
    EXPECT_EQ(reply.body, "hello");
}

class sockets : public ipc_fixture {};

TEST_F(sockets, and_their_directory_belong_to_the_user_alone_whatever_the_umask) {
    for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{0777}}) {
        std::filesystem::remove_all(tree.path("run"));
        loop_thread loop;
        const mode_t before = umask(mask);
        vrd_ipc_st *const made = vrd_ipc_create("service", 0);
        EXPECT_EQ(current_umask(), mask);
        umask(before);
        EXPECT_NE(made, nullptr);
        EXPECT_EQ(mode_of(tree.path("run")), 0700U);
        EXPECT_EQ(mode_of(socket_path("service")), 0600U);
        vrd_ipc_destroy(made);
    }
}

TEST_F(sockets, a_directory_that_was_open_to_others_is_closed_to_them) {
    loop_thread loop;
    std::filesystem::permissions(tree.path("run"), std::filesystem::perms::all);
    const test_endpoint service(loop, "service");
    EXPECT_EQ(mode_of(tree.path("run")), 0700U);
}

TEST_F(sockets, are_removed_with_their_endpoint) {
    loop_thread loop;
    test_endpoint service(loop, "service");
    EXPECT_TRUE(std::filesystem::exists(socket_path("service")));
    service.destroy();
    EXPECT_TRUE(std::filesystem::is_empty(tree.path("run")));
}

TEST_F(sockets, of_another_endpoint_that_has_taken_the_place_are_left_alone) {
    loop_thread loop;
    test_endpoint service(loop, "service");
    std::filesystem::remove(socket_path("service"));
    const test_endpoint successor(loop, "service", echo);
    service.destroy();
    const temp_endpoint client(loop);
    expect_echo(client.get(), "service");
}

TEST_F(sockets, temporary_endpoints_need_no_file_and_never_collide) {
    loop_thread loop;
    const test_endpoint service(loop, "service", echo);
    const temp_endpoint one(loop);
    const temp_endpoint two(loop);
    expect_echo(one.get(), "service");
    expect_echo(two.get(), "service");
    EXPECT_EQ(entries_of(tree.path("run").c_str()), 1U);
}

TEST_F(sockets, a_name_that_lives_in_this_process_is_refused) {
    loop_thread loop;
    const test_endpoint service(loop, "service", echo);
    loop.call([] { EXPECT_EQ(vrd_ipc_create("service", 0), nullptr); });
    EXPECT_TRUE(logs("name service can't be taken"));
    const temp_endpoint client(loop);
    expect_echo(client.get(), "service");
}

TEST_F(sockets, a_name_that_lives_in_another_process_is_refused_until_that_dies) {
    child_with_endpoint other("service");
    ASSERT_TRUE(other.made());
    loop_thread loop;
    loop.call([] { EXPECT_EQ(vrd_ipc_create("service", 0), nullptr); });
    other.end();
    EXPECT_TRUE(std::filesystem::exists(socket_path("service")));
    const test_endpoint service(loop, "service", echo);
    const temp_endpoint client(loop);
    expect_echo(client.get(), "service");
}

TEST_F(sockets, what_is_no_socket_is_never_removed_for_one) {
    loop_thread loop;
    tree.write("run/service.sock", "precious");
    loop.call([] { EXPECT_EQ(vrd_ipc_create("service", 0), nullptr); });
    EXPECT_EQ(tree.read("run/service.sock"), "precious");
    const temp_endpoint client(loop);
    const test_address address("service");
    EXPECT_EQ(vrd_ipc_send(client.get(), address.get(), 1, "x", 1), VRD_IPC_E_NO_PEER);
}

TEST_F(sockets, a_dead_processs_socket_is_nobody) {
    child_with_endpoint other("service");
    other.end();
    loop_thread loop;
    const temp_endpoint client(loop);
    const test_address address("service");
    EXPECT_EQ(vrd_ipc_send(client.get(), address.get(), 1, "x", 1), VRD_IPC_E_NO_PEER);
}

TEST_F(sockets, work_in_a_tree_whose_path_is_longer_than_an_address) {
    const std::filesystem::path home =
        tree.path(std::string(100, 'a')) / std::string(100, 'b') / "bin";
    const std::filesystem::path file = home.parent_path() / "run" / "service.sock";
    std::filesystem::create_directories(home);
    setenv("KZE_AGENT_HOME", home.c_str(), 1);
    child_with_endpoint other("service");
    ASSERT_TRUE(other.made());
    EXPECT_EQ(mode_of(file), 0600U);
    loop_thread loop;
    const temp_endpoint client(loop);
    const test_address address("service");
    replies got;
    got.request(client.get(), address.get(), 1, "x");
    EXPECT_EQ(got.wait(1).front().status, VRD_IPC_E_NO_HANDLER);
    loop.call([] { EXPECT_EQ(vrd_ipc_create("service", 0), nullptr); });
    other.end();
    test_endpoint service(loop, "service", echo);
    expect_echo(client.get(), "service");
    service.destroy();
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(sockets, names_that_could_leave_the_directory_or_be_misread_are_refused) {
    loop_thread loop;
    const std::string bad[] = {"",    ".",     "..",  ".hidden",           "a/b", "../a", "a b",
                               "a\n", "a\xff", "a%s", std::string(65, 'a')};
    for (const std::string &name : bad) {
        EXPECT_EQ(vrd_ipc_create(name.c_str(), 0), nullptr) << name;
        EXPECT_EQ(vrd_ipc_create_temp(name.c_str(), 0), nullptr) << name;
        EXPECT_EQ(vrd_addr_create(name.c_str(), 0, 0), nullptr) << name;
    }
    EXPECT_EQ(vrd_ipc_create(nullptr, 0), nullptr);
    EXPECT_EQ(vrd_ipc_create_temp(nullptr, 0), nullptr);
    EXPECT_EQ(vrd_addr_create(nullptr, 0, 0), nullptr);
    const std::string longest(64, 'a');
    const test_endpoint service(loop, longest, echo);
    const temp_endpoint client(loop);
    expect_echo(client.get(), longest);
}

TEST_F(sockets, descriptors_are_closed_when_a_program_is_started) {
    const std::set<int> before = open_descriptors();
    loop_thread loop;
    const test_endpoint service(loop, "service", echo);
    const temp_endpoint client(loop);
    expect_echo(client.get(), "service");
    int seen = 0;
    for (const int fd : open_descriptors()) {
        if (before.count(fd) == 0) {
            ++seen;
            EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << fd;
        }
    }
    EXPECT_GE(seen, 5);  // the loop's, the listening socket and both ends of the connection
}

TEST_F(sockets, signals_and_the_working_directory_are_left_alone) {
    std::array<struct sigaction, 65> before{};
    for (int number = 1; number < 65; ++number) {
        sigaction(number, nullptr, &before[static_cast<std::size_t>(number)]);
    }
    const std::filesystem::path directory = std::filesystem::current_path();
    {
        loop_thread loop;
        sigset_t mask_before;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask_before);
        const test_endpoint service(loop, "service", echo);
        const temp_endpoint client(loop);
        expect_echo(client.get(), "service");
        sigset_t mask_in_loop;
        loop.call([&] { pthread_sigmask(SIG_SETMASK, nullptr, &mask_in_loop); });
        for (int number = 1; number < 65; ++number) {
            EXPECT_EQ(sigismember(&mask_in_loop, number), sigismember(&mask_before, number));
        }
    }
    for (int number = 1; number < 65; ++number) {
        struct sigaction now {};
        sigaction(number, nullptr, &now);
        EXPECT_EQ(now.sa_handler, before[static_cast<std::size_t>(number)].sa_handler) << number;
    }
    EXPECT_EQ(std::filesystem::current_path(), directory);
}

TEST_F(sockets, a_program_that_only_asks_needs_no_thread) {
    loop_thread loop;
    const test_endpoint service(loop, "service", echo);
    std::thread([] {
        ASSERT_EQ(cl_ev_loop_nowait(0), 0);
        vrd_ipc_st *const asker = vrd_ipc_create_temp("asker", 0);
        ASSERT_NE(asker, nullptr);
        const test_address address("service");
        replies got;
        got.request(asker, address.get(), 1, "x");
        EXPECT_TRUE(turn_until([&] { return got.count() == 1; }));
        EXPECT_TRUE(pthread_equal(got.wait(1).front().thread, pthread_self()));
        vrd_ipc_destroy(asker);
    }).join();
}

TEST_F(sockets, a_hundred_endpoints_that_come_and_go_leave_nothing) {
    loop_thread loop;
    const test_endpoint service(loop, "service", echo);
    const std::size_t descriptors = descriptor_count();
    for (int i = 0; i < 100; ++i) {
        test_endpoint named(loop, "named", echo);
        const temp_endpoint client(loop);
        expect_echo(client.get(), "service");
        expect_echo(client.get(), "named");
        expect_echo(named.get(), "service");
    }
    EXPECT_TRUE(eventually([&] { return descriptor_count() == descriptors; }));
    EXPECT_EQ(entries_of(tree.path("run").c_str()), 1U);
}

// Forks; the child runs `body` and ends like a program that returns from main(), as far as the
// libraries are concerned: what belongs to the test itself is left out. True when it got that far.
bool forked_child_ends_after(const std::function<void()> &body) {
    const pid_t child = fork();
    if (child == 0) {
        body();
        std::atexit([] { _exit(7); });
        std::exit(1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 7;
}

TEST_F(sockets, are_left_to_the_parent_by_a_forked_child_that_ends_or_destroys_the_endpoint) {
    loop_thread loop;
    const temp_endpoint client(loop);
    std::thread([&] {
        ASSERT_EQ(cl_ev_loop_nowait(1), 0);
        vrd_ipc_st *const service = vrd_ipc_create("service", 0);
        vrd_ipc_on_request(service, on_echo_request, nullptr);
        const raw_socket peer = raw_socket::connect_to(socket_path("service"));
        const test_address address("service");
        replies got;
        const auto expect_served = [&](int times) {
            got.request(client.get(), address.get(), 1, "x");
            ASSERT_TRUE(turn_until([&] { return got.count() == times; }));
            EXPECT_EQ(got.wait(times).back().status, VRD_IPC_OK);
        };
        expect_served(1);
        EXPECT_TRUE(forked_child_ends_after([] {}));
        EXPECT_TRUE(std::filesystem::exists(socket_path("service")));
        expect_served(2);
        EXPECT_TRUE(forked_child_ends_after([&] { vrd_ipc_destroy(service); }));
        EXPECT_TRUE(std::filesystem::exists(socket_path("service")));
        expect_served(3);
        const temp_endpoint late(loop);  // a connection of its own
        got.request(late.get(), address.get(), 1, "x");
        EXPECT_TRUE(turn_until([&] { return got.count() == 4; }));
        EXPECT_EQ(got.wait(4).back().status, VRD_IPC_OK);
        char byte;
        EXPECT_EQ(recv(peer.fd(), &byte, 1, MSG_DONTWAIT), -1);
        EXPECT_EQ(errno, EAGAIN);  // not disconnected
        vrd_ipc_destroy(service);
    }).join();
    EXPECT_FALSE(std::filesystem::exists(socket_path("service")));
}

}  // namespace
}  // namespace kze_test
