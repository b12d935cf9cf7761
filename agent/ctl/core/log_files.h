/* The agent's log files: their names, and reading them while they are written and rotated. */
#ifndef KZE_AGENT_CTL_CORE_LOG_FILES_H
#define KZE_AGENT_CTL_CORE_LOG_FILES_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/common/descriptor.h"

namespace kze::ctl {

/* The path of a log by its name: "worker", "host", or whatever lies under var/log. Throws failure
 * (exit_not_there), naming those there are. */
std::string log_path(const std::string &name);
/* The names that log_path knows in this tree now. */
std::vector<std::string> log_names();

/* One file, whatever its name is now. The time it was made tells it from a later one with the same
 * inode. */
struct log_file_id {
    ino_t inode = 0;          /* 0 when the file isn't known */
    std::int64_t made_ns = 0; /* since 1970; 0 where the file system doesn't keep it */

    bool known() const { return inode != 0; }
    bool operator==(const log_file_id &other) const {
        return inode == other.inode && made_ns == other.made_ns;
    }
};

/* A place in a log. With its file it is found again however often the log was rotated since, as
 * long as the file is kept. */
struct log_mark {
    off_t offset = 0;
    log_file_id file;
};

/* Where the log ends now; the beginning when there is no file. */
log_mark end_of_log(const std::string &path);
/* "OFFSET@INODE.TIME", the time in nanoseconds, or "OFFSET" alone when the file isn't known. */
std::string to_text(const log_mark &mark);
/* Nothing when it is no such text. */
std::optional<log_mark> parse_log_mark(const std::string &text);
/* The same for a text that log_mark_problem has nothing against. */
log_mark log_mark_of(const std::string &text);
/* What speaks against a text for a mark, for a person; empty when nothing does. */
std::string log_mark_problem(const std::string &text);

struct log_line {
    std::string text; /* without its line feed */
    off_t offset = 0; /* where it begins in its file */
    log_mark next;    /* where the one behind it begins */
};

/* The parts of a record, as the agent's log writes it. */
struct log_record {
    std::string time;
    std::string level;
    std::string thread;
    std::string source;
    std::string text;
};

/* Nothing when the line isn't such a record. */
std::optional<log_record> parse_log_line(const std::string &line);

/*
 * Reads complete lines, follows the file when it is rotated, and waits for one that isn't there
 * yet. One thread at a time.
 */
class log_reader {
  public:
    /* From the mark on, in whichever of the log's files it is now; when that is gone, from the
     * oldest one on. Without a known file: when the current one is shorter than the offset, it was
     * rotated since, and what is left of the rotated one comes first. */
    log_reader(std::string path, log_mark from);
    log_reader(std::string path, off_t offset)
        : log_reader(std::move(path), log_mark{offset, {}}) {}

    /* The next line, or nothing when there is none at the moment. */
    std::optional<log_line> next();

  private:
    bool go_to(descriptor file, off_t offset);
    bool open_first();
    bool open_marked();
    bool open_oldest();
    std::optional<unsigned int> rotations() const;
    bool fill();
    bool go_on_with_newer_file();

    const std::string path_;
    const log_mark from_;
    descriptor file_;
    std::string buffer_;      /* read, and not given out yet */
    off_t buffer_offset_ = 0; /* where it begins in the file */
    log_file_id id_;          /* of the file */
};

/* The offset at which the last `count` lines begin; 0 when there are fewer, or no file. */
off_t offset_of_last_lines(const std::string &path, unsigned int count);

/* The size of a file; 0 when there is none. */
off_t file_size(const std::string &path);

}  // namespace kze::ctl

#endif
