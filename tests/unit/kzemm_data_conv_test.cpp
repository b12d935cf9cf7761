// Frames and compression: what the readers take and why they refuse, and what the writers make,
// byte by byte.

#include "plugin/kzemm_data_conv.h"

#include <gmock/gmock.h>
#include <malloc.h>
#include <uuid/uuid.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <set>
#include <vector>

#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/plugin_test.h"

using fakes::at;
using fakes::log_lines;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

namespace {

// What the next identifiers are made of; null: random bytes.
const unsigned char *s_fixed_uuid = nullptr;

}  // namespace

// The linker leads the calls of the code under test here.
extern "C" void __real_uuid_generate_random(uuid_t out);
extern "C" void __wrap_uuid_generate_random(uuid_t out);

void __wrap_uuid_generate_random(uuid_t out) {
    if (s_fixed_uuid != nullptr) {
        memcpy(out, s_fixed_uuid, sizeof(uuid_t));
    } else {
        __real_uuid_generate_random(out);
    }
}

namespace {

constexpr bool big_endian = true;
constexpr bool host_order = false;
constexpr uint32_t header_size = 20;
constexpr uint32_t max_msg_len = 0xA00000;

// A number as the bytes of a frame, made without any help of the code under test.
std::string number(uint32_t value, unsigned int size, bool net_order) {
    std::string bytes;
    for (unsigned int i = 0; i < size; ++i) {
        const unsigned int shift = 8 * (net_order ? size - 1 - i : i);
        bytes.push_back(static_cast<char>(value >> shift & 0xFF));
    }
    return bytes;
}

struct frame_parts {
    std::string version = "3200";
    std::string reserved_4 = std::string(2, '\0');
    uint32_t compress_flag = 0;
    uint32_t proto_type = 1;
    std::string reserved_10 = std::string(6, '\0');
    uint32_t msg_len = 0;
    bool net_order = true;
    std::string payload;
};

std::string frame_of(const frame_parts &parts) {
    return parts.version + parts.reserved_4 + number(parts.compress_flag, 2, host_order) +
           number(parts.proto_type, 2, parts.net_order) + parts.reserved_10 +
           number(parts.msg_len, 4, parts.net_order) + parts.payload;
}

// A valid frame of a payload.
frame_parts valid(const std::string &payload, bool net_order) {
    frame_parts parts;
    parts.msg_len = static_cast<uint32_t>(payload.size());
    parts.net_order = net_order;
    parts.payload = payload;
    return parts;
}

// Checks bytes that lie in a block of exactly their size, so that a read past them is seen by the
// address sanitizer.
int check(const std::string &bytes, bool net_order) {
    const auto copy = std::make_unique<char[]>(bytes.size());
    memcpy(copy.get(), bytes.data(), bytes.size());
    return check_msg_header(copy.get(), static_cast<uint32_t>(bytes.size()), net_order);
}

struct free_deleter {
    void operator()(char *data) const { free(data); }
};
using frame_ptr = std::unique_ptr<char, free_deleter>;

struct zlib_deleter {
    void operator()(char *data) const { free_zlib_data(data); }
};
using zlib_ptr = std::unique_ptr<char, zlib_deleter>;

std::string inflated(const char *data, uint32_t size, size_t expected_size) {
    std::string result(expected_size, '\0');
    uLongf length = expected_size;
    const int code = uncompress(reinterpret_cast<Bytef *>(result.data()), &length,
                                reinterpret_cast<const Bytef *>(data), size);
    EXPECT_EQ(code, Z_OK);
    result.resize(length);
    return result;
}

std::string pointer_text(const void *pointer) {
    char text[32] = {};
    snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

// Each test runs for both byte orders.
class kzemm_data_conv_order_test : public plugin_test, public testing::WithParamInterface<bool> {};

class kzemm_data_conv_test : public plugin_test {};

INSTANTIATE_TEST_SUITE_P(, kzemm_data_conv_order_test, testing::Values(big_endian, host_order),
                         [](const auto &each) { return each.param ? "big_endian" : "host_order"; });

// ---- check_msg_header ----

TEST_P(kzemm_data_conv_order_test, takes_a_valid_frame_without_a_word) {
    EXPECT_EQ(check(frame_of(valid("hello", GetParam())), GetParam()), 0);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_P(kzemm_data_conv_order_test, takes_a_frame_that_is_its_header_alone) {
    EXPECT_EQ(check(frame_of(valid("", GetParam())), GetParam()), 0);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_P(kzemm_data_conv_order_test, refuses_a_null_header_whatever_its_size) {
    EXPECT_EQ(check_msg_header(nullptr, 0, GetParam()), -1);
    EXPECT_EQ(check_msg_header(nullptr, header_size, GetParam()), -1);
    const auto refusal = at(2, "check msg header failed, header is null");
    EXPECT_THAT(log_lines(), ElementsAre(refusal, refusal));
}

TEST_P(kzemm_data_conv_order_test, refuses_less_than_a_header_before_it_reads_one) {
    const std::string frame = frame_of(valid("", GetParam()));
    EXPECT_EQ(check(frame.substr(0, 19), GetParam()), -1);
    EXPECT_EQ(check(frame.substr(0, 1), GetParam()), -1);
    EXPECT_EQ(check("", GetParam()), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "invalid message, data_size:19"),
                                         at(2, "invalid message, data_size:1"),
                                         at(2, "invalid message, data_size:0")));
}

TEST_P(kzemm_data_conv_order_test, refuses_a_trailing_byte_and_a_missing_one) {
    frame_parts parts = valid("hello", GetParam());
    parts.msg_len = 4;
    EXPECT_EQ(check(frame_of(parts), GetParam()), -1);
    parts.msg_len = 6;
    EXPECT_EQ(check(frame_of(parts), GetParam()), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "invalid message, data_size:25, msg_len:4"),
                                         at(2, "invalid message, data_size:25, msg_len:6")));
}

