#include "datapath/kzemm_event.h"

#include <cstring>
#include <new>

#include "datapath/kzemm_bus_log.h"
#include "kzabase.h"

namespace {

constexpr unsigned int code_pointer = 0x80004003;
constexpr unsigned int code_no_interface = 0x80004002;

}  // namespace

kzemm_event *kzemm_event::New(_RESPONSE_APP_REQUEST_INFO **info_out) {
    auto *const record = new (std::nothrow) _RESPONSE_APP_REQUEST_INFO();
    if (record == nullptr) {
        kzemm_bus_log(1, "Create event buffer Failed");
        return nullptr;
    }
    *info_out = record;
    auto *const event = new (std::nothrow) kzemm_event(record);
    if (event == nullptr) {
        kzemm_bus_log(1, "Create defense event Failed");
        delete record;
        return nullptr;
    }
    event->AddRef();
    return event;
}

kzemm_event::~kzemm_event() {
    delete info;
}

unsigned int kzemm_event::QueryInterface(const _GUID &id, void **out) {
    if (out == nullptr) {
        return code_pointer;
    }
    if (memcmp(&id, IEvent_ID, sizeof(id)) != 0) {
        *out = nullptr;
        return code_no_interface;
    }
    *out = static_cast<MbFrame::IEvent *>(this);
    AddRef();
    return 0;
}

int kzemm_event::AddRef() {
    return kze_atomic32_add_and_fetch(&ref_count, 1);
}

int kzemm_event::Release() {
    const int left = kze_atomic32_add_and_fetch(&ref_count, -1);
    if (left != 0) {
        return left;
    }
    if (info->event_id == KZEMM_EVENT_ORIGIN && info->data != nullptr) {
        delete[] info->data;
        info->data = nullptr;
    }
    delete this;
    return 0;
}

unsigned int kzemm_event::GetUniqueID() const {
    return info->event_id;
}

bool kzemm_event::AsyncDroppable() const {
    return false;
}

void *kzemm_event::GetNativeEvent() {
    return info;
}

void kzemm_event::DumpEvent(const _RESPONSE_APP_REQUEST_INFO *info) {
    if (info == nullptr) {
        kzemm_bus_log(1, "param error");
        return;
    }
    if (info->event_id == KZEMM_EVENT_ORIGIN) {
        kzemm_bus_log(3, "Event: %u OriginCltJson: %s", static_cast<unsigned int>(info->event_id),
                      info->data);
    }
}
