// The plug-in as the bus sees it, and how it joins and leaves.

#include "datapath/kzemm_invoke.h"

#include <cstring>

#include "tests/unit/invoke_test.h"

using fakes::bus_at;
using fakes::bus_library;
using fakes::bus_lines;
using fakes::bus_text;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

constexpr char unadvise_call[] = "unadvise 61581836b44643dab118e469f66bff6f";
constexpr _UNADVISE_REASON any_reason = static_cast<_UNADVISE_REASON>(3);

using kzemm_invoke_test = invoke_test;

std::string bytes_of(const _GUID &id) {
    return std::string(reinterpret_cast<const char *>(&id), sizeof(id));
}

}  // namespace

// ---- what the bus asks ----

TEST_F(kzemm_invoke_test, there_is_one_plugin) {
    EXPECT_EQ(&kzemm_invoke::GetInstance(), &plugin);
    EXPECT_NE(fields::mutex(), nullptr);
}

TEST_F(kzemm_invoke_test, it_tells_its_identifier) {
    unsigned char id[16] = {};
    EXPECT_EQ(as_the_bus_knows_it.GetUniqueID(&id), 0U);
    EXPECT_THAT(id, ElementsAre(0x61, 0x58, 0x18, 0x36, 0xB4, 0x46, 0x43, 0xDA, 0xB1, 0x18, 0xE4,
                                0x69, 0xF6, 0x6B, 0xFF, 0x6F));
    EXPECT_EQ(as_the_bus_knows_it.GetUniqueID(nullptr), 0x84CE0002U);
}

TEST_F(kzemm_invoke_test, it_tells_its_version) {
    unsigned int version = 77;
    EXPECT_EQ(as_the_bus_knows_it.GetVersion(&version), 0U);
    EXPECT_EQ(version, 1U);
    EXPECT_EQ(as_the_bus_knows_it.GetVersion(nullptr), 0x84CE0002U);
}

TEST_F(kzemm_invoke_test, it_has_no_interface_and_looks_at_no_argument) {
    void *out = this;
    EXPECT_EQ(as_the_bus_knows_it.QueryInterface(_GUID{}, &out), 0x84CE0012U);
    EXPECT_EQ(as_the_bus_knows_it.QueryInterface(*MbFrame::IEvent::IEvent_ID, &out), 0x84CE0012U);
    EXPECT_EQ(out, this);
    EXPECT_EQ(as_the_bus_knows_it.QueryInterface(_GUID{}, nullptr), 0x84CE0012U);
}

TEST_F(kzemm_invoke_test, nobody_counts_it) {
    EXPECT_EQ(as_the_bus_knows_it.AddRef(), 0);
    EXPECT_EQ(as_the_bus_knows_it.AddRef(), 0);
    EXPECT_EQ(as_the_bus_knows_it.Release(), 0);
    EXPECT_EQ(as_the_bus_knows_it.Release(), 0);
    EXPECT_EQ(as_the_bus_knows_it.Release(), 0);
    unsigned int version = 0;
    EXPECT_EQ(as_the_bus_knows_it.GetVersion(&version), 0U) << "it is still there";
}

TEST_F(kzemm_invoke_test, it_takes_no_event) {
    EXPECT_EQ(as_the_bus_knows_it.OnEvent(nullptr, nullptr), 0);
    EXPECT_THAT(in_order(), IsEmpty());
}

TEST_F(kzemm_invoke_test, being_advised_and_unadvised_happens_under_the_mutex) {
    EXPECT_EQ(as_the_bus_knows_it.OnAdvised(nullptr, fakes::bus_dispatch()), 0);
    EXPECT_EQ(fields::dispatch(), fakes::bus_dispatch());
    EXPECT_THAT(in_order(), ElementsAre("lock", "unlock"));
    EXPECT_EQ(as_the_bus_knows_it.OnUnadvised(any_reason), 0);
    EXPECT_EQ(fields::dispatch(), nullptr);
    EXPECT_THAT(in_order(), ElementsAre("lock", "unlock", "lock", "unlock"));
}

