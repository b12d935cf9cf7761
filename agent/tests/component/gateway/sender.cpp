/*
 * A process that sends: sender <records> <bytes> [<largest file>]
 * Writes one line for each accepted record to its standard output, "refused <code>" for each
 * refused one, and then waits to be ended. With a largest file, no file of it grows beyond that
 * many bytes until a line comes on its standard input; it then ends by itself.
 */
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "agent/tests/component/gateway/gateway_library.h"

namespace {

void limit_files(rlim_t bytes) {
    struct rlimit limit {};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
}

void send_all(const kze_test::gateway_library &library, int records, std::size_t bytes) {
    for (int i = 0; i < records; ++i) {
        std::string data = std::to_string(i) + " ";
        data.resize(bytes, 'x');
        const int result = library.send(KZEMM_DATA_ALARM, data);
        if (result == 0) {
            std::printf("%d\n", i);
        } else {
            std::printf("refused %d\n", result);
        }
        std::fflush(stdout);
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        return 2;
    }
    const bool limited = argc > 3;
    if (limited) {
        std::signal(SIGXFSZ, SIG_IGN);
        limit_files(std::strtoul(argv[3], nullptr, 10));
    }
    kze_test::gateway_library library;
    send_all(library, std::atoi(argv[1]), std::strtoul(argv[2], nullptr, 10));
    std::puts("done");
    std::fflush(stdout);
    if (!limited) {
        pause();
    }
    while (std::getchar() != '\n') {
    }
    limit_files(RLIM_INFINITY);
    library.close();
    return 0;
}
