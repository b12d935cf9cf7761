// The dump: its records, what it cuts, and that no data steers it.
#include <gmock/gmock.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/component/vrdbase/log_test.h"
#include "xmsg_test.h"

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

class XmsgDebug : public LogTest {
  protected:
    // The records that the dump of `msg` writes, each a line.
    std::vector<std::string> dump(const message &msg) {
        log([&] { xmsg_debug(msg.get()); });
        return lines_of(file());
    }
};

}  // namespace

TEST_F(XmsgDebug, writes_the_name_and_each_field_at_level_4) {
    const message msg = new_message("anti_bfa");
    ASSERT_EQ(add(msg, "ssh_enable", "true"), XMSG_OK);
    ASSERT_EQ(add(msg, "enable", ""), XMSG_OK);
    const auto lines = dump(msg);
    EXPECT_THAT(lines, ElementsAre(EndsWith(" xmsg [anti_bfa], fields: 2"),
                                   EndsWith(" xmsg field 1 [enable]: []"),
                                   EndsWith(" xmsg field 2 [ssh_enable]: [true]")));
    for (const std::string &line : lines)
        EXPECT_THAT(line, HasSubstr(" DEBUG "));
}

TEST_F(XmsgDebug, writes_nothing_while_level_4_is_off) {
    const message msg = new_message("name");
    error_output_set_level(3);
    EXPECT_THAT(dump(msg), IsEmpty());
}

TEST_F(XmsgDebug, writes_nothing_for_no_message) {
    EXPECT_THAT(dump(nullptr), IsEmpty());
}

TEST_F(XmsgDebug, keeps_control_and_0_bytes_of_names_keys_and_values_within_their_record) {
    const message msg = new_message("na\nme");
    ASSERT_EQ(add(msg, {"k\0y", 3}, {"a\n\x1b[2J\0b\r", 9}), XMSG_OK);
    EXPECT_THAT(dump(msg), ElementsAre(EndsWith(" xmsg [na\\nme], fields: 1"),
                                       EndsWith(" xmsg field 1 [k\\x00y]: "
                                                "[a\\n\\x1b[2J\\x00b\\r]")));
}

TEST_F(XmsgDebug, takes_percent_signs_for_what_they_are) {
    const message msg = new_message("%s%n");
    ASSERT_EQ(add(msg, "%s", "%n%s"), XMSG_OK);
    EXPECT_THAT(dump(msg), ElementsAre(EndsWith(" xmsg [%s%n], fields: 1"),
                                       EndsWith(" xmsg field 1 [%s]: [%n%s]")));
}

TEST_F(XmsgDebug, shows_256_bytes_of_names_keys_and_values_and_cuts_at_one_more) {
    const std::string whole(256, 'x');
    const message msg = new_message(whole);
    ASSERT_EQ(add(msg, whole, whole), XMSG_OK);
    ASSERT_EQ(add(msg, whole + "y", whole + "y"), XMSG_OK);
    EXPECT_THAT(dump(msg), ElementsAre(EndsWith(" xmsg [" + whole + "], fields: 2"),
                                       EndsWith(" xmsg field 1 [" + whole + "]: [" + whole + "]"),
                                       EndsWith(" xmsg field 2 [" + whole + "] cut, 257 bytes: [" +
                                                whole + "] cut, 257 bytes")));
}

TEST_F(XmsgDebug, cuts_the_greatest_value_and_tells_its_size) {
    const message msg = new_message();
    ASSERT_EQ(add(msg, "key", std::string(XMSG_MAX_VALUE, '\0')), XMSG_OK);
    const auto lines = dump(msg);
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_THAT(lines[1], EndsWith("\\x00] cut, 16777216 bytes"));
    EXPECT_LT(lines[1].size(), 2000U);
}

TEST_F(XmsgDebug, shows_64_fields_and_counts_the_others) {
    const message msg = new_message();
    for (int i = 100; i < 164; ++i)
        ASSERT_EQ(add(msg, std::to_string(i), "v"), XMSG_OK);
    EXPECT_THAT(dump(msg), SizeIs(65));
    write_content(file(), "");
    ASSERT_EQ(add(msg, "164", "v"), XMSG_OK);
    ASSERT_EQ(add(msg, "165", "v"), XMSG_OK);
    const auto lines = dump(msg);
    ASSERT_THAT(lines, SizeIs(66));
    EXPECT_THAT(lines[64], EndsWith(" xmsg field 64 [163]: [v]"));
    EXPECT_THAT(lines[65], EndsWith(" xmsg fields not shown: 2"));
}

TEST_F(XmsgDebug, and_all_other_reading_of_one_message_may_run_on_several_threads_at_once) {
    const message msg = new_message();
    ASSERT_EQ(add(msg, "key", "value"), XMSG_OK);
    const std::string bytes = packed(msg);
    std::atomic<int> wrong{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 4; ++i) {
        readers.emplace_back([&] {
            autolog_init(directory().c_str(), 1);
            for (int round = 0; round < 50; ++round) {
                unsigned int type = 0;
                std::string copy(static_cast<std::size_t>(xmsg_pack_size(msg.get())), '\0');
                xmsg_pack(msg.get(), copy.data(), static_cast<unsigned int>(copy.size()));
                const char *value = xmsg_get(msg.get(), "key", 3, nullptr, &type);
                xmsg_debug(msg.get());
                wrong += copy != bytes || value == nullptr || type != XMSG_TYPE_TEXT;
            }
        });
    }
    for (std::thread &reader : readers)
        reader.join();
    EXPECT_EQ(wrong, 0);
}
