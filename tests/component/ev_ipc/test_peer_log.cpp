// What an endpoint says of its peers, and when.
#include "platform/vrdipc/peer_log.h"

#include "tests/support/ev_ipc_test.h"

namespace kze_ipc {
namespace {

constexpr std::uint64_t begin = 12345;

class peer_logs : public kze_test::ev_ipc {
  protected:
    peer_log log{"service"};
};

TEST_F(peer_logs, admit_one_line_of_a_kind_in_a_minute) {
    EXPECT_TRUE(log.admits(peer_event::broken_format, begin));
    EXPECT_FALSE(log.admits(peer_event::broken_format, begin));
    EXPECT_FALSE(log.admits(peer_event::broken_format, begin + peer_log::quiet_ns - 1));
    EXPECT_EQ(log_text(), "");
    EXPECT_TRUE(log.admits(peer_event::broken_format, begin + peer_log::quiet_ns));
    EXPECT_NE(log_text().find("ipc: service: 2 more lines on broken formats were held back\n"),
              std::string::npos);
}

TEST_F(peer_logs, admit_each_kind_by_itself) {
    EXPECT_TRUE(log.admits(peer_event::broken_format, begin));
    EXPECT_TRUE(log.admits(peer_event::not_allowed, begin));
    EXPECT_TRUE(log.admits(peer_event::dropped, begin));
}

TEST_F(peer_logs, tell_at_the_end_what_was_held_back_once) {
    EXPECT_TRUE(log.admits(peer_event::cut_off, begin));
    log.finish();
    EXPECT_EQ(log_text(), "");
    EXPECT_FALSE(log.admits(peer_event::cut_off, begin + 1));
    log.finish();
    const std::string told = log_text();
    EXPECT_NE(told.find("1 more lines on connections that ended within a message were held back"),
              std::string::npos);
    log.finish();
    EXPECT_EQ(log_text(), told);
}

}  // namespace
}  // namespace kze_ipc
