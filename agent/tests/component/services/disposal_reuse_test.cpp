/* Process ids that change hands: the wrong process is never hit. */
#include <linux/sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "agent/tests/component/services/disposal_service_test.h"

namespace kze_test {
namespace {

/*
 * A copy of this process that waits for its end. It is signalled through its descriptor alone: no
 * id is ever given to kill, which takes some numbers for many processes.
 */
class copied_process {
  public:
    /* With that id, or with any for 0. Not there, with the reason in errno, when it can't be made.
     */
    explicit copied_process(pid_t wanted) : descriptor_(-1) {
        int descriptor = -1;
        clone_args args = {};
        args.flags = CLONE_PIDFD;
        args.pidfd = reinterpret_cast<std::uint64_t>(&descriptor);
        args.exit_signal = SIGCHLD;
        if (wanted > 0) {
            args.set_tid = reinterpret_cast<std::uint64_t>(&wanted);
            args.set_tid_size = 1;
        }
        pid_ = static_cast<pid_t>(syscall(SYS_clone3, &args, sizeof(args)));
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) {
                pause();
            }
        }
        descriptor_.reset(pid_ > 0 ? descriptor : -1);
    }
    ~copied_process() { end(); }
    copied_process(const copied_process &) = delete;
    copied_process &operator=(const copied_process &) = delete;

    bool is_there() const { return descriptor_.valid(); }
    pid_t pid() const { return pid_; }

    /* Ends it and gives its id free; whether it was alive until now, whatever signal may have been
     * on its way. */
    bool end() {
        if (!is_there()) {
            return false;
        }
        const auto id = static_cast<id_t>(descriptor_.get());
        siginfo_t info = {};
        signal(SIGSTOP);
        waitid(P_PIDFD, id, &info, WEXITED | WSTOPPED | WNOWAIT);
        const bool was_alive = info.si_code == CLD_STOPPED;
        signal(SIGKILL);
        waitid(P_PIDFD, id, &info, WEXITED);
        descriptor_.reset();
        return was_alive;
    }

  private:
    void signal(int number) const {
        syscall(SYS_pidfd_send_signal, descriptor_.get(), number, nullptr, 0);
    }

    pid_t pid_ = -1;
    kze::descriptor descriptor_;
};

std::uint64_t ticks_now() {
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    const auto ticks = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
    return static_cast<std::uint64_t>(now.tv_sec) * ticks +
           static_cast<std::uint64_t>(now.tv_nsec) * ticks / 1000000000;
}

/* In the same tick a copy would fit the description as well. */
void wait_for_the_next_tick(const kze_respdsp_res_process &process) {
    EXPECT_TRUE(eventually([&] { return ticks_now() > process.create_time() + 1; }));
}

class DisposalOfReusedIds : public disposal_fixture {
  protected:
    void SetUp() override {
        disposal_fixture::SetUp();
        kill_processes();
        copied_process probe(0);
        ASSERT_TRUE(probe.is_there()) << errno;
        ASSERT_TRUE(probe.end());
        const copied_process again(probe.pid());
        if (!again.is_there() && errno == EPERM) {
            GTEST_SKIP() << "only root may choose a process id";
        }
    }

    /* From an order to its answer, while nothing happens to its process but the disposal. */
    std::chrono::steady_clock::duration time_of_an_order() {
        copied_process process(0);
        const auto wanted = described(process.pid());
        const auto begun = std::chrono::steady_clock::now();
        order({wanted});
        EXPECT_EQ(newest_process()["fate"], "ended");
        return std::chrono::steady_clock::now() - begun;
    }
};

TEST_F(DisposalOfReusedIds, process_with_the_id_of_the_described_one_is_left_alone) {
    for (int round = 0; round < 20; ++round) {
        copied_process first(0);
        ASSERT_TRUE(first.is_there()) << errno;
        const auto wanted = described(first.pid());
        wait_for_the_next_tick(wanted);
        first.end();
        copied_process second(first.pid());
        if (!second.is_there()) {
            continue; /* somebody else got the id */
        }
        const auto other = described(second.pid());
        EXPECT_EQ(other.process_path(), wanted.process_path());
        EXPECT_EQ(other.md5(), wanted.md5()) << "they differ in nothing but their creation";
        order({wanted});
        EXPECT_EQ(newest_process()["fate"], "another");
        EXPECT_TRUE(second.end());
        return;
    }
    FAIL() << "the id was never free";
}

TEST_F(DisposalOfReusedIds, under_load_no_order_hits_the_process_that_got_the_id) {
    const child_process load({"/bin/sh", "-c", "while :; do /bin/true; done"});
    const child_process more_load({"/bin/sh", "-c", "while :; do /bin/true; done"});
    loop_thread loop;
    temp_endpoint sending(loop);
    const test_address service("agt_rpdsp");
    const auto undisturbed = time_of_an_order();
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    int reused = 0;
    const auto at_the_latest = until + std::chrono::seconds(30);
    for (int round = 0; std::chrono::steady_clock::now() < (reused < 20 ? at_the_latest : until);
         ++round) {
        copied_process first(0);
        ASSERT_TRUE(first.is_there()) << errno;
        const auto wanted = described(first.pid());
        wait_for_the_next_tick(wanted);
        replies answers;
        answers.request(sending.get(), service.get(), disposal_command, order_of({wanted}));
        /* The id changes hands earlier or later while the order is on its way and in hand. */
        const auto moment = std::chrono::steady_clock::now() + undisturbed * (round % 16) / 10;
        while (std::chrono::steady_clock::now() < moment) {
        }
        first.end();
        copied_process second(first.pid());
        answers.wait(1);
        if (second.is_there()) {
            ++reused;
            ASSERT_TRUE(second.end()) << "the wrong process was hit in round " << round;
        }
    }
    EXPECT_GE(reused, 20);
    const nlohmann::json fates = status()["processes"];
    std::printf("%d ids reused; fates of the orders: %s\n", reused, fates.dump().c_str());
    EXPECT_GT(fates["ended"].get<int>(), 0) << "some ids changed hands after the order";
    EXPECT_GT(fates["gone"].get<int>() + fates["another"].get<int>(), 0)
        << "and some before it was done";
}

}  // namespace
}  // namespace kze_test
