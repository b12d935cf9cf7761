// The relay's file utilities: listing, unpacking, deleting, and the capture of refused files.

#include <dirent.h>
#include <fnmatch.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <memory>

#include "kzautil.h"
#include "plugin/kzemm_fileoperate.h"
#include "upgrade/kzemm_upgrade.h"
#include "upgrade/kzemm_upgrade_common.h"
#include "vrdbase.h"

namespace {

constexpr useconds_t retry_pause_us = 1000000;
constexpr int unzip_retries = 3;
constexpr unsigned int capture_directory_mode = 0755;

struct directory_closer {
    void operator()(DIR *directory) const { closedir(directory); }
};

}  // namespace

void expand_path(upgrade_path &out, const char *path) {
    kze_dirutils_path_transform(path, out, sizeof(out));
}

void join_path(upgrade_path &out, const char *directory, const char *name) {
    kze_str_snprintf(out, sizeof(out), "%s/%s", directory, name);
}

void delete_if_present(const char *path) {
    if (path[0] == '\0' || kze_path_is_exist_u(path) == 0) {
        return;
    }
    kze_log(3, "delete file (%s)!", path);
    const int result = kze_path_del_file_u(path);
    if (result != 0) {
        kze_log(2, "delete file (%s) failed:%d", path, result);
    }
}

int CUpgradeRelay::retry_createprocess(const char *command, int times) {
    if (command == nullptr || times < 1) {
        return -1;
    }
    for (int attempt = 1; attempt <= times; ++attempt) {
        if (create_process(command) == 0) {
            kze_log(3, "retry create process success!");
            return 0;
        }
        kze_log(2, "retry create process failed! retry time: %d.", attempt);
        usleep(retry_pause_us);
    }
    return -1;
}

int CUpgradeRelay::unzip_upgrade_rule(const char *pack, const char *directory,
                                      const char * /*suffix*/) {
    char command[1024] = {};
    kze_str_snprintf(command, sizeof(command), "tar -zxvf '%s' -C '%s' ", pack, directory);
    if (create_process(command) != 0) {
        kze_log(2, "create process for unziping tgz failed!");
        if (retry_createprocess(command, unzip_retries) != 0) {
            kze_log(2, "retry_createprocess for unziping tgz failed!");
            return -1;
        }
    }
    kze_log(3, "unzip file (%s) successfully!", pack);
    return 0;
}

void CUpgradeRelay::list_files(const char *pattern, std::vector<std::string> &names,
                               const char *directory) {
    if (pattern == nullptr || directory == nullptr) {
        kze_log(2, "Invalid param path .");
        return;
    }
    const std::unique_ptr<DIR, directory_closer> opened(opendir(directory));
    if (opened == nullptr) {
        return;
    }
    while (const dirent *const entry = readdir(opened.get())) {
        if (fnmatch(pattern, entry->d_name, FNM_PATHNAME | FNM_PERIOD) == 0) {
            kze_log(3, "find file name: %s", entry->d_name);
            names.emplace_back(entry->d_name);
        }
    }
}

void CUpgradeRelay::test_for_solve(const char *path, int error) {
    if (path == nullptr) {
        return;
    }
    upgrade_path rules = {};
    expand_path(rules, rule_directory);
    upgrade_path captures = {};
    join_path(captures, rules, "tmp_dir/");
    if (kze_dirutils_mkdir(captures, capture_directory_mode) != 0) {
        kze_log(2, "mkdir %s failed!!", captures);
        return;
    }
    const time_t now = time(nullptr);
    tm local = {};
    tzset();  // localtime_r alone need not notice another time zone
    localtime_r(&now, &local);
    const char *const last_slash = strrchr(path, '/');
    if (last_slash == nullptr) {
        kze_log(2, "path param invaild!!");
        return;
    }
    char stamp[128] = {};
    kze_str_snprintf(stamp, sizeof(stamp), "%d-%d-%d--%d.%d.%d_error_0x%x", local.tm_year + 1900,
                     local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                     static_cast<unsigned int>(error));
    upgrade_path target = {};
    kze_str_snprintf(target, sizeof(target), "%s/tmp_dir/%s_%s", rules, stamp, last_slash + 1);
    if (kze_file_copy(path, target) != 0) {
        kze_log(2, "file copy path %s failed!", path);
    }
}
