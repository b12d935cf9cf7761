// The bytes of a packed message, and what becomes of bytes that aren't one.
#include <set>

#include "xmsg_test.h"

using namespace std::string_literals;

namespace {

// The example of the format's page.
const std::string example =
    "\x92"
    "\xc4\x08"
    "trust_ip"
    "\x81"
    "\xc4\x06"
    "module"
    "\xc4\x08"
    "trust_ip"s;
// Where it has types and lengths; everywhere else is content.
const std::set<std::size_t> structure = {0, 1, 2, 11, 12, 13, 20, 21};
constexpr std::size_t name_end = 11;

message example_message() {
    message msg = new_message("trust_ip");
    EXPECT_EQ(add(msg, "module", "trust_ip"), XMSG_OK);
    return msg;
}

// A message with each form of a length that packing writes.
message message_of_all_forms() {
    message msg = new_message("forms");
    for (const std::size_t size : {0U, 1U, 255U, 256U, 65535U, 65536U})
        EXPECT_EQ(add(msg, "value of " + std::to_string(size), std::string(size, 'v')), XMSG_OK);
    EXPECT_EQ(add(msg, std::string(255, 'k'), "key of 255"), XMSG_OK);
    EXPECT_EQ(add(msg, std::string(256, 'k'), "key of 256"), XMSG_OK);
    return msg;
}

}  // namespace

TEST(xmsg_format, writes_the_bytes_of_its_documented_example) {
    EXPECT_EQ(packed(example_message()), example);
}

TEST(xmsg_format, reads_the_bytes_of_its_documented_example) {
    const message msg = unpacked(example);
    EXPECT_EQ(get(msg, "module"), "trust_ip");
    EXPECT_EQ(packed(msg), example);
}

TEST(xmsg_format, writes_a_message_without_fields) {
    EXPECT_EQ(packed(new_message("")), "\x92\xc4\x00\x80"s);
    EXPECT_EQ(packed(unpacked("\x92\xc4\x00\x80"s)), "\x92\xc4\x00\x80"s);
}

TEST(xmsg_format, writes_lengths_in_the_shortest_form) {
    for (const auto &[size, begin] : {std::pair{0U, "\xc4\x00"s},
                                      {255U, "\xc4\xff"s},
                                      {256U, "\xc5\x01\x00"s},
                                      {65535U, "\xc5\xff\xff"s},
                                      {65536U, "\xc6\x00\x01\x00\x00"s}}) {
        const message msg = new_message();
        ASSERT_EQ(add(msg, "k", std::string(size, 'v')), XMSG_OK);
        EXPECT_TRUE(packed(msg) == head() + "\x81" + bin8("k") + begin + std::string(size, 'v'))
            << size;
    }
}

TEST(xmsg_format, writes_the_number_of_fields_in_the_shortest_form) {
    for (const auto &[count, begin] : {std::pair{15, "\x8f"s},
                                       {16, "\xde\x00\x10"s},
                                       {65535, "\xde\xff\xff"s},
                                       {65536, "\xdf\x00\x01\x00\x00"s}}) {
        const message msg = new_message();
        for (int i = 0; i < count; ++i)
            ASSERT_EQ(add(msg, std::to_string(i), ""), XMSG_OK);
        EXPECT_EQ(packed(msg).substr(0, (head() + begin).size()), head() + begin) << count;
    }
}

TEST(xmsg_format, writes_equal_bytes_for_equal_messages_added_in_other_orders) {
    const message one = new_message();
    const message other = new_message();
    EXPECT_EQ(add(one, "a", "1"), XMSG_OK);
    EXPECT_EQ(add(one, "\xff", "2"), XMSG_OK);
    EXPECT_EQ(add(other, "\xff", "2"), XMSG_OK);
    EXPECT_EQ(add(other, "a", "1"), XMSG_OK);
    const std::string bytes = head() + "\x82" + bin8("a") + bin8("1") + bin8("\xff") + bin8("2");
    EXPECT_EQ(packed(one), bytes);
    EXPECT_EQ(packed(other), bytes);
}

TEST(xmsg_format, fills_a_buffer_of_exactly_its_size_and_nothing_of_a_smaller_one) {
    const message msg = example_message();
    const int size = xmsg_pack_size(msg.get());
    ASSERT_EQ(size, static_cast<int>(example.size()));
    for (int room = 0; room < size; ++room) {
        std::string buffer(example.size(), '?');
        EXPECT_EQ(xmsg_pack(msg.get(), buffer.data(), static_cast<unsigned int>(room)), -1);
        EXPECT_EQ(buffer, std::string(example.size(), '?'));
    }
    std::string buffer(example.size() + 3, '?');
    EXPECT_EQ(xmsg_pack(msg.get(), buffer.data(), static_cast<unsigned int>(size)), size);
    EXPECT_EQ(buffer, example + "???");
    EXPECT_EQ(xmsg_pack(msg.get(), buffer.data(), static_cast<unsigned int>(size + 3)), size);
    EXPECT_EQ(buffer, example + "???");
}

