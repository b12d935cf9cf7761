// An engine client without an engine: its buffers come from malloc, nothing else is asked of it.

#include <cstdlib>

#define STUB(name)                                                 \
    extern "C" __attribute__((visibility("default"))) int name() { \
        return 0;                                                  \
    }

STUB(x_client_start)
STUB(x_client_stop)
STUB(x_client_engine_update)
STUB(x_client_engine_update_async)
STUB(x_client_engine_update_by_data)
STUB(x_client_engine_control)
STUB(x_client_engine_query_version)
STUB(x_client_engine_query_version_str)
STUB(x_client_engine_set_runlevel)
STUB(x_client_engine_subscribe_alarm)
STUB(x_client_coordinate)
STUB(x_client_subscribe_origin_data)
STUB(x_client_register_coordinate_cb)
STUB(x_client_coordinate_dispose_trc)
STUB(x_client_subscribe_clt)
STUB(x_client_engine_subscribe_credible)
STUB(x_client_set_drive_switch)
STUB(x_client_get_drive_state)
STUB(x_client_get_collect_state)

extern "C" __attribute__((visibility("default"))) void x_client_free(void *buffer) {
    free(buffer);
}
