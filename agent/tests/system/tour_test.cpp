/* The tour of ./run --demo, as a user sees it. */
#include <csignal>

#include "agent/tests/system/agent_tree.h"
#include "tests/support/child_process.h"

namespace kze_test {
namespace {

class tour : public system_test {};

TEST_F(tour, every_step_holds_and_nothing_is_left) {
    const command_result result = run_program({KZE_TOUR, tree.path().string()});
    EXPECT_EQ(result.status, 0) << result.out << result.err << tree.logs();
    EXPECT_NE(result.out.find("All held: 22 steps"), std::string::npos) << result.out;
    expect_nothing_left(tree);
}

TEST_F(tour, a_broken_tree_ends_it_with_a_failure_and_nothing_is_left) {
    tree.remove("lib/libqdccl.so");
    const command_result result = run_program({KZE_TOUR, tree.path().string()});
    EXPECT_EQ(result.status, 1) << result.out << result.err;
    EXPECT_NE(result.out.find("did not hold"), std::string::npos) << result.out;
    expect_nothing_left(tree);
}

/* A user who has seen enough, a terminal that is closed, a job that is ended. */
TEST_F(tour, a_signal_in_its_middle_ends_it_and_nothing_is_left) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        child_process running({KZE_TOUR, tree.path().string()});
        std::string line = running.read_line();
        while (line.find("2. Capabilities") == std::string::npos && !line.empty()) {
            line = running.read_line();
            if (line.empty()) {
                line = running.read_line(); /* steps are set off by an empty line */
            }
        }
        ASSERT_NE(line.find("2. Capabilities"), std::string::npos);
        ASSERT_FALSE(tree.processes().empty());
        running.signal(number);
        const int status = running.wait();
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 128 + number);
        expect_nothing_left(tree);
    }
}

}  // namespace
}  // namespace kze_test
