// A new thread's routine begins when the thread that made it has gone on.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "kzabase.h"

using namespace std::chrono_literals;
using std::chrono::steady_clock;

namespace {

// A creator that gives no sign is waited for no shorter than this.
constexpr auto whole_wait = 1s;

// Runs once on the thread that makes another, when that is there and its handle not yet known.
thread_local std::function<void(pthread_t)> s_while_made;

}  // namespace

extern "C" {

#if defined(__has_feature)
// The sanitizer's own, which it leads the calls to where the program has none.
int __interceptor_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);

static int make_thread(pthread_t *out, const pthread_attr_t *attributes, void *(*routine)(void *),
                       void *argument) {
    return __interceptor_pthread_create(out, attributes, routine, argument);
}
#else
static int make_thread(pthread_t *out, const pthread_attr_t *attributes, void *(*routine)(void *),
                       void *argument) {
    static const auto make =
        reinterpret_cast<decltype(&make_thread)>(dlsym(RTLD_NEXT, "pthread_create"));
    return make(out, attributes, routine, argument);
}
#endif

// In place of the C library's, for libkzabase too.
int pthread_create(pthread_t *out, const pthread_attr_t *attributes, void *(*routine)(void *),
                   void *argument) noexcept {
    const int error = make_thread(out, attributes, routine, argument);
    if (error == 0 && s_while_made) {
        std::exchange(s_while_made, nullptr)(*out);
    }
    return error;
}

}  // extern "C"

namespace {

class creator_turn_test : public ::testing::Test {
  public:
    ~creator_turn_test() override {
        kze_cond_destroy(cond);
        kze_mutex_destroy(mutex);
    }

    // The routine of the threads that are looked at: it notes what its creator has written.
    static void *look(void *test) {
        auto *const self = static_cast<creator_turn_test *>(test);
        self->seen = self->written.load();
        kze_mutex_lock(self->mutex);
        {
            const std::lock_guard<std::mutex> lock(self->own_mutex);
            self->has_begun = true;
        }
        self->changed.notify_all();
        kze_cond_broadcast(self->cond);
        kze_mutex_unlock(self->mutex);
        return nullptr;
    }

    static void *do_nothing(void *) { return nullptr; }

    bool begins_within(std::chrono::milliseconds time) {
        std::unique_lock<std::mutex> lock(own_mutex);
        return changed.wait_for(lock, time, [this] { return has_begun.load(); });
    }

    void start() { ASSERT_EQ(kze_thread_start(&thread, look, this), 0); }

    void join() {
        EXPECT_EQ(kze_thread_join(&thread, nullptr), 0);
        has_begun = false;
    }

    // Starts a thread whose creator does something before its start returns. Until then the new
    // thread counts nothing, so that nothing but this lets it in.
    void start_and_meanwhile(std::function<void(pthread_t)> what) {
        s_while_made = [this, what = std::move(what)](pthread_t made) {
            EXPECT_FALSE(begins_within(20ms));
            what(made);
            EXPECT_TRUE(begins_within(20s));
        };
        start();
        join();
    }

    kze_mutex_t mutex = kze_mutex_init();
    kze_cond_t cond = kze_cond_init();
    kze_thread_t thread = 0;
    std::atomic<bool> written{false};
    std::atomic<bool> has_begun{false};
    std::atomic<bool> seen{false};
    // Not the agent's, which are part of what is tested.
    std::mutex own_mutex;
    std::condition_variable changed;
};

}  // namespace

TEST_F(creator_turn_test, ends_when_a_mutex_is_given_back) {
    start_and_meanwhile([this](pthread_t) {
        EXPECT_EQ(kze_mutex_lock(mutex), 0);
        EXPECT_FALSE(begins_within(20ms));
        EXPECT_EQ(kze_mutex_unlock(mutex), 0);
    });
}

TEST_F(creator_turn_test, ends_when_it_waits_on_a_condition) {
    start_and_meanwhile([this](pthread_t) {
        EXPECT_EQ(kze_mutex_lock(mutex), 0);
        while (!has_begun) {
            EXPECT_EQ(kze_cond_wait(cond, mutex), 0);
        }
        EXPECT_EQ(kze_mutex_unlock(mutex), 0);
    });
}

TEST_F(creator_turn_test, ends_when_it_wakes_others) {
    start_and_meanwhile([this](pthread_t) { EXPECT_EQ(kze_cond_signal(cond), 0); });
}

TEST_F(creator_turn_test, ends_when_it_wakes_all_others) {
    start_and_meanwhile([this](pthread_t) { EXPECT_EQ(kze_cond_broadcast(cond), 0); });
}

TEST_F(creator_turn_test, ends_when_it_starts_another_thread) {
    start_and_meanwhile([](pthread_t) {
        kze_thread_t other = 0;
        EXPECT_EQ(kze_thread_start(&other, do_nothing, nullptr), 0);
        EXPECT_EQ(kze_thread_join(&other, nullptr), 0);
    });
}

TEST_F(creator_turn_test, ends_when_it_waits_for_the_end_of_a_thread) {
    kze_thread_t other = 0;
    ASSERT_EQ(kze_thread_start(&other, do_nothing, nullptr), 0);
    start_and_meanwhile([&](pthread_t) { EXPECT_EQ(kze_thread_join(&other, nullptr), 0); });
}

