// What the tap keeps of publications. How records are kept at all is tested in component/records.

#include "agent/message_bus/tap.h"

#include <gmock/gmock.h>

#include "agent/message_bus/events.h"
#include "tests/support/temp_tree.h"

using kze::kept_record;
using kze::record_reader;
using kze::record_writer;
using kze::bus::publication;
using kze::bus::tap_form;
using kze::bus::tap_kept_at_most;
using testing::SizeIs;

namespace {

constexpr std::uint32_t origin = kze::bus::event_origin;

class bus_tap_test : public testing::Test {
  protected:
    std::vector<kept_record> list(int event = 0) { return reader.list(0, 10000, event).value(); }

    kze_test::temp_tree tree;
    const std::string path = tree.path("var/bus.db").string();
    record_writer tap{path, tap_form};
    record_reader reader{path, tap_form};
};

}  // namespace

TEST_F(bus_tap_test, publications_come_back_as_they_were_in_their_order) {
    const std::string bytes("a\0b\xFF", 4);
    ASSERT_TRUE(tap.append(publication(origin, "first")));
    ASSERT_TRUE(tap.append(publication(kze::bus::event_offline, bytes)));
    ASSERT_TRUE(tap.append(publication(7, "")));
    const auto found = list();
    ASSERT_THAT(found, SizeIs(3));
    EXPECT_EQ(found[0].data, "first");
    EXPECT_EQ(found[0].kind, 18);
    EXPECT_EQ(found[1].data, bytes);
    EXPECT_EQ(found[1].kind, 1022);
    EXPECT_EQ(found[2].data, "");
    EXPECT_EQ(found[2].size, 0);
    EXPECT_THAT(list(1022), SizeIs(1));
}

TEST_F(bus_tap_test, long_data_is_cut_and_its_size_is_told) {
    for (const std::size_t size :
         {tap_kept_at_most - 1, tap_kept_at_most, tap_kept_at_most + 1, std::size_t{100000}}) {
        ASSERT_TRUE(tap.append(publication(origin, std::string(size, 'x'))));
        const kept_record last = list().back();
        EXPECT_EQ(last.size, static_cast<std::int64_t>(size));
        EXPECT_EQ(last.data, std::string(std::min(size, tap_kept_at_most), 'x'));
    }
}

TEST_F(bus_tap_test, the_newest_1024_are_kept) {
    const auto fill = [&](int publications) {
        for (int i = 0; i < publications; ++i) {
            ASSERT_TRUE(tap.append(publication(origin, "text"))) << tap.problem();
        }
    };
    fill(1023);
    EXPECT_THAT(list(), SizeIs(1023));
    fill(1);
    EXPECT_EQ(list().front().id, 1);
    fill(1);
    EXPECT_THAT(list(), SizeIs(1024));
    EXPECT_EQ(list().front().id, 2);
}

TEST_F(bus_tap_test, a_tap_of_the_form_before_is_put_aside) {
    const std::string ring = "KZEBUST1" + std::string(4096, '\0');
    tree.write("var/bus.db", ring);
    ASSERT_TRUE(tap.append(publication(origin, "text")));
    EXPECT_THAT(list(), SizeIs(1));
    EXPECT_EQ(tree.read("var/bus.db.unusable"), ring);
}

TEST_F(bus_tap_test, the_length_of_an_events_data_follows_from_its_id) {
    EXPECT_EQ(kze::bus::event_data(18, "text"), "text");
    EXPECT_EQ(kze::bus::event_data(1022, "offline, and more"), "offline");
    EXPECT_EQ(kze::bus::event_data(17, "text"), "");
    EXPECT_EQ(kze::bus::event_data(18, nullptr), "");
    EXPECT_STREQ(kze::bus::event_name(18), "origin");
    EXPECT_STREQ(kze::bus::event_name(1022), "offline");
    EXPECT_STREQ(kze::bus::event_name(1), "unknown");
}
