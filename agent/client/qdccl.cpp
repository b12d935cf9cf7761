/* libqdccl.so: the functions of engine/qd_client.h. */
#include <climits>
#include <cstring>
#include <type_traits>

#include "agent/client/client_buffers.h"
#include "agent/client/client_instance.h"
#include "engine/qd_client.h"

using kze::engine::client_failed;
using kze::engine::client_instance;
using kze::engine::client_invalid;
using kze::engine::client_offline;
using kze::engine::client_ok;
using kze::engine::client_session;
using kze::engine::engine_call;
using kze::engine::event_kind;
using kze::engine::new_buffer;

namespace {

/* Runs the body with the session in force; a client that isn't started is like one offline. Nothing
 * is thrown out of the library. */
template <typename Body>
int with_session(Body body) {
    try {
        const std::shared_ptr<client_session> session = client_instance::get().session();
        return session == nullptr ? static_cast<int>(client_offline) : body(*session);
    } catch (...) {
        return client_failed;
    }
}

int plain_call(engine_call call, int first, int second, std::string_view payload = {}) {
    return with_session(
        [&](client_session &session) { return session.call(call, first, second, payload).code; });
}

template <typename Number>
int number_call(engine_call call, int first, int second, Number *out) {
    return with_session([&](client_session &session) {
        const client_session::reply reply = session.call(call, first, second, {});
        if (reply.code == client_ok && reply.payload != kze::engine::unwritten_mark) {
            *out = static_cast<Number>(reply.second);
        }
        return reply.code;
    });
}

int subscribe(event_kind kind, qd_data_cb callback, void *context, engine_call call, int first) {
    return with_session([&](client_session &session) {
        return session.subscribe(kind, callback, context, call, first);
    });
}

int order_update(engine_call call, enum _engine_type type, std::string_view payload,
                 qd_update_cb callback, void *context) {
    return with_session([&](client_session &session) {
        return session.order(call, type, payload, [=](int of, int result, std::string_view) {
            if (callback != nullptr) {
                callback(static_cast<enum _engine_type>(of), result, context);
            }
        });
    });
}

/* Null and empty paths are no paths. */
bool is_path(const char *path) {
    return path != nullptr && path[0] != '\0' && std::strlen(path) < PATH_MAX;
}

bool is_data(const char *data, unsigned int len) {
    return data != nullptr && len != 0 && len <= kze::engine::payload_limit;
}

}  // namespace

