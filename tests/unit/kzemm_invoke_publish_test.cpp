// Publications: what reaches the bus, what is logged, and what is left of them.

#include <atomic>
#include <climits>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "tests/unit/invoke_test.h"

using fakes::bus_at;
using fakes::bus_lines;
using fakes::bus_text;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr unsigned int origin = 8;
constexpr unsigned int offline = 0xff008a;
constexpr char event_source[] = "kzemm_event.cpp";
constexpr size_t longer_than_anything = 4321;

// What a publication asks for in turn: its record, its event, the copy of the data.
constexpr unsigned int first_block = 1;
constexpr unsigned int second_block = 2;
constexpr unsigned int third_block = 3;

const _RESPONSE_APP_REQUEST_INFO &record_of(MbFrame::IEvent *event) {
    return *static_cast<_RESPONSE_APP_REQUEST_INFO *>(event->GetNativeEvent());
}

// The word that holds the event id and six bits above it.
uint16_t word_of(const _RESPONSE_APP_REQUEST_INFO &info) {
    uint16_t word = 0;
    memcpy(&word, reinterpret_cast<const char *>(&info) + 2, sizeof(word));
    return word;
}

class kzemm_invoke_publish_test : public invoke_test {
  protected:
    void SetUp() override {
        invoke_test::SetUp();
        fakes::advise_plugin();
        fakes::clear_journal();
    }

    void publish(unsigned int kind, const std::string &data) {
        plugin.Publish_t(kind, data.data(), static_cast<unsigned int>(data.size()));
    }

    static testing::Matcher<const std::string &> dump_of(const std::string &text) {
        return bus_text(3, "Event: 18 OriginCltJson: " + text, event_source);
    }
};

}  // namespace

// ---- arguments ----

TEST_F(kzemm_invoke_publish_test, nothing_is_published_without_data_or_an_instance) {
    kzemm_invoke::Publish(origin, nullptr, 4, &plugin);
    kzemm_invoke::Publish(origin, "text", 0, &plugin);
    kzemm_invoke::Publish(origin, "text", 4, nullptr);
    EXPECT_THAT(in_order(), IsEmpty());
}

TEST_F(kzemm_invoke_publish_test, the_object_itself_tells_of_a_missing_argument_without_its_mutex) {
    plugin.Publish_t(origin, nullptr, 4);
    plugin.Publish_t(origin, "text", 0);
    EXPECT_THAT(in_order(), ElementsAre(bus_text(0, "param error."), bus_text(0, "param error.")));
}

TEST_F(kzemm_invoke_publish_test, what_has_all_its_arguments_goes_to_the_instance) {
    kzemm_invoke::Publish(origin, "text", 4, &plugin);
    EXPECT_THAT(fakes::bus_events(), SizeIs(1));
}

// ---- without a bus ----

TEST_F(kzemm_invoke_publish_test, a_plugin_that_is_not_advised_publishes_nothing) {
    fields::reset();
    publish(origin, "text");
    EXPECT_THAT(in_order(), ElementsAre("lock", bus_text(0, "bus need init first."), "unlock"));
}

TEST_F(kzemm_invoke_publish_test, each_state_but_advised_is_the_same) {
    fields::reset();
    publish(origin, "text");
    install_bus();
    fakes::bus_advises_at_once(false);
    EXPECT_TRUE(plugin.Initialize());
    publish(offline, "offline");
    plugin.OnAdvised(nullptr, fakes::bus_dispatch());
    plugin.OnUnadvised(static_cast<_UNADVISE_REASON>(1));
    publish(9, "text");
    EXPECT_THAT(bus_lines(),
                ElementsAre(bus_at(0, "bus need init first."), bus_at(0, "bus need init first."),
                            bus_at(0, "bus need init first.")));
    EXPECT_THAT(fakes::bus_events(), IsEmpty());
    plugin.OnAdvised(nullptr, fakes::bus_dispatch());
    publish(origin, "text");
    EXPECT_THAT(fakes::bus_events(), SizeIs(1));
}

// ---- the two kinds ----

TEST_F(kzemm_invoke_publish_test, origin_data_goes_out_and_is_dumped_under_the_mutex) {
    publish(origin, "text");
    EXPECT_THAT(in_order(), ElementsAre("lock", bus_text(3, "rec one message."), "dispatch 18",
                                        dump_of("text"), "unlock"));
}

TEST_F(kzemm_invoke_publish_test, the_notice_of_an_outage_goes_out_and_is_not_dumped) {
    publish(offline, "offline");
    EXPECT_THAT(in_order(),
                ElementsAre("lock", bus_text(3, "rec one message."), "dispatch 1022", "unlock"));
    EXPECT_EQ(fakes::bus_events()[0].data, "offline");
}

