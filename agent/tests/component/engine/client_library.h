/* libqdccl.so, opened as the plug-in opens it. */
#ifndef KZE_AGENT_TESTS_COMPONENT_ENGINE_CLIENT_LIBRARY_H
#define KZE_AGENT_TESTS_COMPONENT_ENGINE_CLIENT_LIBRARY_H

#include <dlfcn.h>

#include <stdexcept>
#include <string>

#include "engine/qd_client.h"

namespace engine_test {

/* The library's functions, open as long as the object lives. */
class client_library {
  public:
    explicit client_library(const std::string &path)
        : handle_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
        if (handle_ == nullptr) {
            throw std::runtime_error(dlerror());
        }
        get(x_client_start, "x_client_start");
        get(x_client_stop, "x_client_stop");
        get(x_client_engine_update, "x_client_engine_update");
        get(x_client_engine_update_async, "x_client_engine_update_async");
        get(x_client_engine_update_by_data, "x_client_engine_update_by_data");
        get(x_client_engine_control, "x_client_engine_control");
        get(x_client_engine_query_version, "x_client_engine_query_version");
        get(x_client_engine_query_version_str, "x_client_engine_query_version_str");
        get(x_client_free, "x_client_free");
        get(x_client_engine_set_runlevel, "x_client_engine_set_runlevel");
        get(x_client_engine_subscribe_alarm, "x_client_engine_subscribe_alarm");
        get(x_client_coordinate, "x_client_coordinate");
        get(x_client_subscribe_origin_data, "x_client_subscribe_origin_data");
        get(x_client_register_coordinate_cb, "x_client_register_coordinate_cb");
        get(x_client_subscribe_clt, "x_client_subscribe_clt");
        get(x_client_engine_subscribe_credible, "x_client_engine_subscribe_credible");
        get(x_client_coordinate_dispose_trc, "x_client_coordinate_dispose_trc");
        get(x_client_set_drive_switch, "x_client_set_drive_switch");
        get(x_client_get_drive_state, "x_client_get_drive_state");
        get(x_client_get_collect_state, "x_client_get_collect_state");
    }
    ~client_library() { close(); }
    client_library(const client_library &) = delete;
    client_library &operator=(const client_library &) = delete;

    void close() {
        if (handle_ != nullptr) {
            dlclose(handle_);
            handle_ = nullptr;
        }
    }

    x_client_start_fn x_client_start;
    x_client_stop_fn x_client_stop;
    x_client_engine_update_fn x_client_engine_update;
    x_client_engine_update_async_fn x_client_engine_update_async;
    x_client_engine_update_by_data_fn x_client_engine_update_by_data;
    x_client_engine_control_fn x_client_engine_control;
    x_client_engine_query_version_fn x_client_engine_query_version;
    x_client_engine_query_version_str_fn x_client_engine_query_version_str;
    x_client_free_fn x_client_free;
    x_client_engine_set_runlevel_fn x_client_engine_set_runlevel;
    x_client_engine_subscribe_alarm_fn x_client_engine_subscribe_alarm;
    x_client_coordinate_fn x_client_coordinate;
    x_client_subscribe_origin_data_fn x_client_subscribe_origin_data;
    x_client_register_coordinate_cb_fn x_client_register_coordinate_cb;
    x_client_subscribe_clt_fn x_client_subscribe_clt;
    x_client_engine_subscribe_credible_fn x_client_engine_subscribe_credible;
    x_client_coordinate_dispose_trc_fn x_client_coordinate_dispose_trc;
    x_client_set_drive_switch_fn x_client_set_drive_switch;
    x_client_get_drive_state_fn x_client_get_drive_state;
    x_client_get_collect_state_fn x_client_get_collect_state;

  private:
    template <typename Function>
    void get(Function &function, const char *name) {
        function = reinterpret_cast<Function>(dlsym(handle_, name));
        if (function == nullptr) {
            throw std::runtime_error(std::string("no ") + name);
        }
    }

    void *handle_;
};

}  // namespace engine_test

#endif
