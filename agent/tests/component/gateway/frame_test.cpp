/* Decoding of what the gateway was handed. */
#include "agent/gateway/frame.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <string>

namespace {

using kze::gateway::decode_frame;
using kze::gateway::decode_header;
using kze::gateway::frame;

constexpr std::uint16_t compressed = 2;

std::string make_frame(std::uint16_t compress_flag, std::uint16_t proto_type, std::uint32_t msg_len,
                       const std::string &payload) {
    std::string made = "3200" + std::string(16, '\0') + payload;
    std::memcpy(&made[6], &compress_flag, 2);
    std::memcpy(&made[8], &proto_type, 2);
    std::memcpy(&made[16], &msg_len, 4);
    return made;
}

std::string deflated(const std::string &text) {
    uLongf size = compressBound(text.size());
    std::string out(size, '\0');
    compress(reinterpret_cast<Bytef *>(out.data()), &size,
             reinterpret_cast<const Bytef *>(text.data()), text.size());
    out.resize(size);
    return out;
}

std::string origin_frame(const std::string &text, std::size_t claimed) {
    return make_frame(compressed, 2, static_cast<std::uint32_t>(claimed), deflated(text));
}

TEST(frame, a_plain_frame_in_host_order_shows_its_fields_and_payload) {
    const frame decoded = decode_frame(make_frame(0, 2, 5, "hello"));
    EXPECT_TRUE(decoded.has_header);
    EXPECT_EQ(decoded.problem, "");
    EXPECT_FALSE(decoded.net_order);
    EXPECT_EQ(decoded.compress_flag, 0U);
    EXPECT_EQ(decoded.proto_type, 2U);
    EXPECT_EQ(decoded.msg_len, 5U);
    EXPECT_EQ(decoded.payload_size, 5U);
    EXPECT_EQ(decoded.content, "hello");
}

TEST(frame, a_plain_frame_in_network_order_is_known_by_its_length) {
    const frame decoded =
        decode_frame(make_frame(0, __builtin_bswap16(1), __builtin_bswap32(5), "hello"));
    EXPECT_EQ(decoded.problem, "");
    EXPECT_TRUE(decoded.net_order);
    EXPECT_EQ(decoded.proto_type, 1U);
    EXPECT_EQ(decoded.msg_len, 5U);
}

TEST(frame, an_empty_frames_order_is_told_by_its_protocol_number) {
    EXPECT_FALSE(decode_frame(make_frame(0, 1, 0, "")).net_order);
    EXPECT_TRUE(decode_frame(make_frame(0, __builtin_bswap16(1), 0, "")).net_order);
}

TEST(frame, an_origin_frame_is_inflated_to_the_size_its_header_says) {
    const std::string text(100000, 'o');
    const std::string made = origin_frame(text, text.size());
    const frame decoded = decode_frame(made);
    EXPECT_EQ(decoded.problem, "");
    EXPECT_EQ(decoded.compress_flag, 2U);
    EXPECT_EQ(decoded.msg_len, 100000U);
    EXPECT_EQ(decoded.payload_size, made.size() - 20);
    EXPECT_EQ(decoded.content, text);
}

TEST(frame, what_has_less_than_a_header_is_no_frame) {
    const frame decoded = decode_frame(std::string(19, '3'));
    EXPECT_FALSE(decoded.has_header);
    EXPECT_EQ(decoded.problem, "it is shorter than the header of 20 bytes");
}

TEST(frame, what_begins_with_another_version_is_no_frame) {
    const frame decoded = decode_frame("{\"json\": \"without a header\"}");
    EXPECT_FALSE(decoded.has_header);
    EXPECT_EQ(decoded.problem, "it doesn't begin with the version \"3200\"");
}

TEST(frame, a_length_that_fits_in_neither_order_is_told) {
    const frame decoded = decode_frame(make_frame(0, 2, 4, "hello"));
    EXPECT_TRUE(decoded.has_header);
    EXPECT_EQ(decoded.problem, "its header says 4 bytes, 5 bytes follow");
    EXPECT_EQ(decoded.content, "hello");
}

TEST(frame, a_bomb_is_inflated_no_further_than_its_header_says) {
    const frame decoded = decode_frame(origin_frame(std::string(10000000, 'b'), 1000));
    EXPECT_EQ(decoded.problem, "it inflates to more than the 1000 bytes that its header says");
    EXPECT_EQ(decoded.content.size(), 1000U);
}

TEST(frame, one_byte_more_or_less_than_the_header_says_is_told) {
    const std::string text(1000, 'x');
    EXPECT_EQ(decode_frame(origin_frame(text, 999)).problem,
              "it inflates to more than the 999 bytes that its header says");
    EXPECT_EQ(decode_frame(origin_frame(text, 1001)).problem,
              "it inflates to 1000 bytes, its header says 1001 bytes");
}

TEST(frame, a_length_above_the_bound_is_not_inflated_at_all) {
    const frame decoded = decode_frame(origin_frame("x", kze::gateway::inflate_bound + 1));
    EXPECT_EQ(decoded.problem,
              "its header says 268435457 bytes, more than the 268435456 bytes "
              "that are inflated");
    EXPECT_EQ(decoded.content, "");
}

TEST(frame, a_length_at_the_bound_costs_no_more_than_what_is_there) {
    const frame decoded = decode_frame(origin_frame("x", kze::gateway::inflate_bound));
    EXPECT_EQ(decoded.problem, "it inflates to 1 byte, its header says 268435456 bytes");
    EXPECT_LT(decoded.content.capacity(), 1000000U);
}

TEST(frame, a_stream_that_breaks_off_keeps_what_was_inflated) {
    std::string made = origin_frame("a text that is long enough to be cut", 36);
    made.resize(made.size() - 6);
    const frame decoded = decode_frame(made);
    EXPECT_NE(decoded.problem.find("break off"), std::string::npos) << decoded.problem;
}

TEST(frame, a_stream_that_is_none_is_told) {
    const frame decoded = decode_frame(make_frame(compressed, 2, 10, "no zlib at all"));
    EXPECT_EQ(decoded.problem, "its compressed data are damaged after 0 bytes");
}

TEST(frame, an_empty_stream_is_told) {
    const frame decoded = decode_frame(make_frame(compressed, 2, 10, ""));
    EXPECT_EQ(decoded.problem, "its compressed data break off after 0 bytes");
}

TEST(frame, bytes_behind_the_stream_are_told) {
    const frame decoded = decode_frame(origin_frame("hello", 5) + "more");
    EXPECT_EQ(decoded.problem, "4 bytes follow its compressed data");
    EXPECT_EQ(decoded.content, "hello");
}

TEST(frame, the_documented_example_is_read_as_the_documentation_says) {
    constexpr unsigned char bytes[] = {0x33, 0x32, 0x30, 0x30, 0x00, 0x00, 0x02, 0x00, 0x02,
                                       0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00,
                                       0x00, 0x00, 0x78, 0x9c, 0xcb, 0x48, 0xcd, 0xc9, 0xc9,
                                       0x07, 0x00, 0x06, 0x2c, 0x02, 0x15};
    const frame decoded = decode_frame({reinterpret_cast<const char *>(bytes), sizeof(bytes)});
    EXPECT_EQ(decoded.problem, "");
    EXPECT_EQ(decoded.proto_type, 2U);
    EXPECT_EQ(decoded.content, "hello");
}

TEST(frame, a_header_is_read_from_a_records_beginning_and_size) {
    const std::string made = make_frame(0, 2, 1000, std::string(1000, 'x'));
    const frame decoded = decode_header(std::string_view(made).substr(0, 20), made.size());
    EXPECT_EQ(decoded.problem, "");
    EXPECT_EQ(decoded.msg_len, 1000U);
    EXPECT_EQ(decoded.payload_size, 1000U);
}

}  // namespace
