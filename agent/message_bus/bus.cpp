/* libkzamb.1.so: the message bus, whose one subscriber is its tap. */

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "agent/common/tree.h"
#include "agent/message_bus/events.h"
#include "agent/message_bus/tap.h"
#include "datapath/mbframe.h"
#include "vrdbase.h"

namespace kze::bus {
namespace {

constexpr unsigned int code_pointer = 0x80004003;
constexpr unsigned int code_no_interface = 0x80004002;
constexpr unsigned int code_no_memory = 0x8007000E;
constexpr unsigned int code_no_plugin = 0x80070490;

constexpr _GUID class_of_the_bus = {};
constexpr auto unadvised_on_request = static_cast<_UNADVISE_REASON>(0);

int result_of(unsigned int code) {
    return static_cast<int>(code);
}

/* Takes events in and shows them to the tap. Safe from any thread. */
class dispatcher : public MbFrame::IDispatch {
  public:
    int Dispatch(MbFrame::IEvent *event) override;

  private:
    void keep(MbFrame::IEvent &event);

    std::mutex mutex_;
    record_writer tap_{tree_path(tap_path), tap_form}; /* guarded by mutex_ */
    bool tap_failed_ = false;                          /* the same */
};

/* A tap that can't be written is told of once, and the publication is taken all the same. */
void dispatcher::keep(MbFrame::IEvent &event) {
    const auto *const record =
        static_cast<const _RESPONSE_APP_REQUEST_INFO *>(event.GetNativeEvent());
    const unsigned int id = event.GetUniqueID();
    const std::lock_guard<std::mutex> lock(mutex_);
    const bool kept = tap_.append(publication(id, event_data(id, record->data))).has_value();
    if (!kept && !tap_failed_) {
        kze_log(2, "message bus: the tap keeps nothing: %s", tap_.problem().c_str());
    }
    tap_failed_ = !kept;
}

int dispatcher::Dispatch(MbFrame::IEvent *event) {
    if (event == nullptr) {
        return result_of(code_pointer);
    }
    event->AddRef();
    int result = 0;
    if (event->GetNativeEvent() == nullptr) {
        result = result_of(code_pointer);
    } else {
        try {
            keep(*event);
        } catch (const std::bad_alloc &) {
            result = result_of(code_no_memory);
        }
    }
    event->Release();
    return result;
}

/*
 * The bus. It lives as long as the library, whoever holds a reference. Plug-ins are called without
 * a lock: their own are held while they publish. Safe from any thread.
 */
class frame : public MbFrame::IRtmFrame {
  public:
    unsigned int QueryInterface(const _GUID &id, void **out) override;
    int AddRef() override { return __atomic_add_fetch(&references_, 1, __ATOMIC_SEQ_CST); }
    int Release() override { return __atomic_sub_fetch(&references_, 1, __ATOMIC_SEQ_CST); }
    int reserved_0() override { return 0; }
    int reserved_1() override { return 0; }
    int Advise(MbFrame::IPlugin *plugin, int mode) override;
    int Unadvise(const unsigned char (*id)[16]) override;

  private:
    using plugin_id = std::array<unsigned char, 16>;
    struct advised {
        plugin_id id;
        MbFrame::IPlugin *plugin;
    };

    void remember(const plugin_id &id, MbFrame::IPlugin *plugin);
    MbFrame::IPlugin *forget(const plugin_id &id);

    int references_ = 0; /* atomic */
    dispatcher dispatcher_;
    std::mutex mutex_;
    std::vector<advised> plugins_; /* guarded by mutex_ */
};

unsigned int frame::QueryInterface(const _GUID &id, void **out) {
    if (out == nullptr) {
        return code_pointer;
    }
    if (std::memcmp(&id, IRtmFrame_ID, sizeof(id)) != 0) {
        *out = nullptr;
        return code_no_interface;
    }
    AddRef();
    *out = static_cast<MbFrame::IRtmFrame *>(this);
    return 0;
}

/* A plug-in that comes again has been loaded anew, and what was known of it is gone. */
void frame::remember(const plugin_id &id, MbFrame::IPlugin *plugin) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (advised &known : plugins_) {
        if (known.id == id) {
            known.plugin = plugin;
            return;
        }
    }
    plugins_.push_back({id, plugin});
}

MbFrame::IPlugin *frame::forget(const plugin_id &id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = std::find_if(plugins_.begin(), plugins_.end(),
                                    [&](const advised &known) { return known.id == id; });
    if (found == plugins_.end()) {
        return nullptr;
    }
    MbFrame::IPlugin *const plugin = found->plugin;
    plugins_.erase(found);
    return plugin;
}

int frame::Advise(MbFrame::IPlugin *plugin, int) {
    if (plugin == nullptr) {
        return result_of(code_pointer);
    }
    unsigned char bytes[16] = {};
    if (const unsigned int code = plugin->GetUniqueID(&bytes); code != 0) {
        return result_of(code);
    }
    plugin_id id = {};
    std::memcpy(id.data(), bytes, id.size());
    try {
        remember(id, plugin);
    } catch (const std::bad_alloc &) {
        return result_of(code_no_memory);
    }
    plugin->OnAdvised(nullptr, &dispatcher_);
    return 0;
}

int frame::Unadvise(const unsigned char (*id)[16]) {
    if (id == nullptr) {
        return result_of(code_pointer);
    }
    plugin_id wanted = {};
    std::memcpy(wanted.data(), *id, wanted.size());
    MbFrame::IPlugin *const plugin = forget(wanted);
    if (plugin == nullptr) {
        return result_of(code_no_plugin);
    }
    plugin->OnUnadvised(unadvised_on_request);
    return 0;
}

}  // namespace
}  // namespace kze::bus

extern "C" __attribute__((visibility("default"))) int DllGetClassObject(const _GUID *clsid,
                                                                        const _GUID *iid,
                                                                        void **object_out) {
    using namespace kze::bus;
    if (clsid == nullptr || iid == nullptr || object_out == nullptr) {
        return result_of(code_pointer);
    }
    if (std::memcmp(clsid, &class_of_the_bus, sizeof(*clsid)) != 0) {
        return result_of(code_no_interface);
    }
    try {
        static frame the_bus;
        void *object = nullptr;
        const unsigned int code = the_bus.QueryInterface(*iid, &object);
        if (code == 0) {
            *object_out = object;
        }
        return result_of(code);
    } catch (const std::bad_alloc &) {
        return result_of(code_no_memory);
    }
}
