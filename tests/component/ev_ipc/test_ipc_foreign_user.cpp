// Peers of another user. Only root can start one, so the others skip.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "tests/support/ipc_test.h"

namespace kze_test {
namespace {

constexpr uid_t nobody = 65534;

// Lets everybody reach the sockets of the tree, which only their modes keep them from.
void open_to_everybody(const temp_tree &tree, const std::string &socket_path) {
    using std::filesystem::perms;
    std::filesystem::permissions(tree.path("."), perms::all);
    std::filesystem::permissions(tree.path("run"), perms::all);
    std::filesystem::permissions(socket_path, perms::all);
}

// Runs `body` in a process of the user `nobody`; its result, at most 255, or -1.
int run_as_nobody(const std::function<int()> &body) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (setgid(nobody) != 0 || setuid(nobody) != 0) {
            _exit(254);
        }
        _exit(body());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class foreign_user : public ipc_fixture {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "a process of another user can only be started by root";
        }
    }
};

TEST_F(foreign_user, is_disconnected_unheard_and_logged) {
    loop_thread loop;
    counter heard;
    const test_endpoint service(loop, "service", echo, [&](const incoming &) { heard.add(); });
    const std::string path = socket_path("service");
    open_to_everybody(tree, path);
    const int result = run_as_nobody([&] {
        const raw_socket peer = raw_socket::connect_to(path);
        peer.send(frame_bytes(frame_message, 1, 0, "let me in"));
        return peer.receive(1).empty() && peer.ends() ? 7 : 1;
    });
    EXPECT_EQ(result, 7);
    EXPECT_TRUE(logs("service: peer of user 65534"));
    EXPECT_EQ(heard.value(), 0);
    // Our own user is served as before.
    const raw_socket peer = raw_socket::connect_to(path);
    peer.send(frame_bytes(frame_request, 1, 1, "x"));
    std::vector<std::uint32_t> header;
    EXPECT_EQ(peer.receive_frame(&header), "x");
}

TEST_F(foreign_user, cannot_pose_as_a_service) {
    const std::string path = socket_path("service");
    std::filesystem::permissions(tree.path("."), std::filesystem::perms::all);
    std::filesystem::permissions(tree.path("run"), std::filesystem::perms::all);
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const pid_t impostor = fork();
    if (impostor == 0) {
        if (setgid(nobody) != 0 || setuid(nobody) != 0) {
            _exit(254);
        }
        const raw_socket listener = raw_socket::listen_at(path);
        if (write(ready[1], "r", 1) != 1) {
            _exit(1);
        }
        for (int i = 0; i < 2; ++i) {
            const raw_socket victim = listener.accept();
            if (!victim.receive(1).empty()) {
                _exit(1);
            }
        }
        _exit(7);
    }
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);
    loop_thread loop;
    const temp_endpoint client(loop);
    const test_address address("service");
    replies got;
    got.request(client.get(), address.get(), 1, "secret");
    EXPECT_EQ(got.wait(1).front().status, VRD_IPC_E_FORBIDDEN);
    EXPECT_EQ(vrd_ipc_send(client.get(), address.get(), 1, "secret", 6), VRD_IPC_E_FORBIDDEN);
    int status = 0;
    waitpid(impostor, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_TRUE(logs("peer of user 65534"));
}

TEST_F(foreign_user, cannot_even_see_a_socket_with_the_modes_we_set) {
    loop_thread loop;
    const test_endpoint service(loop, "service", echo);
    std::filesystem::permissions(tree.path("."), std::filesystem::perms::all);
    const std::string path = socket_path("service");
    EXPECT_EQ(run_as_nobody([&] { return access(path.c_str(), F_OK) == 0 ? 1 : 7; }), 7);
}

TEST_F(foreign_user, owning_the_directory_of_the_sockets_gets_none_of_ours_in_it) {
    ASSERT_EQ(chown(tree.path("run").c_str(), nobody, nobody), 0);
    loop_thread loop;
    loop.call([] { EXPECT_EQ(vrd_ipc_create("service", 0), nullptr); });
    EXPECT_TRUE(std::filesystem::is_empty(tree.path("run")));
    EXPECT_TRUE(logs("run belongs to user 65534"));
    EXPECT_TRUE(logs("run can't be used: Operation not permitted"));
}

TEST_F(foreign_user, makes_no_endpoint_in_a_directory_of_roots_that_others_may_write_to) {
    using std::filesystem::perms;
    std::filesystem::permissions(tree.path("."), perms::all);
    for (const perms mode : {perms::all, perms::owner_all | perms::others_all}) {
        std::filesystem::permissions(tree.path("run"), mode);
        EXPECT_EQ(run_as_nobody([] {
                      cl_ev_loop_nowait(0);
                      return vrd_ipc_create("service", 0) == nullptr ? 7 : 1;
                  }),
                  7);
    }
    EXPECT_TRUE(std::filesystem::is_empty(tree.path("run")));
    EXPECT_TRUE(logs("run is writable for others, its mode is 0777"));
    EXPECT_TRUE(logs("run is writable for others, its mode is 0707"));
}

TEST_F(foreign_user, with_an_endpoint_serves_root) {
    // The service runs as nobody; root is allowed everywhere.
    std::filesystem::permissions(tree.path("."), std::filesystem::perms::all);
    std::filesystem::remove_all(tree.path("run"));
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(nobody) != 0 || setuid(nobody) != 0) {
            _exit(254);
        }
        cl_ev_loop_nowait(0);
        vrd_ipc_st *const ipc = vrd_ipc_create("service", 0);
        vrd_ipc_on_request(ipc, on_echo_request, nullptr);
        if (ipc == nullptr || write(ready[1], "r", 1) != 1) {
            _exit(1);
        }
        while (cl_event_loop_once() == 0) {
        }
        _exit(0);
    }
    close(ready[1]);
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    const raw_socket peer = raw_socket::connect_to(socket_path("service"));
    peer.send(frame_bytes(frame_request, 1, 1, "x"));
    std::vector<std::uint32_t> header;
    EXPECT_EQ(peer.receive_frame(&header), "x");
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

}  // namespace
}  // namespace kze_test
