/*
 * The engine client (libqdccl.so) and the gateway plug-in (libkzethtgw.3.so): every type and
 * signature through which the threat module manager reaches the two.
 *
 * Neither library is linked; both are opened at run time and their functions are looked up by name.
 * The header depends on nothing, so that a library that implements the functions and a caller that
 * looks them up include the same text.
 *
 * All functions may be called from any thread. Results are 0 for success unless a line says
 * otherwise.
 */
#ifndef KZEMDLMGR_ENGINE_QD_CLIENT_H
#define KZEMDLMGR_ENGINE_QD_CLIENT_H

/* Any number may arrive where one of these is expected, so that C++ is told the type behind. */
#ifdef __cplusplus
#define QD_CLIENT_ENUM(name) enum name : int
#else
#define QD_CLIENT_ENUM(name) enum name
#endif

/* The engine's capabilities, by the engine client's own numbers. */
QD_CLIENT_ENUM(_engine_type){
    ENGINE_IOC = 1,
    ENGINE_IOA = 2,
    ENGINE_MD = 3,
    ENGINE_BRUTEFORCE_GLOBAL = 4, /* gates ENGINE_BRUTEFORCE_SSH; never sent by itself */
    ENGINE_COLLECT = 6,
    ENGINE_CUSTOM_IOA = 7, /* rules by data only; never switched */
    ENGINE_ABNORMAL_SCAN = 8,
    ENGINE_BRUTEFORCE_SSH = 12,
    ENGINE_ABNORMAL_IP_LOGIN = 13,
    ENGINE_ABNORMAL_TIME_LOGIN = 14,
    ENGINE_REVERSESHELL = 15,
    ENGINE_DETANAL = 17,
};

/* The states that x_client_engine_control takes. They are words, not booleans. */
enum engine_switch_status {
    ENGINE_SWITCH_OFF = 1,
    ENGINE_SWITCH_ON = 2,
};

/* The kinds of coordinate orders and results, by the engine client's numbers. */
enum qd_trace_type {
    QD_TRACE_LINKAGE = 1,
    QD_TRACE_APPEND = 2,
    QD_TRACE_HUNTING = 3,
};

/* Result of an engine order as its callback reports it; 0 is success. */
typedef int _x_error;

/* What x_client_set_drive_switch changes. */
enum qd_drive_switch {
    DRIVE_SWITCH_DRIVE = 0,
    DRIVE_SWITCH_COLLECT = 1,
};

/*
 * Called when the engine stays away; context is the pointer given to x_client_start. Runs on a
 * thread of the client library.
 */
typedef void (*qd_offline_cb)(void *context);

/* Read by x_client_start during the call only; the record may lie on the caller's stack. */
struct qd_client_callbacks {
    qd_offline_cb offline_cb;
    void (*reserved_cb)(void *context); /* always null */
};

/*
 * Receives alarm, coordinate, origin and credible data. The buffer belongs to the callback from
 * then on and goes back with x_client_free. Runs on a thread of the client library.
 */
typedef void (*qd_data_cb)(char *data, unsigned int len, void *context);

/* Ends an asynchronous update; result is 0 for success. Runs on a thread of the client library. */
typedef void (*qd_update_cb)(enum _engine_type type, int result, void *context);

/* Ends a linkage analysis. With err 0 the data belongs to the callback, as for qd_data_cb. */
typedef void (*qd_dispose_trc_cb)(_x_error err, char *data, unsigned int len, void *context);

/* ---- libqdccl.so ---- */

/* Connects to the engine. Anything but 0 is a failed attempt. */
typedef int (*x_client_start_fn)(const struct qd_client_callbacks *callbacks, void *context);
/* Disconnects. No callback runs any more once it has returned. */
typedef int (*x_client_stop_fn)(void);
/* Loads a rule file. The codes -8 and -14 are refusals after which the file is worth keeping. */
typedef int (*x_client_engine_update_fn)(enum _engine_type type, const char *path);
/* The same, answered through the callback when 0 was returned. */
typedef int (*x_client_engine_update_async_fn)(enum _engine_type type, const char *path,
                                               qd_update_cb callback, void *context);
/* Loads rule text. The data is copied before the call returns. */
typedef int (*x_client_engine_update_by_data_fn)(enum _engine_type type, const char *data,
                                                 unsigned int len, qd_update_cb callback,
                                                 void *context);
/* Turns a capability on or off; status is an engine_switch_status. */
typedef int (*x_client_engine_control_fn)(enum _engine_type type, int status);
typedef int (*x_client_engine_query_version_fn)(enum _engine_type type, unsigned int *version_out);
/* Sets *version_out to a new text, which goes back with x_client_free. */
typedef int (*x_client_engine_query_version_str_fn)(enum _engine_type type, char **version_out);
/* Takes back a buffer that the library handed out; null is allowed. */
typedef void (*x_client_free_fn)(void *buffer);
typedef int (*x_client_engine_set_runlevel_fn)(int level);
typedef int (*x_client_engine_subscribe_alarm_fn)(qd_data_cb callback, void *context);
/* Gives the engine a coordinate order: a qd_trace_type and a frame, copied before it returns. */
typedef int (*x_client_coordinate_fn)(int trace_type, const char *frame, unsigned int len);
/*
 * Subscribes to origin data, delivered once each cycle of seconds. The newest call is the one in
 * force. A null callback cancels the subscription.
 */
typedef int (*x_client_subscribe_origin_data_fn)(unsigned int cycle, qd_data_cb callback,
                                                 void *context);
typedef int (*x_client_register_coordinate_cb_fn)(int trace_type, qd_data_cb callback,
                                                  void *context);
typedef int (*x_client_subscribe_clt_fn)(qd_data_cb callback, void *context);
typedef int (*x_client_engine_subscribe_credible_fn)(qd_data_cb callback, void *context);
/* Orders a linkage analysis; the request is copied before it returns. */
typedef int (*x_client_coordinate_dispose_trc_fn)(const char *request, unsigned int len,
                                                  qd_dispose_trc_cb callback, void *context);
/* Changes a drive switch (a qd_drive_switch); *result_out takes a further result code. */
typedef int (*x_client_set_drive_switch_fn)(int target, int value, int *result_out);
typedef int (*x_client_get_drive_state_fn)(int *state_out);
typedef int (*x_client_get_collect_state_fn)(int *state_out);

/* ---- libkzethtgw.3.so ---- */

/* What the gateway is told a buffer is. */
QD_CLIENT_ENUM(KZEMM_DATA_TYPE){
    KZEMM_DATA_ALARM = 1,        KZEMM_DATA_LINKAGE = 2,   KZEMM_DATA_APPEND = 3,
    KZEMM_DATA_HUNTING = 4,      KZEMM_DATA_ORIGIN = 5,    KZEMM_DATA_CTMIOA_RESULT = 8,
    KZEMM_DATA_CTMIOA_HELLO = 9, KZEMM_DATA_CREDIBLE = 10,
};

/*
 * Hands data to the gateway. The caller releases the data when the call has returned, whatever the
 * result, so the gateway has taken its own copy by then. Takes concurrent calls.
 */
typedef int (*kzethtgw_async_send_fn)(enum KZEMM_DATA_TYPE type, const char *data,
                                      unsigned int len);

#endif
