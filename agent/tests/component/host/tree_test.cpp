/* Paths of the agent's tree. */
#include "agent/common/tree.h"

#include <gtest/gtest.h>

#include <climits>

#include "tests/support/temp_tree.h"

namespace {

TEST(tree_path, begins_where_the_programs_are) {
    const kze_test::temp_tree tree;
    EXPECT_EQ(kze::tree_path("@/../var/lib"), tree.path("bin/../var/lib"));
    EXPECT_EQ(kze::tree_path("/an/absolute/path"), "/an/absolute/path");
}

TEST(tree_path, is_empty_when_it_is_too_long) {
    EXPECT_EQ(kze::tree_path("@/" + std::string(PATH_MAX, 'x')), "");
}

}  // namespace