TEST_P(kzemm_data_conv_order_test, refuses_a_length_that_counts_the_header) {
    frame_parts parts = valid("hello", GetParam());
    parts.msg_len = 25;
    EXPECT_EQ(check(frame_of(parts), GetParam()), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "invalid message, data_size:25, msg_len:25")));
}

TEST_P(kzemm_data_conv_order_test, refuses_a_length_whose_sum_with_the_header_wraps) {
    frame_parts parts = valid("", GetParam());
    parts.msg_len = std::numeric_limits<uint32_t>::max();
    EXPECT_EQ(check(frame_of(parts), GetParam()), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(2, "invalid message, data_size:20, msg_len:4294967295")));
}

TEST_P(kzemm_data_conv_order_test, takes_the_largest_payload) {
    EXPECT_EQ(check(frame_of(valid(std::string(max_msg_len, 'x'), GetParam())), GetParam()), 0);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_P(kzemm_data_conv_order_test, refuses_one_byte_more_although_the_sizes_agree) {
    EXPECT_EQ(check(frame_of(valid(std::string(max_msg_len + 1, 'x'), GetParam())), GetParam()),
              -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(2, "invalid message, data_size:10485781, msg_len:10485761")));
}

TEST_P(kzemm_data_conv_order_test, refuses_another_version_in_each_of_its_four_bytes) {
    for (size_t i = 0; i < 4; ++i) {
        frame_parts parts = valid("hello", GetParam());
        parts.version[i] = 'x';
        EXPECT_EQ(check(frame_of(parts), GetParam()), -1);
    }
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "invalid version massage header:[x 2 0 0]"),
                                         at(2, "invalid version massage header:[3 x 0 0]"),
                                         at(2, "invalid version massage header:[3 2 x 0]"),
                                         at(2, "invalid version massage header:[3 2 0 x]")));
}

