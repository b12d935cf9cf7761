/*
 * The engine's origin data: the processes of this host as /proc shows them.
 *
 * One JSON object a line for each process:
 *   pid, ppid, name    name is the kernel's short name of the process
 *   start_time         seconds since the epoch
 *   start_ticks        the same as the kernel counts it, clock ticks since the host started
 *   user, uid          the real user; user is empty where the host knows no name
 *   path               of the executable; empty for a kernel thread and where it may not be read
 *   deleted            true, only where the executable is no longer at that path
 *   md5                of the executable's content; empty where it can't be read
 *   command_line       the arguments, one text each
 *   command_line_cut   true, only where the arguments are longer than 32 KiB and end there
 * A text that is not UTF-8 has each such byte as \xNN and a backslash as two, and its member's name
 * stands in the array "escaped".
 */
#ifndef KZE_AGENT_ENGINE_PROCESS_SNAPSHOT_H
#define KZE_AGENT_ENGINE_PROCESS_SNAPSHOT_H

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <string>

#include "agent/common/byte_text.h"

namespace kze::engine {

using kze::text_of_bytes;

/* Takes snapshots. One thread at a time. */
class process_snapshot {
  public:
    process_snapshot();

    /*
     * The lines of all processes, each with its line feed. A process that ends meanwhile is left
     * out. Remembers the MD5 of each executable for the next time, by device, inode, size and time
     * of change, as long as a process runs it.
     */
    std::string take();

  private:
    struct file_key {
        dev_t device;
        ino_t inode;
        off_t size;
        std::int64_t changed_s;
        std::int64_t changed_ns;
        bool operator<(const file_key &other) const;
    };
    using digest_cache = std::map<file_key, std::string>;

    std::string line_of(int process_directory, std::uint64_t pid);
    std::string md5_of_executable(int process_directory);
    const std::string &user_name(uid_t uid);

    const std::int64_t ticks_per_second_;
    std::int64_t boot_time_ = 0;         /* seconds since the epoch */
    digest_cache digests_;               /* of the last snapshot's executables */
    digest_cache digests_in_use_;        /* of those that this one has met so far */
    std::map<uid_t, std::string> users_; /* of this snapshot */
};

}  // namespace kze::engine

#endif
