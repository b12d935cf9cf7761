#include "tests/support/ev_ipc_test.h"

#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>

#include "tests/support/process_state.h"
#include "vrdbase.h"

namespace kze_test {
namespace {

std::unique_ptr<temp_tree> log_tree;

constexpr char log_file[] = "var/log/host/host.log";

// What a process makes once and keeps, its log's file and the event library's own pipe, is made
// before the first test looks at what is open.
class made_once : public ::testing::Environment {
  public:
    void SetUp() override {
        log_tree = std::make_unique<temp_tree>();
        error_output(3, "ev_ipc_test.cpp", 0, "tests begin");
        run_isolated([] {});
    }
    void TearDown() override { log_tree.reset(); }
};

[[maybe_unused]] const ::testing::Environment *const environment =
    ::testing::AddGlobalTestEnvironment(new made_once);

void *run_body(void *body) {
    (*static_cast<const std::function<void()> *>(body))();
    return nullptr;
}

}  // namespace

void be_busy(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
    }
}

void run_isolated(const std::function<void()> &body) {
    pthread_t id{};
    ASSERT_EQ(cl_ev_create_isolated_thread(&id, nullptr, run_body,
                                           const_cast<std::function<void()> *>(&body)),
              0);
    ASSERT_EQ(pthread_join(id, nullptr), 0);
}

bool turn_until(const std::function<bool()> &condition) {
    const auto end = std::chrono::steady_clock::now() + long_enough;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end || cl_event_loop_once() != 0) {
            return false;
        }
    }
    return true;
}

loop_thread::loop_thread() {
    if (cl_ev_create_isolated_thread(&id_, nullptr, run, this) != 0) {
        throw std::runtime_error("no isolated thread");
    }
    call([] {});
}

void *loop_thread::run(void *self) {
    static_cast<loop_thread *>(self)->turn();
    return nullptr;
}

void loop_thread::turn() {
    cl_timerplus *const pulse = cl_timerplus_start(
        0, 0, 1, [](cl_timerplus *timer) { static_cast<loop_thread *>(timer->user)->run_calls(); },
        this);
    while (!stopping_) {
        cl_event_loop_once();
    }
    cl_timerplus_stop(pulse);
    cl_timerplus_close(pulse);
}

void loop_thread::run_calls() {
    std::deque<std::function<void()>> calls;
    {
        std::lock_guard<std::mutex> guard(lock_);
        calls.swap(calls_);
    }
    for (const auto &body : calls) {
        body();
    }
}

void loop_thread::start(std::function<void()> body) {
    std::lock_guard<std::mutex> guard(lock_);
    calls_.push_back(std::move(body));
}

void loop_thread::call(const std::function<void()> &body) {
    counter done;
    start([&] {
        body();
        done.add();
    });
    if (!done.reaches(1)) {
        // The thread still has references to this frame.
        ADD_FAILURE() << "the loop's thread is stuck";
        std::abort();
    }
}

void loop_thread::stop() {
    if (!std::exchange(joined_, true)) {
        start([this] { stopping_ = true; });
        pthread_join(id_, nullptr);
    }
}

ev_ipc::ev_ipc()
    : descriptors_(descriptor_count()),
      threads_(thread_count()),
      log_begin_(log_tree->read(log_file).size()) {}

ev_ipc::~ev_ipc() {
    EXPECT_TRUE(kze_test::threads_become(threads_));
    EXPECT_TRUE(eventually([this] { return descriptor_count() == descriptors_; }))
        << descriptor_count() << " descriptors instead of " << descriptors_;
}

std::string ev_ipc::log_text() const {
    return log_tree->read(log_file).substr(log_begin_);
}

bool ev_ipc::logs(const std::string &text) const {
    return eventually([&] { return log_text().find(text) != std::string::npos; });
}

}  // namespace kze_test