TEST_F(creator_turn_test, is_not_ended_by_another_thread) {
    start_and_meanwhile([this](pthread_t) {
        std::thread([this] {
            EXPECT_EQ(kze_mutex_lock(mutex), 0);
            EXPECT_EQ(kze_mutex_unlock(mutex), 0);
        }).join();
        EXPECT_FALSE(begins_within(20ms));
        EXPECT_EQ(kze_cond_signal(cond), 0);
    });
}

// The thread begins sooner than without a sign, which is certain in one try of ten on whatever
// machine.
TEST_F(creator_turn_test, ends_with_its_thread) {
    auto shortest = steady_clock::duration::max();
    for (int i = 0; i < 10 && shortest >= whole_wait; ++i) {
        const auto from = steady_clock::now();
        std::thread([this] { start(); }).join();
        EXPECT_TRUE(begins_within(20s));
        shortest = steady_clock::now() - from;
        join();
    }
    EXPECT_LT(shortest, whole_wait);
}

TEST_F(creator_turn_test, ends_before_what_its_thread_has_on_the_stack_when_that_exits) {
    struct waits_at_the_end {
        explicit waits_at_the_end(creator_turn_test *of) : test(of) {}
        ~waits_at_the_end() { EXPECT_TRUE(test->begins_within(20s)); }
        creator_turn_test *test;
    };
    auto shortest = steady_clock::duration::max();
    for (int i = 0; i < 10 && shortest >= whole_wait; ++i) {
        kze_thread_t creator = 0;
        ASSERT_EQ(kze_thread_start(
                      &creator,
                      [](void *test) -> void * {
                          const waits_at_the_end last(static_cast<creator_turn_test *>(test));
                          last.test->start();
                          kze_thread_exit(nullptr);
                          return nullptr;
                      },
                      this),
                  0);
        const auto from = steady_clock::now();
        EXPECT_EQ(kze_thread_join(&creator, nullptr), 0);
        shortest = steady_clock::now() - from;
        join();
    }
    EXPECT_LT(shortest, whole_wait);
}

// A thread that found its creator's notes unwritten once ended at once, and its queue was never
// served.
TEST_F(creator_turn_test, lasts_while_its_start_has_not_returned) {
    s_while_made = [this](pthread_t) { EXPECT_FALSE(begins_within(whole_wait + 500ms)); };
    start();
    EXPECT_EQ(kze_mutex_lock(mutex), 0);
    written = true;
    EXPECT_EQ(kze_mutex_unlock(mutex), 0);
    join();
    EXPECT_TRUE(seen);
}

TEST_F(creator_turn_test, lasts_while_it_is_slow) {
    start();
    EXPECT_FALSE(begins_within(300ms));
    EXPECT_EQ(kze_mutex_lock(mutex), 0);
    written = true;
    EXPECT_EQ(kze_mutex_unlock(mutex), 0);
    join();
    EXPECT_TRUE(seen);
}

TEST_F(creator_turn_test, that_gives_no_sign_ends_by_and_by) {
    const auto from = steady_clock::now();
    start();
    EXPECT_TRUE(begins_within(20s));
    EXPECT_GE(steady_clock::now() - from, whole_wait);
    join();
}

TEST_F(creator_turn_test, is_not_used_up_while_the_process_is_stopped) {
    const pid_t child = fork();
    if (child == 0) {
        start();
        bool early = begins_within(100ms);  // so that the new thread waits when it is stopped
        raise(SIGSTOP);
        early = early || begins_within(100ms);
        written = true;
        const bool good = !early && kze_thread_join(&thread, nullptr) == 0 && seen;
        _exit(good ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, WUNTRACED), child);
    ASSERT_TRUE(WIFSTOPPED(status));
    pollfd end{static_cast<int>(syscall(SYS_pidfd_open, child, 0)), POLLIN, 0};
    ASSERT_GE(end.fd, 0);
    EXPECT_EQ(poll(&end, 1, 1500), 0) << "it went on though it was stopped";
    close(end.fd);
    kill(child, SIGCONT);
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST_F(creator_turn_test, comes_first_for_every_creator_of_many) {
    struct notes {
        kze_mutex_t mutex;
        bool written;
    };
    const auto create = [this] {
        for (int i = 0; i < 100; ++i) {
            notes of{mutex, false};
            kze_thread_t made = 0;
            ASSERT_EQ(kze_thread_start(
                          &made,
                          [](void *argument) -> void * {
                              auto *const the = static_cast<notes *>(argument);
                              kze_mutex_lock(the->mutex);
                              const bool found = the->written;
                              kze_mutex_unlock(the->mutex);
                              return found ? argument : nullptr;
                          },
                          &of),
                      0);
            kze_mutex_lock(mutex);
            of.written = true;
            kze_mutex_unlock(mutex);
            void *found = nullptr;
            EXPECT_EQ(kze_thread_join(&made, &found), 0);
            EXPECT_EQ(found, &of);
        }
    };
    std::thread other(create);
    create();
    other.join();
}
