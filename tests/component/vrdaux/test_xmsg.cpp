// Adding and getting: what a message holds, its limits on both sides, and wrong arguments.
#include <vector>

#include "xmsg_test.h"

namespace {

unsigned int type_of(std::string_view value) {
    const message msg = new_message();
    EXPECT_EQ(add(msg, "key", value), XMSG_OK);
    unsigned int type = 0;
    EXPECT_NE(xmsg_get(msg.get(), "key", 3, nullptr, &type), nullptr);
    return type;
}

std::string numbered(int number) {
    return "field " + std::to_string(number);
}

// Keys of one byte and values that fill the message to its limit exactly.
message filled_to_the_limit() {
    message msg = new_message();
    const std::string value(XMSG_MAX_VALUE - 1, 'v');
    for (const char *key : {"a", "b", "c", "d"})
        EXPECT_EQ(add(msg, key, value), XMSG_OK);
    return msg;
}

}  // namespace

TEST(xmsg, gives_back_each_value_under_its_key) {
    const message msg = new_message("trust_ip");
    EXPECT_EQ(add(msg, "module", "trust_ip"), XMSG_OK);
    EXPECT_EQ(add(msg, "white_ip", "{}"), XMSG_OK);
    EXPECT_EQ(get(msg, "module"), "trust_ip");
    EXPECT_EQ(get(msg, "white_ip"), "{}");
}

TEST(xmsg, finds_a_key_by_all_its_bytes_and_no_others) {
    const message msg = new_message();
    ASSERT_EQ(add(msg, "enable", "1"), XMSG_OK);
    EXPECT_EQ(get(msg, "enabl"), std::nullopt);
    EXPECT_EQ(get(msg, "enable "), std::nullopt);
    EXPECT_EQ(get(msg, "Enable"), std::nullopt);
    EXPECT_EQ(get(msg, {"enable\0", 7}), std::nullopt);
    EXPECT_EQ(get(msg, ""), std::nullopt);
}

TEST(xmsg, takes_only_as_much_of_a_key_as_its_length_says) {
    const message msg = new_message();
    ASSERT_EQ(xmsg_add(msg.get(), "module and more", 6, "value and more", 5), XMSG_OK);
    EXPECT_EQ(get(msg, "module"), "value");
    EXPECT_NE(xmsg_get(msg.get(), "module of something else", 6, nullptr, nullptr), nullptr);
}

TEST(xmsg, terminates_a_value_whose_bytes_were_not) {
    const message msg = new_message();
    const char bytes[] = {'t', 'r', 'u', 'e'};
    ASSERT_EQ(xmsg_add(msg.get(), "enable", 6, bytes, sizeof bytes), XMSG_OK);
    const message received = unpacked(packed(msg));
    ASSERT_NE(received, nullptr);
    EXPECT_STREQ(xmsg_get(msg.get(), "enable", 6, nullptr, nullptr), "true");
    EXPECT_STREQ(xmsg_get(received.get(), "enable", 6, nullptr, nullptr), "true");
}

TEST(xmsg, copies_name_key_and_value) {
    char name[] = "name";
    char key[] = "key";
    char value[] = "value";
    const message msg(xmsg_new(name));
    ASSERT_EQ(xmsg_add(msg.get(), key, 3, value, 5), XMSG_OK);
    const std::string before = packed(msg);
    name[0] = key[0] = value[0] = '?';
    EXPECT_EQ(packed(msg), before);
    EXPECT_EQ(get(msg, "key"), "value");
}

TEST(xmsg, holds_keys_and_values_of_any_bytes) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte)
        all += static_cast<char>(byte);
    const message msg = new_message();
    ASSERT_EQ(add(msg, all, all), XMSG_OK);
    EXPECT_EQ(get(msg, all), all);
    EXPECT_EQ(get(unpacked(packed(msg)), all), all);
}