TEST(xmsg_format, brings_every_form_over_whole) {
    const message msg = message_of_all_forms();
    const message received = unpacked(packed(msg));
    ASSERT_NE(received, nullptr);
    EXPECT_TRUE(packed(received) == packed(msg));
    EXPECT_EQ(get(received, "value of 65536"), std::string(65536, 'v'));
    EXPECT_EQ(get(received, std::string(256, 'k')), "key of 256");
}

TEST(xmsg_format, reads_longer_forms_and_any_order_of_the_fields) {
    const message msg = unpacked("\xdc\x00\x02"s + bin32("test") + map32(2) + bin16("b") +
                                 bin8("2") + bin32("a") + bin16("1"));
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(packed(msg), head() + "\x82" + bin8("a") + bin8("1") + bin8("b") + bin8("2"));
    EXPECT_NE(unpacked("\xdd\x00\x00\x00\x02"s + bin16("test") + "\xde\x00\x00"s), nullptr);
}

TEST(xmsg_format, refuses_a_message_cut_off_at_any_byte) {
    for (std::size_t size = 0; size < example.size(); ++size)
        EXPECT_EQ(unpacked(example.substr(0, size)), nullptr) << size;
    const message two_fields = example_message();
    ASSERT_EQ(add(two_fields, "second", ""), XMSG_OK);
    const std::string bytes = packed(two_fields);
    for (std::size_t size = 0; size < bytes.size(); ++size)
        EXPECT_EQ(unpacked(bytes.substr(0, size)), nullptr) << size;
}

TEST(xmsg_format, refuses_a_great_message_cut_off_around_each_of_its_lengths) {
    const std::string bytes = packed(message_of_all_forms());
    for (std::size_t size = 0; size < bytes.size(); size += size % 256 < 16 ? 1 : 61)
        ASSERT_EQ(unpacked(std::string_view(bytes).substr(0, size)), nullptr) << size;
    EXPECT_EQ(unpacked(std::string_view(bytes).substr(0, bytes.size() - 1)), nullptr);
}

TEST(xmsg_format, refuses_a_change_of_any_type_or_length_and_takes_content_as_it_comes) {
    for (std::size_t at = 0; at < example.size(); ++at) {
        for (int change = 1; change < 256; ++change) {
            std::string bytes = example;
            bytes[at] = static_cast<char>(bytes[at] ^ change);
            const message msg = unpacked(bytes);
            const bool cuts_the_name = at < name_end && bytes[at] == '\0';
            if (structure.count(at) != 0 || cuts_the_name) {
                EXPECT_EQ(msg, nullptr) << at << " " << change;
            } else {
                ASSERT_NE(msg, nullptr) << at << " " << change;
                EXPECT_EQ(packed(msg), bytes);
            }
        }
    }
}

TEST(xmsg_format, refuses_bytes_that_follow_the_message) {
    for (int byte = 0; byte < 256; ++byte)
        EXPECT_EQ(unpacked(example + static_cast<char>(byte)), nullptr) << byte;
    EXPECT_EQ(unpacked(example + example), nullptr);
}

TEST(xmsg_format, refuses_a_key_that_stands_twice) {
    const std::string field = bin8("key") + bin8("value");
    EXPECT_NE(unpacked(head() + "\x81" + field), nullptr);
    EXPECT_EQ(unpacked(head() + "\x82" + field + field), nullptr);
    EXPECT_EQ(unpacked(head() + "\x82" + field + bin16("key") + bin8("other")), nullptr);
}

