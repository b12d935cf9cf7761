/*
 * One publication on the message bus.
 */
#ifndef KZEMDLMGR_DATAPATH_KZEMM_EVENT_H
#define KZEMDLMGR_DATAPATH_KZEMM_EVENT_H

#include "datapath/mbframe.h"

// What the bus knows the publications by.
enum kzemm_event_id : unsigned int {
    KZEMM_EVENT_ORIGIN = 18,
    KZEMM_EVENT_OFFLINE = 1022,
};

/*
 * Threads: made and filled by one thread; afterwards read and released by any.
 */
class kzemm_event : public MbFrame::IEvent {
  public:
    // An event with an empty record, which info_out shows, and one reference, the caller's. Null
    // without memory.
    static kzemm_event *New(_RESPONSE_APP_REQUEST_INFO **info_out);

    unsigned int QueryInterface(const _GUID &id, void **out) override;
    int AddRef() override;
    // With the last reference the event goes, and the data of origin events. That of an offline
    // event, seven bytes a reconnect, stays behind by design.
    int Release() override;
    unsigned int GetUniqueID() const override;
    bool AsyncDroppable() const override;
    void *GetNativeEvent() override;

    // Logs an origin event's data, a text that ends with a zero byte behind what was published.
    static void DumpEvent(const _RESPONSE_APP_REQUEST_INFO *info);

  private:
    explicit kzemm_event(_RESPONSE_APP_REQUEST_INFO *content) : info(content) {}
    ~kzemm_event() override;

    volatile int ref_count = 0;
    _RESPONSE_APP_REQUEST_INFO *info;  // owned
};

#endif
