/*
 * The calls of the engine client and of the gateway, typed: each fetches its function from the
 * table afresh and calls it as engine/qd_client.h says. The libraries must be loaded. Any thread.
 */
#ifndef KZEMDLMGR_ENGINE_QD_CALLS_H
#define KZEMDLMGR_ENGINE_QD_CALLS_H

#include <memory>

#include "engine/kzemm_loader.h"
#include "engine/qd_client.h"

namespace qd {

inline const kzemm_loader &table() {
    return kzemm_loader::get_instance();
}

inline int start(const qd_client_callbacks *callbacks, void *context) {
    return reinterpret_cast<x_client_start_fn>(table().get_x_client_start_fn())(callbacks, context);
}

inline int stop() {
    return reinterpret_cast<x_client_stop_fn>(table().get_x_client_stop_fn())();
}

inline int engine_update(_engine_type type, const char *path) {
    return reinterpret_cast<x_client_engine_update_fn>(table().get_x_client_engine_update_fn())(
        type, path);
}

inline int engine_update_async(_engine_type type, const char *path, qd_update_cb callback,
                               void *context) {
    return reinterpret_cast<x_client_engine_update_async_fn>(
        table().get_x_client_engine_update_async_fn())(type, path, callback, context);
}

inline int engine_update_by_data(_engine_type type, const char *data, unsigned int len,
                                 qd_update_cb callback, void *context) {
    return reinterpret_cast<x_client_engine_update_by_data_fn>(
        table().get_x_client_engine_update_by_data())(type, data, len, callback, context);
}

inline int engine_control(_engine_type type, int status) {
    return reinterpret_cast<x_client_engine_control_fn>(table().get_x_client_engine_control_fn())(
        type, status);
}

inline int engine_query_version_str(_engine_type type, char **version_out) {
    return reinterpret_cast<x_client_engine_query_version_str_fn>(
        table().get_x_client_engine_query_version_str_fn())(type, version_out);
}

inline void free(void *buffer) {
    reinterpret_cast<x_client_free_fn>(table().get_x_client_free_fn())(buffer);
}

inline int engine_subscribe_alarm(qd_data_cb callback, void *context) {
    return reinterpret_cast<x_client_engine_subscribe_alarm_fn>(
        table().get_x_client_engine_subscribe_alarm_fn())(callback, context);
}

inline int coordinate(int trace_type, const char *frame, unsigned int len) {
    return reinterpret_cast<x_client_coordinate_fn>(table().get_x_client_coordinate_fn())(
        trace_type, frame, len);
}

inline int subscribe_origin_data(unsigned int cycle, qd_data_cb callback, void *context) {
    return reinterpret_cast<x_client_subscribe_origin_data_fn>(
        table().get_x_client_subscribe_origin_data_fn())(cycle, callback, context);
}

inline int register_coordinate_cb(int trace_type, qd_data_cb callback, void *context) {
    return reinterpret_cast<x_client_register_coordinate_cb_fn>(
        table().get_x_client_register_coordinate_cb_fn())(trace_type, callback, context);
}

inline int engine_subscribe_credible(qd_data_cb callback, void *context) {
    return reinterpret_cast<x_client_engine_subscribe_credible_fn>(
        table().get_x_client_engine_subscribe_credible_fn())(callback, context);
}

inline int coordinate_dispose_trc(const char *request, unsigned int len, qd_dispose_trc_cb callback,
                                  void *context) {
    return reinterpret_cast<x_client_coordinate_dispose_trc_fn>(
        table().get_x_client_coordinate_dispose_trc())(request, len, callback, context);
}

inline int set_drive_switch(int target, int value, int *result_out) {
    return reinterpret_cast<x_client_set_drive_switch_fn>(
        table().get_x_client_set_drive_switch_fn())(target, value, result_out);
}

inline int get_drive_state(int *state_out) {
    return reinterpret_cast<x_client_get_drive_state_fn>(table().get_x_client_get_drive_state_fn())(
        state_out);
}

inline int get_collect_state(int *state_out) {
    return reinterpret_cast<x_client_get_collect_state_fn>(
        table().get_x_client_get_collect_state_fn())(state_out);
}

inline int async_send(KZEMM_DATA_TYPE type, const char *data, unsigned int len) {
    return reinterpret_cast<kzethtgw_async_send_fn>(table().get_kzethtgw_async_send_fn())(
        type, data, len);
}

// Owns a buffer of the engine client; null is not given back.
struct buffer_deleter {
    void operator()(char *buffer) const { qd::free(buffer); }
};
using buffer_ptr = std::unique_ptr<char, buffer_deleter>;

// Asks for a capability's version: what the call gave, with the version's text where it gave one.
inline int query_version(_engine_type type, buffer_ptr &version_out) {
    char *text = nullptr;
    const int code = engine_query_version_str(type, &text);
    version_out.reset(text);
    return code;
}

}  // namespace qd

#endif
