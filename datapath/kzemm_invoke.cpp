#include "datapath/kzemm_invoke.h"

#include <cstring>
#include <new>

#include "datapath/kzemm_bus_log.h"
#include "datapath/kzemm_event.h"
#include "datapath/kzemm_mutex_lock.h"
#include "kzautil.h"

namespace {

constexpr char bus_path[] = "@/../agent_plugins/libkzamb.1.so";
constexpr size_t path_size = 4097;
constexpr _GUID CLSID_NULL = {};
constexpr int advise_mode = 1;
constexpr unsigned int plugin_version = 1;

constexpr unsigned int code_bad_argument = 0x84CE0002;
constexpr unsigned int code_no_interface = 0x84CE0012;

constexpr unsigned char plugin_id[16] = {0x61, 0x58, 0x18, 0x36, 0xB4, 0x46, 0x43, 0xDA,
                                         0xB1, 0x18, 0xE4, 0x69, 0xF6, 0x6B, 0xFF, 0x6F};

struct event_release {
    kzemm_event *const event;
    ~event_release() { event->Release(); }
};

// A record knows no length, and the dump of an origin event in the log must end with its data.
constexpr size_t zeros_behind_origin = 1;

// A copy of the data, with so many zero bytes behind it.
char *copy_of(const char *data, unsigned int len, size_t zeros) {
    auto *const copy = new (std::nothrow) char[size_t{len} + zeros];
    if (copy != nullptr) {
        memcpy(copy, data, len);
        memset(copy + len, 0, zeros);
    }
    return copy;
}

}  // namespace

kzemm_invoke &kzemm_invoke::GetInstance() {
    static kzemm_invoke This;
    return This;
}

kzemm_invoke::kzemm_invoke() : mutex(kze_mutex_init()) {}

kzemm_invoke::~kzemm_invoke() {
    kze_mutex_destroy(mutex);
}

bool kzemm_invoke::Initialize() {
    if (dll != nullptr) {
        return true;
    }
    char path[path_size] = {};
    kze_dirutils_path_transform(bus_path, path, sizeof(path));
    if (kze_path_is_exist_u(path) == 0) {
        kzemm_bus_log(2, "lite no kzamb path: %s, not load", path);
        return true;
    }
    if (const int code = kze_dll_open(path, &dll); code != 0) {
        kzemm_bus_log(0, "mb dll open failed!0x%08x", static_cast<unsigned int>(code));
        return false;
    }
    void *entry = nullptr;
    if (const int code = kze_dll_get_addr(dll, "DllGetClassObject", &entry); code != 0) {
        kzemm_bus_log(0, "mb dll_get_addr failed!0x%08x", static_cast<unsigned int>(code));
        UnInitialize();
        return false;
    }
    const auto get_class_object = reinterpret_cast<DllGetClassObject_fn>(entry);
    void *object = nullptr;
    const int object_code =
        get_class_object(&CLSID_NULL, MbFrame::IRtmFrame::IRtmFrame_ID, &object);
    frame = static_cast<MbFrame::IRtmFrame *>(object);
    if (object_code != 0 || frame == nullptr) {
        kzemm_bus_log(0, "mb get object failed!0x%08x", static_cast<unsigned int>(object_code));
        UnInitialize();
        return false;
    }
    if (const int code = frame->Advise(this, advise_mode); code != 0) {
        kzemm_bus_log(0, "mb advise failed!0x%08x", static_cast<unsigned int>(code));
        UnInitialize();
        return false;
    }
    return true;
}

void kzemm_invoke::UnInitialize() {
    if (frame != nullptr) {
        frame->Unadvise(&plugin_id);
        frame->Release();
        frame = nullptr;
    }
    if (dll != nullptr) {
        kze_dll_close(dll);
        dll = nullptr;
    }
}

void kzemm_invoke::Publish(unsigned int kind, const char *data, unsigned int len,
                           kzemm_invoke *instance) {
    if (data != nullptr && len != 0 && instance != nullptr) {
        instance->Publish_t(kind, data, len);
    }
}

void kzemm_invoke::Publish_t(unsigned int kind, const char *data, unsigned int len) {
    if (data == nullptr || len == 0) {
        kzemm_bus_log(0, "param error.");
        return;
    }
    const mutex_lock lock(mutex);
    if (dispatch == nullptr) {
        kzemm_bus_log(0, "bus need init first.");
        return;
    }
    kzemm_bus_log(3, "rec one message.");
    _RESPONSE_APP_REQUEST_INFO *info = nullptr;
    kzemm_event *const event = kzemm_event::New(&info);
    if (event == nullptr) {
        kzemm_bus_log(0, "New kzemm_event error.");
        return;
    }
    const event_release release{event};
    if (Transform(kind, data, len, info) && dispatch->Dispatch(event) < 0) {
        kzemm_bus_log(0, "Error to Invoke data.");
    }
    kzemm_event::DumpEvent(info);
}

bool kzemm_invoke::Transform(unsigned int kind, const char *data, unsigned int len,
                             _RESPONSE_APP_REQUEST_INFO *info) {
    switch (kind) {
        case KZEMM_PUBLISH_ORIGIN:
            info->data = copy_of(data, len, zeros_behind_origin);
            if (info->data == nullptr) {
                kzemm_bus_log(1, "create OriginCltLog buffer failed");
                return false;
            }
            info->event_id = KZEMM_EVENT_ORIGIN;
            return true;
        case KZEMM_PUBLISH_OFFLINE:
            info->data = copy_of(data, len, 0);
            if (info->data == nullptr) {
                kzemm_bus_log(1, "create offline event buffer failed");
                return false;
            }
            info->event_id = KZEMM_EVENT_OFFLINE;
            return true;
        default:
            return false;
    }
}

unsigned int kzemm_invoke::QueryInterface(const _GUID &, void **) {
    return code_no_interface;
}

int kzemm_invoke::AddRef() {
    return 0;
}

int kzemm_invoke::Release() {
    return 0;
}

unsigned int kzemm_invoke::GetUniqueID(unsigned char (*out)[16]) const {
    if (out == nullptr) {
        return code_bad_argument;
    }
    memcpy(*out, plugin_id, sizeof(plugin_id));
    return 0;
}

unsigned int kzemm_invoke::GetVersion(unsigned int *out) const {
    if (out == nullptr) {
        return code_bad_argument;
    }
    *out = plugin_version;
    return 0;
}

int kzemm_invoke::OnAdvised(MbFrame::IPluginSetting *, MbFrame::IDispatch *to) {
    const mutex_lock lock(mutex);
    dispatch = to;
    return 0;
}

int kzemm_invoke::OnUnadvised(_UNADVISE_REASON) {
    const mutex_lock lock(mutex);
    dispatch = nullptr;
    return 0;
}

int kzemm_invoke::OnEvent(MbFrame::IEvent *, _RESPONSE_STATUS *) {
    return 0;
}
