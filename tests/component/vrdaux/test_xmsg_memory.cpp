// What the container takes of memory for bytes from anyone, and what it does when there is none.
#include "counted_memory.h"
#include "tests/component/vrdbase/log_test.h"
#include "xmsg_test.h"

using counted_memory::failing_after;
using namespace std::string_literals;

namespace {

constexpr std::size_t little = 16 * 1024;

// The most memory that unpacking these bytes took, over what was there before. Nothing of it stays.
std::size_t memory_to_unpack(const std::string &bytes, bool is_message) {
    const std::size_t before = counted_memory::live();
    counted_memory::reset_peak();
    xmsg *msg = xmsg_unpack(bytes.data(), static_cast<unsigned int>(bytes.size()));
    const std::size_t taken = counted_memory::peak() - before;
    EXPECT_EQ(msg != nullptr, is_message);
    xmsg_release(msg);
    EXPECT_EQ(counted_memory::live(), before);
    return taken;
}

// Its name, key and value are long enough to be allocated each.
message long_message() {
    message msg = new_message(std::string(100, 'n'));
    EXPECT_EQ(add(msg, std::string(100, 'k'), std::string(100, 'v')), XMSG_OK);
    return msg;
}

}  // namespace

TEST(xmsg_memory, a_claimed_length_takes_none) {
    EXPECT_LT(memory_to_unpack("\x92\xc6\xff\xff\xff\xffx"s, false), little);
    EXPECT_LT(memory_to_unpack(head() + "\x81\xc6\xff\xff\xff\xffx"s, false), little);
    EXPECT_LT(memory_to_unpack(head() + "\x81" + bin8("k") + "\xc6\x01\x00\x00\x00x"s, false),
              little);
    EXPECT_LT(memory_to_unpack(head() + "\x81" + bin8("k") + "\xc9\xff\xff\xff\xff\x01"s, false),
              little);
}

TEST(xmsg_memory, a_claimed_number_of_fields_takes_none) {
    EXPECT_LT(memory_to_unpack(head() + map32(0xffffffff), false), little);
    EXPECT_LT(memory_to_unpack(head() + map32(XMSG_MAX_FIELDS), false), little);
    EXPECT_LT(memory_to_unpack(head() + map32(XMSG_MAX_FIELDS) + bin8("k") + bin8("v"), false),
              little);
    EXPECT_LT(memory_to_unpack("\xdd\xff\xff\xff\xff"s, false), little);
}

TEST(xmsg_memory, the_deepest_nesting_takes_none) {
    constexpr std::size_t depth = 16 * 1024 * 1024;
    for (const char nest : {'\x91', '\x92', '\x81'}) {
        const std::string nested(depth, nest);
        EXPECT_LT(memory_to_unpack(nested, false), little);
        EXPECT_LT(memory_to_unpack("\x92" + nested, false), little);
        EXPECT_LT(memory_to_unpack(head() + nested, false), little);
        EXPECT_LT(memory_to_unpack(head() + "\x81" + nested, false), little);
        EXPECT_LT(memory_to_unpack(head() + "\x81" + bin8("k") + nested, false), little);
    }
}

TEST(xmsg_memory, a_value_takes_about_its_own_size) {
    const std::string value(XMSG_MAX_VALUE, 'v');
    const std::string bytes = head() + "\x81" + bin8("k") + bin32(value);
    EXPECT_LT(memory_to_unpack(bytes, true), value.size() + little);
}

TEST(xmsg_memory, the_most_and_smallest_fields_stay_below_16_mib) {
    std::string fields;
    for (std::size_t i = 0; i < XMSG_MAX_FIELDS; ++i)
        fields += bin8(big_endian(i, 2)) + bin8("");
    EXPECT_LT(memory_to_unpack(head() + map32(XMSG_MAX_FIELDS) + fields, true), 16U * 1024 * 1024);
}

TEST(xmsg_memory, a_message_cut_off_at_its_end_leaves_nothing_behind) {
    const std::string bytes = packed(long_message());
    memory_to_unpack(bytes.substr(0, bytes.size() - 1), false);
    memory_to_unpack(bytes + "x", false);
}

TEST(xmsg_memory, without_any_a_message_is_neither_made_nor_unpacked) {
    const std::string name(100, 'n');
    const std::string bytes = packed(long_message());
    const std::size_t before = counted_memory::live();
    for (const bool unpack : {false, true}) {
        int failures = 0;
        for (bool failed = true; failed; ++failures) {
            xmsg *msg = nullptr;
            {
                const failing_after limit(failures);
                msg = unpack ? xmsg_unpack(bytes.data(), static_cast<unsigned int>(bytes.size()))
                             : xmsg_new(name.c_str());
                failed = limit.failed();
            }
            EXPECT_EQ(msg == nullptr, failed);
            xmsg_release(msg);
            ASSERT_EQ(counted_memory::live(), before);
        }
        EXPECT_GT(failures, 2) << "each allocation was to fail once";
    }
}

TEST(xmsg_memory, without_any_a_field_is_refused_and_the_message_is_as_before) {
    const message msg = long_message();
    const std::string before = packed(msg);
    const std::string key(100, 'a');
    int failures = 0;
    for (bool failed = true; failed; ++failures) {
        int result = XMSG_OK;
        {
            const failing_after limit(failures);
            result = add(msg, key, key);
            failed = limit.failed();
        }
        EXPECT_EQ(result, failed ? XMSG_E_NO_MEMORY : XMSG_OK);
        EXPECT_EQ(packed(msg) == before, failed);
    }
    EXPECT_GT(failures, 3) << "each allocation was to fail once";
    EXPECT_EQ(get(msg, key), key);
}

TEST(xmsg_memory, isnt_needed_to_pack_and_to_get) {
    const message msg = long_message();
    const std::string key(100, 'k');
    std::string bytes(static_cast<std::size_t>(xmsg_pack_size(msg.get())), '\0');
    int size = 0;
    const char *value = nullptr;
    bool failed = false;
    {
        const failing_after limit(0);
        size = xmsg_pack(msg.get(), bytes.data(), static_cast<unsigned int>(bytes.size()));
        value = xmsg_get(msg.get(), key.data(), 100, nullptr, nullptr);
        failed = limit.failed();
    }
    EXPECT_FALSE(failed);
    EXPECT_EQ(size, static_cast<int>(bytes.size()));
    EXPECT_NE(value, nullptr);
}

using XmsgDump = LogTest;

TEST_F(XmsgDump, gets_through_the_failure_of_each_allocation) {
    const message msg = long_message();
    const std::string before = packed(msg);
    // The log falls back to it when it has no memory either.
    const StandardErrorTo errors(path("errors"));
    log([&] {
        int failures = 0;
        for (bool failed = true; failed; ++failures) {
            const failing_after limit(failures);
            xmsg_debug(msg.get());
            failed = limit.failed();
        }
        EXPECT_GT(failures, 2) << "each allocation was to fail once";
    });
    EXPECT_EQ(packed(msg), before);
}
