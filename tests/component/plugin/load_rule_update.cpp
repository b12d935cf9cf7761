/*
 * The plug-in in a process of its own, to be killed in the middle of one update of the custom
 * rules: at its N-th step on the file that keeps their identifier.
 *
 *   load_rule_update N
 *
 * Its tree is that of KZE_AGENT_HOME. It ends with 0 when the update was reported before its N-th
 * step.
 */
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/component/plugin/load_clients.h"
#include "tests/component/plugin/load_stage.h"
#include "tests/component/plugin/stage.h"
#include "tests/support/process_state.h"
#include "vrdcl_ev.h"
#include "vrdipc.h"

/* These stand before the C library's for all that the process loads. */
#define STEP extern "C" __attribute__((visibility("default")))

namespace {

std::atomic<bool> armed{false};
std::atomic<int> steps_left{0};
thread_local bool in_update = false;

/* Between any two steps of the update, and in the middle of what it writes. */
void step() {
    if (armed && in_update && steps_left-- == 0) {
        kill(getpid(), SIGKILL);
    }
}

void look_at(const char *path) {
    in_update = in_update || (armed && strstr(path, "kzectmrule") != nullptr);
}

}  // namespace

STEP int open(const char *path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const mode_t mode = va_arg(more, mode_t);
    va_end(more);
    look_at(path);
    step();
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

STEP int flock(int fd, int operation) noexcept {
    step();
    return static_cast<int>(syscall(SYS_flock, fd, operation));
}

STEP int ftruncate(int fd, off_t length) noexcept {
    step();
    return static_cast<int>(syscall(SYS_ftruncate, fd, length));
}

STEP ssize_t write(int fd, const void *data, size_t size) {
    step();
    const size_t half = in_update ? size / 2 : size;
    const ssize_t first = syscall(SYS_write, fd, data, half);
    if (half == size || first != static_cast<ssize_t>(half)) {
        return first;
    }
    step();
    const ssize_t second =
        syscall(SYS_write, fd, static_cast<const char *>(data) + half, size - half);
    return second < 0 ? first : first + second;
}

STEP int fchmod(int fd, mode_t mode) noexcept {
    step();
    return static_cast<int>(syscall(SYS_fchmod, fd, mode));
}

STEP int fsync(int fd) {
    step();
    return static_cast<int>(syscall(SYS_fsync, fd));
}

STEP int rename(const char *from, const char *to) noexcept {
    step();
    return static_cast<int>(syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to));
}

namespace {

int fail(const char *what) {
    fprintf(stderr, "load_rule_update: %s\n", what);
    return 2;
}

/* True when the response came and says that the update is queued. */
bool request_update() {
    struct reply {
        bool ended = false;
        bool queued = false;
    } got;
    cl_ev_loop_nowait(0);
    vrd_ipc_st *const ipc = vrd_ipc_create_temp("update", 0);
    vrd_addr_st *const plugin = vrd_addr_create("agt_rpt", 0, 0);
    const std::string frame = request_frame(R"({"rulesId":"new","rulesInfo":"rules"})");
    vrd_ipc_make_request(
        ipc, plugin, 102, frame.data(), static_cast<unsigned int>(frame.size()),
        [](int status, unsigned int, const char *data, unsigned int len, void *context) {
            auto &to = *static_cast<reply *>(context);
            to.queued = status >= 0 && std::string(data, len) == response_frame(0);
            to.ended = true;
        },
        &got, 20);
    while (!got.ended) {
        cl_event_loop_once();
    }
    vrd_ipc_destroy(ipc);
    vrd_addr_destroy(plugin);
    return got.queued;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        return fail("usage: load_rule_update N");
    }
    steps_left = atoi(argv[1]);
    plugin_stage::stage::instance().set_config("/mgr/base_collect", "/adv_threats", "true");
    void *const plugin = dlopen(PLUGIN_FILE, RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) {
        return fail(dlerror());
    }
    const auto init = reinterpret_cast<int (*)()>(dlsym(plugin, "kzemdlmgr_init"));
    const std::string socket = std::string(getenv("KZE_AGENT_HOME")) + "/../run/agt_rpt.sock";
    auto &engine = load_stage::engine::instance();
    if (init() != 0 || !kze_test::eventually([&] {
            return access(socket.c_str(), F_OK) == 0 && engine.gateway_sends(9) == 1;
        })) {
        return fail("the plug-in doesn't come up");
    }
    armed = true;
    if (!request_update() || !kze_test::eventually([&] { return engine.gateway_sends(8) == 1; })) {
        return fail("the update was not reported");
    }
    _exit(0);  // the process that is killed has no clean end either
}
