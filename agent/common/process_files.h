/* What /proc tells of a process: the one way in which the agent reads it. */
#ifndef KZE_AGENT_COMMON_PROCESS_FILES_H
#define KZE_AGENT_COMMON_PROCESS_FILES_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/common/descriptor.h"

namespace kze {

/*
 * All functions here take a descriptor of the process's directory, or a thread's. When the process
 * ends they fail, and a process that gets its number is never mixed in. Any thread.
 */

/* The directory of a process, as a descriptor of the caller's; not valid when there is none. */
descriptor open_process(std::uint64_t pid);

/* Reads a file below a directory (or AT_FDCWD) up to a limit; nothing when it can't be read. */
std::optional<std::string> read_file_at(int directory, const char *name, std::size_t limit);

struct process_stat {
    std::string name; /* the kernel's short name */
    char state = '?'; /* as in "stat": 'R', 'Z' */
    std::int64_t ppid = 0;
    std::uint64_t start_ticks = 0; /* clock ticks since the host started */
};

/* Nothing when the process has gone. One that has ended and isn't waited for has the state 'Z'. */
std::optional<process_stat> read_process_stat(int process_directory);

/*
 * The directory of a thread of the process that still runs; not valid when there is none. A process
 * whose first thread has ended has the state 'Z' and tells of its executable here alone.
 */
descriptor open_running_thread(int process_directory);

struct executable_path {
    std::string bytes;    /* empty for a kernel thread, and where it may not be read */
    bool deleted = false; /* the executable is no longer at that path */
};

executable_path read_executable_path(int process_directory);

/* The executable that runs, wherever its path leads by now; not valid when it can't be opened. */
descriptor open_executable(int process_directory);

/* The moment at which the host started, in seconds since the epoch; 0 when it can't be read. */
std::int64_t read_boot_time();

}  // namespace kze

#endif