TEST_P(kzemm_data_conv_order_test, refuses_every_protocol_type_but_one) {
    for (const uint32_t type : {0U, 2U, 3U, 0x100U, 0xFFFFU}) {
        frame_parts parts = valid("hello", GetParam());
        parts.proto_type = type;
        EXPECT_EQ(check(frame_of(parts), GetParam()), -1);
    }
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "unknow proto type, proto type: 0"),
                                         at(2, "unknow proto type, proto type: 2"),
                                         at(2, "unknow proto type, proto type: 3"),
                                         at(2, "unknow proto type, proto type: 256"),
                                         at(2, "unknow proto type, proto type: 65535")));
}

TEST_P(kzemm_data_conv_order_test, tells_a_wrong_size_before_a_wrong_version_and_type) {
    frame_parts parts = valid("hello", GetParam());
    parts.msg_len = 4;
    parts.version = "abcd";
    parts.proto_type = 2;
    EXPECT_EQ(check(frame_of(parts), GetParam()), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "invalid message, data_size:25, msg_len:4")));
}

TEST_P(kzemm_data_conv_order_test, tells_a_wrong_version_before_a_wrong_type) {
    frame_parts parts = valid("hello", GetParam());
    parts.version = "abcd";
    parts.proto_type = 2;
    EXPECT_EQ(check(frame_of(parts), GetParam()), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "invalid version massage header:[a b c d]")));
}

TEST_P(kzemm_data_conv_order_test, looks_at_neither_the_reserved_bytes_nor_the_compress_flag) {
    frame_parts parts = valid("hello", GetParam());
    parts.reserved_4 = "\xFF\xFE";
    parts.reserved_10 = "abcdef";
    parts.compress_flag = 2;
    EXPECT_EQ(check(frame_of(parts), GetParam()), 0);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_P(kzemm_data_conv_order_test, reads_a_frame_at_any_address) {
    const std::string frame = frame_of(valid("hello", GetParam()));
    for (size_t offset = 0; offset < 8; ++offset) {
        const std::string shifted = std::string(offset, 'x') + frame;
        EXPECT_EQ(check_msg_header(shifted.data() + offset, static_cast<uint32_t>(frame.size()),
                                   GetParam()),
                  0);
    }
}

TEST_F(kzemm_data_conv_test, refuses_a_host_order_length_where_big_endian_is_due) {
    EXPECT_EQ(check(frame_of(valid("hello", host_order)), big_endian), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "invalid message, data_size:25, msg_len:83886080")));
}

TEST_F(kzemm_data_conv_test, refuses_a_big_endian_length_where_host_order_is_due) {
    EXPECT_EQ(check(frame_of(valid("hello", big_endian)), host_order), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "invalid message, data_size:25, msg_len:83886080")));
}

TEST_F(kzemm_data_conv_test, finds_the_wrong_order_of_an_empty_frame_by_its_type) {
    EXPECT_EQ(check(frame_of(valid("", host_order)), big_endian), -1);
    EXPECT_EQ(check(frame_of(valid("", big_endian)), host_order), -1);
    const auto refusal = at(2, "unknow proto type, proto type: 256");
    EXPECT_THAT(log_lines(), ElementsAre(refusal, refusal));
}

TEST_F(kzemm_data_conv_test, refuses_a_management_response) {
    std::string response;
    add_msg_header("{}", 2, response, 2, big_endian);
    EXPECT_EQ(check(response, big_endian), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "unknow proto type, proto type: 2")));
}

TEST_F(kzemm_data_conv_test, refuses_a_compressed_frame) {
    uint32_t size = 0;
    const frame_ptr frame(add_module_head("0123456789", 100, 10, &size));
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(check_msg_header(frame.get(), size, host_order), -1);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "invalid message, data_size:30, msg_len:100")));
}

// ---- check_msg_invalid ----

class kzemm_data_conv_framed_command_test : public plugin_test,
                                            public testing::WithParamInterface<uint32_t> {};

INSTANTIATE_TEST_SUITE_P(, kzemm_data_conv_framed_command_test, testing::Values(102, 1002, 10001),
                         [](const auto &each) { return std::to_string(each.param); });

