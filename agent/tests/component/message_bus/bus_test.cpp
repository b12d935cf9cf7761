// The reference agent's bus, reached through its interfaces as a plug-in reaches it.

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "agent/message_bus/tap.h"
#include "datapath/mbframe.h"
#include "tests/support/temp_tree.h"

using kze::kept_record;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr unsigned int origin_id = 18;
constexpr unsigned int offline_id = 1022;

// A plug-in that publishes; it counts how it is called.
class publisher : public MbFrame::IPlugin {
  public:
    explicit publisher(unsigned char number) { id[0] = number; }

    unsigned int QueryInterface(const _GUID &, void **) override { return 1; }
    unsigned int GetUniqueID(unsigned char (*out)[16]) const override {
        memcpy(*out, id, sizeof(id));
        return id_code;
    }
    unsigned int GetVersion(unsigned int *out) const override {
        *out = 1;
        return 0;
    }
    int OnAdvised(MbFrame::IPluginSetting *, MbFrame::IDispatch *to) override {
        ++advised;
        dispatch = to;
        return 0;
    }
    int OnUnadvised(_UNADVISE_REASON) override {
        ++unadvised;
        return 0;
    }
    int OnEvent(MbFrame::IEvent *, _RESPONSE_STATUS *) override {
        ++events;
        return 0;
    }

    unsigned char id[16] = {};
    unsigned int id_code = 0;
    MbFrame::IDispatch *dispatch = nullptr;
    int advised = 0;
    int unadvised = 0;
    int events = 0;
};

// An event on the test's stack, which tells how many references are out.
class stack_event : public MbFrame::IEvent {
  public:
    stack_event(unsigned int event_id, char *data) {
        info.event_id = event_id & 0x3FFU;
        info.data = data;
    }

    unsigned int QueryInterface(const _GUID &, void **) override { return 1; }
    int AddRef() override {
        most = std::max(most, ++references);
        return references;
    }
    int Release() override { return --references; }
    unsigned int GetUniqueID() const override { return info.event_id; }
    bool AsyncDroppable() const override { return false; }
    void *GetNativeEvent() override { return has_record ? &info : nullptr; }

    _RESPONSE_APP_REQUEST_INFO info = {};
    bool has_record = true;
    int references = 1;
    int most = 1;
};

