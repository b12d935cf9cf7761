/* What the service, as root, never meets: a process of which it may not know the executable. */
#include "agent/services/process_fate.h"

#include <sys/wait.h>
#include <unistd.h>

#include "agent/tests/component/services/disposal_process.h"

namespace kze_test {
namespace {

using kze::services::fate;

constexpr uid_t nobody = 65534;

/* As nobody sees it: in a child that gives up being root. */
fate fate_for_nobody(const kze::services::described_process &wanted) {
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(nobody) != 0 || setuid(nobody) != 0) {
            _exit(254);
        }
        kze::services::disposal_rules rules;
        const auto met = kze::services::dispose_of(wanted, rules);
        const bool with_reason = met.code == kzerespdsppl_re::DSP_ERROR_ENGRT_PROCESS_ENUM_INFO &&
                                 met.reason == "its executable can't be told: Permission denied";
        _exit(with_reason ? static_cast<int>(met.what) : 255);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    return static_cast<fate>(WEXITSTATUS(status));
}

TEST(ProcessFate, of_one_whose_executable_cant_be_told_is_not_that_of_another) {
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can give up its rights";
    }
    const sleeper process;
    const kze_respdsp_res_process live = described(process.pid());
    EXPECT_EQ(fate_for_nobody({live.pid(), live.create_time(), live.process_path(), live.md5()}),
              fate::failed);
    EXPECT_TRUE(process.is_alive());
}

}  // namespace
}  // namespace kze_test