// ---- joining ----

TEST_F(kzemm_invoke_test, without_the_library_it_goes_on_without_a_bus) {
    EXPECT_TRUE(plugin.Initialize());
    const auto expected = bus_at(
        2, "lite no kzamb path: " + in_tree("bin/../agent_plugins/libkzamb.1.so") + ", not load");
    EXPECT_THAT(bus_lines(), ElementsAre(expected));
    EXPECT_THAT(fakes::opened_paths(), IsEmpty());
    EXPECT_EQ(fields::dll(), nullptr);
    EXPECT_EQ(fields::frame(), nullptr);

    EXPECT_TRUE(plugin.Initialize());
    EXPECT_THAT(bus_lines(), ElementsAre(expected, expected)) << "each call looks anew";
}

TEST_F(kzemm_invoke_test, it_joins_the_bus_in_silence) {
    install_bus();
    EXPECT_TRUE(plugin.Initialize());
    EXPECT_THAT(in_order(),
                ElementsAre("open libkzamb.1.so", "get object", "advise 1", "lock", "unlock"));
    EXPECT_THAT(fakes::opened_paths(), ElementsAre(in_tree("bin/../agent_plugins/libkzamb.1.so")));
    EXPECT_THAT(fakes::looked_up(bus_library), ElementsAre("DllGetClassObject"));
    EXPECT_EQ(bytes_of(fakes::bus_asked_class()), std::string(16, '\0'));
    EXPECT_EQ(bytes_of(fakes::bus_asked_interface()), bytes_of(*MbFrame::IRtmFrame::IRtmFrame_ID));
    EXPECT_EQ(fakes::bus_plugin(), &as_the_bus_knows_it);
    EXPECT_EQ(fields::dispatch(), fakes::bus_dispatch());
    EXPECT_NE(fields::dll(), nullptr);
    EXPECT_NE(fields::frame(), nullptr);
    EXPECT_EQ(fakes::bus_frame_references(), 1);
}

TEST_F(kzemm_invoke_test, a_second_call_changes_nothing) {
    install_bus();
    EXPECT_TRUE(plugin.Initialize());
    fakes::clear_journal();
    EXPECT_TRUE(plugin.Initialize());
    EXPECT_THAT(in_order(), IsEmpty());
}

TEST_F(kzemm_invoke_test, the_advice_may_come_later) {
    install_bus();
    fakes::bus_advises_at_once(false);
    EXPECT_TRUE(plugin.Initialize());
    EXPECT_EQ(fields::dispatch(), nullptr);
}

// ---- what fails on the way ----

TEST_F(kzemm_invoke_test, a_library_that_cannot_be_opened_is_a_failure) {
    install_bus();
    fakes::library_missing(bus_library, 79);
    EXPECT_FALSE(plugin.Initialize());
    EXPECT_THAT(in_order(), ElementsAre(bus_text(0, "mb dll open failed!0x0000004f")));
    EXPECT_EQ(fields::dll(), nullptr);
}

TEST_F(kzemm_invoke_test, a_library_without_its_function_is_closed_again) {
    install_bus();
    fakes::symbol_missing(bus_library, "DllGetClassObject", 2);
    EXPECT_FALSE(plugin.Initialize());
    EXPECT_THAT(in_order(),
                ElementsAre("open libkzamb.1.so", bus_text(0, "mb dll_get_addr failed!0x00000002"),
                            "close libkzamb.1.so"));
    EXPECT_EQ(fields::dll(), nullptr);
}

TEST_F(kzemm_invoke_test, a_bus_that_gives_no_object_is_closed_again) {
    install_bus();
    fakes::bus_get_object_returns(static_cast<int>(0x80004002));
    EXPECT_FALSE(plugin.Initialize());
    EXPECT_THAT(in_order(),
                ElementsAre("open libkzamb.1.so", "get object",
                            bus_text(0, "mb get object failed!0x80004002"), "close libkzamb.1.so"));
    EXPECT_EQ(fields::dll(), nullptr);
    EXPECT_EQ(fields::frame(), nullptr);
}

