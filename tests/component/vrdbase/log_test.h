// What the tests of the log share.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "tests/component/vrdbase/temporary_tree.h"
#include "vrdbase.h"

// Each test logs on threads of its own, so that none inherits a directory, and starts with every
// level on.
class LogTest : public TemporaryTree {
  protected:
    LogTest() { error_output_set_level(4); }

    std::string directory() const { return path("var/log/test"); }
    std::string file() const { return directory() + "/test.log"; }

    // Runs `work` on a thread that logs to directory().
    template <typename Work>
    void log(Work work) {
        std::thread([&] {
            autolog_init(directory().c_str(), 5);
            work();
        }).join();
    }
};

// Collects in a file what the process writes to standard error while this lives.
class StandardErrorTo {
  public:
    explicit StandardErrorTo(const std::string &path) : saved_(dup(STDERR_FILENO)) {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    StandardErrorTo(const StandardErrorTo &) = delete;
    StandardErrorTo &operator=(const StandardErrorTo &) = delete;
    ~StandardErrorTo() {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }

  private:
    int saved_;
};
