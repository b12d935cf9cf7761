// Frames of both kinds, cut at every byte and with every byte changed, against the real plug-in.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <memory>
#include <vector>

#include "tests/component/plugin/load_clients.h"
#include "tests/component/plugin/load_log.h"
#include "tests/component/plugin/load_stage.h"
#include "tests/component/plugin/plugin_test.h"
#include "tests/support/process_state.h"
#include "vrdaux.h"

using kze_test::eventually;
using kze_test::raw_socket;
using load_stage::engine;

namespace {

constexpr unsigned int cmd_ioa = 102;
constexpr unsigned int cmd_hunting = 1002;
constexpr unsigned int cmd_linkage = 1004;
constexpr unsigned int cmd_cfgc_notify = 1002;  // one-way
constexpr size_t header_size = 20;

constexpr char made[] = "new task info";
constexpr char freed[] = "free task info";
constexpr char stopped[] = "kzemm_work stopped";
constexpr char broken_json[] = "load msg_json failed";
constexpr char no_text[] = "json judge failed";
constexpr char empty_text[] = "ioa rule len:";
constexpr char parsed[] = "json parse custom ioa success";
constexpr char notified[] = "do cfgc notify success";
constexpr char named[] = "handle adv threat [trust_ip] cfg msg";

// A byte's neighbours: each of its bits changed, and all of them.
constexpr unsigned int changes[] = {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80, 0xFF};

std::string changed(std::string bytes, size_t at, unsigned int by) {
    bytes[at] = static_cast<char>(static_cast<unsigned char>(bytes[at]) ^ by);
    return bytes;
}

// The plug-in's endpoint in the middle of it all.
class plugin_sweep_test : public plugin_test {
  protected:
    void SetUp() override {
        plugin_test::SetUp();
        install("load_client", client_place);
        install("load_gateway", gateway_place);
        engine::instance().reset(100000);
        const std::string logs = tree.path("var/log/agent/kzemdlmgr").string();
        log = std::make_unique<load_log>(
            std::vector<std::string>{logs + "/kzemdlmgr.log", logs + "/task/task.log"},
            std::vector<std::string>{made, freed, stopped, broken_json, no_text, empty_text, parsed,
                                     notified, named});
        start();
        loop = std::make_unique<kze_test::loop_thread>();
        ipc = std::make_unique<kze_test::temp_endpoint>(*loop);
        plugin = std::make_unique<kze_test::test_address>("agt_rpt");
        EXPECT_EQ(codes_of(cmd_linkage, {"first"}), std::vector<int>{0});
        descriptors = open_descriptors();
    }

    void TearDown() override {
        EXPECT_EQ(codes_of(cmd_linkage, {"last"}), std::vector<int>{0}) << "it answers no more";
        EXPECT_TRUE(eventually([this] { return open_descriptors() == descriptors; }))
            << open_descriptors() << " descriptors instead of " << descriptors;
        ipc.reset();
        plugin.reset();
        loop.reset();
        EXPECT_EQ(uninit(), 0);
        EXPECT_TRUE(log->await(stopped, 1));
        EXPECT_TRUE(eventually([this] { return log->count(freed) == log->count(made); }))
            << log->count(freed) << " of " << log->count(made) << " tasks were freed";
        log.reset();
        EXPECT_EQ(engine::instance().buffers_out(), 0);
        plugin_test::TearDown();
    }