TEST_F(kzemm_invoke_test, an_object_that_came_with_a_failure_is_given_back) {
    install_bus();
    fakes::bus_get_object_returns(1, true);
    EXPECT_FALSE(plugin.Initialize());
    EXPECT_THAT(in_order(), ElementsAre("open libkzamb.1.so", "get object",
                                        bus_text(0, "mb get object failed!0x00000001"),
                                        unadvise_call, "release", "close libkzamb.1.so"));
    EXPECT_EQ(fields::frame(), nullptr);
}

TEST_F(kzemm_invoke_test, a_success_without_an_object_is_a_failure) {
    install_bus();
    fakes::bus_gives_no_object();
    EXPECT_FALSE(plugin.Initialize());
    EXPECT_THAT(in_order(),
                ElementsAre("open libkzamb.1.so", "get object",
                            bus_text(0, "mb get object failed!0x00000000"), "close libkzamb.1.so"));
    EXPECT_EQ(fields::dll(), nullptr);
}

TEST_F(kzemm_invoke_test, a_bus_that_refuses_the_plugin_is_left_and_closed) {
    install_bus();
    fakes::bus_advise_returns(-1);
    EXPECT_FALSE(plugin.Initialize());
    EXPECT_THAT(in_order(), ElementsAre("open libkzamb.1.so", "get object", "advise 1",
                                        bus_text(0, "mb advise failed!0xffffffff"), unadvise_call,
                                        "release", "close libkzamb.1.so"));
    EXPECT_EQ(fields::dll(), nullptr);
    EXPECT_EQ(fields::frame(), nullptr);
    EXPECT_EQ(fakes::bus_frame_references(), 0);
}

TEST_F(kzemm_invoke_test, any_result_of_advise_but_0_is_a_failure) {
    install_bus();
    fakes::bus_advise_returns(1);
    EXPECT_FALSE(plugin.Initialize());
    EXPECT_THAT(bus_lines(), ElementsAre(bus_at(0, "mb advise failed!0x00000001")));
}

TEST_F(kzemm_invoke_test, a_failure_does_not_keep_the_next_try_back) {
    install_bus();
    fakes::bus_advise_returns(-1);
    EXPECT_FALSE(plugin.Initialize());
    fakes::bus_advise_returns(0);
    EXPECT_TRUE(plugin.Initialize());
    EXPECT_EQ(fakes::times_opened(bus_library), 2U);
    EXPECT_EQ(fakes::open_handles(bus_library), 1U);
    EXPECT_EQ(fields::dispatch(), fakes::bus_dispatch());
}

// ---- leaving ----

TEST_F(kzemm_invoke_test, it_leaves_before_it_closes_the_library) {
    install_bus();
    EXPECT_TRUE(plugin.Initialize());
    fakes::clear_journal();
    plugin.UnInitialize();
    EXPECT_THAT(in_order(), ElementsAre(unadvise_call, "release", "close libkzamb.1.so"));
    EXPECT_EQ(fields::dll(), nullptr);
    EXPECT_EQ(fields::frame(), nullptr);
    EXPECT_EQ(fields::dispatch(), fakes::bus_dispatch()) << "which the bus alone takes away";
}

TEST_F(kzemm_invoke_test, leaving_a_bus_that_it_never_joined_does_nothing) {
    plugin.UnInitialize();
    plugin.UnInitialize();
    EXPECT_THAT(in_order(), IsEmpty());
}

TEST_F(kzemm_invoke_test, it_can_join_again_after_leaving) {
    install_bus();
    EXPECT_TRUE(plugin.Initialize());
    plugin.UnInitialize();
    fakes::clear_journal();
    EXPECT_TRUE(plugin.Initialize());
    EXPECT_THAT(in_order(),
                ElementsAre("open libkzamb.1.so", "get object", "advise 1", "lock", "unlock"));
}
