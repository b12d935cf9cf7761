#include "datapath/kzemm_event.h"

#include <gmock/gmock.h>

#include <cstring>
#include <thread>
#include <vector>

#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/plugin_test.h"

using fakes::bus_lines;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char source[] = "kzemm_event.cpp";

testing::Matcher<const fakes::record &> line(int level, const std::string &text) {
    return fakes::bus_at(level, text, source);
}

std::string bytes_of(const _GUID &id) {
    return std::string(reinterpret_cast<const char *>(&id), sizeof(id));
}

class kzemm_event_test : public plugin_test {
  protected:
    void SetUp() override {
        plugin_test::SetUp();
        event = kzemm_event::New(&info);
        ASSERT_NE(event, nullptr);
    }

    void TearDown() override {
        if (event != nullptr) {
            event->Release();
        }
        plugin_test::TearDown();
    }

    // The word that holds the event id and six bits above it.
    void set_word(uint16_t word) {
        memcpy(reinterpret_cast<char *>(info) + 2, &word, sizeof(word));
    }

    void set_data(const char *text) {
        info->data = new char[strlen(text) + 1];
        strcpy(info->data, text);
    }

    // The test's reference is gone.
    int release_last() {
        const int left = event->Release();
        event = nullptr;
        return left;
    }

    _RESPONSE_APP_REQUEST_INFO *info = nullptr;
    MbFrame::IEvent *event = nullptr;  // the test reaches it as the bus does
};

// An object that is counted as IUnknown itself counts.
class counted : public IUnknown {
  public:
    explicit counted(bool &is_gone) : gone(is_gone) {}
    ~counted() override { gone = true; }
    unsigned int QueryInterface(const _GUID &, void **) override { return 0; }

  private:
    bool &gone;
};

}  // namespace

// ---- identifiers ----

TEST_F(kzemm_event_test, the_interfaces_have_the_numbers_that_the_bus_computes) {
    EXPECT_EQ(bytes_of(*MbFrame::IEvent::IEvent_ID),
              std::string("\x54\xCC\xDC\x04\0\0\0\0\0\0\0\0\0\0\0\0", 16));
    EXPECT_EQ(bytes_of(*MbFrame::IRtmFrame::IRtmFrame_ID),
              std::string("\x55\x3A\xE2\x04\0\0\0\0\0\0\0\0\0\0\0\0", 16));
}

TEST_F(kzemm_event_test, a_set_top_bit_fills_the_upper_bits_of_a_number) {
    EXPECT_EQ(MbFrame::interface_number("IEvent"), 0x04DCCC54U);
    EXPECT_EQ(MbFrame::interface_number("IRtmFrame"), 0x04E23A55U);
    EXPECT_EQ(MbFrame::interface_number("I"), 0x49U);
    EXPECT_EQ(MbFrame::interface_number("IE"), 0x4D5U);
}

// ---- New ----

TEST_F(kzemm_event_test, a_new_event_has_an_empty_record_and_one_reference) {
    const char zeros[sizeof(_RESPONSE_APP_REQUEST_INFO)] = {};
    EXPECT_EQ(memcmp(info, zeros, sizeof(zeros)), 0);
    EXPECT_EQ(event->GetNativeEvent(), info);
    EXPECT_EQ(event->AddRef(), 2);
    EXPECT_EQ(event->Release(), 1);
    EXPECT_THAT(bus_lines(), IsEmpty());
}

TEST_F(kzemm_event_test, without_memory_for_its_record_there_is_no_event) {
    auto *const untouched = info;
    fakes::fail_allocation(1);
    EXPECT_EQ(kzemm_event::New(&info), nullptr);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_EQ(info, untouched);
    EXPECT_THAT(bus_lines(), ElementsAre(line(1, "Create event buffer Failed")));
}

TEST_F(kzemm_event_test, without_memory_for_itself_there_is_no_event_and_no_record) {
    auto *const before = info;
    fakes::fail_allocation(2);
    EXPECT_EQ(kzemm_event::New(&info), nullptr);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_NE(info, nullptr);
    EXPECT_NE(info, before) << "the out-parameter stays what the record was";
    EXPECT_THAT(bus_lines(), ElementsAre(line(1, "Create defense event Failed")));
}

// ---- what the bus asks ----

TEST_F(kzemm_event_test, the_identifier_is_the_low_ten_bits_of_its_word) {
    for (const auto &[word, id] : {std::pair<uint16_t, unsigned int>{0x0012, 18},
                                   {0xFC12, 18},
                                   {0x03FE, 1022},
                                   {0xFFFE, 1022},
                                   {0xFC00, 0},
                                   {0xFFFF, 1023}}) {
        set_word(word);
        EXPECT_EQ(event->GetUniqueID(), id) << word;
    }
    set_word(0);
}

TEST_F(kzemm_event_test, an_event_is_never_to_be_dropped) {
    EXPECT_FALSE(event->AsyncDroppable());
}

TEST_F(kzemm_event_test, the_interface_of_events_gives_the_event_and_a_reference) {
    const _GUID copy = *MbFrame::IEvent::IEvent_ID;
    void *out = nullptr;
    EXPECT_EQ(event->QueryInterface(copy, &out), 0U);
    EXPECT_EQ(out, event);
    EXPECT_EQ(event->Release(), 1);
}