TEST(xmsg, holds_an_empty_key_and_empty_values) {
    const message msg = new_message();
    EXPECT_EQ(xmsg_add(msg.get(), "", 0, "v", 1), XMSG_OK);
    EXPECT_EQ(xmsg_add(msg.get(), "null", 4, nullptr, 0), XMSG_OK);
    EXPECT_EQ(xmsg_add(msg.get(), "empty", 5, "x", 0), XMSG_OK);
    const message received = unpacked(packed(msg));
    EXPECT_EQ(get(received, ""), "v");
    EXPECT_EQ(get(received, "null"), "");
    EXPECT_EQ(get(received, "empty"), "");
}

TEST(xmsg, keeps_the_first_value_of_a_key_that_is_added_twice) {
    const message msg = new_message();
    ASSERT_EQ(add(msg, "key", "first"), XMSG_OK);
    const std::string before = packed(msg);
    EXPECT_EQ(add(msg, "key", "second"), XMSG_E_EXISTS);
    EXPECT_EQ(get(msg, "key"), "first");
    EXPECT_EQ(packed(msg), before);
}

TEST(xmsg, leaves_the_values_it_gave_where_they_are_when_others_are_added) {
    const message msg = new_message();
    ASSERT_EQ(add(msg, "key", "value"), XMSG_OK);
    const char *value = xmsg_get(msg.get(), "key", 3, nullptr, nullptr);
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(add(msg, numbered(i), "other"), XMSG_OK);
    EXPECT_EQ(xmsg_get(msg.get(), "key", 3, nullptr, nullptr), value);
    EXPECT_STREQ(value, "value");
}

TEST(xmsg, tells_the_length_of_a_value_without_its_terminator) {
    const message msg = new_message();
    ASSERT_EQ(add(msg, "key", "value"), XMSG_OK);
    unsigned int size = 0;
    ASSERT_NE(xmsg_get(msg.get(), "key", 3, &size, nullptr), nullptr);
    EXPECT_EQ(size, 5U);
}

TEST(xmsg, counts_a_terminator_that_the_sender_added) {
    const message msg = new_message();
    ASSERT_EQ(add(msg, "key", {"true", 5}), XMSG_OK);
    EXPECT_EQ(get(msg, "key"), std::string("true\0", 5));
}

TEST(xmsg, tells_texts_from_bytes_that_a_text_would_cut) {
    EXPECT_EQ(type_of(""), XMSG_TYPE_TEXT + 0U);
    EXPECT_EQ(type_of("text"), XMSG_TYPE_TEXT + 0U);
    EXPECT_EQ(type_of("\xff\x01"), XMSG_TYPE_TEXT + 0U);
    EXPECT_EQ(type_of({"text", 5}), XMSG_TYPE_TEXT + 0U);
    EXPECT_EQ(type_of({"\0", 1}), XMSG_TYPE_TEXT + 0U);
    EXPECT_EQ(type_of({"te\0xt", 5}), XMSG_TYPE_BYTES + 0U);
    EXPECT_EQ(type_of({"text\0\0", 6}), XMSG_TYPE_BYTES + 0U);
}

TEST(xmsg, leaves_the_out_values_alone_when_there_is_no_such_field) {
    const message msg = new_message();
    unsigned int size = 17;
    unsigned int type = 18;
    EXPECT_EQ(xmsg_get(msg.get(), "key", 3, &size, &type), nullptr);
    EXPECT_EQ(xmsg_get(nullptr, "key", 3, &size, &type), nullptr);
    EXPECT_EQ(xmsg_get(msg.get(), nullptr, 3, &size, &type), nullptr);
    EXPECT_EQ(size, 17U);
    EXPECT_EQ(type, 18U);
}

