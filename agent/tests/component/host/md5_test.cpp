/* The MD5 of files. */
#include "agent/common/md5.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/common/descriptor.h"
#include "tests/support/process_state.h"
#include "tests/support/temp_tree.h"

namespace {

class md5 : public testing::Test {
  protected:
    std::string path(const std::string &name) const { return tree_.path(name); }

    kze_test::temp_tree tree_;
};

TEST_F(md5, of_known_contents) {
    tree_.write("empty", "");
    tree_.write("abc", "abc");
    tree_.write("million", std::string(1000000, 'a'));
    EXPECT_EQ(kze::md5_of_file(path("empty")), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(kze::md5_of_file(path("abc")), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(kze::md5_of_file(path("million")), "7707d6ae4e027c70eea2a935c2296f21");
}

TEST_F(md5, of_a_descriptor_is_that_of_the_whole_file_and_leaves_the_offset) {
    tree_.write("abc", "abc");
    const kze::descriptor file(open(path("abc").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(lseek(file.get(), 2, SEEK_SET), 2);
    EXPECT_EQ(kze::md5_of_descriptor(file.get()), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(lseek(file.get(), 0, SEEK_CUR), 2);
}

TEST_F(md5, there_is_none_of_what_is_missing_or_no_regular_file) {
    EXPECT_FALSE(kze::md5_of_file(path("missing")));
    EXPECT_FALSE(kze::md5_of_file(path("bin")));
    EXPECT_FALSE(kze::md5_of_file("/dev/zero"));
    EXPECT_FALSE(kze::md5_of_descriptor(-1));
}

TEST_F(md5, a_fifo_without_a_writer_does_not_hold_it_up) {
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    EXPECT_FALSE(kze::md5_of_file(path("fifo")));
}

TEST_F(md5, leaves_no_descriptor) {
    tree_.write("abc", "abc");
    const std::size_t before = kze_test::descriptor_count();
    kze::md5_of_file(path("abc"));
    kze::md5_of_file(path("bin"));
    EXPECT_EQ(kze_test::descriptor_count(), before);
}

}  // namespace
