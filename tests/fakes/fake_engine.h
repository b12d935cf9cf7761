/*
 * The engine client: records every call, answers as a test says, hands out buffers that must come
 * back, and calls the callbacks that were registered with it.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_FAKE_ENGINE_H
#define KZEMDLMGR_TESTS_FAKES_FAKE_ENGINE_H

#include <pthread.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "engine/qd_client.h"
#include "tests/fakes/fake_libraries.h"

namespace fakes {

struct engine_call {
    std::string name;
    // The call with its numbers and texts: "x_client_engine_control(6, 2)",
    // "x_client_subscribe_origin_data(120)", "x_client_coordinate(1, 25 bytes)".
    std::string text;
    std::string data;  // what was passed in, where it isn't a text
    void *callback;    // for x_client_start: offline_cb
    void *context;
    pthread_t thread;
};

// All calls but x_client_free, in order; and the texts of them.
std::vector<engine_call> engine_calls();
std::vector<std::string> engine_texts();
// The calls of one function.
std::vector<engine_call> engine_calls(const std::string &name);
void forget_engine_calls();

// Whether a recorded callback is this function.
template <typename function>
bool is_callback(const void *recorded, function *expected) {
    return recorded == reinterpret_cast<void *>(expected);
}

// The results of the next calls of a function, in order; after them it gives its standing result,
// which is 0 to begin with.
void engine_returns(const std::string &name, const std::vector<int> &results);
void engine_always_returns(const std::string &name, int result);
// x_client_engine_control gives this result for a type, until it is changed.
void engine_control_returns(_engine_type type, int result);
// Runs on the calling thread within each call of a function, after it was recorded.
void on_engine_call(const std::string &name, std::function<void(const engine_call &)> hook);

// What the queries put into their out-parameters on success.
void set_engine_version(_engine_type type, const std::string &version);
// Whether x_client_engine_query_version_str hands out a text: on success (to begin with), never, or
// in any case.
enum class version_text { on_success, never, always };
void engine_hands_out_version(version_text when);
void set_engine_drive_state(int state);
void set_engine_collect_state(int state);
void set_engine_drive_result(int further_code);
// The further codes of the next drive switch orders, in order, whatever their result; an order
// without a value leaves the caller's as it is. After them it is as above.
void engine_drive_results(const std::vector<std::optional<int>> &further_codes);

// A new buffer of the engine, to be given back with x_client_free.
char *engine_buffer(const std::string &data);
// How many of them did not come back.
unsigned int outstanding_engine_buffers();
// How often x_client_free was called, null included.
unsigned int engine_frees();

// Calls the offline callback of the newest x_client_start, on the calling thread.
void engine_goes_offline();

symbols engine_symbols();
void reset_engine();

}  // namespace fakes

#endif