TEST_F(kzemm_invoke_publish_test, the_bus_gets_an_event_whose_record_is_empty_but_for_id_and_data) {
    bool looked = false;
    fakes::on_bus_dispatch([&](MbFrame::IEvent *event) {
        looked = true;
        const auto &info = record_of(event);
        EXPECT_EQ(word_of(info), 18U);
        EXPECT_EQ(info.reserved_0, 0U);
        for (const uint8_t each : info.reserved_4) {
            EXPECT_EQ(each, 0U);
        }
        EXPECT_EQ(info.reserved_behind_data, 0U);
        EXPECT_FALSE(event->AsyncDroppable());
        void *out = nullptr;
        EXPECT_EQ(event->QueryInterface(*MbFrame::IEvent::IEvent_ID, &out), 0U);
        EXPECT_EQ(out, event);
        EXPECT_EQ(event->Release(), 1);
    });
    publish(origin, "text");
    EXPECT_TRUE(looked);
}

TEST_F(kzemm_invoke_publish_test, the_data_is_a_copy_of_exactly_what_was_published) {
    for (const std::string &data :
         {std::string("x"), std::string("a\0b\0", 4), std::string(longer_than_anything, '\xFF')}) {
        bool looked = false;
        fakes::on_bus_dispatch([&](MbFrame::IEvent *event) {
            looked = true;
            EXPECT_FALSE(record_of(event).data == data.data());
            EXPECT_EQ(std::string(record_of(event).data, data.size()), data);
        });
        publish(origin, data);
        EXPECT_TRUE(looked);
    }
}

// The published bytes lie at the end of their memory, which the address sanitizer watches.
TEST_F(kzemm_invoke_publish_test, the_dump_ends_with_what_was_published) {
    const std::string text = "no zero byte follows";
    const std::vector<char> bare(text.begin(), text.end());
    plugin.Publish_t(origin, bare.data(), static_cast<unsigned int>(bare.size()));
    EXPECT_THAT(in_order(), ElementsAre("lock", bus_text(3, "rec one message."), "dispatch 18",
                                        dump_of(text), "unlock"));
}

TEST_F(kzemm_invoke_publish_test, the_dump_ends_at_a_zero_byte_within_the_data) {
    publish(origin, std::string("ab\0cd", 5));
    EXPECT_THAT(bus_lines(), ElementsAre(bus_at(3, "rec one message."),
                                         bus_at(3, "Event: 18 OriginCltJson: ab", event_source)));
}

// ---- what the bus answers ----

TEST_F(kzemm_invoke_publish_test, only_a_negative_answer_is_a_failure) {
    for (const int code : {0, 1, INT_MAX}) {
        fakes::clear_journal();
        fakes::bus_dispatch_returns(code);
        publish(origin, "text");
        EXPECT_THAT(bus_lines(),
                    ElementsAre(bus_at(3, "rec one message."),
                                bus_at(3, "Event: 18 OriginCltJson: text", event_source)));
    }
    for (const int code : {-1, INT_MIN}) {
        fakes::clear_journal();
        fakes::bus_dispatch_returns(code);
        publish(origin, "text");
        EXPECT_THAT(bus_lines(),
                    ElementsAre(bus_at(3, "rec one message."), bus_at(0, "Error to Invoke data."),
                                bus_at(3, "Event: 18 OriginCltJson: text", event_source)));
    }
    EXPECT_THAT(fakes::bus_events(), SizeIs(5)) << "nothing is tried again";
}

TEST_F(kzemm_invoke_publish_test, an_event_and_its_data_are_gone_when_the_publication_is_over) {
    fakes::on_bus_dispatch(
        [](MbFrame::IEvent *event) { fakes::watch_release(record_of(event).data); });
    publish(origin, "text");
    EXPECT_TRUE(fakes::watched_was_released());
    fakes::on_bus_dispatch([](MbFrame::IEvent *event) { fakes::watch_release(event); });
    publish(origin, "text");
    EXPECT_TRUE(fakes::watched_was_released());
}

TEST_F(kzemm_invoke_publish_test, an_event_that_the_bus_keeps_outlives_data_and_publication) {
    MbFrame::IEvent *kept = nullptr;
    fakes::on_bus_dispatch([&](MbFrame::IEvent *event) {
        EXPECT_EQ(event->AddRef(), 2);
        kept = event;
    });
    auto data = std::make_unique<std::string>("what was published");
    publish(origin, *data);
    data.reset();
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->GetUniqueID(), 18U);
    EXPECT_STREQ(record_of(kept).data, "what was published");
    fakes::watch_release(record_of(kept).data);
    int left = -1;
    std::thread([&] { left = kept->Release(); }).join();
    EXPECT_EQ(left, 0);
    EXPECT_TRUE(fakes::watched_was_released());
}

TEST_F(kzemm_invoke_publish_test, the_data_of_an_offline_event_stays_behind) {
    fakes::on_bus_dispatch(
        [](MbFrame::IEvent *event) { fakes::watch_release(record_of(event).data); });
    publish(offline, "offline");
    EXPECT_FALSE(fakes::watched_was_released());
}

