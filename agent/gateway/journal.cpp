#include "agent/gateway/journal.h"

#include "engine/qd_client.h"

namespace kze::gateway {
namespace {

struct type_name {
    int type;
    const char *name;
};

constexpr type_name type_names[] = {
    {KZEMM_DATA_ALARM, "alarm"},
    {KZEMM_DATA_LINKAGE, "linkage"},
    {KZEMM_DATA_APPEND, "append"},
    {KZEMM_DATA_HUNTING, "hunting"},
    {KZEMM_DATA_ORIGIN, "origin"},
    {KZEMM_DATA_CTMIOA_RESULT, "ctmioa_result"},
    {KZEMM_DATA_CTMIOA_HELLO, "ctmioa_hello"},
    {KZEMM_DATA_CREDIBLE, "credible"},
};

}  // namespace

const char *data_type_name(int type) {
    for (const type_name &known : type_names) {
        if (known.type == type) {
            return known.name;
        }
    }
    return "unknown";
}

int data_type_number(const std::string &name) {
    for (const type_name &known : type_names) {
        if (name == known.name) {
            return known.type;
        }
    }
    return 0;
}

}  // namespace kze::gateway
