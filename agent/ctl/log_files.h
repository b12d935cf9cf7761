/* The agent's log files: their names, and reading them while they are written and rotated. */
#ifndef KZE_AGENT_CTL_LOG_FILES_H
#define KZE_AGENT_CTL_LOG_FILES_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace kze::ctl {

/* The path of a log by its name: "worker", "host", or whatever lies under var/log. Throws failure
 * (exit_not_there), naming those there are. */
std::string log_path(const std::string &name);
/* The names that log_path knows in this tree now. */
std::vector<std::string> log_names();

struct log_line {
    std::string text; /* without its line feed */
    off_t offset = 0; /* where it begins in its file */
    off_t next = 0;   /* where the one behind it begins */
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
    /* From the offset on. When the file is shorter than that, it was rotated since: what is left of
     * the rotated one comes first. */
    log_reader(std::string path, off_t offset);
    ~log_reader();
    log_reader(const log_reader &) = delete;
    log_reader &operator=(const log_reader &) = delete;

    /* The next line, or nothing when there is none at the moment. */
    std::optional<log_line> next();

  private:
    bool open_at(const std::string &path, off_t offset);
    bool open_first();
    bool fill();
    bool go_on_with_newer_file();

    const std::string path_;
    off_t wanted_offset_;
    int file_ = -1;
    std::string buffer_;      /* read, and not given out yet */
    off_t buffer_offset_ = 0; /* where it begins in the file */
};

/* The offset at which the last `count` lines begin; 0 when there are fewer, or no file. */
off_t offset_of_last_lines(const std::string &path, unsigned int count);

/* The size of a file; 0 when there is none. */
off_t file_size(const std::string &path);

}  // namespace kze::ctl

#endif
