#include "agent/services/service_program.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <string>

#include "agent/common/standard_descriptors.h"
#include "vrdbase.h"
#include "vrdcl_ev.h"

namespace kze::services {
namespace {

constexpr int log_files = 5;

/* One for the process. */
struct program {
    std::string log_directory; /* constant */
    service_maker make;        /* constant */
    bool serving = true;       /* the serving thread's */
    bool served = false;       /* written by the serving thread, read when that has ended */
};

void serve_with(program &own) {
    const std::unique_ptr<endpoint_service> service = own.make();
    if (service == nullptr || !service->open()) {
        kze_log(1, "the service can't begin, it leaves");
        return;
    }
    own.served = true;
    kze_log(3, "the service begins, process %d", getpid());
    while (own.serving && cl_event_loop_once() == 0) {
    }
    kze_log(3, "the service leaves");
}

void *serve(void *argument) {
    program &own = *static_cast<program *>(argument);
    autolog_init(own.log_directory.c_str(), log_files);
    try {
        serve_with(own);
    } catch (const std::exception &failure) {
        kze_log(0, "the service fails: %s", failure.what());
    }
    if (own.serving) {
        ::kill(::getpid(), SIGTERM); /* which the main thread waits for */
    }
    return nullptr;
}

void stop_serving(cl_timerplus *timer) {
    static_cast<program *>(timer->user)->serving = false;
    cl_timerplus_close(timer);
}

}  // namespace

int run_service(const char *name, service_maker make) {
    if (!fill_standard_descriptors()) {
        return 1;
    }
    program own{std::string("@/../var/log/") + name, make};
    autolog_init(own.log_directory.c_str(), log_files);
    sigset_t stop;
    ::sigemptyset(&stop);
    ::sigaddset(&stop, SIGTERM);
    ::sigaddset(&stop, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    pthread_t thread{};
    const int error = cl_ev_create_isolated_thread(&thread, nullptr, serve, &own);
    if (error != 0) {
        kze_log(0, "no thread for the service: %s", std::strerror(error));
        return 1;
    }
    int signal = 0;
    while (::sigwait(&stop, &signal) != 0) {
    }
    /* This thread has no loop, so the timer is on the serving thread's, and its callback too. */
    cl_timerplus_start(0, 0, 0, stop_serving, &own);
    ::pthread_join(thread, nullptr);
    return own.served ? 0 : 1;
}

}  // namespace kze::services
