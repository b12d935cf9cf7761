#include "tests/fakes/fake_engine.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <set>

#include "tests/fakes/faults.h"
#include "tests/fakes/journal.h"

namespace {

using fakes::engine_call;

struct engine_state {
    std::vector<engine_call> calls;
    std::map<std::string, std::deque<int>> results;
    std::map<std::string, int> standing_results;
    std::map<int, int> control_results;
    std::map<std::string, std::function<void(const engine_call &)>> hooks;
    std::map<int, std::string> versions;
    fakes::version_text version_text = fakes::version_text::on_success;
    int drive_state = 0;
    int collect_state = 0;
    int drive_result = 0;
    std::deque<std::optional<int>> drive_results;
    std::set<void *> buffers;
    unsigned int frees = 0;
    qd_offline_cb offline_cb = nullptr;
    void *offline_context = nullptr;
};

std::mutex s_mutex;
engine_state s_state;

int take_result(const std::string &name) {
    std::deque<int> &queue = s_state.results[name];
    if (queue.empty()) {
        return s_state.standing_results[name];
    }
    const int result = queue.front();
    queue.pop_front();
    return result;
}

// Records a call and gives its scripted result.
int record_call(const std::string &name, const std::string &arguments = {},
                const std::string &data = {}, void *callback = nullptr, void *context = nullptr) {
    const std::string text = arguments.empty() ? name : name + "(" + arguments + ")";
    const engine_call call = {name, text, data, callback, context, pthread_self()};
    std::function<void(const engine_call &)> hook;
    int result = 0;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_state.calls.push_back(call);
        result = take_result(name);
        hook = s_state.hooks[name];
    }
    fakes::note(fakes::what::engine, text);
    if (hook) {
        hook(call);
    }
    return result;
}

std::string list(int first, const std::string &second) {
    return std::to_string(first) + ", " + second;
}

std::string bytes(unsigned int len) {
    return std::to_string(len) + " bytes";
}

template <typename function>
void *address(function *code) {
    return reinterpret_cast<void *>(code);
}

int fake_start(const qd_client_callbacks *callbacks, void *context) {
    EXPECT_EQ(callbacks->reserved_cb, nullptr);
    const int result =
        record_call("x_client_start", {}, {}, address(callbacks->offline_cb), context);
    if (result == 0) {
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_state.offline_cb = callbacks->offline_cb;
        s_state.offline_context = context;
    }
    return result;
}

int fake_stop() {
    return record_call("x_client_stop");
}

int fake_engine_update(_engine_type type, const char *path) {
    return record_call("x_client_engine_update", list(type, path));
}

int fake_engine_update_async(_engine_type type, const char *path, qd_update_cb callback,
                             void *context) {
    return record_call("x_client_engine_update_async", list(type, path), {}, address(callback),
                       context);
}

int fake_engine_update_by_data(_engine_type type, const char *data, unsigned int len,
                               qd_update_cb callback, void *context) {
    return record_call("x_client_engine_update_by_data", list(type, bytes(len)),
                       std::string(data, len), address(callback), context);
}

int fake_engine_control(_engine_type type, int status) {
    const int result = record_call("x_client_engine_control", list(type, std::to_string(status)));
    const std::lock_guard<std::mutex> lock(s_mutex);
    const auto found = s_state.control_results.find(type);
    return found == s_state.control_results.end() ? result : found->second;
}

int fake_query_version(_engine_type type, unsigned int *version_out) {
    const int result = record_call("x_client_engine_query_version", std::to_string(type));
    if (result == 0) {
        const std::lock_guard<std::mutex> lock(s_mutex);
        const std::string &version = s_state.versions[type];
        *version_out = static_cast<unsigned int>(strtoul(version.c_str(), nullptr, 10));
    }
    return result;
}

