/*
 * The plug-in as the message bus knows it: a publisher that subscribes to nothing.
 */
#ifndef KZEMDLMGR_DATAPATH_KZEMM_INVOKE_H
#define KZEMDLMGR_DATAPATH_KZEMM_INVOKE_H

#include "datapath/mbframe.h"
#include "kzabase.h"

// What Publish is told its data is.
enum kzemm_publish_kind : unsigned int {
    KZEMM_PUBLISH_ORIGIN = 8,          // the engine's origin data
    KZEMM_PUBLISH_OFFLINE = 0xff008a,  // the engine's client came back after an outage
};

/*
 * Threads: Initialize runs before the worker exists. Publications come from threads of the engine
 * client and from the worker, advices from any thread of the bus; the mutex lets one of them in at
 * a time and is held while the bus takes an event.
 */
class kzemm_invoke : public MbFrame::IPlugin {
  public:
    // The one object. It stays on the bus until the process ends.
    static kzemm_invoke &GetInstance();

    // Opens the bus library and joins. True also where there is no such library: the agent's
    // reduced installation has no bus. A second call changes nothing.
    bool Initialize();
    // Leaves the bus and closes its library.
    void UnInitialize();

    // Publishes a copy of the data, once; what the bus doesn't take is lost. Does nothing without
    // data or an instance.
    static void Publish(unsigned int kind, const char *data, unsigned int len,
                        kzemm_invoke *instance);
    void Publish_t(unsigned int kind, const char *data, unsigned int len);
    // Fills a record with a copy of the data. False for a kind that is none, or without memory.
    static bool Transform(unsigned int kind, const char *data, unsigned int len,
                          _RESPONSE_APP_REQUEST_INFO *info);

    unsigned int QueryInterface(const _GUID &id, void **out) override;
    // The object is nobody's to count.
    int AddRef() override;
    int Release() override;
    unsigned int GetUniqueID(unsigned char (*out)[16]) const override;
    unsigned int GetVersion(unsigned int *out) const override;
    int OnAdvised(MbFrame::IPluginSetting *setting, MbFrame::IDispatch *to) override;
    int OnUnadvised(_UNADVISE_REASON reason) override;
    int OnEvent(MbFrame::IEvent *event, _RESPONSE_STATUS *status) override;

  private:
    friend struct kzemm_invoke_inspector;  // tests look at the fields through it

    kzemm_invoke();
    ~kzemm_invoke() override;

    MbFrame::IDispatch *dispatch = nullptr;  // the bus's; null while not advised
    kze_mutex_t mutex;
    void *dll = nullptr;
    MbFrame::IRtmFrame *frame = nullptr;  // with one reference
};

#endif
