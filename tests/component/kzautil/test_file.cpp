// Copying and renaming files.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "kzautil.h"
#include "tests/component/vrdbase/temporary_tree.h"

using ::testing::UnorderedElementsAre;

namespace {

class File : public TemporaryTree {
  protected:
    File() { std::filesystem::create_directory(path("d")); }

    std::string from() const { return path("d/from"); }
    std::string to() const { return path("d/to"); }

    static mode_t mode_of(const std::string &name) {
        struct stat status {};
        EXPECT_EQ(stat(name.c_str(), &status), 0) << name;
        return status.st_mode & 07777U;
    }
};

}  // namespace

TEST_F(File, is_copied_with_content_and_permissions) {
    std::string content(300 * 1024 + 7, '\0');
    for (size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>(i * 31 / 7);
    write_content(from(), content);
    ASSERT_EQ(chmod(from().c_str(), 0754), 0);
    EXPECT_EQ(kze_file_copy(from().c_str(), to().c_str()), 0);
    EXPECT_EQ(content_of(to()), content);
    EXPECT_EQ(mode_of(to()), 0754U);
    EXPECT_EQ(content_of(from()), content);
    EXPECT_THAT(names_in(path("d")), UnorderedElementsAre("from", "to"));
}

TEST_F(File, copy_of_an_empty_one_is_empty) {
    write_content(from(), "");
    EXPECT_EQ(kze_file_copy(from().c_str(), to().c_str()), 0);
    EXPECT_EQ(std::filesystem::file_size(to()), 0U);
}

TEST_F(File, copy_replaces_the_target_and_its_permissions) {
    write_content(from(), "new");
    write_content(to(), "the old and longer one");
    chmod(from().c_str(), 0640);
    chmod(to().c_str(), 0755);
    EXPECT_EQ(kze_file_copy(from().c_str(), to().c_str()), 0);
    EXPECT_EQ(content_of(to()), "new");
    EXPECT_EQ(mode_of(to()), 0640U);
}

TEST_F(File, copy_doesnt_carry_a_set_user_bit_along) {
    write_content(from(), "x");
    ASSERT_EQ(chmod(from().c_str(), 04755), 0);
    EXPECT_EQ(kze_file_copy(from().c_str(), to().c_str()), 0);
    EXPECT_EQ(mode_of(to()), 0755U);
}

TEST_F(File, that_nobody_may_write_can_be_copied_again_and_again) {
    write_content(from(), "x");
    ASSERT_EQ(chmod(from().c_str(), 0444), 0);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(kze_file_copy(from().c_str(), to().c_str()), 0);
    EXPECT_EQ(mode_of(to()), 0444U);
}

TEST_F(File, copied_onto_itself_stays) {
    write_content(from(), "x");
    EXPECT_EQ(kze_file_copy(from().c_str(), from().c_str()), 0);
    EXPECT_EQ(content_of(from()), "x");
}

TEST_F(File, is_replaced_through_a_link_by_a_copy) {
    write_content(from(), "new");
    write_content(path("elsewhere"), "old");
    std::filesystem::create_symlink(path("elsewhere"), to());
    EXPECT_EQ(kze_file_copy(from().c_str(), to().c_str()), 0);
    EXPECT_EQ(content_of(path("elsewhere")), "new");
    EXPECT_TRUE(std::filesystem::is_symlink(to()));
}

TEST_F(File, copy_takes_the_place_of_one_that_a_crash_left_unfinished) {
    write_content(from(), "new");
    write_content(path("d/.to.new"), "unfinished and longer");
    EXPECT_EQ(kze_file_copy(from().c_str(), to().c_str()), 0);
    EXPECT_EQ(content_of(to()), "new");
    EXPECT_THAT(names_in(path("d")), UnorderedElementsAre("from", "to"));
}

TEST_F(File, copy_never_writes_through_a_link_in_place_of_the_unfinished_one) {
    write_content(from(), "new");
    write_content(path("victim"), "untouched");
    std::filesystem::create_symlink(path("victim"), path("d/.to.new"));
    EXPECT_EQ(kze_file_copy(from().c_str(), to().c_str()), ELOOP);
    EXPECT_EQ(content_of(path("victim")), "untouched");
}

TEST_F(File, copy_that_fails_leaves_the_target_and_nothing_else) {
    write_content(to(), "old");
    EXPECT_EQ(kze_file_copy(from().c_str(), to().c_str()), ENOENT);
    EXPECT_EQ(kze_file_copy(path("bin").c_str(), to().c_str()), EISDIR);
    EXPECT_EQ(content_of(to()), "old");
    write_content(from(), "x");
    EXPECT_EQ(kze_file_copy(from().c_str(), path("bin").c_str()), EISDIR);
    EXPECT_EQ(kze_file_copy(from().c_str(), path("no/such/to").c_str()), ENOENT);
    EXPECT_EQ(kze_file_copy(nullptr, to().c_str()), EINVAL);
    EXPECT_EQ(kze_file_copy(from().c_str(), nullptr), EINVAL);
    EXPECT_THAT(names_in(path("d")), UnorderedElementsAre("from", "to"));
}

TEST_F(File, copy_on_a_full_disk_leaves_the_target_and_nothing_else) {
    write_content(from(), std::string(10000, 'n'));
    write_content(to(), "old");
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit small{5000, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    const int result = kze_file_copy(from().c_str(), to().c_str());
    setrlimit(RLIMIT_FSIZE, &limit);
    signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(result, EFBIG);
    EXPECT_EQ(content_of(to()), "old");
    EXPECT_THAT(names_in(path("d")), UnorderedElementsAre("from", "to"));
}

TEST_F(File, copy_never_waits_on_a_pipe) {
    ASSERT_EQ(mkfifo(from().c_str(), 0600), 0);
    EXPECT_EQ(kze_file_copy(from().c_str(), to().c_str()), EINVAL);
    write_content(path("file"), "x");
    EXPECT_EQ(kze_file_copy(path("file").c_str(), from().c_str()), EINVAL);
    ASSERT_EQ(mkfifo(path("d/.to.new").c_str(), 0600), 0);
    EXPECT_EQ(kze_file_copy(path("file").c_str(), to().c_str()), ENXIO);
}

TEST_F(File, is_whole_for_readers_while_several_threads_copy_onto_it) {
    constexpr size_t size = 200 * 1024;
    const std::vector<std::string> sources = {path("a"), path("b"), path("c")};
    for (size_t i = 0; i < sources.size(); ++i)
        write_content(sources[i], std::string(size, static_cast<char>('a' + i)));
    write_content(to(), std::string(size, 'a'));
    std::vector<std::thread> threads;
    for (const auto &source : sources)
        threads.emplace_back([&] {
            for (int i = 0; i < 20; ++i)
                EXPECT_EQ(kze_file_copy(source.c_str(), to().c_str()), 0);
        });
    for (int i = 0; i < 100; ++i) {
        const std::string content = content_of(to());
        EXPECT_EQ(content.size(), size);
        EXPECT_EQ(content.find_first_not_of(content[0]), std::string::npos);
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_THAT(names_in(path("d")), UnorderedElementsAre("to"));
}

TEST_F(File, is_renamed_over_an_older_one) {
    write_content(from(), "new");
    write_content(to(), "old");
    EXPECT_EQ(kze_file_rename(from().c_str(), to().c_str()), 0);
    EXPECT_EQ(content_of(to()), "new");
    EXPECT_FALSE(std::filesystem::exists(from()));
}

TEST_F(File, that_cant_be_renamed_stays) {
    EXPECT_EQ(kze_file_rename(from().c_str(), to().c_str()), ENOENT);
    write_content(from(), "x");
    EXPECT_EQ(kze_file_rename(from().c_str(), path("no/such").c_str()), ENOENT);
    EXPECT_EQ(kze_file_rename(from().c_str(), path("bin").c_str()), EISDIR);
    EXPECT_EQ(kze_file_rename(nullptr, to().c_str()), EINVAL);
    EXPECT_EQ(kze_file_rename(from().c_str(), nullptr), EINVAL);
    EXPECT_EQ(content_of(from()), "x");
}

TEST_F(File, is_renamed_into_another_file_system) {
    struct stat here {};
    struct stat there {};
    if (stat(path("d").c_str(), &here) != 0 || stat("/dev/shm", &there) != 0 ||
        here.st_dev == there.st_dev)
        GTEST_SKIP() << "this machine has no second file system to write to";
    char name[] = "/dev/shm/kze_test_XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    const std::string far = std::string(name) + "/to";
    write_content(from(), "x");
    ASSERT_EQ(chmod(from().c_str(), 0640), 0);
    EXPECT_EQ(kze_file_rename(from().c_str(), far.c_str()), 0);
    EXPECT_EQ(content_of(far), "x");
    EXPECT_EQ(mode_of(far), 0640U);
    EXPECT_FALSE(std::filesystem::exists(from()));
    EXPECT_THAT(names_in(name), UnorderedElementsAre("to"));

    // What can't arrive stays where it was.
    write_content(from(), "y");
    EXPECT_EQ(kze_file_rename(from().c_str(), name), EISDIR);
    EXPECT_EQ(content_of(from()), "y");
    std::filesystem::remove_all(name);
}
