// The hello that announces the stored identifier of the custom rules.

#include <climits>
#include <cstdlib>
#include <memory>

#include "tests/fakes/fake_gateway.h"
#include "tests/unit/json_faults.h"
#include "tests/unit/worker_test.h"

using fakes::at;
using fakes::gateway_sends;
using fakes::log_lines;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr int hello_type = 9;

std::string hello_text(const std::string &agent, const std::string &rule_id) {
    return "{\n\t\"agentId\":\t" + agent + ",\n\t\"rulesId\":\t\"" + rule_id + "\"\n}";
}

// Protocol type 2, in this host's order; the text has no terminator.
std::string frame(const std::string &text) {
    std::string result("3200\0\0\0\0\2\0\0\0\0\0\0\0", 16);
    for (int shift = 0; shift < 32; shift += 8) {
        result.push_back(static_cast<char>(text.size() >> shift & 0xFF));
    }
    return result + text;
}

class kzemm_work_custom_ioa_test : public worker_test {
  protected:
    void SetUp() override {
        worker_test::SetUp();
        fields::task(work) = &task;
    }

    void TearDown() override {
        fields::task(work) = nullptr;
        worker_test::TearDown();
    }

    kzemm_task task;
};

TEST_F(kzemm_work_custom_ioa_test, the_hello_carries_the_stored_identifier) {
    config::ctmioa_rule_id() = "id-1";
    work.send_ctm_helloinfo();
    const std::string text = hello_text("4711", "id-1");
    ASSERT_THAT(gateway_sends(), SizeIs(1));
    EXPECT_EQ(gateway_sends()[0].type, hello_type);
    EXPECT_EQ(gateway_sends()[0].data, frame(text));
    EXPECT_THAT(
        log_lines(),
        ElementsAre(at(3, "agent id:4711"), at(3, "custom ioa ret json encode:" + text),
                    at(3, "custom ioa hello msg:" + text), at(3, "send data to thtgw success")));
    EXPECT_EQ(config::ctmioa_rule_id(), "id-1");
}

// One worked example, whose every byte is written out.
TEST_F(kzemm_work_custom_ioa_test, the_first_start_sends_these_54_bytes) {
    init_config();
    fakes::set_hostid(1);
    work.send_ctm_helloinfo();
    ASSERT_THAT(gateway_sends(), SizeIs(1));
    EXPECT_EQ(gateway_sends()[0].data, std::string("3200\0\0\0\0"
                                                   "\x02\0\0\0\0\0\0\0"
                                                   "\x22\0\0\0"
                                                   "{\n\t\"agentId\":\t1,"
                                                   "\n\t\"rulesId\":\t\"0\"\n}",
                                                   20 + 34));
}

TEST_F(kzemm_work_custom_ioa_test, the_hello_carries_what_the_rule_file_holds) {
    write_file("config/kzectmrule.ini", "[ioa]\nruleid=kept\n");
    init_config();
    work.send_ctm_helloinfo();
    ASSERT_THAT(gateway_sends(), SizeIs(1));
    EXPECT_EQ(gateway_sends()[0].data, frame(hello_text("4711", "kept")));
}

TEST_F(kzemm_work_custom_ioa_test, no_hello_goes_out_with_an_empty_identifier) {
    work.send_ctm_helloinfo();
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "ruleid is empty"), at(1, "build hello msg")));
    EXPECT_THAT(gateway_sends(), IsEmpty());
}

TEST_F(kzemm_work_custom_ioa_test, no_hello_goes_out_without_memory) {
    config::ctmioa_rule_id() = "id";
    const json_faults faults(1);
    work.send_ctm_helloinfo();
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "agent id:4711"), at(0, "create json obj failed"),
                                         at(1, "build hello msg")));
    EXPECT_THAT(gateway_sends(), IsEmpty());
}

TEST_F(kzemm_work_custom_ioa_test, a_refused_hello_is_told_of_and_not_sent_again) {
    config::ctmioa_rule_id() = "id";
    fakes::gateway_returns(-1);
    work.send_ctm_helloinfo();
    const std::string text = hello_text("4711", "id");
    EXPECT_THAT(log_lines(),
                ElementsAre(at(3, "agent id:4711"), at(3, "custom ioa ret json encode:" + text),
                            at(3, "custom ioa hello msg:" + text),
                            at(1, "send data to kzethtgw failed, type: 9"),
                            at(1, "send custom ioa hello failed")));
    EXPECT_THAT(gateway_sends(), SizeIs(1));
}

TEST_F(kzemm_work_custom_ioa_test, the_hello_message_is_built_from_the_given_identifier) {
    fakes::set_hostid(UINT_MAX);
    config::ctmioa_rule_id() = "another";
    char *text = nullptr;
    EXPECT_EQ(work.build_cusioa_hello_msg("a \"b\"", &text), 0);
    const std::unique_ptr<char, decltype(&free)> owned(text, free);
    EXPECT_EQ(text, hello_text("4294967295", R"(a \"b\")"));
}

TEST_F(kzemm_work_custom_ioa_test, the_hello_message_needs_an_identifier_and_a_place_to_go) {
    char *text = nullptr;
    EXPECT_EQ(work.build_cusioa_hello_msg("", &text), -1);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(work.build_cusioa_hello_msg("", nullptr), -1);
    EXPECT_EQ(work.build_cusioa_hello_msg("id", nullptr), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "ruleid is empty"), at(1, "ruleid is empty"),
                                         at(1, "str is null pointer")));
}

}  // namespace
