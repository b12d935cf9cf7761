/*
 * The message bus (libkzamb.1.so): the interfaces through which it and its plug-ins reach each
 * other.
 *
 * Neither side links the other; the bus is opened at run time and asked for its object by
 * DllGetClassObject. What counts between the two is the order of the virtual operations and the
 * layout of the records: nothing here may be reordered. The header depends on nothing but
 * the compiler, so that both sides include the same text, of whatever word size.
 *
 * Results of type unsigned int are 0 for success or a code with its top bit set.
 */
#ifndef KZEMDLMGR_DATAPATH_MBFRAME_H
#define KZEMDLMGR_DATAPATH_MBFRAME_H

#include <stddef.h>
#include <stdint.h>

// Identifies an interface or a class.
struct _GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};
static_assert(sizeof(_GUID) == 16, "shared with the bus");

// Why a plug-in is taken off the bus; its values are the bus's own.
enum _UNADVISE_REASON : int;

// How a subscriber answers an event; its content is the bus's own.
struct _RESPONSE_STATUS;

/*
 * The content of an event. The data has no length here: a subscriber knows from the event's id how
 * much there is, or what it ends with.
 * The first 16 bytes lie where they lie on a machine of 32 bits, whatever the size of a pointer.
 */
struct __attribute__((packed)) _RESPONSE_APP_REQUEST_INFO {
    uint16_t reserved_0;
    uint16_t event_id : 10;
    uint16_t event_flags : 6;
    uint8_t reserved_4[8];
    char *data;
    uint32_t reserved_behind_data;
};
static_assert(offsetof(_RESPONSE_APP_REQUEST_INFO, data) == 12 &&
                  sizeof(_RESPONSE_APP_REQUEST_INFO) == 16 + sizeof(char *),
              "shared with the bus");

/*
 * The root of what is counted by references. Objects are released on any thread.
 */
class IUnknown {
  public:
    virtual unsigned int QueryInterface(const _GUID &id, void **out) = 0;
    // Both return the new count. The last release deletes the object.
    virtual int AddRef() { return __atomic_add_fetch(&ref, 1, __ATOMIC_SEQ_CST); }
    virtual int Release() {
        const int left = __atomic_sub_fetch(&ref, 1, __ATOMIC_SEQ_CST);
        if (left == 0) {
            delete this;
        }
        return left;
    }
    virtual ~IUnknown() = default;

  private:
    int ref = 0;
};

namespace MbFrame {

// The number of an interface's name, which both sides compute. It is a well-known hash but for one
// thing: the top four bits come back as those of a signed number, so that a set top bit fills the
// upper half with ones. Without that the numbers would not be the bus's.
constexpr uint32_t interface_number(const char *name) {
    uint32_t number = static_cast<unsigned char>(name[0]);
    uint32_t top = 0;
    for (const char *each = name + 1; *each != '\0'; ++each) {
        number = ((number & ~top) << 4) + static_cast<unsigned char>(*each);
        top = number & 0xF0000000U;
        if (top != 0) {
            const uint32_t filled = (top & 0x80000000U) != 0 ? 0xFFFFFF00U : 0;
            number ^= filled | (top >> 24);
        }
    }
    return number & ~top;
}

// The identifier of an interface.
template <uint32_t number>
constexpr _GUID interface_guid = {number, 0, 0, {}};

// What is published.
class IEvent : public IUnknown {
  public:
    static constexpr const _GUID *IEvent_ID = &interface_guid<interface_number("IEvent")>;

    virtual unsigned int GetUniqueID() const = 0;
    // Whether the bus may drop the event when it delivers later.
    virtual bool AsyncDroppable() const = 0;
    // The content, a _RESPONSE_APP_REQUEST_INFO that belongs to the event.
    virtual void *GetNativeEvent() = 0;
};

// What the bus offers a plug-in about its settings; nothing of it is used here.
class IPluginSetting;

// Where a plug-in hands its events in. It belongs to the bus.
class IDispatch {
  public:
    // Below 0: the event was not taken. The bus keeps an event by a reference of its own.
    virtual int Dispatch(IEvent *event) = 0;

  protected:
    ~IDispatch() = default;
};

// What the bus knows of a plug-in.
class IPlugin : public IUnknown {
  public:
    virtual unsigned int GetUniqueID(unsigned char (*out)[16]) const = 0;
    virtual unsigned int GetVersion(unsigned int *out) const = 0;
    // From now on, until OnUnadvised, the plug-in may dispatch. On any thread. 0, as the other two.
    virtual int OnAdvised(IPluginSetting *setting, IDispatch *dispatch) = 0;
    virtual int OnUnadvised(_UNADVISE_REASON reason) = 0;
    // A subscribed event has come.
    virtual int OnEvent(IEvent *event, _RESPONSE_STATUS *status) = 0;
};

// The bus.
class IRtmFrame : public IUnknown {
  public:
    static constexpr const _GUID *IRtmFrame_ID = &interface_guid<interface_number("IRtmFrame")>;

    virtual int reserved_0() = 0;
    virtual int reserved_1() = 0;
    // Puts a plug-in on the bus, which calls its OnAdvised. The plug-in stays the caller's. 0 or an
    // error code.
    virtual int Advise(IPlugin *plugin, int mode) = 0;
    // Takes the plug-in with this identifier off the bus.
    virtual int Unadvise(const unsigned char (*id)[16]) = 0;
};

}  // namespace MbFrame

extern "C" {
/* The one function of the library: an object of a class with an interface, holding a reference for
 * the caller. 0, or an error code with *object_out as it was. */
typedef int (*DllGetClassObject_fn)(const _GUID *clsid, const _GUID *iid, void **object_out);
}

#endif