TEST_P(kzemm_data_conv_framed_command_test, takes_a_valid_frame_in_the_order_asked_for) {
    for (const bool net_order : {big_endian, host_order}) {
        const std::string frame = frame_of(valid("hello", net_order));
        EXPECT_EQ(check_msg_invalid(GetParam(), frame.data(), 25, net_order), 0);
        EXPECT_THAT(log_lines(), IsEmpty());
        EXPECT_EQ(check_msg_invalid(GetParam(), frame.data(), 25, !net_order), -1);
        fakes::clear_journal();
    }
}

TEST_P(kzemm_data_conv_framed_command_test, tells_the_reason_and_then_the_command) {
    EXPECT_EQ(check_msg_invalid(GetParam(), "x", 1, big_endian), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(2, "invalid message, data_size:1"),
                            at(2, "check msg header failed, cmd: " + std::to_string(GetParam()))));
}

TEST_P(kzemm_data_conv_framed_command_test, refuses_no_data_at_all) {
    EXPECT_EQ(check_msg_invalid(GetParam(), nullptr, 0, big_endian), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(2, "check msg header failed, header is null"),
                            at(2, "check msg header failed, cmd: " + std::to_string(GetParam()))));
}

class kzemm_data_conv_bare_command_test : public plugin_test,
                                          public testing::WithParamInterface<uint32_t> {};

INSTANTIATE_TEST_SUITE_P(, kzemm_data_conv_bare_command_test,
                         testing::Values(0, 5, 101, 103, 1001, 1003, 1004, 1005, 1010, 10000,
                                         10002),
                         [](const auto &each) { return std::to_string(each.param); });

TEST_P(kzemm_data_conv_bare_command_test, takes_any_data_without_a_look_at_its_bytes) {
    // A pointer that can't be read shows that nothing looks behind it.
    const auto *const unreadable = reinterpret_cast<const char *>(uintptr_t{1});
    EXPECT_EQ(check_msg_invalid(GetParam(), unreadable, 1, big_endian), 0);
    EXPECT_EQ(check_msg_invalid(GetParam(), unreadable, 0xFFFFFFFF, host_order), 0);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_P(kzemm_data_conv_bare_command_test, refuses_length_0_without_a_word) {
    EXPECT_EQ(check_msg_invalid(GetParam(), "x", 0, big_endian), -1);
    EXPECT_EQ(check_msg_invalid(GetParam(), nullptr, 0, host_order), -1);
    EXPECT_THAT(log_lines(), IsEmpty());
}

// ---- add_msg_header ----

TEST_P(kzemm_data_conv_order_test, frames_a_payload_byte_by_byte) {
    const std::string payload("a\0b\xFF!", 5);
    std::string out = "what was here before";
    add_msg_header(payload.data(), 5, out, 2, GetParam());
    const std::string type = GetParam() ? std::string("\0\2", 2) : std::string("\2\0", 2);
    const std::string length = GetParam() ? std::string("\0\0\0\5", 4) : std::string("\5\0\0\0", 4);
    EXPECT_EQ(out, "3200" + std::string(4, '\0') + type + std::string(6, '\0') + length + payload);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_P(kzemm_data_conv_order_test, frames_an_empty_payload_as_20_bytes) {
    std::string out;
    add_msg_header("", 0, out, 1, GetParam());
    EXPECT_EQ(out, frame_of(valid("", GetParam())));
}

TEST_P(kzemm_data_conv_order_test, makes_what_the_reader_takes) {
    std::string out;
    add_msg_header("hello", 5, out, 1, GetParam());
    EXPECT_EQ(check(out, GetParam()), 0);
}

TEST_F(kzemm_data_conv_test, takes_any_order_but_0_as_big_endian) {
    for (const int net_order : {1, 2, -1}) {
        std::string out;
        add_msg_header("hello", 5, out, 0x1234, net_order);
        EXPECT_EQ(out.substr(8, 2), "\x12\x34");
        EXPECT_EQ(out.substr(16, 4), std::string("\0\0\0\5", 4));
    }
}

TEST_F(kzemm_data_conv_test, writes_both_bytes_of_the_protocol_type) {
    std::string out;
    add_msg_header("hello", 5, out, 0x1234, 0);
    EXPECT_EQ(out.substr(8, 2), "\x34\x12");
}

TEST_F(kzemm_data_conv_test, leaves_the_output_alone_when_a_frame_cannot_be_allocated) {
    std::string out = "what was here before";
    fakes::fail_allocation(1);
    add_msg_header("hello", 5, out, 1, big_endian);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_EQ(out, "what was here before");
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "malloc 25 byte failed")));
}

