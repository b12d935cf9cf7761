/*
 * A file that takes the place of another in one step.
 */
#ifndef KZEMDLMGR_PLATFORM_KZAUTIL_REPLACEMENT_H
#define KZEMDLMGR_PLATFORM_KZAUTIL_REPLACEMENT_H

#include <sys/types.h>

#include <string>

#include "platform/common/descriptor.h"

// Written beside its target, then synced and renamed over it. One thread at a time. Several at once
// for one target, of whatever process, wait for each other: they share the name ".<name>.new", so
// that a crash leaves one such file behind and never more.
class replacement {
  public:
    replacement() = default;
    replacement(const replacement &) = delete;
    replacement &operator=(const replacement &) = delete;
    ~replacement();  // without commit(): the target stays as it was

    // Results are 0 or an error number. A target that is a link stands for what it points to. The
    // file will have the permissions of the target, or `new_mode` where that is missing.
    int open(const std::string &target, mode_t new_mode);
    void set_mode(mode_t mode) { own_mode = mode; }
    int write(const char *data, size_t size);
    int commit();

  private:
    int open_locked();

    std::string final_path;
    std::string path;  // empty but while the file is open and not yet in place
    mode_t own_mode = 0;
    kze::descriptor own_file;
};

#endif
