/* The processes of this tree: finding, starting and waiting for them. */
#ifndef KZE_AGENT_CTL_CORE_PROCESSES_H
#define KZE_AGENT_CTL_CORE_PROCESSES_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "agent/ctl/core/deadline.h"

namespace kze::ctl {

/* The tree's directory, with no links in it. Throws failure when it isn't there. */
std::string tree_root();

struct tree_process {
    pid_t pid = 0;
    std::string program; /* its path within the tree, as "bin/kze_agent" */
};

/* The processes of the host, the services and their tool in this tree, in the order of pids. */
std::vector<tree_process> tree_processes();

/* Those that run this program of the tree. */
std::vector<tree_process> tree_processes(const std::string &program);

/* Waits until the process is gone. False when the deadline passes first. */
bool wait_for_end(pid_t pid, const deadline &until);

struct finished_command {
    int status = 0;     /* the exit status; 128 and the signal's number after a signal */
    std::string output; /* what it wrote to standard output and error, its last 64 KiB */
};

/* Runs a program of the tree and waits for it. Throws failure when it can't be started. */
finished_command run_command(const std::vector<std::string> &command);

/*
 * Starts a program as a process in a session of its own, with nothing to read, what it prints
 * appended to a file, and none of our other descriptors. It stays our child until we end.
 * Throws failure when it can't be started.
 */
pid_t start_daemon(const std::vector<std::string> &command, const std::string &output_file);

/* Whether our child has ended; text then says how. Only once for each child. */
bool child_has_ended(pid_t child, std::string &text);

}  // namespace kze::ctl

#endif
