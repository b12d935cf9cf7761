// Counts lines of log files that grow and rotate faster than one could keep them.
#ifndef KZEMDLMGR_TESTS_COMPONENT_PLUGIN_LOAD_LOG_H
#define KZEMDLMGR_TESTS_COMPONENT_PLUGIN_LOAD_LOG_H

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// Threads: safe from any thread; a thread of its own reads.
class load_log {
  public:
    // Counts the lines of these files whose text begins with one of these. A file need not be there
    // yet; of one that is, everything counts.
    load_log(const std::vector<std::string> &files, const std::vector<std::string> &beginnings);
    ~load_log();
    load_log(const load_log &) = delete;
    load_log &operator=(const load_log &) = delete;

    // Lines so far; the beginning is one of those that were given.
    size_t count(const std::string &beginning) const;
    // Waits until there are so many; false after the deadline.
    bool await(const std::string &beginning, size_t times) const;

  private:
    struct file {
        std::string path;
        int fd = -1;
        std::string rest;  // of a line whose end is still to come
    };
    struct tally {
        std::string beginning;
        std::atomic<size_t> lines{0};
    };

    void routine();
    void read_on(file &of);
    void count_lines(file &of);
    void count_line(const char *begin, const char *end);

    std::vector<file> files;  // the thread's
    std::vector<std::unique_ptr<tally>> tallies;
    std::atomic<bool> ends{false};
    std::thread thread;
};

#endif