TEST_F(kzemm_event_test, any_other_interface_is_refused_with_null) {
    std::vector<_GUID> others = {_GUID{}, *MbFrame::IRtmFrame::IRtmFrame_ID};
    for (size_t byte = 0; byte < sizeof(_GUID); ++byte) {
        _GUID changed = *MbFrame::IEvent::IEvent_ID;
        reinterpret_cast<unsigned char *>(&changed)[byte] ^= 0x80U;
        others.push_back(changed);
    }
    for (const _GUID &each : others) {
        void *out = this;
        EXPECT_EQ(event->QueryInterface(each, &out), 0x80004002U);
        EXPECT_EQ(out, nullptr);
    }
    EXPECT_EQ(event->AddRef(), 2) << "no reference was given";
    event->Release();
}

TEST_F(kzemm_event_test, a_query_without_a_place_for_its_result_is_refused) {
    EXPECT_EQ(event->QueryInterface(*MbFrame::IEvent::IEvent_ID, nullptr), 0x80004003U);
    EXPECT_EQ(event->QueryInterface(_GUID{}, nullptr), 0x80004003U);
    EXPECT_EQ(event->AddRef(), 2) << "no reference was given";
    event->Release();
}

// ---- references ----

TEST_F(kzemm_event_test, each_reference_is_counted) {
    EXPECT_EQ(event->AddRef(), 2);
    EXPECT_EQ(event->AddRef(), 3);
    EXPECT_EQ(event->Release(), 2);
    EXPECT_EQ(event->Release(), 1);
}

TEST_F(kzemm_event_test, the_last_reference_takes_the_record_and_the_event_along) {
    fakes::watch_release(info);
    EXPECT_EQ(event->AddRef(), 2);
    EXPECT_EQ(event->Release(), 1);
    EXPECT_FALSE(fakes::watched_was_released());
    EXPECT_EQ(release_last(), 0);
    EXPECT_TRUE(fakes::watched_was_released());
}

TEST_F(kzemm_event_test, the_object_itself_goes_with_the_last_reference) {
    fakes::watch_release(event);
    EXPECT_EQ(release_last(), 0);
    EXPECT_TRUE(fakes::watched_was_released());
}

TEST_F(kzemm_event_test, an_origin_events_data_goes_with_the_last_reference) {
    for (const uint16_t word : std::initializer_list<uint16_t>{0x0012, 0xFC12}) {
        SCOPED_TRACE(word);
        if (event == nullptr) {
            event = kzemm_event::New(&info);
        }
        set_word(word);
        set_data("text");
        fakes::watch_release(info->data);
        event->AddRef();
        event->Release();
        EXPECT_FALSE(fakes::watched_was_released());
        EXPECT_EQ(release_last(), 0);
        EXPECT_TRUE(fakes::watched_was_released());
    }
}

TEST_F(kzemm_event_test, the_data_of_any_other_event_stays_behind) {
    for (const uint16_t word : std::initializer_list<uint16_t>{0x03FE, 0x0000, 0x0013}) {
        SCOPED_TRACE(word);
        if (event == nullptr) {
            event = kzemm_event::New(&info);
        }
        set_word(word);
        set_data("offline");
        fakes::left_behind_by_design(info->data);
        fakes::watch_release(info->data);
        EXPECT_EQ(release_last(), 0);
        EXPECT_FALSE(fakes::watched_was_released());
    }
}

TEST_F(kzemm_event_test, an_origin_event_may_have_no_data) {
    set_word(18);
    EXPECT_EQ(release_last(), 0);
}

TEST_F(kzemm_event_test, threads_release_what_they_hold_in_any_order) {
    constexpr int holders = 4;
    constexpr int rounds = 2000;
    fakes::watch_release(info);
    std::vector<std::thread> threads;
    for (int each = 0; each < holders; ++each) {
        event->AddRef();
        threads.emplace_back([held = event] {
            for (int round = 0; round < rounds; ++round) {
                held->AddRef();
                held->Release();
            }
            held->Release();
        });
    }
    EXPECT_FALSE(fakes::watched_was_released());
    release_last();
    for (std::thread &each : threads) {
        each.join();
    }
    EXPECT_TRUE(fakes::watched_was_released());
}

TEST_F(kzemm_event_test, an_object_without_a_count_of_its_own_is_counted_by_the_root) {
    bool gone = false;
    IUnknown *const object = new counted(gone);
    EXPECT_EQ(object->AddRef(), 1) << "it begins without a reference";
    EXPECT_EQ(object->AddRef(), 2);
    EXPECT_EQ(object->Release(), 1);
    EXPECT_FALSE(gone);
    EXPECT_EQ(object->Release(), 0);
    EXPECT_TRUE(gone);
}

// ---- the dump ----

TEST_F(kzemm_event_test, an_origin_events_data_is_dumped_as_text) {
    set_word(18);
    set_data("{\"a\":\"%s\"}");
    kzemm_event::DumpEvent(info);
    EXPECT_THAT(bus_lines(), ElementsAre(line(3, "Event: 18 OriginCltJson: {\"a\":\"%s\"}")));
}

TEST_F(kzemm_event_test, the_bits_above_the_identifier_are_not_dumped) {
    set_word(0xFC12);
    set_data("text");
    kzemm_event::DumpEvent(info);
    EXPECT_THAT(bus_lines(), ElementsAre(line(3, "Event: 18 OriginCltJson: text")));
}

TEST_F(kzemm_event_test, other_events_are_not_dumped) {
    for (const uint16_t word : std::initializer_list<uint16_t>{0x0000, 0x0011, 0x0013, 0x03FE}) {
        set_word(word);
        kzemm_event::DumpEvent(info);
    }
    set_word(0);
    EXPECT_THAT(bus_lines(), IsEmpty());
}

TEST_F(kzemm_event_test, a_dump_of_nothing_is_a_warning) {
    kzemm_event::DumpEvent(nullptr);
    EXPECT_THAT(bus_lines(), ElementsAre(line(1, "param error")));
}