// ---- string_data_add_module_head ----

// A header in which every byte tells where it comes from.
_module_header template_header() {
    _module_header header;
    memcpy(&header, "abcdefghijklmnopqrst", sizeof(header));
    return header;
}

TEST_P(kzemm_data_conv_order_test, copies_the_template_and_overwrites_length_and_type) {
    const _module_header header = template_header();
    uint32_t out_len = 0;
    const frame_ptr frame(
        string_data_add_module_head(std::string("a\0b", 3), &header, out_len, GetParam()));
    ASSERT_NE(frame, nullptr);
    ASSERT_EQ(out_len, 23U);
    const std::string type = GetParam() ? std::string("\0\1", 2) : std::string("\1\0", 2);
    const std::string length = GetParam() ? std::string("\0\0\0\3", 4) : std::string("\3\0\0\0", 4);
    EXPECT_EQ(std::string(frame.get(), out_len),
              "abcdefgh" + type + "klmnop" + length + std::string("a\0b", 3));
    EXPECT_THAT(log_lines(), ElementsAre(at(4, "string data add module header done, data len: 3")));
}

TEST_P(kzemm_data_conv_order_test, answers_a_valid_frame_with_one_that_the_reader_takes) {
    _module_header header;
    memcpy(&header, frame_of(valid("", !GetParam())).data(), sizeof(header));
    uint32_t out_len = 0;
    const frame_ptr frame(string_data_add_module_head("hello", &header, out_len, GetParam()));
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(check_msg_header(frame.get(), out_len, GetParam()), 0);
}

TEST_F(kzemm_data_conv_test, frames_an_empty_string_as_20_bytes_with_length_0) {
    const _module_header header = template_header();
    uint32_t out_len = 0;
    const frame_ptr frame(string_data_add_module_head("", &header, out_len, big_endian));
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(out_len, header_size);
    EXPECT_EQ(std::string(frame.get() + 16, 4), std::string(4, '\0'));
}

TEST_F(kzemm_data_conv_test, leaves_the_template_as_it_was) {
    const _module_header header = template_header();
    uint32_t out_len = 0;
    const frame_ptr frame(string_data_add_module_head("hello", &header, out_len, big_endian));
    EXPECT_EQ(memcmp(&header, "abcdefghijklmnopqrst", sizeof(header)), 0);
}

TEST_F(kzemm_data_conv_test, reads_a_template_at_any_address) {
    for (size_t offset = 0; offset < 4; ++offset) {
        const std::string shifted = std::string(offset, 'x') + "abcdefghijklmnopqrst";
        uint32_t out_len = 0;
        const frame_ptr frame(string_data_add_module_head(
            "", reinterpret_cast<const _module_header *>(shifted.data() + offset), out_len,
            big_endian));
        ASSERT_NE(frame, nullptr);
        EXPECT_EQ(std::string(frame.get(), 8), "abcdefgh");
    }
}

TEST_F(kzemm_data_conv_test, sets_the_length_before_the_allocation_fails) {
    const _module_header header = template_header();
    uint32_t out_len = 0;
    fakes::fail_allocation(1);
    EXPECT_EQ(string_data_add_module_head("hello", &header, out_len, big_endian), nullptr);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_EQ(out_len, 25U);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "malloc 25 byte for out_data failed")));
}