    // The codes of the responses to requests with these bodies, sent together; -1 for none.
    std::vector<int> codes_of(unsigned int cmd, const std::vector<std::string> &bodies) {
        struct answer {
            int code = -1;
            kze_test::counter *ended = nullptr;
        };
        kze_test::counter ended;
        std::vector<answer> answers(bodies.size());
        for (size_t i = 0; i < bodies.size(); ++i) {
            answers[i].ended = &ended;
            EXPECT_EQ(vrd_ipc_make_request(
                          ipc->get(), plugin->get(), cmd, bodies[i].data(),
                          static_cast<unsigned int>(bodies[i].size()),
                          [](int status, unsigned int, const char *data, unsigned int len,
                             void *context) {
                              auto &to = *static_cast<answer *>(context);
                              for (int code = 0; status >= 0 && code <= 4; ++code) {
                                  if (std::string(data, len) == response_frame(code)) {
                                      to.code = code;
                                  }
                              }
                              to.ended->add();
                          },
                          &answers[i], 20),
                      0);
        }
        EXPECT_TRUE(ended.reaches(static_cast<int>(bodies.size())));
        std::vector<int> codes;
        for (const answer &each : answers) {
            codes.push_back(each.code);
        }
        return codes;
    }

    // One peer for each of these streams; all are there at once. Each sends its bytes and no more.
    void connect_and_send(const std::vector<std::string> &streams) {
        std::vector<raw_socket> peers;
        for (const std::string &bytes : streams) {
            peers.push_back(raw_socket::connect_to(tree.path("run/agt_rpt.sock").string()));
            peers.back().send(bytes);  // what breaks the format may be disconnected on its way
        }
        EXPECT_EQ(codes_of(cmd_linkage, {"between"}), std::vector<int>{0})
            << "peers that say half of something hold the others up";
        for (const raw_socket &peer : peers) {
            shutdown(peer.fd(), SHUT_WR);
        }
        for (const raw_socket &peer : peers) {
            EXPECT_TRUE(peer.ends());
        }
    }

