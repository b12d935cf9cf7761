/*
 * The run-time table of the engine client's and the gateway's functions.
 */
#ifndef KZEMDLMGR_ENGINE_KZEMM_LOADER_H
#define KZEMDLMGR_ENGINE_KZEMM_LOADER_H

/*
 * Threads: init and uninit run on the host's thread, before the threads that read the table exist
 * and after they have ended; in between the table is read-only and every thread may read it.
 */
class kzemm_loader {
  public:
    static kzemm_loader &get_instance();

    // Opens both libraries and looks up every function. 0, or -1 with what was opened left open
    // for uninit. A second call without uninit loads again, over the old handles.
    int init();
    // Closes both libraries. The table keeps its pointers, which must not be called any more.
    void uninit();

    int load_qdccl();
    int load_kzethtgw();
    void unload_qdccl();
    void unload_kzethtgw();

    // The function as it stands in the table; engine/qd_calls.h gives it its signature;
    // null or stale when the library is not loaded. Fetch it afresh for each call.
    void *get_x_client_start_fn() const { return x_client_start; }
    void *get_x_client_stop_fn() const { return x_client_stop; }
    void *get_x_client_engine_update_fn() const { return x_client_engine_update; }
    void *get_x_client_engine_update_async_fn() const { return x_client_engine_update_async; }
    void *get_x_client_engine_update_by_data_fn() const { return x_client_engine_update_by_data; }
    void *get_x_client_engine_control_fn() const { return x_client_engine_control; }
    void *get_x_client_engine_query_version_fn() const { return x_client_engine_query_version; }
    void *get_x_client_engine_query_version_str_fn() const {
        return x_client_engine_query_version_str;
    }
    void *get_x_client_free_fn() const { return x_client_free; }
    void *get_x_client_engine_set_runlevel_fn() const { return x_client_engine_set_runlevel; }
    void *get_x_client_engine_subscribe_alarm_fn() const { return x_client_engine_subscribe_alarm; }
    void *get_x_client_coordinate_fn() const { return x_client_coordinate; }
    void *get_x_client_subscribe_origin_data_fn() const { return x_client_subscribe_origin_data; }
    void *get_x_client_register_coordinate_cb_fn() const { return x_client_register_coordinate_cb; }
    void *get_kzethtgw_async_send_fn() const { return kzethtgw_async_send; }
    // The same entry as get_x_client_engine_update_by_data_fn.
    void *get_x_client_engine_update_by_data() const { return x_client_engine_update_by_data; }
    void *get_x_client_coordinate_dispose_trc() const { return x_client_coordinate_dispose_trc; }
    void *get_x_client_subscribe_clt() const { return x_client_subscribe_clt; }
    void *get_x_client_engine_subscribe_credible_fn() const {
        return x_client_engine_subscribe_credible;
    }
    void *get_x_client_set_drive_switch_fn() const { return x_client_set_drive_switch; }
    void *get_x_client_get_drive_state_fn() const { return x_client_get_drive_state; }
    void *get_x_client_get_collect_state_fn() const { return x_client_get_collect_state; }

  private:
    friend struct kzemm_loader_inspector;  // tests look at the fields through it

    bool initialized = false;
    void *qdccl_handle = nullptr;
    void *kzethtgw_handle = nullptr;
    void *x_client_start = nullptr;
    void *x_client_stop = nullptr;
    void *x_client_engine_update = nullptr;
    void *x_client_engine_update_async = nullptr;
    void *x_client_engine_update_by_data = nullptr;
    void *x_client_engine_control = nullptr;
    void *x_client_engine_query_version = nullptr;
    void *x_client_engine_query_version_str = nullptr;
    void *x_client_free = nullptr;
    void *x_client_engine_set_runlevel = nullptr;
    void *x_client_engine_subscribe_alarm = nullptr;
    void *x_client_coordinate = nullptr;
    void *x_client_subscribe_origin_data = nullptr;
    void *x_client_register_coordinate_cb = nullptr;
    void *kzethtgw_async_send = nullptr;
    void *x_client_subscribe_clt = nullptr;
    void *x_client_engine_subscribe_credible = nullptr;
    void *x_client_coordinate_dispose_trc = nullptr;
    void *x_client_set_drive_switch = nullptr;
    void *x_client_get_drive_state = nullptr;
    void *x_client_get_collect_state = nullptr;
};

#endif
