#include "agent/engine/engine_answer.h"

#include <algorithm>
#include <climits>

#include "agent/common/json_text.h"

namespace kze::engine {
namespace {

using nlohmann::json;

constexpr std::size_t version_length_limit = 64;

/* What a call has besides its result code. */
bool has_out_parameter(engine_call call) {
    switch (call) {
        case engine_call::engine_query_version:
        case engine_call::engine_query_version_str:
        case engine_call::set_drive_switch:
        case engine_call::get_drive_state:
        case engine_call::get_collect_state:
            return true;
        default:
            return false;
    }
}

bool has_typed_callback(engine_call call) {
    return call == engine_call::engine_update_async || call == engine_call::engine_update_by_data;
}

bool has_aftermath(engine_call call) {
    return has_typed_callback(call) || call == engine_call::coordinate ||
           call == engine_call::coordinate_dispose_trc;
}

bool has_type(engine_call call) {
    switch (call) {
        case engine_call::engine_update:
        case engine_call::engine_update_async:
        case engine_call::engine_update_by_data:
        case engine_call::engine_control:
        case engine_call::engine_query_version:
        case engine_call::engine_query_version_str:
        case engine_call::coordinate:
        case engine_call::register_coordinate_cb:
        case engine_call::set_drive_switch:
            return true;
        default:
            return false;
    }
}

/* What speaks against an answer of sound members. */
std::string find_conflict(engine_call call, const call_answer &answer) {
    const std::string name = call_name(call);
    const bool callback_is_set =
        answer.callback_delay_ms || answer.callback_never || answer.callback_type;
    if (answer.unwritten && !has_out_parameter(call)) {
        return name + " has no out-parameter to leave unwritten";
    }
    if (answer.unwritten && answer.value) {
        return "\"unwritten\" and \"value\" exclude one another";
    }
    if (callback_is_set && !has_aftermath(call)) {
        return name + " has no callback";
    }
    if (answer.callback_type && !has_typed_callback(call)) {
        return "the callback of " + name + " is told no engine type";
    }
    if (callback_is_set && (answer.code != 0 || answer.never)) {
        return "a call that fails or gets no answer has no callback either";
    }
    if (answer.callback_never &&
        (answer.callback_delay_ms || answer.callback_type || answer.value)) {
        return "a callback that never comes has no delay, type or value";
    }
    if (answer.for_type && !has_type(call)) {
        return name + " has no type as its first argument";
    }
    return {};
}

}  // namespace

bool has_member(const json &in, const char *key) {
    return in.contains(key) && !in.at(key).is_null();
}

std::string read_number(const json &in, const char *key, std::int64_t low, std::int64_t high,
                        std::int64_t &out) {
    if (!has_member(in, key)) {
        return {};
    }
    const std::optional<std::int64_t> number = number_in(in.at(key), low, high);
    if (!number) {
        return std::string("\"") + key + "\" must be a whole number from " + std::to_string(low) +
               " to " + std::to_string(high);
    }
    out = *number;
    return {};
}

std::string read_flag(const json &in, const char *key, bool &out) {
    if (!has_member(in, key)) {
        return {};
    }
    if (!in.at(key).is_boolean()) {
        return std::string("\"") + key + "\" must be true or false";
    }
    out = in.at(key).get<bool>();
    return {};
}

std::string read_text(const json &in, const char *key, std::string &out) {
    if (!has_member(in, key) || !in.at(key).is_string()) {
        return std::string("\"") + key + "\" must be there, as a text";
    }
    out = in.at(key).get<std::string>();
    return {};
}

std::string find_unknown(const json &in, std::initializer_list<const char *> known) {
    for (const auto &member : in.items()) {
        if (std::find(known.begin(), known.end(), member.key()) == known.end()) {
            return "no member \"" + member.key() + "\" is known here";
        }
    }
    return {};
}

std::string read_answer(engine_call call, const json &from, call_answer &out) {
    std::int64_t code = 0;
    std::int64_t value = 0;
    std::int64_t delay = 0;
    std::int64_t times = 0;
    std::int64_t callback_delay = 0;
    std::int64_t callback_type = 0;
    std::int64_t for_type = 0;
    bool refuse = false;
    for (const std::string &error : {
             read_number(from, "code", INT_MIN, INT_MAX, code),
             read_number(from, "value", INT_MIN, INT_MAX, value),
             read_number(from, "delay_ms", 0, delay_limit_ms, delay),
             read_number(from, "times", 0, times_limit, times),
             read_number(from, "callback_delay_ms", 0, delay_limit_ms, callback_delay),
             read_number(from, "callback_type", INT_MIN, INT_MAX, callback_type),
             read_number(from, "for_type", INT_MIN, INT_MAX, for_type),
             read_flag(from, "refuse", refuse),
             read_flag(from, "never", out.never),
             read_flag(from, "unwritten", out.unwritten),
             read_flag(from, "callback_never", out.callback_never),
         }) {
        if (!error.empty()) {
            return error;
        }
    }
    if (refuse && (has_member(from, "code") || out.never)) {
        return "\"refuse\" stands alone, without \"code\" and \"never\"";
    }
    out.code = refuse ? client_offline : static_cast<int>(code);
    out.delay_ms = static_cast<unsigned int>(delay);
    out.times = static_cast<unsigned int>(times);
    if (has_member(from, "value")) {
        out.value = static_cast<int>(value);
    }
    if (has_member(from, "callback_delay_ms")) {
        out.callback_delay_ms = static_cast<unsigned int>(callback_delay);
    }
    if (has_member(from, "callback_type")) {
        out.callback_type = static_cast<int>(callback_type);
    }
    if (has_member(from, "for_type")) {
        out.for_type = static_cast<int>(for_type);
    }
    return find_conflict(call, out);
}

json answer_to_json(const call_answer &from) {
    json out = {{"code", from.code},
                {"delay_ms", from.delay_ms},
                {"times", from.times},
                {"never", from.never}};
    const auto set = [&out](const char *key, const auto &number) {
        if (number) {
            out[key] = *number;
        }
    };
    set("value", from.value);
    set("callback_delay_ms", from.callback_delay_ms);
    set("callback_type", from.callback_type);
    set("for_type", from.for_type);
    if (from.unwritten) {
        out["unwritten"] = true;
    }
    if (from.callback_never) {
        out["callback_never"] = true;
    }
    return out;
}

std::string read_rise(const json &from, version_rise &out) {
    std::int64_t after = 0;
    std::int64_t times = 0;
    for (const std::string &error : {
             read_number(from, "after_ms", 0, delay_limit_ms, after),
             read_number(from, "times", 0, times_limit, times),
             read_flag(from, "never", out.never),
         }) {
        if (!error.empty()) {
            return error;
        }
    }
    if (has_member(from, "to")) {
        std::string to;
        std::string error = read_text(from, "to", to);
        if (error.empty()) {
            error = check_version("to", to);
        }
        if (!error.empty()) {
            return error;
        }
        out.to = to;
    }
    out.after_ms = static_cast<unsigned int>(after);
    out.times = static_cast<unsigned int>(times);
    if (out.never && (out.to || has_member(from, "after_ms"))) {
        return "\"never\" excludes \"to\" and \"after_ms\"";
    }
    return {};
}

json rise_to_json(const version_rise &from) {
    json out = {{"times", from.times}};
    if (from.never) {
        out["never"] = true;
    } else {
        out["after_ms"] = from.after_ms;
    }
    if (from.to) {
        out["to"] = *from.to;
    }
    return out;
}

std::string check_version(const std::string &key, const std::string &version) {
    const bool printable =
        std::all_of(version.begin(), version.end(), [](char c) { return c > ' ' && c <= '~'; });
    if (version.empty() || version.size() > version_length_limit || !printable) {
        return "\"" + key + "\" must be 1 to 64 printable characters without blanks";
    }
    return {};
}

}  // namespace kze::engine
