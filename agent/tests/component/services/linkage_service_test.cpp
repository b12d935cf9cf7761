/* The linkage service, sent to as the plug-in does. */
#include "agent/services/record_forms.h"
#include "agent/tests/component/services/service_process.h"

namespace kze_test {
namespace {

using nlohmann::json;
using texts = std::vector<std::string>;

constexpr unsigned int linkage_reply = 5;

class LinkageService : public service_test {
  protected:
    LinkageService() : service_test("agt_lkg") {}

    void send(unsigned int cmd, const std::string &body) {
        loop_thread loop;
        temp_endpoint sending(loop);
        const test_address service("agt_lkg");
        EXPECT_EQ(vrd_ipc_send(sending.get(), service.get(), cmd, body.data(),
                               static_cast<unsigned int>(body.size())),
                  VRD_IPC_OK);
        /* What was sent before it on the connection is behind us when this is answered. */
        replies answers;
        answers.request(sending.get(), service.get(), 99, "");
        EXPECT_EQ(answers.wait(1).at(0).body, "");
    }
    texts kept() {
        texts all;
        const auto found = reader_.newest(100);
        EXPECT_TRUE(found.has_value()) << reader_.problem();
        for (std::size_t i = 0; found && i < found->size(); ++i) {
            all.push_back((*found)[i].data);
        }
        return all;
    }

    kze::record_reader reader_{tree.path("var/lib/linkage.db").string(),
                               kze::services::linkage_replies};
};

TEST_F(LinkageService, replies_are_kept_and_an_empty_one_counts_as_a_failure) {
    send(linkage_reply, "{\"found\":1}");
    send(linkage_reply, "");
    EXPECT_EQ(kept(), (texts{"{\"found\":1}", ""}));
    EXPECT_EQ(status()["results"], 1);
    EXPECT_EQ(status()["failures"], 1);
    EXPECT_EQ(status()["lost"], 0);
}

TEST_F(LinkageService, messages_of_other_commands_are_dropped_and_logged) {
    send(linkage_reply + 1, "no reply");
    EXPECT_EQ(kept(), texts());
    EXPECT_NE(service_log().find("unknown command 6, dropped"), std::string::npos);
}

TEST_F(LinkageService, large_reply_is_kept_whole) {
    const std::string large(VRD_IPC_MAX_BODY, 'x');
    send(linkage_reply, large);
    const auto found = reader_.show(1);
    ASSERT_TRUE(found && found->size() == 1) << reader_.problem();
    EXPECT_TRUE(found->front().data == large);
}

TEST_F(LinkageService, replies_outlive_a_killed_service) {
    send(linkage_reply, "before");
    kill_service();
    start();
    send(linkage_reply, "after");
    EXPECT_EQ(kept(), (texts{"before", "after"}));
}

TEST_F(LinkageService, reply_that_can_not_be_written_is_counted_and_the_next_is_kept_again) {
    std::filesystem::remove_all(tree.path("var/lib"));
    tree.write("var/lib", "no directory");
    send(linkage_reply, "lost");
    send(linkage_reply, "lost too");
    EXPECT_EQ(status()["lost"], 2);
    std::filesystem::remove(tree.path("var/lib"));
    send(linkage_reply, "kept");
    EXPECT_EQ(kept(), texts{"kept"});
    EXPECT_NE(service_log().find("2 linkage replies were lost"), std::string::npos);
}

TEST_F(LinkageService, control_request_that_is_not_known_is_refused) {
    EXPECT_EQ(control({{"op", "announce"}}).value("ok", true), false);
}

}  // namespace
}  // namespace kze_test