TEST_F(kzemm_invoke_publish_test, an_exception_of_the_bus_passes_and_leaves_nothing_held) {
    fakes::on_bus_dispatch([](MbFrame::IEvent *event) {
        fakes::watch_release(event);
        throw std::runtime_error("from the bus");
    });
    EXPECT_THROW(publish(origin, "text"), std::runtime_error);
    EXPECT_THAT(in_order(),
                ElementsAre("lock", bus_text(3, "rec one message."), "dispatch 18", "unlock"));
    EXPECT_EQ(fakes::held_mutexes(), 0);
    EXPECT_TRUE(fakes::watched_was_released());
    fakes::on_bus_dispatch(nullptr);
    publish(origin, "text");
    EXPECT_THAT(fakes::bus_events(), SizeIs(2));
}

// ---- what can't be published ----

TEST_F(kzemm_invoke_publish_test, an_unknown_kind_makes_an_event_and_dispatches_nothing) {
    for (const unsigned int kind : {9U, 0U, 18U, 1022U, 0xff008bU}) {
        fakes::clear_journal();
        publish(kind, "text");
        EXPECT_THAT(in_order(), ElementsAre("lock", bus_text(3, "rec one message."), "unlock"));
    }
    fakes::clear_journal();
    fakes::fail_allocation(second_block);
    publish(9, "text");
    EXPECT_THAT(in_order(),
                testing::Contains(bus_text(1, "Create defense event Failed", event_source)))
        << "the event is made all the same";
}

TEST_F(kzemm_invoke_publish_test, without_memory_for_the_event_nothing_is_published) {
    for (const auto &[nth, text] : {std::pair(first_block, "Create event buffer Failed"),
                                    std::pair(second_block, "Create defense event Failed")}) {
        fakes::clear_journal();
        fakes::fail_allocation(nth);
        publish(origin, "text");
        EXPECT_TRUE(fakes::allocation_failed());
        EXPECT_THAT(in_order(), ElementsAre("lock", bus_text(3, "rec one message."),
                                            bus_text(1, text, event_source),
                                            bus_text(0, "New kzemm_event error."), "unlock"));
    }
}

TEST_F(kzemm_invoke_publish_test, without_memory_for_the_data_nothing_is_published) {
    for (const auto &[kind, text] : {std::pair(origin, "create OriginCltLog buffer failed"),
                                     std::pair(offline, "create offline event buffer failed")}) {
        fakes::clear_journal();
        fakes::fail_allocation(third_block);
        publish(kind, "text");
        EXPECT_TRUE(fakes::allocation_failed());
        EXPECT_THAT(in_order(), ElementsAre("lock", bus_text(3, "rec one message."),
                                            bus_text(1, text), "unlock"));
    }
}

// ---- Transform ----

TEST_F(kzemm_invoke_publish_test, a_record_keeps_the_bits_above_its_id) {
    for (const auto &[kind, id] : {std::pair(origin, 18U), std::pair(offline, 1022U)}) {
        _RESPONSE_APP_REQUEST_INFO info = {};
        const uint16_t before = 0xA801;
        memcpy(reinterpret_cast<char *>(&info) + 2, &before, sizeof(before));
        EXPECT_TRUE(kzemm_invoke::Transform(kind, "text", 4, &info));
        EXPECT_EQ(word_of(info), 0xA800U | id);
        EXPECT_EQ(std::string(info.data, 4), "text");
        delete[] info.data;
    }
    EXPECT_THAT(in_order(), IsEmpty());
}

TEST_F(kzemm_invoke_publish_test, an_unknown_kind_leaves_the_record_as_it_is) {
    _RESPONSE_APP_REQUEST_INFO info = {};
    info.event_flags = 5;
    const std::string before(reinterpret_cast<const char *>(&info), sizeof(info));
    EXPECT_FALSE(kzemm_invoke::Transform(9, "text", 4, &info));
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(&info), sizeof(info)), before);
    EXPECT_THAT(in_order(), IsEmpty());
}

TEST_F(kzemm_invoke_publish_test, without_memory_a_record_has_no_id_and_no_data) {
    _RESPONSE_APP_REQUEST_INFO info = {};
    fakes::fail_allocation(1);
    EXPECT_FALSE(kzemm_invoke::Transform(origin, "text", 4, &info));
    EXPECT_EQ(word_of(info), 0U);
    EXPECT_TRUE(info.data == nullptr);  // packed: no reference to it
}

// ---- threads ----

TEST_F(kzemm_invoke_publish_test, one_publication_at_a_time_is_inside_the_bus) {
    constexpr int publishers = 4;
    constexpr int each_publishes = 200;
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    fakes::on_bus_dispatch([&](MbFrame::IEvent *) {
        const int now = ++inside;
        most = std::max(most.load(), now);
        EXPECT_EQ(fakes::held_mutexes(), 1);
        std::this_thread::yield();
        --inside;
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < publishers; ++i) {
        threads.emplace_back([this] {
            for (int n = 0; n < each_publishes; ++n) {
                kzemm_invoke::Publish(origin, "text", 4, &plugin);
            }
        });
    }
    for (std::thread &each : threads) {
        each.join();
    }
    EXPECT_EQ(most, 1);
    EXPECT_THAT(fakes::bus_events(), SizeIs(publishers * each_publishes));
}
