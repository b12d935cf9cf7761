/*
 * libqdccl.so under load: counts what the task thread brings and answers it later, on a thread of
 * its own.
 */
#include <string>

#include "tests/component/plugin/load_stage.h"

#define EXPORTED extern "C" __attribute__((visibility("default")))

/* Functions that these tests have no question about; their parameters follow the name. */
#define UNASKED(name, ...)           \
    EXPORTED int name(__VA_ARGS__) { \
        return 0;                    \
    }

using load_stage::call_kind;
using load_stage::engine;

UNASKED(x_client_engine_update, _engine_type, const char *)
UNASKED(x_client_engine_update_async, _engine_type, const char *, qd_update_cb, void *)
UNASKED(x_client_engine_control, _engine_type, int)
UNASKED(x_client_engine_query_version, _engine_type, unsigned int *)
UNASKED(x_client_engine_query_version_str, _engine_type, char **)
UNASKED(x_client_engine_set_runlevel, int)
UNASKED(x_client_engine_subscribe_alarm, qd_data_cb, void *)
UNASKED(x_client_subscribe_origin_data, unsigned int, qd_data_cb, void *)
UNASKED(x_client_register_coordinate_cb, int, qd_data_cb, void *)
UNASKED(x_client_subscribe_clt, qd_data_cb, void *)

EXPORTED int x_client_start(const qd_client_callbacks *, void *) {
    engine::instance().start();
    return 0;
}

EXPORTED int x_client_stop() {
    engine::instance().stop();
    return 0;
}

EXPORTED void x_client_free(void *buffer) {
    engine::instance().free_buffer(buffer);
}

EXPORTED int x_client_engine_subscribe_credible(qd_data_cb callback, void *context) {
    engine::instance().subscribe_credible(callback, context);
    return 0;
}

EXPORTED int x_client_coordinate(int trace_type, const char *frame, unsigned int len) {
    return engine::instance().call(static_cast<call_kind>(trace_type), frame, len);
}

EXPORTED int x_client_engine_update_by_data(_engine_type type, const char *data, unsigned int len,
                                            qd_update_cb callback, void *context) {
    engine::instance().call(call_kind::rules, data, len);
    engine::instance().call_back([=] { callback(type, 0, context); });
    return 0;
}

EXPORTED int x_client_coordinate_dispose_trc(const char *request, unsigned int len,
                                             qd_dispose_trc_cb callback, void *context) {
    constexpr unsigned int answer_size = 64;
    engine::instance().call(call_kind::analysis, request, len);
    engine::instance().call_back(
        [=] { callback(0, engine::instance().new_buffer(answer_size), answer_size, context); });
    return 0;
}

EXPORTED int x_client_set_drive_switch(int, int, int *result_out) {
    *result_out = 0;
    return 0;
}

EXPORTED int x_client_get_drive_state(int *state_out) {
    *state_out = 0;
    return 0;
}

EXPORTED int x_client_get_collect_state(int *state_out) {
    *state_out = 0;
    return 0;
}
