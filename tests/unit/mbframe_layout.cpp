// Where the fields of an event's record lie, which this machine's compiler says for pointers of 64
// bits, and with -m32 for those of 32.

#include "datapath/mbframe.h"

namespace {

using record = _RESPONSE_APP_REQUEST_INFO;

constexpr size_t size = sizeof(void *) == 4 ? 20 : 24;

static_assert(sizeof(void *) == 4 || sizeof(void *) == 8, "pointers of 32 or 64 bits");
static_assert(sizeof(record) == size, "the whole record");
static_assert(offsetof(record, reserved_0) == 0 && sizeof(record::reserved_0) == 2, "unused");
static_assert(offsetof(record, reserved_4) == 4 && sizeof(record::reserved_4) == 8,
              "behind the word with the event's id");
static_assert(offsetof(record, data) == 12 && sizeof(record::data) == sizeof(void *), "the data");
static_assert(offsetof(record, reserved_behind_data) == size - 4, "the end");
static_assert(sizeof(_GUID) == 16 && offsetof(_GUID, Data2) == 4 && offsetof(_GUID, Data3) == 6 &&
                  offsetof(_GUID, Data4) == 8,
              "identifiers");
static_assert(MbFrame::interface_number("IRtmFrame") == 0x04E23A55, "a number of 32 bits");

}  // namespace
