// Running a program to its end.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

struct ProgramRun {
    int status = -1;     // the exit status, -1 when the program was killed or never ran
    std::string output;  // standard output and standard error
};

// Runs a program with one argument and this process's environment. The test's own time limit is
// the deadline.
inline ProgramRun run_program(const std::string &program, const std::string &argument) {
    ProgramRun run;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return run;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    char *const arguments[] = {const_cast<char *>(program.c_str()),
                               const_cast<char *>(argument.c_str()), nullptr};
    pid_t child = 0;
    const int error = posix_spawn(&child, program.c_str(), &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    char buffer[4096];
    for (ssize_t length = 0; (length = read(ends[0], buffer, sizeof buffer)) > 0;)
        run.output.append(buffer, static_cast<size_t>(length));
    close(ends[0]);
    int status = 0;
    if (error == 0 && waitpid(child, &status, 0) == child && WIFEXITED(status))
        run.status = WEXITSTATUS(status);
    return run;
}