TEST(xmsg, refuses_null_arguments_and_stays_as_it_was) {
    const message msg = new_message();
    const std::string before = packed(msg);
    char buffer[64];
    EXPECT_EQ(xmsg_new(nullptr), nullptr);
    EXPECT_EQ(xmsg_add(nullptr, "key", 3, "value", 5), XMSG_E_ARGUMENT);
    EXPECT_EQ(xmsg_add(msg.get(), nullptr, 3, "value", 5), XMSG_E_ARGUMENT);
    EXPECT_EQ(xmsg_add(msg.get(), nullptr, 0, "value", 5), XMSG_E_ARGUMENT);
    EXPECT_EQ(xmsg_add(msg.get(), "key", 3, nullptr, 5), XMSG_E_ARGUMENT);
    EXPECT_EQ(xmsg_pack_size(nullptr), 0);
    EXPECT_EQ(xmsg_pack(nullptr, buffer, sizeof buffer), -1);
    EXPECT_EQ(xmsg_pack(msg.get(), nullptr, sizeof buffer), -1);
    EXPECT_EQ(xmsg_unpack(nullptr, 0), nullptr);
    EXPECT_EQ(xmsg_unpack(nullptr, 5), nullptr);
    xmsg_release(nullptr);
    EXPECT_EQ(packed(msg), before);
}

TEST(xmsg, takes_a_name_up_to_its_limit_and_none_longer) {
    const message longest = new_message(std::string(XMSG_MAX_NAME, 'n'));
    ASSERT_NE(longest, nullptr);
    EXPECT_EQ(packed(longest),
              "\x92" + bin16(std::string(XMSG_MAX_NAME, 'n')) + std::string("\x80"));
    EXPECT_EQ(new_message(std::string(XMSG_MAX_NAME + 1, 'n')), nullptr);
    EXPECT_NE(new_message(""), nullptr);
}

TEST(xmsg, carries_the_longest_key) {
    const std::string longest(XMSG_MAX_KEY, 'k');
    const message msg = new_message();
    ASSERT_EQ(add(msg, longest, "value"), XMSG_OK);
    EXPECT_EQ(get(unpacked(packed(msg)), longest), "value");
}

TEST(xmsg, carries_a_value_of_16_mib_and_refuses_one_byte_more) {
    const message msg = new_message();
    const std::string longest(XMSG_MAX_VALUE, 'v');
    ASSERT_EQ(add(msg, "longest", longest), XMSG_OK);
    EXPECT_EQ(add(msg, "too long", longest + "v"), XMSG_E_TOO_LARGE);
    const message received = unpacked(packed(msg));
    EXPECT_TRUE(get(received, "longest") == longest);
    EXPECT_EQ(get(received, "too long"), std::nullopt);
}

TEST(xmsg, carries_65536_fields_and_refuses_one_more) {
    const message msg = new_message();
    for (int i = 0; i < XMSG_MAX_FIELDS; ++i)
        ASSERT_EQ(add(msg, numbered(i), ""), XMSG_OK);
    EXPECT_EQ(add(msg, "one more", ""), XMSG_E_TOO_LARGE);
    EXPECT_EQ(add(msg, numbered(7), ""), XMSG_E_EXISTS);
    const message received = unpacked(packed(msg));
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(packed(received), packed(msg));
    EXPECT_EQ(get(received, numbered(XMSG_MAX_FIELDS - 1)), "");
    EXPECT_EQ(get(received, "one more"), std::nullopt);
}

TEST(xmsg, carries_64_mib_of_keys_and_values_and_refuses_one_byte_more) {
    const message msg = filled_to_the_limit();
    EXPECT_EQ(add(msg, "e", ""), XMSG_E_TOO_LARGE);
    EXPECT_EQ(add(msg, "", "e"), XMSG_E_TOO_LARGE);
    EXPECT_EQ(add(msg, "", ""), XMSG_OK);
    const message received = unpacked(packed(msg));
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(xmsg_pack_size(received.get()), xmsg_pack_size(msg.get()));
}

TEST(xmsg, refuses_bytes_that_hold_more_than_64_mib_of_keys_and_values) {
    const std::string value = bin32(std::string(XMSG_MAX_VALUE - 1, 'v'));
    std::string bytes = head() + "\x85";
    for (const char *key : {"a", "b", "c", "d"})
        bytes += bin8(key) + value;
    EXPECT_NE(unpacked(bytes + bin8("") + bin8("")), nullptr);
    EXPECT_EQ(unpacked(bytes + bin8("e") + bin8("")), nullptr);
}