TEST(xmsg_format, refuses_every_other_type_in_each_place) {
    const std::string others[] = {
        "\x00"s,                                  // positive fixint
        "\xff"s,                                  // negative fixint
        "\xc0"s,                                  // nil
        "\xc1"s,                                  // never used
        "\xc2"s,                                  // false
        "\xc3"s,                                  // true
        "\xca\x3f\x80\x00\x00"s,                  // float 32
        "\xcb\x3f\xf0\x00\x00\x00\x00\x00\x00"s,  // float 64
        "\xcc\x01"s,                              // uint 8
        "\xcd\x00\x01"s,                          // uint 16
        "\xce\x00\x00\x00\x01"s,                  // uint 32
        "\xcf\x00\x00\x00\x00\x00\x00\x00\x01"s,  // uint 64
        "\xd0\xff"s,                              // int 8
        "\xd1\xff\xff"s,                          // int 16
        "\xd2\xff\xff\xff\xff"s,                  // int 32
        "\xd3\xff\xff\xff\xff\xff\xff\xff\xff"s,  // int 64
        "\xd4\x01x"s,                             // fixext 1
        "\xd5\x01xx"s,                            // fixext 2
        "\xd6\x01xxxx"s,                          // fixext 4
        "\xd7\x01xxxxxxxx"s,                      // fixext 8
        "\xd8\x01xxxxxxxxxxxxxxxx"s,              // fixext 16
        "\xc7\x01\x01x"s,                         // ext 8
        "\xc8\x00\x01\x01x"s,                     // ext 16
        "\xc9\x00\x00\x00\x01\x01x"s,             // ext 32
        "\xa0"s,                                  // empty fixstr
        "\xa1x"s,                                 // fixstr
        "\xd9\x01x"s,                             // str 8
        "\xda\x00\x01x"s,                         // str 16
        "\xdb\x00\x00\x00\x01x"s,                 // str 32
        "\x90"s,                                  // empty array
        "\x92\xc4\x00\xc4\x00"s,                  // array of two
        "\x80"s,                                  // empty map
        "\x81\xc4\x00\xc4\x00"s,                  // map
    };
    for (const std::string &other : others) {
        SCOPED_TRACE(::testing::PrintToString(other));
        EXPECT_EQ(unpacked(other), nullptr);
        EXPECT_EQ(unpacked("\x92" + other + "\x80"), nullptr);
        if (other != "\x80" && other != "\x81\xc4\x00\xc4\x00"s) {
            EXPECT_EQ(unpacked(head() + other), nullptr);
        }
        EXPECT_EQ(unpacked(head() + "\x81" + other + bin8("value")), nullptr);
        EXPECT_EQ(unpacked(head() + "\x81" + bin8("key") + other), nullptr);
    }
}

TEST(xmsg_format, refuses_arrays_of_other_sizes) {
    EXPECT_EQ(unpacked("\x91" + bin8("test")), nullptr);
    EXPECT_EQ(unpacked("\x93" + bin8("test") + "\x80\x80"), nullptr);
    EXPECT_EQ(unpacked("\x93" + bin8("test") + "\x80" + bin8("")), nullptr);
    EXPECT_EQ(unpacked("\x92" + bin8("test") + bin8("test")), nullptr);
}

TEST(xmsg_format, reads_a_name_a_key_and_a_value_up_to_their_limits_and_refuses_one_byte_more) {
    const std::string longest_name(XMSG_MAX_NAME, 'n');
    EXPECT_NE(unpacked("\x92" + bin32(longest_name) + "\x80"), nullptr);
    EXPECT_EQ(unpacked("\x92" + bin32(longest_name + "n") + "\x80"), nullptr);

    const std::string longest_key(XMSG_MAX_KEY, 'k');
    EXPECT_NE(unpacked(head() + "\x81" + bin32(longest_key) + bin8("")), nullptr);
    EXPECT_EQ(unpacked(head() + "\x81" + bin32(longest_key + "k") + bin8("")), nullptr);

    const std::string longest_value(XMSG_MAX_VALUE, 'v');
    EXPECT_NE(unpacked(head() + "\x81" + bin8("k") + bin32(longest_value)), nullptr);
    EXPECT_EQ(unpacked(head() + "\x81" + bin8("k") + bin32(longest_value + "v")), nullptr);
}

TEST(xmsg_format, refuses_more_fields_than_a_message_can_hold) {
    std::string fields;
    for (int i = 0; i < XMSG_MAX_FIELDS; ++i)
        fields += bin8(std::to_string(i)) + bin8("");
    EXPECT_NE(unpacked(head() + map32(XMSG_MAX_FIELDS) + fields), nullptr);
    EXPECT_EQ(unpacked(head() + map32(XMSG_MAX_FIELDS + 1) + fields + bin8("x") + bin8("")),
              nullptr);
}

TEST(xmsg_format, refuses_a_name_with_a_0_byte) {
    EXPECT_EQ(unpacked("\x92" + bin8("\0"s) + "\x80"), nullptr);
    EXPECT_EQ(unpacked("\x92" + bin8("te\0st"s) + "\x80"), nullptr);
    EXPECT_EQ(unpacked("\x92" + bin8("test\0"s) + "\x80"), nullptr);
}

TEST(xmsg_format, refuses_no_bytes) {
    EXPECT_EQ(xmsg_unpack("", 0), nullptr);
}
