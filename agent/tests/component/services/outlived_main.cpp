// A process whose first thread ends, when SIGCONT comes, while another one goes on.
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <thread>

int main() {
    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, SIGCONT);
    pthread_sigmask(SIG_BLOCK, &awaited, nullptr);
    std::thread([] { sleep(600); }).detach();
    int signal = 0;
    sigwait(&awaited, &signal);
    pthread_exit(nullptr);
}
