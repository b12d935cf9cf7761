// The interfaces of the message bus as a machine sees them: a bus that was built long ago reaches
// each operation by its place in the object's virtual table.

#include "datapath/mbframe.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

// The first place behind IUnknown: query, two counts, and the two entries of a virtual destructor.
constexpr size_t behind_unknown = 5;

// Where an operation stands in the table. The compilers' common object model gives a pointer to a
// virtual member function as the entry's offset plus 1.
template <typename operation>
size_t place_of(operation member) {
    uintptr_t words[2] = {};
    static_assert(sizeof(member) == sizeof(words));
    memcpy(words, &member, sizeof(words));
    EXPECT_EQ(words[0] % sizeof(void *), 1U) << "not a virtual member function";
    EXPECT_EQ(words[1], 0U) << "not at the object's beginning";
    return words[0] / sizeof(void *);
}

}  // namespace

TEST(mbframe_test, an_object_is_queried_and_counted_by_its_first_operations) {
    EXPECT_EQ(place_of(&IUnknown::QueryInterface), 0U);
    EXPECT_EQ(place_of(&IUnknown::AddRef), 1U);
    EXPECT_EQ(place_of(&IUnknown::Release), 2U);
}

TEST(mbframe_test, an_event_has_its_operations_in_their_places) {
    EXPECT_EQ(place_of(&MbFrame::IEvent::GetUniqueID), behind_unknown);
    EXPECT_EQ(place_of(&MbFrame::IEvent::AsyncDroppable), behind_unknown + 1);
    EXPECT_EQ(place_of(&MbFrame::IEvent::GetNativeEvent), behind_unknown + 2);
}

TEST(mbframe_test, a_plugin_has_its_operations_in_their_places) {
    EXPECT_EQ(place_of(&MbFrame::IPlugin::GetUniqueID), behind_unknown);
    EXPECT_EQ(place_of(&MbFrame::IPlugin::GetVersion), behind_unknown + 1);
    EXPECT_EQ(place_of(&MbFrame::IPlugin::OnAdvised), behind_unknown + 2);
    EXPECT_EQ(place_of(&MbFrame::IPlugin::OnUnadvised), behind_unknown + 3);
    EXPECT_EQ(place_of(&MbFrame::IPlugin::OnEvent), behind_unknown + 4);
}

TEST(mbframe_test, the_bus_takes_plugins_behind_two_unused_operations) {
    EXPECT_EQ(place_of(&MbFrame::IRtmFrame::Advise), behind_unknown + 2);
    EXPECT_EQ(place_of(&MbFrame::IRtmFrame::Unadvise), behind_unknown + 3);
}

TEST(mbframe_test, events_are_handed_in_by_the_first_operation) {
    EXPECT_EQ(place_of(&MbFrame::IDispatch::Dispatch), 0U);
}
