/* qd_agent: the engine's process. It serves its endpoint until SIGTERM or SIGINT. */
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/common/standard_descriptors.h"
#include "agent/common/tree.h"
#include "agent/engine/engine_server.h"
#include "agent/engine/engine_settings.h"
#include "vrdbase.h"
#include "vrdcl_ev.h"

namespace {

constexpr char log_directory[] = "@/../var/log/qd_agent";
constexpr int log_files = 5;

/* Written and read on the serving thread alone. */
bool serving = true;

/* The serving thread. Its result is null when the endpoint could not be made. */
void *serve(void *) {
    autolog_init(log_directory, log_files);
    const auto server =
        kze::engine::engine_server::create(kze::tree_path(kze::engine::settings_file));
    if (server == nullptr) {
        kze_log(1, "the engine has no endpoint, it leaves");
        ::kill(::getpid(), SIGTERM); /* which the main thread waits for */
        return nullptr;
    }
    kze_log(3, "the engine serves");
    while (serving && cl_event_loop_once() == 0) {
    }
    kze_log(3, "the engine leaves");
    return &serving;
}

void stop_serving(cl_timerplus *timer) {
    cl_timerplus_close(timer);
    serving = false;
}

/*
 * Started by hand the program lies in qd_agent/bin, and the tree's programs, which "@" stands for,
 * in bin. The service tool says so in the environment.
 */
void find_tree() {
    if (::secure_getenv("KZE_AGENT_HOME") != nullptr) {
        return;
    }
    const std::string home = kze::tree_path("@/../../bin");
    char resolved[PATH_MAX];
    if (::realpath(home.c_str(), resolved) != nullptr) {
        ::setenv("KZE_AGENT_HOME", resolved, 1);
    }
}

}  // namespace

int main() {
    if (!kze::fill_standard_descriptors()) {
        return 1;
    }
    find_tree();
    autolog_init(log_directory, log_files);
    sigset_t stop;
    ::sigemptyset(&stop);
    ::sigaddset(&stop, SIGTERM);
    ::sigaddset(&stop, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    pthread_t thread{};
    const int error = cl_ev_create_isolated_thread(&thread, nullptr, serve, nullptr);
    if (error != 0) {
        kze_log(0, "no thread for the engine: %s", std::strerror(error));
        return 1;
    }
    int signal = 0;
    while (::sigwait(&stop, &signal) != 0) {
    }
    /* This thread has no loop, so the timer is on the serving thread's, and its callback too. */
    cl_timerplus_start(0, 0, 0, stop_serving, nullptr);
    void *served = nullptr;
    ::pthread_join(thread, &served);
    return served == nullptr ? 1 : 0;
}
