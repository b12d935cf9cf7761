// What a request and its answer cost over the IPC library, next to the same exchange over a bare
// blocking socketpair. Both ends of both are processes of one thread, all pinned to one core.
//
//   bench_ipc [--check]     --check: exit 1 when a ratio is above its limit
#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "vrdcl_ev.h"
#include "vrdipc.h"

namespace {

constexpr std::size_t sizes[] = {100, 4096};
constexpr int rounds = 40;  // of each kind, taking turns
constexpr int exchanges_in_round = 2500;
constexpr int warm_up = 500;  // exchanges before each round, not counted
constexpr double median_limit = 1.6;
constexpr double p99_limit = 2.0;
constexpr char endpoint_name[] = "bench";

[[noreturn]] void fail(const char *what) {
    std::perror(what);
    std::exit(2);
}

std::uint64_t now_ns() {
    return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch() /
                                      std::chrono::nanoseconds(1));
}

void pin_to_one_core() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
        fail("sched_getaffinity");
    }
    int core = 0;
    while (!CPU_ISSET(core, &allowed)) {
        ++core;
    }
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(core, &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0) {
        fail("sched_setaffinity");
    }
}

pid_t start_peer(void (*body)(int), int argument) {
    const pid_t pid = fork();
    if (pid < 0) {
        fail("fork");
    }
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body(argument);
        std::_Exit(0);
    }
    return pid;
}

void stop_peer(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

void bare_echo(int fd) {
    std::vector<char> buffer(64 * 1024);
    for (;;) {
        const ssize_t got = recv(fd, buffer.data(), buffer.size(), 0);
        if (got <= 0 || send(fd, buffer.data(), static_cast<std::size_t>(got), 0) != got) {
            return;
        }
    }
}

void ipc_echo(int ready_fd) {
    cl_ev_loop_nowait(0);
    vrd_ipc_st *const ipc = vrd_ipc_create(endpoint_name, 0);
    vrd_ipc_on_request(
        ipc,
        [](vrd_ipc_st *self, vrd_addr_st *from, unsigned int id, unsigned int cmd, const char *data,
           unsigned int len, void *) { vrd_ipc_response(self, from, id, cmd, data, len); },
        nullptr);
    if (ipc == nullptr || write(ready_fd, "r", 1) != 1) {
        std::_Exit(2);
    }
    for (;;) {
        cl_event_loop_once();
    }
}

// One exchange over the bare socket.
class bare_client {
  public:
    explicit bare_client(int fd) : fd_(fd), answer_(64 * 1024) {}

    void exchange(const std::vector<char> &body) {
        if (send(fd_, body.data(), body.size(), 0) != static_cast<ssize_t>(body.size()) ||
            recv(fd_, answer_.data(), answer_.size(), 0) != static_cast<ssize_t>(body.size())) {
            fail("bare exchange");
        }
    }

  private:
    int fd_;
    std::vector<char> answer_;
};

// One exchange over the library.
class ipc_client {
  public:
    ipc_client()
        : ipc_(vrd_ipc_create_temp("bench_client", 0)),
          peer_(vrd_addr_create(endpoint_name, 0, 0)) {}
    ~ipc_client() {
        vrd_ipc_destroy(ipc_);
        vrd_addr_destroy(peer_);
    }
    ipc_client(const ipc_client &) = delete;
    ipc_client &operator=(const ipc_client &) = delete;

    void exchange(const std::vector<char> &body) {
        answered_ = -1;
        const auto size = static_cast<unsigned int>(body.size());
        if (vrd_ipc_make_request(ipc_, peer_, 1, body.data(), size, on_reply, this, 60) != 0) {
            fail("vrd_ipc_make_request");
        }
        while (answered_ < 0) {
            cl_event_loop_once();
        }
        if (answered_ != static_cast<std::int64_t>(body.size())) {
            fail("answer");
        }
    }

  private:
    static void on_reply(int status, unsigned int, const char *, unsigned int len, void *context) {
        if (status != 0) {
            std::fprintf(stderr, "bench_ipc: %s\n", vrd_ipc_strerror(status));
            std::exit(2);
        }
        static_cast<ipc_client *>(context)->answered_ = len;
    }

    vrd_ipc_st *ipc_;
    vrd_addr_st *peer_;
    std::int64_t answered_ = -1;  // bytes of the answer; below 0 until it has come
};

template <typename Client>
void measure_round(Client &client, const std::vector<char> &body,
                   std::vector<std::uint64_t> *times_out) {
    for (int i = 0; i < warm_up; ++i) {
        client.exchange(body);
    }
    for (int i = 0; i < exchanges_in_round; ++i) {
        const std::uint64_t begin = now_ns();
        client.exchange(body);
        times_out->push_back(now_ns() - begin);
    }
}

double percentile_us(std::vector<std::uint64_t> &times, double share) {
    const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(times.size() - 1));
    std::nth_element(times.begin(), times.begin() + at, times.end());
    return static_cast<double>(times[static_cast<std::size_t>(at)]) / 1000;
}

