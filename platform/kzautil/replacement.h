// A file that takes the place of another in one step.
#pragma once

#include <sys/types.h>

#include <string>

#include "platform/vrdbase/descriptor.h"

// Written beside its target, then synced and renamed over it. One thread at a time. Several at once
// for one target, of whatever process, wait for each other: they share the name ".<name>.new", so
// that a crash leaves one such file behind and never more.
class Replacement {
  public:
    Replacement() = default;
    Replacement(const Replacement &) = delete;
    Replacement &operator=(const Replacement &) = delete;
    ~Replacement();  // without commit(): the target stays as it was

    // Results are 0 or an error number. A target that is a link stands for what it points to. The
    // file will have the permissions of the target, or `new_mode` where that is missing.
    int open(const std::string &target, mode_t new_mode);
    void set_mode(mode_t mode) { mode_ = mode; }
    int write(const char *data, size_t size);
    int commit();

  private:
    int open_locked();

    std::string target_;
    std::string path_;  // empty but while the file is open and not yet in place
    mode_t mode_ = 0;
    Descriptor file_;
};
