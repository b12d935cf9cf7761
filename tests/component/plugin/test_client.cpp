/*
 * libqdccl.so of these tests, with the stage behind it. It is built once whole, and once for each
 * defect: a function that is missing then was given another name on the compiler's command line.
 */
#include <string>

#include "tests/component/plugin/stage.h"

#define EXPORTED __attribute__((visibility("default")))

using plugin_stage::data_kind;
using plugin_stage::stage;

namespace {

std::string numbers(int first, int second) {
    return "(" + std::to_string(first) + ", " + std::to_string(second) + ")";
}

int noted(const std::string &call) {
    stage::instance().note(call);
    return 0;
}

int subscribed(data_kind kind, const std::string &call, qd_data_cb callback, void *context) {
    stage::instance().subscribe(kind, call, callback, context);
    return 0;
}

}  // namespace

extern "C" {

EXPORTED int x_client_start(const qd_client_callbacks *callbacks, void *context) {
    return stage::instance().client_start(callbacks, context);
}

EXPORTED int x_client_stop() {
    return stage::instance().client_stop();
}

EXPORTED void x_client_free(void *buffer) {
    stage::instance().client_free(buffer);
}

EXPORTED int x_client_engine_update(_engine_type, const char *) {
    return noted("x_client_engine_update");
}

EXPORTED int x_client_engine_update_async(_engine_type, const char *, qd_update_cb, void *) {
    return noted("x_client_engine_update_async");
}

EXPORTED int x_client_engine_update_by_data(_engine_type, const char *, unsigned int, qd_update_cb,
                                            void *) {
    return noted("x_client_engine_update_by_data");
}

EXPORTED int x_client_engine_control(_engine_type type, int status) {
    return noted("x_client_engine_control" + numbers(type, status));
}

EXPORTED int x_client_engine_query_version(_engine_type, unsigned int *version_out) {
    *version_out = 0;
    return noted("x_client_engine_query_version");
}

EXPORTED int x_client_engine_query_version_str(_engine_type, char **) {
    noted("x_client_engine_query_version_str");
    return -1;  // has no version
}

EXPORTED int x_client_engine_set_runlevel(int) {
    return noted("x_client_engine_set_runlevel");
}

EXPORTED int x_client_engine_subscribe_alarm(qd_data_cb callback, void *context) {
    return subscribed(data_kind::alarm, "x_client_engine_subscribe_alarm", callback, context);
}

EXPORTED int x_client_coordinate(int, const char *, unsigned int) {
    return noted("x_client_coordinate");
}

EXPORTED int x_client_subscribe_origin_data(unsigned int cycle, qd_data_cb callback,
                                            void *context) {
    const std::string call = "x_client_subscribe_origin_data(" + std::to_string(cycle) + ")";
    return subscribed(data_kind::origin, call, callback, context);
}

EXPORTED int x_client_register_coordinate_cb(int trace_type, qd_data_cb callback, void *context) {
    const data_kind kind = trace_type == QD_TRACE_LINKAGE  ? data_kind::linkage
                           : trace_type == QD_TRACE_APPEND ? data_kind::append
                                                           : data_kind::hunting;
    const std::string call = "x_client_register_coordinate_cb(" + std::to_string(trace_type) + ")";
    return subscribed(kind, call, callback, context);
}

EXPORTED int x_client_subscribe_clt(qd_data_cb, void *) {
    return noted("x_client_subscribe_clt");
}

EXPORTED int x_client_engine_subscribe_credible(qd_data_cb, void *) {
    return noted("x_client_engine_subscribe_credible");
}

EXPORTED int x_client_coordinate_dispose_trc(const char *, unsigned int, qd_dispose_trc_cb,
                                             void *) {
    return noted("x_client_coordinate_dispose_trc");
}

EXPORTED int x_client_set_drive_switch(int target, int value, int *result_out) {
    *result_out = 0;
    return noted("x_client_set_drive_switch" + numbers(target, value));
}

EXPORTED int x_client_get_drive_state(int *state_out) {
    *state_out = 0;
    return noted("x_client_get_drive_state");
}

EXPORTED int x_client_get_collect_state(int *state_out) {
    *state_out = 0;
    return noted("x_client_get_collect_state");
}

}  // extern "C"
