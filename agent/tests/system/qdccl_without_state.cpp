/* An engine client that lacks x_client_get_collect_state, and does nothing. */

#define ENTRY(name) extern "C" __attribute__((visibility("default"))) int name();
#define DEFINE(name) \
    ENTRY(name)      \
    int name() {     \
        return -1;   \
    }

DEFINE(x_client_start)
DEFINE(x_client_stop)
DEFINE(x_client_engine_update)
DEFINE(x_client_engine_update_async)
DEFINE(x_client_engine_update_by_data)
DEFINE(x_client_engine_control)
DEFINE(x_client_engine_query_version)
DEFINE(x_client_engine_query_version_str)
DEFINE(x_client_free)
DEFINE(x_client_engine_set_runlevel)
DEFINE(x_client_engine_subscribe_alarm)
DEFINE(x_client_coordinate)
DEFINE(x_client_subscribe_origin_data)
DEFINE(x_client_register_coordinate_cb)
DEFINE(x_client_coordinate_dispose_trc)
DEFINE(x_client_subscribe_clt)
DEFINE(x_client_engine_subscribe_credible)
DEFINE(x_client_set_drive_switch)
DEFINE(x_client_get_drive_state)