// ---- add_module_head ----

TEST_F(kzemm_data_conv_test, frames_compressed_data_byte_by_byte_in_host_order) {
    uint32_t out_len = 0;
    const frame_ptr frame(add_module_head("z\0z", 0x01020304, 3, &out_len));
    ASSERT_NE(frame, nullptr);
    ASSERT_EQ(out_len, 23U);
    EXPECT_EQ(std::string(frame.get(), out_len),
              std::string("3200\0\0\2\0\2\0\0\0\0\0\0\0\4\3\2\1z\0z", 23));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_data_conv_test, refuses_each_missing_parameter_of_a_compressed_frame) {
    const char *const data = "zzz";
    uint32_t out_len = 77;
    EXPECT_EQ(add_module_head(nullptr, 9, 3, &out_len), nullptr);
    EXPECT_EQ(add_module_head(data, 0, 3, &out_len), nullptr);
    EXPECT_EQ(add_module_head(data, 9, 0, &out_len), nullptr);
    EXPECT_EQ(add_module_head(data, 9, 3, nullptr), nullptr);
    EXPECT_EQ(out_len, 77U);
    const std::string begin = "params invalid, data: " + pointer_text(data);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(1, "params invalid, data: (nil), raw_size: 9, comp_size: 3"),
                            at(1, begin + ", raw_size: 0, comp_size: 3"),
                            at(1, begin + ", raw_size: 9, comp_size: 0"),
                            at(1, begin + ", raw_size: 9, comp_size: 3")));
}

TEST_F(kzemm_data_conv_test, leaves_the_length_alone_when_a_compressed_frame_cannot_be_allocated) {
    uint32_t out_len = 77;
    fakes::fail_allocation(1);
    EXPECT_EQ(add_module_head("zzz", 9, 3, &out_len), nullptr);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_EQ(out_len, 77U);
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "malloc 23 byte for send msg failed.")));
}

// ---- zlib_compress_data ----

TEST_F(kzemm_data_conv_test, compresses_at_the_default_level_and_inflates_back) {
    const std::string data = std::string(1000, 'a') + std::string(1000, '\0');
    uint32_t size = 0;
    const zlib_ptr compressed(zlib_compress_data(data.data(), 2000, &size));
    ASSERT_NE(compressed, nullptr);

    std::string expected(compressBound(2000), '\0');
    uLongf expected_size = expected.size();
    ASSERT_EQ(compress2(reinterpret_cast<Bytef *>(expected.data()), &expected_size,
                        reinterpret_cast<const Bytef *>(data.data()), 2000, Z_DEFAULT_COMPRESSION),
              Z_OK);
    expected.resize(expected_size);
    EXPECT_EQ(std::string(compressed.get(), size), expected);
    EXPECT_EQ(inflated(compressed.get(), size, 2000), data);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(kzemm_data_conv_test, compresses_a_single_byte) {
    uint32_t size = 0;
    const zlib_ptr compressed(zlib_compress_data("x", 1, &size));
    ASSERT_NE(compressed, nullptr);
    EXPECT_EQ(inflated(compressed.get(), size, 1), "x");
}

// Before each compression the memory that it will get is written full and given back.
TEST_F(kzemm_data_conv_test, hands_out_the_whole_bound_with_zeros_behind_the_stream) {
    // Large blocks too are kept and used again.
    mallopt(M_MMAP_THRESHOLD, 64 * 1024 * 1024);
    mallopt(M_TRIM_THRESHOLD, 64 * 1024 * 1024);
    for (const size_t data_size : {1000U, 4096U, 131000U, 131072U, 140000U, 1048576U, 1048583U}) {
        SCOPED_TRACE(data_size);
        const size_t bound = compressBound(data_size);
        const std::string data(data_size, 'a');
        { const std::vector<char> dirty(bound, 'x'); }
        uint32_t size = 0;
        const zlib_ptr compressed(
            zlib_compress_data(data.data(), static_cast<uint32_t>(data_size), &size));
        ASSERT_NE(compressed, nullptr);
        ASSERT_LT(size, bound);
        EXPECT_EQ(std::count(compressed.get() + size, compressed.get() + bound, '\0'),
                  static_cast<std::ptrdiff_t>(bound - size));
        EXPECT_TRUE(inflated(compressed.get(), size, data_size) == data);
    }
}

TEST_F(kzemm_data_conv_test, refuses_each_missing_parameter_of_a_compression) {
    const char *const data = "x";
    uint32_t size = 77;
    EXPECT_EQ(zlib_compress_data(nullptr, 1, &size), nullptr);
    EXPECT_EQ(zlib_compress_data(data, 0, &size), nullptr);
    EXPECT_EQ(zlib_compress_data(data, 1, nullptr), nullptr);
    EXPECT_EQ(size, 77U);
    const std::string begin = "params invalid, in_data: " + pointer_text(data);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(1, "params invalid, in_data: (nil), in_size: 1"),
                            at(1, begin + ", in_size: 0"), at(1, begin + ", in_size: 1")));
}