int fake_query_version_str(_engine_type type, char **version_out) {
    const int result = record_call("x_client_engine_query_version_str", std::to_string(type));
    std::string version;
    fakes::version_text when;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        version = s_state.versions[type];
        when = s_state.version_text;
    }
    if (when == fakes::version_text::always ||
        (when == fakes::version_text::on_success && result == 0)) {
        *version_out = fakes::engine_buffer(version);
    }
    return result;
}

void fake_free(void *buffer) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    ++s_state.frees;
    if (buffer == nullptr) {
        return;
    }
    if (s_state.buffers.erase(buffer) == 0) {
        ADD_FAILURE() << "x_client_free of what is not the engine's, or was given back before";
        return;
    }
    free(buffer);
}

int fake_set_runlevel(int level) {
    return record_call("x_client_engine_set_runlevel", std::to_string(level));
}

int fake_subscribe_alarm(qd_data_cb callback, void *context) {
    return record_call("x_client_engine_subscribe_alarm", {}, {}, address(callback), context);
}

int fake_coordinate(int trace_type, const char *frame, unsigned int len) {
    return record_call("x_client_coordinate", list(trace_type, bytes(len)),
                       std::string(frame, len));
}

int fake_subscribe_origin_data(unsigned int cycle, qd_data_cb callback, void *context) {
    return record_call("x_client_subscribe_origin_data", std::to_string(cycle), {},
                       address(callback), context);
}

int fake_register_coordinate_cb(int trace_type, qd_data_cb callback, void *context) {
    return record_call("x_client_register_coordinate_cb", std::to_string(trace_type), {},
                       address(callback), context);
}

int fake_subscribe_clt(qd_data_cb callback, void *context) {
    return record_call("x_client_subscribe_clt", {}, {}, address(callback), context);
}

int fake_subscribe_credible(qd_data_cb callback, void *context) {
    return record_call("x_client_engine_subscribe_credible", {}, {}, address(callback), context);
}

int fake_coordinate_dispose_trc(const char *request, unsigned int len, qd_dispose_trc_cb callback,
                                void *context) {
    return record_call("x_client_coordinate_dispose_trc", bytes(len), std::string(request, len),
                       address(callback), context);
}

int fake_set_drive_switch(int target, int value, int *result_out) {
    const int result =
        record_call("x_client_set_drive_switch", list(target, std::to_string(value)));
    const std::lock_guard<std::mutex> lock(s_mutex);
    if (s_state.drive_results.empty()) {
        *result_out = s_state.drive_result;
        return result;
    }
    *result_out = s_state.drive_results.front().value_or(*result_out);
    s_state.drive_results.pop_front();
    return result;
}

int fake_get_drive_state(int *state_out) {
    const int result = record_call("x_client_get_drive_state");
    if (result == 0) {
        const std::lock_guard<std::mutex> lock(s_mutex);
        *state_out = s_state.drive_state;
    }
    return result;
}

int fake_get_collect_state(int *state_out) {
    const int result = record_call("x_client_get_collect_state");
    if (result == 0) {
        const std::lock_guard<std::mutex> lock(s_mutex);
        *state_out = s_state.collect_state;
    }
    return result;
}

// The signatures of the fakes are those that the header fixes.
template <typename signature>
void *checked(signature function) {
    return reinterpret_cast<void *>(function);
}

}  // namespace

namespace fakes {

std::vector<engine_call> engine_calls() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.calls;
}

std::vector<std::string> engine_texts() {
    std::vector<std::string> result;
    for (const engine_call &each : engine_calls()) {
        result.push_back(each.text);
    }
    return result;
}

std::vector<engine_call> engine_calls(const std::string &name) {
    std::vector<engine_call> result;
    for (const engine_call &each : engine_calls()) {
        if (each.name == name) {
            result.push_back(each);
        }
    }
    return result;
}

void forget_engine_calls() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.calls.clear();
}

void engine_returns(const std::string &name, const std::vector<int> &results) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.results[name].assign(results.begin(), results.end());
}

void engine_always_returns(const std::string &name, int result) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.results[name].clear();
    s_state.standing_results[name] = result;
}

void engine_control_returns(_engine_type type, int result) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.control_results[type] = result;
}

