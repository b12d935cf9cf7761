// Paths: "@", directories, what exists.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "kzautil.h"
#include "tests/component/vrdbase/temporary_tree.h"

namespace {

class Path : public TemporaryTree {
  protected:
    // The transformed path, or "failed" when the call fails and leaves the buffer empty.
    static std::string transformed(const char *from, unsigned int size = PATH_MAX) {
        char out[PATH_MAX];
        memset(out, 'x', sizeof out);
        const int result = kze_dirutils_path_transform(from, out, size);
        EXPECT_TRUE(result == 0 || (result == -1 && *out == '\0'));
        return result == 0 ? out : "failed";
    }

    static mode_t mode_of(const std::string &name) {
        struct stat status {};
        EXPECT_EQ(stat(name.c_str(), &status), 0) << name;
        return status.st_mode & 07777U;
    }
};

std::string own_directory() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
}

}  // namespace

TEST_F(Path, with_an_at_sign_begins_in_the_agents_home) {
    EXPECT_EQ(transformed("@/../config/kzemdlmgr.ini"), path("bin/../config/kzemdlmgr.ini"));
    EXPECT_EQ(transformed("@"), path("bin"));
    EXPECT_EQ(transformed("@/"), path("bin/"));
}

TEST_F(Path, without_a_home_in_the_environment_begins_in_the_programs_directory) {
    unsetenv("KZE_AGENT_HOME");
    EXPECT_EQ(transformed("@/../config"), own_directory() + "/../config");
    setenv("KZE_AGENT_HOME", "", 1);
    EXPECT_EQ(transformed("@/../config"), own_directory() + "/../config");
}

TEST_F(Path, is_only_changed_at_its_begin_and_for_a_whole_name) {
    for (const char *same : {"/etc/@/x", "a/@", "@x/y", "@@/x", "relative", "/", ""})
        EXPECT_EQ(transformed(same), same);
}

TEST_F(Path, keeps_what_follows_on_a_command_line) {
    EXPECT_EQ(transformed("@/vrd_services restart 10qd_agent"),
              path("bin/vrd_services restart 10qd_agent"));
}

TEST_F(Path, fits_into_exactly_its_length_and_one) {
    const auto size = static_cast<unsigned int>(path("bin/x").size() + 1);
    EXPECT_EQ(transformed("@/x", size), path("bin/x"));
    EXPECT_EQ(transformed("@/x", size - 1), "failed");
    EXPECT_EQ(transformed("abc", 4), "abc");
    EXPECT_EQ(transformed("abc", 3), "failed");
    EXPECT_EQ(transformed("", 1), "");
}

TEST_F(Path, transformation_refuses_null_and_no_room_and_touches_nothing_then) {
    EXPECT_EQ(transformed(nullptr), "failed");
    EXPECT_EQ(kze_dirutils_path_transform("@", nullptr, 10), -1);
    char out = 'x';
    EXPECT_EQ(kze_dirutils_path_transform("@", &out, 0), -1);
    EXPECT_EQ(out, 'x');
}

TEST_F(Path, is_made_into_a_directory_with_its_parents) {
    EXPECT_EQ(kze_dirutils_mkdir(path("a/b//c/").c_str(), 0750), 0);
    EXPECT_EQ(mode_of(path("a/b/c")), 0750U);
    EXPECT_EQ(mode_of(path("a")), 0750U);
}

TEST_F(Path, gets_parents_that_can_be_entered_even_for_a_directory_that_cant) {
    EXPECT_EQ(kze_dirutils_mkdir(path("a/b").c_str(), 0400), 0);
    EXPECT_EQ(mode_of(path("a")), 0700U);
    EXPECT_EQ(mode_of(path("a/b")), 0400U);
}

TEST_F(Path, that_is_a_directory_already_is_fine_and_keeps_its_mode) {
    ASSERT_EQ(kze_dirutils_mkdir(path("a").c_str(), 0700), 0);
    EXPECT_EQ(kze_dirutils_mkdir(path("a").c_str(), 0755), 0);
    EXPECT_EQ(mode_of(path("a")), 0700U);
    EXPECT_EQ(kze_dirutils_mkdir("/", 0755), 0);
}

TEST_F(Path, with_a_file_in_the_way_is_an_error) {
    write_content(path("file"), "x");
    EXPECT_EQ(kze_dirutils_mkdir(path("file").c_str(), 0755), EEXIST);
    EXPECT_EQ(kze_dirutils_mkdir(path("file/below").c_str(), 0755), EEXIST);
    EXPECT_EQ(content_of(path("file")), "x");
}

TEST_F(Path, of_a_directory_must_be_given) {
    EXPECT_EQ(kze_dirutils_mkdir(nullptr, 0755), EINVAL);
    EXPECT_EQ(kze_dirutils_mkdir("", 0755), ENOENT);
}

TEST_F(Path, exists_for_a_file_a_directory_and_a_link_to_one) {
    write_content(path("file"), "x");
    std::filesystem::create_symlink(path("file"), path("link"));
    std::filesystem::create_symlink(path("missing"), path("dangling"));
    for (int (*exists)(const char *) : {kze_path_is_exist_u, is_file_exist}) {
        EXPECT_NE(exists(path("file").c_str()), 0);
        EXPECT_NE(exists(path("bin").c_str()), 0);
        EXPECT_NE(exists(path("link").c_str()), 0);
        EXPECT_EQ(exists(path("dangling").c_str()), 0);
        EXPECT_EQ(exists(path("missing").c_str()), 0);
        EXPECT_EQ(exists(""), 0);
        EXPECT_EQ(exists(nullptr), 0);
    }
}

TEST_F(Path, of_a_file_or_link_is_deleted_but_not_of_a_directory) {
    write_content(path("file"), "x");
    std::filesystem::create_symlink(path("file"), path("link"));
    EXPECT_EQ(kze_path_del_file_u(path("link").c_str()), 0);
    EXPECT_TRUE(std::filesystem::exists(path("file")));
    EXPECT_EQ(kze_path_del_file_u(path("file").c_str()), 0);
    EXPECT_FALSE(std::filesystem::exists(path("file")));
    EXPECT_EQ(kze_path_del_file_u(path("file").c_str()), ENOENT);
    EXPECT_EQ(kze_path_del_file_u(path("bin").c_str()), EISDIR);
    EXPECT_EQ(kze_path_del_file_u(nullptr), EINVAL);
}
