#include "plugin/kzemm_fileoperate.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "vrdbase.h"

namespace {

// Opens /dev/null, which must land on the descriptor that was just closed.
void redirect_to_null(int expected_fd, int flags, const char *what) {
    if (open("/dev/null", flags) != expected_fd) {
        perror(what);
        _exit(-1);
    }
}

[[noreturn]] void run_in_child(const char *command) {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    redirect_to_null(STDIN_FILENO, O_RDONLY, "stdin redirect /dev/null");
    redirect_to_null(STDOUT_FILENO, O_RDWR, "stdout redirect /dev/null");
    redirect_to_null(STDERR_FILENO, O_RDWR, "stderr redirect /dev/null");
    execlp("sh", "sh", "-c", command, static_cast<char *>(nullptr));
    _exit(127);
}

}  // namespace

int create_process(const char *command) {
    kze_log(3, "create process by cmd = %s", command);
    return system_exec(command);
}

int system_exec(const char *command) {
    if (command == nullptr || command[0] == '\0') {
        errno = EINVAL;
        return -1;
    }
    const pid_t pid = fork();
    if (pid < 0) {
        return -1;
    }
    if (pid == 0) {
        run_in_child(command);
    }

    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}