/* What leaves the library; each has the type that the header gives it. */
#define QDCCL_FUNCTION extern "C" __attribute__((visibility("default")))
#define QDCCL_CHECK(name) \
    static_assert(std::is_same_v<decltype(&(name)), name##_fn>, "as the header declares it")

QDCCL_FUNCTION int x_client_start(const struct qd_client_callbacks *callbacks, void *context) {
    try {
        return client_instance::get().start(callbacks, context);
    } catch (...) {
        return client_failed;
    }
}
QDCCL_CHECK(x_client_start);

QDCCL_FUNCTION int x_client_stop(void) {
    try {
        return client_instance::get().stop();
    } catch (...) {
        return client_failed;
    }
}
QDCCL_CHECK(x_client_stop);

QDCCL_FUNCTION int x_client_engine_update(enum _engine_type type, const char *path) {
    return is_path(path) ? plain_call(engine_call::engine_update, type, 0, path) : client_invalid;
}
QDCCL_CHECK(x_client_engine_update);

QDCCL_FUNCTION int x_client_engine_update_async(enum _engine_type type, const char *path,
                                                qd_update_cb callback, void *context) {
    return is_path(path)
               ? order_update(engine_call::engine_update_async, type, path, callback, context)
               : client_invalid;
}
QDCCL_CHECK(x_client_engine_update_async);

QDCCL_FUNCTION int x_client_engine_update_by_data(enum _engine_type type, const char *data,
                                                  unsigned int len, qd_update_cb callback,
                                                  void *context) {
    return is_data(data, len) ? order_update(engine_call::engine_update_by_data, type,
                                             std::string_view(data, len), callback, context)
                              : client_invalid;
}
QDCCL_CHECK(x_client_engine_update_by_data);

QDCCL_FUNCTION int x_client_engine_control(enum _engine_type type, int status) {
    return plain_call(engine_call::engine_control, type, status);
}
QDCCL_CHECK(x_client_engine_control);

QDCCL_FUNCTION int x_client_engine_query_version(enum _engine_type type,
                                                 unsigned int *version_out) {
    if (version_out == nullptr) {
        return client_invalid;
    }
    return number_call(engine_call::engine_query_version, type, 0, version_out);
}
QDCCL_CHECK(x_client_engine_query_version);

QDCCL_FUNCTION int x_client_engine_query_version_str(enum _engine_type type, char **version_out) {
    if (version_out == nullptr) {
        return client_invalid;
    }
    return with_session([&](client_session &session) -> int {
        const auto reply = session.call(engine_call::engine_query_version_str, type, 0, {});
        if (reply.code != client_ok || reply.payload.empty()) {
            return reply.code;
        }
        char *version = new_buffer(reply.payload);
        if (version == nullptr) {
            return client_failed;
        }
        *version_out = version;
        return client_ok;
    });
}
QDCCL_CHECK(x_client_engine_query_version_str);

QDCCL_FUNCTION void x_client_free(void *buffer) {
    kze::engine::free_buffer(buffer);
}
QDCCL_CHECK(x_client_free);

QDCCL_FUNCTION int x_client_engine_set_runlevel(int level) {
    return plain_call(engine_call::engine_set_runlevel, level, 0);
}
QDCCL_CHECK(x_client_engine_set_runlevel);

QDCCL_FUNCTION int x_client_engine_subscribe_alarm(qd_data_cb callback, void *context) {
    return subscribe(event_kind::alarm, callback, context, engine_call::engine_subscribe_alarm, 0);
}
QDCCL_CHECK(x_client_engine_subscribe_alarm);

QDCCL_FUNCTION int x_client_coordinate(int trace_type, const char *frame, unsigned int len) {
    return is_data(frame, len)
               ? plain_call(engine_call::coordinate, trace_type, 0, std::string_view(frame, len))
               : client_invalid;
}
QDCCL_CHECK(x_client_coordinate);

QDCCL_FUNCTION int x_client_subscribe_origin_data(unsigned int cycle, qd_data_cb callback,
                                                  void *context) {
    if (cycle == 0 || cycle > INT_MAX) {
        return client_invalid;
    }
    return subscribe(event_kind::origin, callback, context, engine_call::subscribe_origin_data,
                     static_cast<int>(cycle));
}
QDCCL_CHECK(x_client_subscribe_origin_data);

QDCCL_FUNCTION int x_client_register_coordinate_cb(int trace_type, qd_data_cb callback,
                                                   void *context) {
    switch (trace_type) {
        case QD_TRACE_LINKAGE:
            return subscribe(event_kind::linkage, callback, context,
                             engine_call::register_coordinate_cb, trace_type);
        case QD_TRACE_APPEND:
            return subscribe(event_kind::append, callback, context,
                             engine_call::register_coordinate_cb, trace_type);
        case QD_TRACE_HUNTING:
            return subscribe(event_kind::hunting, callback, context,
                             engine_call::register_coordinate_cb, trace_type);
        default:
            return client_invalid;
    }
}
QDCCL_CHECK(x_client_register_coordinate_cb);

QDCCL_FUNCTION int x_client_subscribe_clt(qd_data_cb callback, void *context) {
    return subscribe(event_kind::clt, callback, context, engine_call::subscribe_clt, 0);
}
QDCCL_CHECK(x_client_subscribe_clt);

QDCCL_FUNCTION int x_client_engine_subscribe_credible(qd_data_cb callback, void *context) {
    return subscribe(event_kind::credible, callback, context,
                     engine_call::engine_subscribe_credible, 0);
}
QDCCL_CHECK(x_client_engine_subscribe_credible);

QDCCL_FUNCTION int x_client_coordinate_dispose_trc(const char *request, unsigned int len,
                                                   qd_dispose_trc_cb callback, void *context) {
    if (!is_data(request, len) || callback == nullptr) {
        return client_invalid;
    }
    const auto end = [=](int /* type */, int result, std::string_view data) {
        /* Without memory for the data the analysis has failed, as far as the caller can tell. */
        char *buffer = result == client_ok ? new_buffer(data) : nullptr;
        if (buffer == nullptr) {
            callback(result == client_ok ? static_cast<int>(client_failed) : result, nullptr, 0,
                     context);
        } else {
            callback(client_ok, buffer, static_cast<unsigned int>(data.size()), context);
        }
    };
    return with_session([&](client_session &session) {
        return session.order(engine_call::coordinate_dispose_trc, 0, std::string_view(request, len),
                             end);
    });
}
QDCCL_CHECK(x_client_coordinate_dispose_trc);

QDCCL_FUNCTION int x_client_set_drive_switch(int target, int value, int *result_out) {
    return result_out == nullptr
               ? static_cast<int>(client_invalid)
               : number_call(engine_call::set_drive_switch, target, value, result_out);
}
QDCCL_CHECK(x_client_set_drive_switch);

QDCCL_FUNCTION int x_client_get_drive_state(int *state_out) {
    return state_out == nullptr ? static_cast<int>(client_invalid)
                                : number_call(engine_call::get_drive_state, 0, 0, state_out);
}
QDCCL_CHECK(x_client_get_drive_state);

QDCCL_FUNCTION int x_client_get_collect_state(int *state_out) {
    return state_out == nullptr ? static_cast<int>(client_invalid)
                                : number_call(engine_call::get_collect_state, 0, 0, state_out);
}
QDCCL_CHECK(x_client_get_collect_state);
