// Auto disposal while memory is short: each allocation of a delivery fails in turn, those within
// the message library too. Stand-ins for the gateway, the IPC layer and the log; the memory that
// these take never fails.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <new>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "config/kzemm_config.h"
#include "datapath/kzemm_dispose.h"
#include "datapath/kzemm_gateway.h"
#include "tests/support/wire_bytes.h"
#include "vrdbase.h"
#include "vrdipc.h"

struct kzemm_config_inspector {
    static void set_switches(bool on) {
        kzemm_config::get_instance().dispose_web_switch = on;
        kzemm_config::get_instance().dispose_phishing_switch = on;
    }
};

extern "C" {
void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size);
}

struct vrd_ipc_st {};
struct vrd_addr_st {};

namespace {

constexpr int never = 0;

int s_failing = never;  // which allocation from now fails; 1: the next one
bool s_failed = false;

bool fails_now() {
    if (s_failing != never && --s_failing == never) {
        s_failed = true;
        return true;
    }
    return false;
}

void *allocate(size_t size) {
    return fails_now() ? nullptr : __real_malloc(size == 0 ? 1 : size);
}

void *allocate_or_throw(size_t size) {
    void *const memory = allocate(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

// Allocations don't fail while one of these lives.
class memory_for_all {
  public:
    memory_for_all() : failing(s_failing) { s_failing = never; }
    ~memory_for_all() { s_failing = failing; }
    memory_for_all(const memory_for_all &) = delete;
    memory_for_all &operator=(const memory_for_all &) = delete;

  private:
    const int failing;
};

}  // namespace

void *__wrap_malloc(size_t size) {
    return fails_now() ? nullptr : __real_malloc(size);
}

void *operator new(size_t size) {
    return allocate_or_throw(size);
}
void *operator new[](size_t size) {
    return allocate_or_throw(size);
}
void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return allocate(size);
}
void *operator new[](size_t size, const std::nothrow_t &) noexcept {
    return allocate(size);
}
void operator delete(void *memory) noexcept {
    free(memory);
}
void operator delete[](void *memory) noexcept {
    free(memory);
}
void operator delete(void *memory, size_t) noexcept {
    free(memory);
}
void operator delete[](void *memory, size_t) noexcept {
    free(memory);
}

namespace {

using line = std::pair<int, std::string>;  // level and text
using lines = std::vector<line>;

lines s_lines;
unsigned int s_sent_up = 0;
vrd_ipc_reply_cb s_callback = nullptr;
void *s_context = nullptr;
unsigned int s_requests = 0;

std::string event() {
    std::string rule = wire::number(6, 1);
    for (const uint64_t nodes : {uint64_t{3}, uint64_t{40}}) {
        std::string action = wire::bytes(1, "an alert with a name that is not short");
        for (uint64_t node = 1; node <= nodes; ++node) {
            action += wire::number(2, node) +
                      wire::bytes(4, wire::number(1, node) + wire::number(2, node) +
                                         wire::bytes(4, "/usr/local/bin/a_process_of_some_name") +
                                         wire::bytes(5, "0123456789abcdef0123456789abcdef"));
        }
        rule += wire::bytes(9, action);
    }
    return wire::frame(wire::bytes(1, "an agent with a name that is not short either") +
                       wire::number(5, 9) + wire::bytes(17, wire::bytes(6, rule)) +
                       wire::bytes(99, "a field that nobody knows, of more than a few bytes"));
}

class kzemm_dispose_memory_test : public testing::Test {
  protected:
    // Runs one event; the nth allocation of it fails. Ends the request that it makes.
    void run(std::string &frame, int failing) {
        s_lines.clear();
        s_sent_up = 0;
        s_requests = 0;
        s_callback = nullptr;
        s_failed = false;
        s_failing = failing;
        done = do_auto_dispose(frame.data(), static_cast<unsigned int>(frame.size()), &ipc, &addr);
        s_failing = never;
        if (s_callback != nullptr) {
            s_callback(0, 10001, "", 0, s_context);
        }
    }

    // What was logged behind the last step that went well, from its end on.
    static lines end_of_lines() {
        const auto is_failure = [](const line &each) { return each.first < 3; };
        return {std::find_if(s_lines.begin(), s_lines.end(), is_failure), s_lines.end()};
    }

    void TearDown() override { s_lines = {}; }

    vrd_ipc_st ipc;
    vrd_addr_st addr;
    bool done = false;
};

// Each step has its lines, and what was sent before it stays sent.
TEST_F(kzemm_dispose_memory_test, whichever_allocation_fails_its_step_says_so) {
    kzemm_config_inspector::set_switches(true);
    const line not_sent_up = {1, "send_event_to_thtgw failed"};
    const line not_disposed = {1, "send_event_to_autodsp failed"};
    const line no_frame = {2, "malloc %zu byte for out_data failed"};
    const line no_header = {2, "add module header failed"};
    const std::map<lines, unsigned int> sent_up_by_end = {
        {{{2, "parse qd_engine_sub_credible data to proto failed"}}, 0},
        {{no_frame, no_header, not_sent_up}, 0},
        {{{1, "serialize auto dispose data failed."},
          {2, "build auto dispose pbdata failed."},
          not_disposed},
         1},
        {{no_frame, no_header, not_disposed}, 1},
        {{{2, "new auto dispose ipc ctx failed"}, not_disposed}, 1},
    };
    std::string frame = event();
    std::set<lines> ends;
    for (int failing = 1; failing == 1 || s_failed; ++failing) {
        SCOPED_TRACE(failing);
        run(frame, failing);
        EXPECT_EQ(done, !s_failed) << "no failure is passed over";
        EXPECT_EQ(s_requests, done ? 1U : 0U);
        if (!done) {
            const lines end = end_of_lines();
            ASSERT_EQ(sent_up_by_end.count(end), 1U) << testing::PrintToString(end);
            EXPECT_EQ(s_sent_up, sent_up_by_end.at(end));
            ends.insert(end);
        }
    }
    EXPECT_EQ(ends.size(), sent_up_by_end.size()) << "each step failed once";
    run(frame, never);
    EXPECT_TRUE(done) << "the next event is handled as ever";
    EXPECT_EQ(s_sent_up, 1U);
    EXPECT_EQ(s_requests, 1U);
}

}  // namespace

int error_output_check(int) {
    return 1;
}

void error_output(int level, const char *, int, const char *format, ...) {
    const memory_for_all guard;
    s_lines.push_back({level, format});
}

const char *vrd_ipc_strerror(int) {
    return "no";
}

int vrd_ipc_make_request(vrd_ipc_st *, const vrd_addr_st *, unsigned int, const char *,
                         unsigned int, vrd_ipc_reply_cb callback, void *context, unsigned int) {
    ++s_requests;
    s_callback = callback;
    s_context = context;
    return 0;
}

int send_data_via_gw(KZEMM_DATA_TYPE, char *, unsigned int) {
    ++s_sent_up;
    return 0;
}