    std::unique_ptr<load_log> log;
    std::unique_ptr<kze_test::loop_thread> loop;
    std::unique_ptr<kze_test::temp_endpoint> ipc;
    std::unique_ptr<kze_test::test_address> plugin;
    size_t descriptors = 0;
};

const std::string rule_set = R"({"rulesId":"7","rulesInfo":"r"})";

TEST_F(plugin_sweep_test, a_management_frame_cut_at_any_byte_is_invalid) {
    for (const unsigned int cmd : {cmd_hunting, cmd_ioa}) {
        const std::string whole = request_frame(rule_set);
        std::vector<std::string> cuts;
        for (size_t size = 0; size < whole.size(); ++size) {
            cuts.push_back(whole.substr(0, size));
        }
        EXPECT_EQ(codes_of(cmd, cuts), std::vector<int>(cuts.size(), 3)) << cmd;
    }
}

TEST_F(plugin_sweep_test, a_management_frame_with_any_byte_changed_has_the_code_of_its_field) {
    for (const unsigned int cmd : {cmd_hunting, cmd_ioa}) {
        const std::string whole = request_frame(rule_set);
        for (size_t at = 0; at < whole.size(); ++at) {
            // Version, protocol type and length are looked at; the rest of the header isn't.
            const bool is_checked = at < 4 || at == 8 || at == 9 || (at >= 16 && at < header_size);
            std::vector<std::string> frames;
            for (unsigned int by = 1; by < 256; by += is_checked ? 1 : 32) {
                frames.push_back(changed(whole, at, by));
            }
            const std::vector<int> codes = codes_of(cmd, frames);
            for (size_t i = 0; i < codes.size(); ++i) {
                const bool is_right = is_checked ? codes[i] == 3 : codes[i] == 0 || codes[i] == 1;
                EXPECT_TRUE(is_right)
                    << cmd << ", byte " << at << ", frame " << i << ": code " << codes[i];
            }
        }
    }
}

// One at a time, as a newer one would take the place of one that waits.
TEST_F(plugin_sweep_test, a_rule_set_cut_or_changed_at_any_byte_does_no_harm) {
    std::vector<std::string> sets;
    for (size_t at = 0; at < rule_set.size(); ++at) {
        sets.push_back(rule_set.substr(0, at));
        sets.push_back(changed(rule_set, at, changes[at % std::size(changes)]));
    }
    ASSERT_TRUE(log->await(freed, 1));
    size_t tasks = 1;
    for (const std::string &set : sets) {
        EXPECT_EQ(codes_of(cmd_ioa, {request_frame(set)}), std::vector<int>{0});
        ASSERT_TRUE(log->await(freed, ++tasks));
    }
    EXPECT_EQ(log->count(made), tasks);
    const size_t refused = log->count(broken_json) + log->count(no_text) + log->count(empty_text);
    EXPECT_EQ(refused + log->count(parsed), sets.size());
    // No text but a changed identifier or rule is one of a rule set still.
    EXPECT_EQ(log->count(parsed), engine::instance().arrival_count() - 1);
    EXPECT_GE(refused, rule_set.size());
}

// What the configuration service sends when this module has changed.
std::string change_notice() {
    const std::unique_ptr<xmsg, decltype(&xmsg_release)> message(xmsg_new("notify"), &xmsg_release);
    EXPECT_EQ(xmsg_add(message.get(), "trust_ip", 8, "", 0), XMSG_OK);
    std::string bytes(static_cast<size_t>(xmsg_pack_size(message.get())), '\0');
    EXPECT_EQ(xmsg_pack(message.get(), bytes.data(), static_cast<unsigned int>(bytes.size())),
              static_cast<int>(bytes.size()));
    return bytes;
}

// A request and a one-way message, each as it is when it is taken.
std::vector<std::string> whole_ipc_frames() {
    return {kze_test::frame_bytes(kze_test::frame_request, cmd_hunting, 7, request_frame(rule_set)),
            kze_test::frame_bytes(kze_test::frame_message, cmd_cfgc_notify, 0, change_notice())};
}

TEST_F(plugin_sweep_test, a_peer_that_stops_at_any_byte_of_an_ipc_frame_holds_nobody_up) {
    for (const std::string &whole : whole_ipc_frames()) {
        std::vector<std::string> cuts;
        for (size_t size = 0; size <= whole.size(); ++size) {
            cuts.push_back(whole.substr(0, size));
        }
        connect_and_send(cuts);
    }
    EXPECT_TRUE(log->await(named, 1));
    EXPECT_EQ(log->count(notified), 1U) << "a notice that is cut counts as one";
}

TEST_F(plugin_sweep_test, a_peer_with_any_byte_of_an_ipc_frame_changed_disturbs_nobody) {
    for (const std::string &whole : whole_ipc_frames()) {
        for (const unsigned int by : changes) {
            std::vector<std::string> streams;
            for (size_t at = 0; at < whole.size(); ++at) {
                streams.push_back(changed(whole, at, by));
            }
            connect_and_send(streams);
        }
    }
    EXPECT_TRUE(log->await(notified, 1)) << "a notice with a changed body is one still";
}

// The body is cut, not the frame around it: each is taken as a notice, and named by the whole one.
TEST_F(plugin_sweep_test, a_notice_cut_or_changed_at_any_byte_names_no_module_it_does_not_hold) {
    const std::string whole = change_notice();
    std::vector<std::string> streams;
    const auto add = [&streams](const std::string &body) {
        streams.push_back(kze_test::frame_bytes(kze_test::frame_message, cmd_cfgc_notify, 0, body));
    };
    for (size_t at = 0; at < whole.size(); ++at) {
        add(whole.substr(0, at));
    }
    connect_and_send(streams);
    ASSERT_TRUE(log->await(notified, streams.size()));
    EXPECT_EQ(log->count(named), 0U);
    for (const unsigned int by : changes) {
        streams.clear();
        for (size_t at = 0; at < whole.size(); ++at) {
            add(changed(whole, at, by));
        }
        const size_t before = log->count(notified);
        connect_and_send(streams);
        EXPECT_TRUE(log->await(notified, before + streams.size()));
    }
    const size_t before = log->count(named);
    add(whole);
    connect_and_send({streams.back()});
    EXPECT_TRUE(log->await(named, before + 1));
}

}  // namespace
