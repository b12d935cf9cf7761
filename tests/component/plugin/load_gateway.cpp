/* libkzethtgw.3.so under load: counts and keeps nothing. */
#include "tests/component/plugin/load_stage.h"

extern "C" __attribute__((visibility("default"))) int kzethtgw_async_send(KZEMM_DATA_TYPE type,
                                                                          const char *,
                                                                          unsigned int) {
    return load_stage::engine::instance().gateway_take(type);
}