TEST_F(kzemm_data_conv_test, gives_up_when_the_bound_is_0) {
    uint32_t size = 77;
    fakes::compress_bound_fails();
    EXPECT_EQ(zlib_compress_data("x", 1, &size), nullptr);
    EXPECT_EQ(size, 77U);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "compressBound failed")));
}

TEST_F(kzemm_data_conv_test, gives_up_when_the_buffer_cannot_be_allocated) {
    const std::string data(1000, 'a');
    const uLong bound = compressBound(1000);
    uint32_t size = 77;
    fakes::fail_allocation(1);
    EXPECT_EQ(zlib_compress_data(data.data(), 1000, &size), nullptr);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_EQ(size, 77U);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(1, "new " + std::to_string(bound) + " byte for buffer failed")));
}

TEST_F(kzemm_data_conv_test, releases_its_buffer_when_the_compression_fails) {
    uint32_t size = 77;
    for (const int code : {Z_BUF_ERROR, Z_MEM_ERROR}) {
        fakes::compress_fails(code);
        EXPECT_EQ(zlib_compress_data("x", 1, &size), nullptr);
        EXPECT_TRUE(fakes::watched_was_released());
    }
    EXPECT_EQ(size, 77U);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "compress buffer failed with code = -5"),
                                         at(1, "compress buffer failed with code = -4")));
}

TEST_F(kzemm_data_conv_test, releases_what_the_compression_gave_and_takes_null) {
    uint32_t size = 0;
    char *const compressed = zlib_compress_data("x", 1, &size);
    fakes::watch_release(compressed);
    free_zlib_data(nullptr);
    EXPECT_FALSE(fakes::watched_was_released());
    free_zlib_data(compressed);
    EXPECT_TRUE(fakes::watched_was_released());
}

// ---- gen_uuid ----

TEST_F(kzemm_data_conv_test, makes_32_upper_case_digits_anew_each_time) {
    constexpr size_t number_made = 1000;
    std::set<std::string> made;
    for (size_t i = 0; i < number_made; ++i) {
        const std::string id = gen_uuid();
        EXPECT_THAT(id, MatchesRegex("[0-9A-F]{32}"));
        made.insert(id);
    }
    EXPECT_EQ(made.size(), number_made);
}

TEST_F(kzemm_data_conv_test, prints_the_random_bytes_in_their_order) {
    const uuid_t bytes = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E, 0x6F, 0x70,
                          0x81, 0x92, 0xA3, 0xB4, 0xC5, 0xD6, 0xE7, 0xFF};
    s_fixed_uuid = bytes;
    const std::string id = gen_uuid();
    s_fixed_uuid = nullptr;
    EXPECT_EQ(id, "001A2B3C4D5E6F708192A3B4C5D6E7FF");
}

}  // namespace
