/* A command that is run to its end, as a script does. */
#ifndef KZE_TESTS_SUPPORT_COMMAND_RUN_H
#define KZE_TESTS_SUPPORT_COMMAND_RUN_H

#include <sys/wait.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/child_process.h"

namespace kze_test {

struct command_run {
    int status = -1; /* its exit status, 128 and the signal's number when one ended it */
    std::string out;
    std::string err;
    nlohmann::json value; /* of its output where that is JSON, otherwise discarded */
};

/* For a command with little error output: that is read behind its other output. */
inline command_run run_command(const std::vector<std::string> &command) {
    child_process program(command);
    command_run run;
    run.out = program.read_output();
    run.err = program.read_errors();
    const int status = program.wait();
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.value = nlohmann::json::parse(run.out, nullptr, false);
    return run;
}

}  // namespace kze_test

#endif
