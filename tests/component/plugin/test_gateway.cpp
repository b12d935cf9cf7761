/*
 * libkzethtgw.3.so of these tests. The defect of its other build is that its function was given
 * another name on the compiler's command line.
 */
#include "tests/component/plugin/stage.h"

extern "C" __attribute__((visibility("default"))) int kzethtgw_async_send(KZEMM_DATA_TYPE type,
                                                                          const char *data,
                                                                          unsigned int len) {
    return plugin_stage::stage::instance().gateway_take(type, data, len);
}
