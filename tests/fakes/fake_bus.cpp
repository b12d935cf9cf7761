#include "tests/fakes/fake_bus.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <mutex>

#include "datapath/kzemm_event.h"
#include "datapath/kzemm_invoke.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/journal.h"

namespace {

constexpr size_t offline_length = 7;

struct bus_state {
    std::vector<fakes::bus_event> events;
    int dispatch_result = 0;
    std::function<void(MbFrame::IEvent *)> dispatch_hook;
    _GUID asked_class = {};
    _GUID asked_interface = {};
    int get_object_code = 0;
    bool object_despite_code = false;
    bool gives_no_object = false;
    int advise_code = 0;
    bool advises_at_once = true;
    MbFrame::IPlugin *plugin = nullptr;
    int frame_references = 0;
};

std::mutex s_mutex;
bus_state s_state;

void note(const std::string &text) {
    fakes::note(fakes::what::bus, text);
}

std::string data_of(unsigned int id, const char *data) {
    if (id == KZEMM_EVENT_OFFLINE) {
        return std::string(data, offline_length);
    }
    return data;
}

class fake_dispatch : public MbFrame::IDispatch {
  public:
    int Dispatch(MbFrame::IEvent *event) override {
        const unsigned int id = event->GetUniqueID();
        note("dispatch " + std::to_string(id));
        auto *const record = static_cast<_RESPONSE_APP_REQUEST_INFO *>(event->GetNativeEvent());
        if (id == KZEMM_EVENT_OFFLINE) {
            fakes::left_behind_by_design(record->data);
        }
        std::function<void(MbFrame::IEvent *)> hook;
        int result = 0;
        {
            const std::lock_guard<std::mutex> lock(s_mutex);
            s_state.events.push_back({id, data_of(id, record->data), pthread_self()});
            hook = s_state.dispatch_hook;
            result = s_state.dispatch_result;
        }
        if (hook) {
            hook(event);
        }
        return result;
    }
};

class fake_frame : public MbFrame::IRtmFrame {
  public:
    unsigned int QueryInterface(const _GUID &, void **) override {
        ADD_FAILURE() << "the bus was asked for another interface";
        return 1;
    }
    int AddRef() override {
        const std::lock_guard<std::mutex> lock(s_mutex);
        return ++s_state.frame_references;
    }
    int Release() override {
        note("release");
        const std::lock_guard<std::mutex> lock(s_mutex);
        return --s_state.frame_references;
    }
    int reserved_0() override { return unused(); }
    int reserved_1() override { return unused(); }

    int Advise(MbFrame::IPlugin *plugin, int mode) override {
        note("advise " + std::to_string(mode));
        {
            const std::lock_guard<std::mutex> lock(s_mutex);
            s_state.plugin = plugin;
            if (s_state.advise_code != 0) {
                return s_state.advise_code;
            }
            if (!s_state.advises_at_once) {
                return 0;
            }
        }
        plugin->OnAdvised(nullptr, fakes::bus_dispatch());
        return 0;
    }

    int Unadvise(const unsigned char (*id)[16]) override {
        std::string text = "unadvise ";
        for (const unsigned char each : *id) {
            char digits[3] = {};
            snprintf(digits, sizeof(digits), "%02x", each);
            text += digits;
        }
        note(text);
        return 0;
    }

  private:
    static int unused() {
        ADD_FAILURE() << "an operation of the bus that is not for plug-ins";
        return 1;
    }
};

fake_frame s_frame;
fake_dispatch s_dispatch;

int fake_get_class_object(const _GUID *clsid, const _GUID *iid, void **object_out) {
    note("get object");
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.asked_class = *clsid;
    s_state.asked_interface = *iid;
    const bool gives = s_state.get_object_code == 0 || s_state.object_despite_code;
    if (gives && !s_state.gives_no_object) {
        ++s_state.frame_references;
        *object_out = static_cast<MbFrame::IRtmFrame *>(&s_frame);
    }
    return s_state.get_object_code;
}

}  // namespace

namespace fakes {

std::vector<bus_event> bus_events() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.events;
}

void bus_dispatch_returns(int result) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.dispatch_result = result;
}

void on_bus_dispatch(std::function<void(MbFrame::IEvent *)> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.dispatch_hook = std::move(hook);
}

_GUID bus_asked_class() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.asked_class;
}

_GUID bus_asked_interface() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.asked_interface;
}

void bus_get_object_returns(int code, bool with_object) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.get_object_code = code;
    s_state.object_despite_code = with_object;
}

void bus_gives_no_object() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.gives_no_object = true;
}

void bus_advise_returns(int code) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.advise_code = code;
}

void bus_advises_at_once(bool on) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.advises_at_once = on;
}

MbFrame::IPlugin *bus_plugin() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.plugin;
}

MbFrame::IDispatch *bus_dispatch() {
    return &s_dispatch;
}

int bus_frame_references() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.frame_references;
}

void advise_plugin() {
    kzemm_invoke::GetInstance().OnAdvised(nullptr, &s_dispatch);
}

symbols bus_symbols() {
    const DllGetClassObject_fn get = fake_get_class_object;
    return {{"DllGetClassObject", reinterpret_cast<void *>(get)}};
}

void reset_bus() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state = bus_state();
}

}  // namespace fakes
