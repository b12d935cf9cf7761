/* The configuration service, asked and told as the plug-in and kzectl do. */
#include "agent/central_config/store.h"
#include "agent/tests/component/services/service_process.h"
#include "vrdaux.h"

namespace kze_test {
namespace {

using nlohmann::json;
using fields = std::map<std::string, std::string>;

constexpr unsigned int module_request = 1004;
constexpr unsigned int announcement = 1002;

using message_ptr = std::unique_ptr<xmsg, decltype(&xmsg_release)>;

std::string packed(const std::string &name, const fields &content) {
    const message_ptr message(xmsg_new(name.c_str()), &xmsg_release);
    for (const auto &[key, value] : content) {
        EXPECT_EQ(xmsg_add(message.get(), key.data(), static_cast<unsigned short>(key.size()),
                           value.data(), static_cast<unsigned int>(value.size())),
                  XMSG_OK);
    }
    std::string bytes(static_cast<std::size_t>(xmsg_pack_size(message.get())), '\0');
    EXPECT_GT(xmsg_pack(message.get(), bytes.data(), static_cast<unsigned int>(bytes.size())), 0);
    return bytes;
}

class ConfigService : public service_test {
  protected:
    ConfigService() : service_test("agt_cfgc") {}

    void put(const std::string &module, const std::string &key, const std::string &text) {
        ASSERT_EQ(store_.set(module, key, {kze::config::VALUE_STRING, text}), 0)
            << store_.problem();
    }
    /* The answer's body. */
    std::string ask(unsigned int cmd, const std::string &body) {
        loop_thread loop;
        temp_endpoint asking(loop);
        const test_address service("agt_cfgc");
        replies answers;
        answers.request(asking.get(), service.get(), cmd, body);
        const replies::reply answer = answers.wait(1).at(0);
        EXPECT_EQ(answer.status, 0);
        EXPECT_EQ(answer.cmd, cmd);
        return answer.body;
    }
    std::string ask_for(const std::string &module) {
        return ask(module_request, packed(module, {{"module", module}}));
    }

