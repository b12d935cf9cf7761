// In which order a file is synced and renamed, and what a failure of either does. The program's own
// fsync and rename stand before the C library's.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "kzautil.h"
#include "tests/component/vrdbase/temporary_tree.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

std::vector<std::string> calls;
int fsync_error = 0;
int rename_error = 0;
mode_t mode_at_rename = 0;

std::string base_name(const std::string &path) {
    return std::filesystem::path(path).filename().string();
}

class Durability : public TemporaryTree {
  protected:
    Durability() {
        write_content(path("d/from"), "new");
        write_content(path("d/to"), "old");
        calls.clear();
        fsync_error = 0;
        rename_error = 0;
    }

    std::string to() const { return path("d/to"); }

    int save() const {
        void *ini = kze_ini_file_load(nullptr);
        kze_ini_file_set(ini, "s", "k", "v");
        const int result = kze_ini_file_save(ini, to().c_str(), 0);
        kze_ini_file_free(ini);
        return result;
    }

    void expect_untouched() const {
        EXPECT_EQ(content_of(to()), "old");
        EXPECT_EQ(content_of(path("d/from")), "new");
        EXPECT_EQ(names_in(path("d")).size(), 2U);
    }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) int fsync(int fd) {
    std::error_code gone;
    calls.push_back("sync " + base_name(std::filesystem::read_symlink(
                                  "/proc/self/fd/" + std::to_string(fd), gone)));
    errno = fsync_error;
    return fsync_error == 0 ? static_cast<int>(syscall(SYS_fsync, fd)) : -1;
}

extern "C" __attribute__((visibility("default"))) int rename(const char *from, const char *to) {
    calls.push_back("rename " + base_name(from) + " " + base_name(to));
    struct stat status {};
    if (stat(from, &status) == 0)
        mode_at_rename = status.st_mode;
    errno = rename_error;
    return rename_error == 0 ? static_cast<int>(syscall(SYS_rename, from, to)) : -1;
}

TEST_F(Durability,
       of_a_saved_ini_file_comes_from_syncing_it_renaming_it_and_syncing_the_directory) {
    EXPECT_EQ(save(), 0);
    EXPECT_THAT(calls, ElementsAre("sync .to.new", "rename .to.new to", "sync d"));
}

TEST_F(Durability, of_a_copy_comes_in_the_same_way) {
    EXPECT_EQ(kze_file_copy(path("d/from").c_str(), to().c_str()), 0);
    EXPECT_THAT(calls, ElementsAre("sync .to.new", "rename .to.new to", "sync d"));
}

TEST_F(Durability, of_a_read_only_file_leaves_its_owner_able_to_save_after_a_crash) {
    chmod(path("d/from").c_str(), 0444);
    EXPECT_EQ(kze_file_copy(path("d/from").c_str(), to().c_str()), 0);
    EXPECT_EQ(mode_at_rename & 07777U, 0644U);
    struct stat status {};
    ASSERT_EQ(stat(to().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0444U);
}

TEST_F(Durability, that_cant_be_had_fails_the_save_and_the_copy_and_changes_nothing) {
    fsync_error = EIO;
    EXPECT_EQ(save(), EIO);
    expect_untouched();
    EXPECT_EQ(kze_file_copy(path("d/from").c_str(), to().c_str()), EIO);
    expect_untouched();
}

TEST_F(Durability, rename_that_fails_fails_the_save_and_the_copy_and_changes_nothing) {
    rename_error = EPERM;
    EXPECT_EQ(save(), EPERM);
    expect_untouched();
    EXPECT_EQ(kze_file_copy(path("d/from").c_str(), to().c_str()), EPERM);
    expect_untouched();
    EXPECT_EQ(kze_file_rename(path("d/from").c_str(), to().c_str()), EPERM);
    expect_untouched();
}

TEST_F(Durability, rename_across_file_systems_that_fails_keeps_the_file) {
    rename_error = EXDEV;  // also for the copy's own
    EXPECT_EQ(kze_file_rename(path("d/from").c_str(), to().c_str()), EXDEV);
    expect_untouched();
}
