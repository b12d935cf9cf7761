/*
 * libkzamb.1.so of these tests: of the plug-in it knows the bus's interface header and nothing
 * else, and it reaches the plug-in's objects through their virtual tables alone. What they answer
 * is noted on the stage.
 *
 * The last event is kept until the next one comes.
 */
#include <cstdio>
#include <cstring>

#include "datapath/mbframe.h"
#include "tests/component/plugin/stage.h"

#ifndef GET_OBJECT
#define GET_OBJECT 0
#endif
#ifndef ADVISE
#define ADVISE 0
#endif

namespace {

using plugin_stage::stage;

constexpr unsigned int offline_id = 1022;
constexpr size_t offline_length = 7;

void note(const std::string &text) {
    stage::instance().note("bus: " + text);
}

std::string hex(unsigned int number) {
    char text[16] = {};
    snprintf(text, sizeof(text), "%x", number);
    return text;
}

std::string hex(const unsigned char (&bytes)[16]) {
    char text[33] = {};
    for (size_t i = 0; i < sizeof(bytes); ++i) {
        snprintf(text + 2 * i, 3, "%02x", bytes[i]);
    }
    return text;
}

// All that the interface has.
void look_at(MbFrame::IEvent &event) {
    void *same = nullptr;
    const unsigned int known = event.QueryInterface(*MbFrame::IEvent::IEvent_ID, &same);
    note("event query " + hex(known) + (same == &event ? ", itself" : ", another"));
    const int added = event.AddRef();
    const int released = event.Release();
    note("event references " + std::to_string(added) + " " + std::to_string(released));
    event.Release();  // what the query gave
    const unsigned int id = event.GetUniqueID();
    note("event id " + std::to_string(id) + (event.AsyncDroppable() ? ", droppable" : ", kept"));
    const auto *const record = static_cast<_RESPONSE_APP_REQUEST_INFO *>(event.GetNativeEvent());
    note("event data " + (id == offline_id ? std::string(record->data, offline_length)
                                           : std::string(record->data)));
    if (id == offline_id) {
        stage::left_behind_by_design(record->data);
    }
}

class test_dispatch : public MbFrame::IDispatch {
  public:
    int Dispatch(MbFrame::IEvent *event) override {
        look_at(*event);
        event->AddRef();
        if (kept != nullptr) {
            note("kept event released " + std::to_string(kept->Release()));
        }
        kept = event;
        return 1;
    }

  private:
    MbFrame::IEvent *kept = nullptr;
};

class test_frame : public MbFrame::IRtmFrame {
  public:
    unsigned int QueryInterface(const _GUID &, void **) override {
        return static_cast<unsigned int>(unused());
    }
    int AddRef() override { return unused(); }
    int Release() override {
        note("release");
        return 0;
    }
    int reserved_0() override { return unused(); }
    int reserved_1() override { return unused(); }

    int Advise(MbFrame::IPlugin *plugin, int mode) override {
        note("advise " + std::to_string(mode));
        void *out = nullptr;
        note("plugin query " + hex(plugin->QueryInterface(_GUID{}, &out)));
        const int added = plugin->AddRef();
        note("plugin references " + std::to_string(added) + " " +
             std::to_string(plugin->Release()));
        unsigned char id[16] = {};
        const unsigned int id_code = plugin->GetUniqueID(&id);
        note("plugin id " + hex(id_code) + " " + hex(id));
        unsigned int version = 0;
        const unsigned int version_code = plugin->GetVersion(&version);
        note("plugin version " + hex(version_code) + " " + std::to_string(version));
        plugin->OnEvent(nullptr, nullptr);
        if (ADVISE == 0) {
            plugin->OnAdvised(nullptr, nullptr);
            plugin->OnUnadvised(static_cast<_UNADVISE_REASON>(0));
            plugin->OnAdvised(nullptr, &dispatch);
        }
        return ADVISE;
    }

    int Unadvise(const unsigned char (*id)[16]) override {
        note("unadvise " + hex(*id));
        return 0;
    }

  private:
    static int unused() {
        note("an operation that is not for plug-ins");
        return 1;
    }

    test_dispatch dispatch;
};

}  // namespace

extern "C" __attribute__((visibility("default"))) int DllGetClassObject(const _GUID *clsid,
                                                                        const _GUID *iid,
                                                                        void **object_out) {
    static test_frame s_frame;
    const _GUID null_class = {};
    const bool asked_well = memcmp(clsid, &null_class, sizeof(null_class)) == 0 &&
                            memcmp(iid, MbFrame::IRtmFrame::IRtmFrame_ID, sizeof(*iid)) == 0;
    note(asked_well ? "get object" : "get another object");
    if (GET_OBJECT == 0) {
        *object_out = static_cast<MbFrame::IRtmFrame *>(&s_frame);
    }
    return GET_OBJECT;
}