    kze::config::store store_{tree.path("config/kzacfgc").string()};
};

TEST_F(ConfigService, module_is_answered_with_its_stored_fields) {
    put("/mgr/abnormal_login", "/config", "the rules");
    put("/mgr/abnormal_login", "/abnormal_ip_login_enable", "true");
    put("/mgr/abnormal_login", "/abnormal_time_login_enable", "false");
    put("/mgr/abnormal_login", "/reverseshell_enable", "true");
    EXPECT_EQ(ask_for("abnormal_login"),
              packed("abnormal_login", {{"config", "the rules"},
                                        {"abnormal_ip_login_enable", "1"},
                                        {"abnormal_time_login_enable", "0"}}));
    put("/mgr/anti_bfa", "/enable", "1");
    EXPECT_EQ(ask_for("anti_bfa"), packed("anti_bfa", {{"enable", "true"}}));
}

TEST_F(ConfigService, change_of_the_store_shows_with_the_next_request) {
    put("/mgr/base_drive", "/enable", "true");
    put("/mgr/base_drive", "/collect_enable", "true");
    EXPECT_EQ(ask_for("base_drive"),
              packed("base_drive", {{"enable", "1"}, {"collect_enable", "1"}}));
    put("/mgr/base_drive", "/collect_enable", "false");
    EXPECT_EQ(ask_for("base_drive"),
              packed("base_drive", {{"enable", "1"}, {"collect_enable", "0"}}));
}

TEST_F(ConfigService, large_trust_list_is_answered_whole) {
    std::string list = R"({"ips":")";
    list += std::string(1000000, '1') + "\"}";
    put("/mgr/trust_ip", "/white_ip", list);
    EXPECT_EQ(ask_for("trust_ip"), packed("trust_ip", {{"white_ip", list}}));
}

TEST_F(ConfigService, unknown_module_and_one_without_anything_stored_have_no_fields) {
    put("/mgr/other", "/config", "x");
    EXPECT_EQ(ask_for("other"), packed("other", {}));
    EXPECT_EQ(ask_for("abnormal_logi"), packed("abnormal_logi", {}));
    EXPECT_EQ(ask_for(""), packed("", {}));
    EXPECT_EQ(ask_for("trust_ip"), packed("trust_ip", {}));
    EXPECT_EQ(status()["refused"], 3);
    EXPECT_EQ(status()["answered"], 1);
    EXPECT_NE(service_log().find("module \"abnormal_logi\" is not known"), std::string::npos);
}

TEST_F(ConfigService, what_is_no_module_request_is_answered_with_nothing) {
    const std::string request = packed("trust_ip", {{"module", "trust_ip"}});
    EXPECT_EQ(ask(module_request, ""), "");
    EXPECT_EQ(ask(module_request, packed("trust_ip", {{"name", "trust_ip"}})), "");
    for (std::size_t size = 1; size < request.size(); ++size) {
        EXPECT_EQ(ask(module_request, request.substr(0, size)), "") << size;
    }
    EXPECT_EQ(ask(module_request + 1, request), "");
    EXPECT_EQ(ask(module_request, request), packed("trust_ip", {}));
}

TEST_F(ConfigService, broken_store_is_answered_with_nothing_until_it_is_put_right) {
    tree.write("config/kzacfgc/store.json", "{\"/mgr/trust_ip\":{");
    EXPECT_EQ(ask_for("trust_ip"), "");
    EXPECT_NE(service_log().find("store.json"), std::string::npos);
    tree.write("config/kzacfgc/store.json", R"({"/mgr/trust_ip":{"/white_ip":"{}"}})");
    EXPECT_EQ(ask_for("trust_ip"), packed("trust_ip", {{"white_ip", "{}"}}));
}

TEST_F(ConfigService, announcement_names_each_module_once_and_can_be_answered_by_requests) {
    put("/mgr/trust_ip", "/white_ip", "{}");
    loop_thread loop;
    counter came;
    replies answers;
    std::string body;
    test_endpoint plugin(loop, "agt_rpt", nullptr, [&](const incoming &message) {
        EXPECT_EQ(message.cmd, announcement);
        body = message.body;
        /* As the plug-in does: on the endpoint and the address that the message came with. */
        answers.request(message.ipc, message.from, module_request,
                        packed("trust_ip", {{"module", "trust_ip"}}));
        came.add();
    });
    const json answer =
        control({{"op", "announce"}, {"modules", {"trust_ip", "base_drive", "trust_ip"}}});
    EXPECT_EQ(answer, (json{{"ok", true}, {"delivered", true}}));
    ASSERT_TRUE(came.reaches(1));
    const message_ptr message(xmsg_unpack(body.data(), static_cast<unsigned int>(body.size())),
                              &xmsg_release);
    EXPECT_NE(xmsg_get(message.get(), "trust_ip", 8, nullptr, nullptr), nullptr);
    EXPECT_NE(xmsg_get(message.get(), "base_drive", 10, nullptr, nullptr), nullptr);
    EXPECT_EQ(xmsg_get(message.get(), "anti_bfa", 8, nullptr, nullptr), nullptr);
    EXPECT_EQ(answers.wait(1).at(0).body, packed("trust_ip", {{"white_ip", "{}"}}));
    EXPECT_EQ(status()["announced"], 1);
}

TEST_F(ConfigService, announcement_that_nobody_takes_says_so) {
    const json answer = control({{"op", "announce"}, {"modules", {"trust_ip"}}});
    EXPECT_EQ(answer.value("delivered", true), false);
    EXPECT_NE(answer.value("problem", "").find("agt_rpt"), std::string::npos) << answer;
    EXPECT_EQ(status()["announced"], 0);
}

TEST_F(ConfigService, control_requests_that_make_no_sense_are_refused) {
    const json many(std::vector<std::string>(65, "trust_ip"));
    for (const json &wrong :
         {json{{"op", "announce"}}, json{{"op", "announce"}, {"modules", json::array()}},
          json{{"op", "announce"}, {"modules", "trust_ip"}},
          json{{"op", "announce"}, {"modules", {1}}}, json{{"op", "announce"}, {"modules", {""}}},
          json{{"op", "announce"}, {"modules", {std::string(256, 'x')}}},
          json{{"op", "announce"}, {"modules", many}}, json{{"op", "other"}}, json{{"op", 1}},
          json::object()}) {
        EXPECT_EQ(control(wrong).value("ok", true), false) << wrong;
    }
    EXPECT_TRUE(status().value("ok", false));
}

TEST_F(ConfigService, killed_service_starts_again_where_it_was) {
    put("/mgr/trust_ip", "/white_ip", "{}");
    kill_service();
    start();
    EXPECT_EQ(ask_for("trust_ip"), packed("trust_ip", {{"white_ip", "{}"}}));
}

TEST_F(ConfigService, second_one_in_a_tree_leaves_with_status_1) {
    child_process second({KZE_TREE "/bin/agt_cfgc"});
    const int status = second.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    EXPECT_EQ(ask_for("trust_ip"), packed("trust_ip", {}));
}

}  // namespace
}  // namespace kze_test