bool report(std::size_t size, std::vector<std::uint64_t> &bare, std::vector<std::uint64_t> &ipc) {
    const double bare_median = percentile_us(bare, 0.5);
    const double bare_p99 = percentile_us(bare, 0.99);
    const double ipc_median = percentile_us(ipc, 0.5);
    const double ipc_p99 = percentile_us(ipc, 0.99);
    const double median_ratio = ipc_median / bare_median;
    const double p99_ratio = ipc_p99 / bare_p99;
    std::printf("%6zu  %9.2f %9.2f %6.2f   %9.2f %9.2f %6.2f\n", size, bare_median, ipc_median,
                median_ratio, bare_p99, ipc_p99, p99_ratio);
    return median_ratio <= median_limit && p99_ratio <= p99_limit;
}

std::string make_tree() {
    std::string path = std::filesystem::temp_directory_path() / "bench_ipc.XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        fail("mkdtemp");
    }
    const std::string home = path + "/bin";
    std::filesystem::create_directory(home);
    setenv("KZE_AGENT_HOME", home.c_str(), 1);
    return path;
}

bool measure(int bare_fd) {
    bare_client bare(bare_fd);
    ipc_client ipc;
    bool within = true;
    std::printf("one request and its answer, both of the given size; times in microseconds\n");
    std::printf("%6s  %9s %9s %6s   %9s %9s %6s\n", "bytes", "bare med", "ipc med", "ratio",
                "bare p99", "ipc p99", "ratio");
    for (const std::size_t size : sizes) {
        const std::vector<char> body(size, 'x');
        std::vector<std::uint64_t> bare_times;
        std::vector<std::uint64_t> ipc_times;
        bare_times.reserve(rounds * exchanges_in_round);
        ipc_times.reserve(rounds * exchanges_in_round);
        for (int i = 0; i < rounds; ++i) {
            measure_round(bare, body, &bare_times);
            measure_round(ipc, body, &ipc_times);
        }
        within = report(size, bare_times, ipc_times) && within;
    }
    std::printf("limits: median ratio %.1f, p99 ratio %.1f: %s\n", median_limit, p99_limit,
                within ? "kept" : "EXCEEDED");
    return within;
}

}  // namespace

int main(int argc, char **argv) {
    const bool check = argc == 2 && std::strcmp(argv[1], "--check") == 0;
    if (argc > 1 && !check) {
        std::fprintf(stderr, "usage: bench_ipc [--check]\n");
        return 2;
    }
    const std::string tree = make_tree();
    pin_to_one_core();
    int bare_pair[2];
    int ready[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, bare_pair) != 0 ||
        pipe2(ready, O_CLOEXEC) != 0) {
        fail("socketpair");
    }
    const pid_t bare_peer = start_peer(bare_echo, bare_pair[1]);
    const pid_t ipc_peer = start_peer(ipc_echo, ready[1]);
    close(ready[1]);
    char byte;
    if (read(ready[0], &byte, 1) != 1) {
        fail("the peer's endpoint");
    }
    bool within = false;
    if (cl_ev_loop_nowait(0) == 0) {
        within = measure(bare_pair[0]);
    }
    stop_peer(bare_peer);
    stop_peer(ipc_peer);
    std::filesystem::remove_all(tree);
    return check && !within ? 1 : 0;
}
