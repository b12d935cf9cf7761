/*
 * One directory's rotating log file.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDBASE_LOG_FILE_H
#define KZEMDLMGR_PLATFORM_VRDBASE_LOG_FILE_H

// Every user of the library within libvrdbase comes through here, so that these hold for all.
#define SPDLOG_PREVENT_CHILD_FD
#define SPDLOG_LEVEL_NAMES \
    { "TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL", "OFF" }
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

// Log directories are for their owner only.
inline constexpr mode_t log_directory_mode = 0700;

// Safe from any thread: one lock guards everything that changes.
class log_file {
  public:
    // `directory` needn't exist yet; `files` counts the current file too. Opens at the first
    // record.
    log_file(std::string directory, int files);

    // Writes one line; `text` holds "file:line text", escaped. To standard error while the file
    // can't be written, as far as that takes it at once. Never throws.
    void write(int level, const std::string &text) noexcept;

    // For fork only: held across it, so that the child finds the lock free and no half-written
    // line.
    void lock() { mutex.lock(); }
    void unlock() { mutex.unlock(); }

    const std::string &directory() const { return own_directory; }

  private:
    bool ready();
    void open();
    void put(int level, const std::string &text);
    void put_to_standard_error(int level, const std::string &text);

    const std::string own_directory;
    const std::string path;
    const int file_count;

    std::mutex mutex;
    // Null while the file can't be written. Dropped after every failure: a sink whose file failed
    // to open once must not be used again.
    std::unique_ptr<spdlog::sinks::rotating_file_sink_st> file_sink;
    std::chrono::steady_clock::time_point next_try;
    unsigned long long missed = 0;  // records that the file didn't get, since it last told
    unsigned long long lost = 0;    // those of them that standard error didn't take either
    spdlog::pattern_formatter formatter;
};

#endif
