// One directory's rotating log file.
#pragma once

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
class LogFile {
  public:
    // `directory` needn't exist yet; `files` counts the current file too. Opens at the first
    // record.
    LogFile(std::string directory, int files);

    // Writes one line; `text` holds "file:line text", escaped. To standard error while the file
    // can't be written, as far as that takes it at once. Never throws.
    void write(int level, const std::string &text) noexcept;

    // For fork only: held across it, so that the child finds the lock free and no half-written
    // line.
    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }

    const std::string &directory() const { return directory_; }

  private:
    bool ready();
    void open();
    void put(int level, const std::string &text);
    void put_to_standard_error(int level, const std::string &text);

    const std::string directory_;
    const std::string path_;
    const int files_;

    std::mutex mutex_;
    // Null while the file can't be written. Dropped after every failure: a sink whose file failed
    // to open once must not be used again.
    std::unique_ptr<spdlog::sinks::rotating_file_sink_st> sink_;
    std::chrono::steady_clock::time_point next_try_;
    unsigned long long missed_ = 0;  // records that the file didn't get, since it last told
    unsigned long long lost_ = 0;    // those of them that standard error didn't take either
    spdlog::pattern_formatter formatter_;
};