class message_bus_test : public testing::Test {
  protected:
    void SetUp() override {
        library = dlopen(BUS_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        get = reinterpret_cast<DllGetClassObject_fn>(dlsym(library, "DllGetClassObject"));
        ASSERT_NE(get, nullptr);
        void *object = nullptr;
        ASSERT_EQ(get(&null_class, MbFrame::IRtmFrame::IRtmFrame_ID, &object), 0);
        frame = static_cast<MbFrame::IRtmFrame *>(object);
    }

    void TearDown() override {
        if (frame != nullptr) {
            frame->Release();
        }
        if (library != nullptr) {
            dlclose(library);
        }
        EXPECT_EQ(dlopen(BUS_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr) << "it is still there";
    }

    std::string tap_file() const { return tree.path("var/lib/bus.db").string(); }

    std::vector<kept_record> tapped() const {
        kze::record_reader tap(tap_file(), kze::bus::tap_form);
        const auto found = tap.list(0, 1000000);
        EXPECT_TRUE(found.has_value()) << tap.problem();
        return found.value_or(std::vector<kept_record>());
    }

    static std::vector<std::string> data_of(const std::vector<kept_record> &all) {
        std::vector<std::string> result;
        for (const kept_record &each : all) {
            result.push_back(each.data);
        }
        return result;
    }

    // Publishes a text as the plug-in does: with a zero byte behind it, and nothing more.
    static int publish(MbFrame::IDispatch *to, const std::string &text) {
        std::vector<char> bytes(text.c_str(), text.c_str() + text.size() + 1);
        stack_event event(origin_id, bytes.data());
        return to->Dispatch(&event);
    }

    const _GUID null_class = {};
    kze_test::temp_tree tree;
    void *library = nullptr;
    DllGetClassObject_fn get = nullptr;
    MbFrame::IRtmFrame *frame = nullptr;
};

}  // namespace

// ---- the object ----

TEST_F(message_bus_test, has_one_object_of_one_class_and_interface) {
    void *object = nullptr;
    EXPECT_EQ(get(&null_class, MbFrame::IRtmFrame::IRtmFrame_ID, &object), 0);
    EXPECT_EQ(object, frame);
    EXPECT_EQ(frame->Release(), 1);

    _GUID other = {};
    other.Data4[7] = 1;
    object = this;
    EXPECT_NE(get(&other, MbFrame::IRtmFrame::IRtmFrame_ID, &object), 0);
    EXPECT_NE(get(&null_class, MbFrame::IEvent::IEvent_ID, &object), 0);
    EXPECT_NE(get(&null_class, &null_class, &object), 0);
    EXPECT_EQ(object, this) << "a refusal leaves it as it was";
    EXPECT_NE(get(nullptr, MbFrame::IRtmFrame::IRtmFrame_ID, &object), 0);
    EXPECT_NE(get(&null_class, nullptr, &object), 0);
    EXPECT_NE(get(&null_class, MbFrame::IRtmFrame::IRtmFrame_ID, nullptr), 0);
}

TEST_F(message_bus_test, counts_references_to_its_object) {
    void *object = nullptr;
    EXPECT_EQ(frame->QueryInterface(*MbFrame::IRtmFrame::IRtmFrame_ID, &object), 0U);
    EXPECT_EQ(object, frame);
    EXPECT_EQ(frame->AddRef(), 3);
    EXPECT_EQ(frame->Release(), 2);
    EXPECT_EQ(frame->Release(), 1);
    EXPECT_NE(frame->QueryInterface(*MbFrame::IEvent::IEvent_ID, &object), 0U);
    EXPECT_EQ(object, nullptr);
    EXPECT_NE(frame->QueryInterface(*MbFrame::IRtmFrame::IRtmFrame_ID, nullptr), 0U);
}

// ---- plug-ins ----

TEST_F(message_bus_test, advises_a_plugin_and_takes_it_off_again) {
    publisher plugin(1);
    EXPECT_EQ(frame->Advise(&plugin, 1), 0);
    EXPECT_EQ(plugin.advised, 1);
    EXPECT_NE(plugin.dispatch, nullptr);
    EXPECT_EQ(frame->Unadvise(&plugin.id), 0);
    EXPECT_EQ(plugin.unadvised, 1);
    EXPECT_NE(frame->Unadvise(&plugin.id), 0) << "it is not there any more";
    EXPECT_EQ(plugin.unadvised, 1);
}

TEST_F(message_bus_test, refuses_what_it_cannot_identify) {
    publisher plugin(1);
    plugin.id_code = 0x84CE0002;
    EXPECT_EQ(frame->Advise(&plugin, 1), static_cast<int>(0x84CE0002));
    EXPECT_EQ(plugin.advised, 0);
    EXPECT_NE(frame->Advise(nullptr, 1), 0);
    EXPECT_NE(frame->Unadvise(nullptr), 0);
    EXPECT_NE(frame->Unadvise(&plugin.id), 0);
}

TEST_F(message_bus_test, never_calls_a_plugin_again_that_came_anew_from_another_place) {
    auto old = std::make_unique<publisher>(static_cast<unsigned char>(1));
    EXPECT_EQ(frame->Advise(old.get(), 1), 0);
    old.reset();  // as a library that was unloaded without leaving the bus
    publisher anew(1);
    EXPECT_EQ(frame->Advise(&anew, 1), 0);
    EXPECT_EQ(frame->Unadvise(&anew.id), 0);
    EXPECT_EQ(anew.unadvised, 1);
}

TEST_F(message_bus_test, tells_plugins_apart_by_their_identifiers) {
    publisher one(1);
    publisher two(2);
    EXPECT_EQ(frame->Advise(&one, 1), 0);
    EXPECT_EQ(frame->Advise(&two, 1), 0);
    EXPECT_EQ(frame->Unadvise(&one.id), 0);
    EXPECT_EQ(one.unadvised, 1);
    EXPECT_EQ(two.unadvised, 0);
    EXPECT_EQ(frame->Unadvise(&two.id), 0);
}

// ---- publications ----

TEST_F(message_bus_test, shows_the_tap_what_was_published) {
    publisher plugin(1);
    ASSERT_EQ(frame->Advise(&plugin, 1), 0);
    EXPECT_EQ(publish(plugin.dispatch, "{\"first\":1}"), 0);
    std::vector<char> seven = {'o', 'f', 'f', 'l', 'i', 'n', 'e'};  // and no zero byte
    stack_event offline(offline_id, seven.data());
    EXPECT_EQ(plugin.dispatch->Dispatch(&offline), 0);
    const auto all = tapped();
    ASSERT_THAT(all, SizeIs(2));
    EXPECT_EQ(all[0].id, 1);
    EXPECT_EQ(all[0].kind, static_cast<int>(origin_id));
    EXPECT_EQ(all[0].size, 11);
    EXPECT_EQ(all[0].data, "{\"first\":1}");
    EXPECT_EQ(all[1].id, 2);
    EXPECT_EQ(all[1].kind, static_cast<int>(offline_id));
    EXPECT_EQ(all[1].data, "offline");
    EXPECT_LE(all[0].time_us, all[1].time_us);
    EXPECT_EQ(plugin.events, 0);
}

TEST_F(message_bus_test, holds_an_event_for_as_long_as_it_looks_at_it) {
    publisher plugin(1);
    ASSERT_EQ(frame->Advise(&plugin, 1), 0);
    char text[] = "text";
    stack_event event(origin_id, text);
    EXPECT_EQ(plugin.dispatch->Dispatch(&event), 0);
    EXPECT_EQ(event.most, 2);
    EXPECT_EQ(event.references, 1);
}

TEST_F(message_bus_test, keeps_no_byte_of_an_event_whose_length_nobody_knows) {
    publisher plugin(1);
    ASSERT_EQ(frame->Advise(&plugin, 1), 0);
    char one_byte = 'x';
    for (const unsigned int id : {17U, 0U}) {
        stack_event event(id, &one_byte);
        EXPECT_EQ(plugin.dispatch->Dispatch(&event), 0);
    }
    stack_event without_data(origin_id, nullptr);
    EXPECT_EQ(plugin.dispatch->Dispatch(&without_data), 0);
    EXPECT_THAT(data_of(tapped()), ElementsAre("", "", ""));
}

TEST_F(message_bus_test, refuses_no_event_and_an_event_without_a_record) {
    publisher plugin(1);
    ASSERT_EQ(frame->Advise(&plugin, 1), 0);
    EXPECT_LT(plugin.dispatch->Dispatch(nullptr), 0);
    stack_event event(origin_id, nullptr);
    event.has_record = false;
    EXPECT_LT(plugin.dispatch->Dispatch(&event), 0);
    EXPECT_EQ(event.references, 1);
    EXPECT_THAT(tapped(), IsEmpty());
}

TEST_F(message_bus_test, works_on_when_its_tap_cannot_be_written) {
    publisher plugin(1);
    ASSERT_EQ(frame->Advise(&plugin, 1), 0);
    std::filesystem::create_directories(tap_file());  // a folder in its place
    EXPECT_EQ(publish(plugin.dispatch, "lost"), 0);
    std::filesystem::remove(tap_file());
    EXPECT_EQ(publish(plugin.dispatch, "kept"), 0);
    EXPECT_THAT(data_of(tapped()), ElementsAre("kept"));
}

TEST_F(message_bus_test, takes_publications_from_many_threads) {
    publisher plugin(1);
    ASSERT_EQ(frame->Advise(&plugin, 1), 0);
    constexpr int publishers = 4;
    constexpr int each_publishes = 50;
    std::vector<std::thread> threads;
    for (int i = 0; i < publishers; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < each_publishes; ++n) {
                EXPECT_EQ(publish(plugin.dispatch, "text"), 0);
            }
        });
    }
    for (std::thread &each : threads) {
        each.join();
    }
    const auto all = tapped();
    ASSERT_THAT(all, SizeIs(publishers * each_publishes));
    EXPECT_EQ(all.back().id, publishers * each_publishes);
}