void on_engine_call(const std::string &name, std::function<void(const engine_call &)> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.hooks[name] = std::move(hook);
}

void set_engine_version(_engine_type type, const std::string &version) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.versions[type] = version;
}

void engine_hands_out_version(version_text when) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.version_text = when;
}

void set_engine_drive_state(int state) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.drive_state = state;
}

void set_engine_collect_state(int state) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.collect_state = state;
}

void set_engine_drive_result(int further_code) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.drive_result = further_code;
}

void engine_drive_results(const std::vector<std::optional<int>> &further_codes) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.drive_results.assign(further_codes.begin(), further_codes.end());
}

char *engine_buffer(const std::string &data) {
    const own_memory uncounted;
    // One byte more than the data, so that there is something to point to, and an end to a text.
    const auto buffer = static_cast<char *>(calloc(data.size() + 1, 1));
    memcpy(buffer, data.data(), data.size());
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.buffers.insert(buffer);
    return buffer;
}

unsigned int outstanding_engine_buffers() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return static_cast<unsigned int>(s_state.buffers.size());
}

unsigned int engine_frees() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.frees;
}

void engine_goes_offline() {
    qd_offline_cb callback = nullptr;
    void *context = nullptr;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        callback = s_state.offline_cb;
        context = s_state.offline_context;
    }
    if (callback == nullptr) {
        ADD_FAILURE() << "the client was never started";
        return;
    }
    callback(context);
}

symbols engine_symbols() {
    return {
        {"x_client_start", checked<x_client_start_fn>(fake_start)},
        {"x_client_stop", checked<x_client_stop_fn>(fake_stop)},
        {"x_client_engine_update", checked<x_client_engine_update_fn>(fake_engine_update)},
        {"x_client_engine_update_async",
         checked<x_client_engine_update_async_fn>(fake_engine_update_async)},
        {"x_client_engine_update_by_data",
         checked<x_client_engine_update_by_data_fn>(fake_engine_update_by_data)},
        {"x_client_engine_control", checked<x_client_engine_control_fn>(fake_engine_control)},
        {"x_client_engine_query_version",
         checked<x_client_engine_query_version_fn>(fake_query_version)},
        {"x_client_engine_query_version_str",
         checked<x_client_engine_query_version_str_fn>(fake_query_version_str)},
        {"x_client_free", checked<x_client_free_fn>(fake_free)},
        {"x_client_engine_set_runlevel",
         checked<x_client_engine_set_runlevel_fn>(fake_set_runlevel)},
        {"x_client_engine_subscribe_alarm",
         checked<x_client_engine_subscribe_alarm_fn>(fake_subscribe_alarm)},
        {"x_client_coordinate", checked<x_client_coordinate_fn>(fake_coordinate)},
        {"x_client_subscribe_origin_data",
         checked<x_client_subscribe_origin_data_fn>(fake_subscribe_origin_data)},
        {"x_client_register_coordinate_cb",
         checked<x_client_register_coordinate_cb_fn>(fake_register_coordinate_cb)},
        {"x_client_subscribe_clt", checked<x_client_subscribe_clt_fn>(fake_subscribe_clt)},
        {"x_client_engine_subscribe_credible",
         checked<x_client_engine_subscribe_credible_fn>(fake_subscribe_credible)},
        {"x_client_coordinate_dispose_trc",
         checked<x_client_coordinate_dispose_trc_fn>(fake_coordinate_dispose_trc)},
        {"x_client_set_drive_switch", checked<x_client_set_drive_switch_fn>(fake_set_drive_switch)},
        {"x_client_get_drive_state", checked<x_client_get_drive_state_fn>(fake_get_drive_state)},
        {"x_client_get_collect_state",
         checked<x_client_get_collect_state_fn>(fake_get_collect_state)},
    };
}

void reset_engine() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    for (void *const each : s_state.buffers) {
        free(each);
    }
    s_state = engine_state();
}

}  // namespace fakes
