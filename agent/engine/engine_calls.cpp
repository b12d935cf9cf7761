#include "agent/engine/engine_calls.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "agent/common/md5.h"
#include "agent/engine/capabilities.h"
#include "agent/engine/engine_orders.h"
#include "agent/engine/process_snapshot.h"
#include "vrdbase.h"

namespace kze::engine {
namespace {

using nlohmann::json;

/* How long an asynchronous order keeps the engine busy before its callback's turn comes. */
constexpr unsigned int order_ms = 50;
/* What is told of the past: so many of the last loads and drive orders. */
constexpr std::size_t loads_kept = 64;
constexpr std::size_t drive_orders_kept = 16;
constexpr std::size_t name_limit = 64;
constexpr int cycle_limit_s = 7 * 24 * 3600;

std::optional<event_kind> coordinate_kind(int trace_type) {
    switch (trace_type) {
        case QD_TRACE_LINKAGE:
            return event_kind::linkage;
        case QD_TRACE_APPEND:
            return event_kind::append;
        case QD_TRACE_HUNTING:
            return event_kind::hunting;
        default:
            return std::nullopt;
    }
}

void keep_newest(std::deque<json> &in, json what, std::size_t kept) {
    in.push_back(std::move(what));
    if (in.size() > kept) {
        in.pop_front();
    }
}

call_result refused(int code) {
    call_result result;
    result.code = code;
    return result;
}

}  // namespace

engine_calls::engine_calls(engine_settings &settings, engine_clients &clients, order_snapshot order,
                           run_later later)
    : settings_(settings), clients_(clients), order_(std::move(order)), later_(std::move(later)) {
    for (const capability &one : capabilities) {
        capabilities_[one.type] = false;
    }
}

call_result engine_calls::carry_out(engine_call call, const record &request,
                                    const std::optional<call_answer> &told) {
    const bool is_load =
        call == engine_call::engine_update || call == engine_call::engine_update_async;
    if (is_load) {
        begin_load(call, request);
    }
    call_result result = outcome(call, request, told.value_or(call_answer()));
    if (call == engine_call::set_drive_switch) {
        note_drive_order(request, result);
    }
    if (is_load) {
        end_load(result);
    }
    return result;
}

call_result engine_calls::outcome(engine_call call, const record &request,
                                  const call_answer &told) {
    call_result result;
    if (told.never) {
        kze_log(3, "%s gets no answer", call_name(call));
        result.answered = false;
        return result;
    }
    const bool stays = call == engine_call::set_drive_switch && (told.value || told.unwritten);
    if (told.code != 0) {
        result = refused(told.code);
    } else if (!stays) {
        result = effect(call, request, told.value.value_or(0) == 0);
    }
    if (told.value && call != engine_call::start) {
        result.second = *told.value;
    }
    if (told.unwritten) {
        result.payload = call == engine_call::engine_query_version_str ? "" : unwritten_mark;
    }
    if (result.later) {
        change_aftermath(result, told);
    }
    return result;
}

void engine_calls::change_aftermath(call_result &result, const call_answer &told) {
    if (told.callback_never) {
        result.later.reset();
        return;
    }
    result.later->delay_ms = told.callback_delay_ms.value_or(order_ms);
    result.later->type = told.callback_type.value_or(result.later->type);
    result.later->result = told.value.value_or(0);
}

/* With `taken` false the callback of an asynchronous call will tell of a failure, and what was
 * given isn't taken over. */
call_result engine_calls::effect(engine_call call, const record &request, bool taken) {
    switch (call) {
        case engine_call::start:
            return start(request);
        case engine_call::stop:
            kze_log(3, "client %u leaves", request.client);
            clients_.remove(request.client);
            return {};
        case engine_call::engine_update:
            return update(request, true);
        case engine_call::engine_update_async:
            return with_callback(request, update(request, taken));
        case engine_call::engine_update_by_data:
            return with_callback(request, update_by_data(request, taken));
        case engine_call::engine_control:
            return control(request);
        case engine_call::engine_query_version:
        case engine_call::engine_query_version_str:
            return query_version(request);
        case engine_call::engine_set_runlevel:
            run_level_ = request.first;
            return {};
        case engine_call::engine_subscribe_alarm:
            return subscribe(request, event_kind::alarm);
        case engine_call::coordinate:
            return coordinate(request);
        case engine_call::subscribe_origin_data:
            return subscribe_origin(request);
        case engine_call::register_coordinate_cb:
            return register_coordinate(request);
        case engine_call::subscribe_clt:
            return subscribe(request, event_kind::clt);
        case engine_call::engine_subscribe_credible:
            return subscribe(request, event_kind::credible);
        case engine_call::coordinate_dispose_trc:
            return dispose_trace(request);
        case engine_call::set_drive_switch:
            return set_drive(request);
        case engine_call::get_drive_state:
        case engine_call::get_collect_state: {
            call_result result;
            result.second = settings_.drive_state(
                call == engine_call::get_drive_state ? DRIVE_SWITCH_DRIVE : DRIVE_SWITCH_COLLECT);
            return result;
        }
    }
    return refused(client_invalid);
}

call_result engine_calls::start(const record &request) {
    bool escaped = false;
    const std::string name = text_of_bytes(request.payload.substr(0, name_limit), escaped);
    call_result result;
    result.second = static_cast<int>(clients_.add(request.first, name));
    kze_log(3, "client %u: process %d, %s", static_cast<unsigned int>(result.second), request.first,
            name.c_str());
    return result;
}

call_result engine_calls::subscribe(const record &request, event_kind kind) {
    clients_.subscribe(request.client, kind, request.second != 0);
    return {};
}

call_result engine_calls::with_callback(const record &request, call_result result) {
    if (result.code == 0) {
        call_result::aftermath later;
        later.ticket = request.second;
        later.type = request.first;
        result.later = later;
    }
    return result;
}

call_result engine_calls::update(const record &request, bool taken) {
    const std::string path(request.payload);
    if (versioned_name(request.first) == nullptr || path.empty() || path.size() >= PATH_MAX ||
        path.find('\0') != std::string::npos || ::access(path.c_str(), R_OK) != 0) {
        kze_log(2, "type %d can't be updated from \"%s\"", request.first, path.c_str());
        return refused(client_invalid);
    }
    std::string problem;
    std::optional<std::string> text = read_rule_text(path, problem);
    const auto kind = static_cast<rule_kind>(request.first);
    const std::optional<rule_file> file =
        text ? parse_rule_file(kind, *text, problem) : std::nullopt;
    if (!file) {
        kze_log(2, "type %d can't be updated from \"%s\": %s", request.first, path.c_str(),
                problem.c_str());
        return refused(client_bad_rules);
    }
    updates_[request.first] = path;
    note_in_load(load_number_, "version", file->version);
    if (taken) {
        load(*file, std::move(*text), path);
    }
    return {};
}

/* Takes over a rule file that is none older than the rules held, and lets the version rise. */
void engine_calls::load(const rule_file &file, std::string text, const std::string &path) {
    const int type = static_cast<int>(file.kind);
    const std::string name = versioned_name(type);
    const version_rise rise = settings_.take_rise(name).value_or(version_rise());
    if (!rise.to && is_version_below(file.version, settings_.version(name))) {
        kze_log(2, "%s: version %s is below %s, nothing is taken over", path.c_str(),
                file.version.c_str(), settings_.version(name).c_str());
        return;
    }
    kze_log(3, "%s: %zu rules of version %s", path.c_str(), file.rules.size(),
            file.version.c_str());
    bool escaped = false;
    const std::string error = settings_.keep_pack(name, {{"file", text_of_bytes(path, escaped)},
                                                         {"version", file.version},
                                                         {"rules", file.rules.size()},
                                                         {"full", file.full},
                                                         {"bytes", text.size()},
                                                         {"md5", md5_of_bytes(text).value_or("")},
                                                         {"time_us", now_us()}});
    if (!error.empty()) {
        kze_log(1, "the pack isn't kept: %s", error.c_str());
    }
    rules_.take_file(type, std::move(text), path);
    if (rise.never) {
        return;
    }
    const std::string version = rise.to.value_or(file.version);
    const bool may_fall = rise.to.has_value();
    later_(rise.after_ms, [this, name, version, may_fall, number = load_number_] {
        const std::string failed = settings_.raise_version(name, version, may_fall);
        if (!failed.empty()) {
            kze_log(1, "the version doesn't rise: %s", failed.c_str());
        }
        note_in_load(number, "after", settings_.version(name));
    });
}

call_result engine_calls::update_by_data(const record &request, bool taken) {
    if (rules_name(request.first) == nullptr) {
        return refused(client_invalid);
    }
    kze_log(3, "type %d got %zu bytes of rules%s", request.first, request.payload.size(),
            taken ? "" : ", which aren't taken over");
    if (taken) {
        rules_.take_text(request.first, request.payload);
    }
    return {};
}

call_result engine_calls::control(const record &request) {
    const auto capability = capabilities_.find(request.first);
    if (capability == capabilities_.end() ||
        (request.second != ENGINE_SWITCH_ON && request.second != ENGINE_SWITCH_OFF)) {
        return refused(client_invalid);
    }
    const bool on = request.second == ENGINE_SWITCH_ON;
    const bool turned_on = on && !capability->second;
    capability->second = on;
    kze_log(3, "capability %s is %s", capability_name(request.first), on ? "on" : "off");
    if (request.first == ENGINE_COLLECT) {
        collecting_ = on;
        if (turned_on) {
            order_(clients_.origin_subscribers());
        }
    }
    return {};
}

call_result engine_calls::query_version(const record &request) const {
    const char *name = versioned_name(request.first);
    if (name == nullptr) {
        return refused(client_invalid);
    }
    call_result result;
    const std::string version = settings_.version(name);
    if (request.what == static_cast<std::uint32_t>(engine_call::engine_query_version_str)) {
        result.payload = version;
    } else {
        const unsigned long number = std::strtoul(version.c_str(), nullptr, 10);
        result.second = static_cast<int>(static_cast<unsigned int>(number));
    }
    return result;
}

call_result engine_calls::subscribe_origin(const record &request) {
    const bool on = request.second != 0;
    if (on && (request.first < 1 || request.first > cycle_limit_s)) {
        return refused(client_invalid);
    }
    bool starts = false;
    clients_.subscribe_origin(request.client, on ? static_cast<unsigned int>(request.first) : 0,
                              &starts);
    if (starts && collecting_) {
        order_({request.client});
    }
    return {};
}

call_result engine_calls::register_coordinate(const record &request) {
    const std::optional<event_kind> kind = coordinate_kind(request.first);
    return kind ? subscribe(request, *kind) : refused(client_invalid);
}

call_result engine_calls::coordinate(const record &request) {
    const std::optional<event_kind> kind = coordinate_kind(request.first);
    if (!kind) {
        return refused(client_invalid);
    }
    std::string problem;
    const std::optional<std::string_view> body = body_of_order(request.payload, problem);
    if (!body) {
        kze_log(2, "order %s is no frame: %s", event_name(*kind), problem.c_str());
        return refused(client_invalid);
    }
    json answer = recognisable(*body);
    answer["order"] = event_name(*kind);
    answer["bytes"] = body->size();
    answer["number"] = count_order(event_name(*kind), request.payload.size());
    call_result result;
    result.later = call_result::aftermath();
    result.later->kind = *kind;
    result.later->payload = answer.dump();
    return result;
}

call_result engine_calls::dispose_trace(const record &request) {
    if (request.payload.empty()) {
        return refused(client_invalid);
    }
    json answer = recognisable(request.payload);
    answer["analysis"] = "linkage";
    answer["request_bytes"] = request.payload.size();
    answer["number"] = count_order("linkage_analysis", request.payload.size());
    call_result result = with_callback(request, {});
    result.later->payload = answer.dump();
    return result;
}

/* Which one of its kind it is, from 1 on. */
std::uint64_t engine_calls::count_order(const char *kind, std::size_t bytes) {
    order_count &order = orders_[kind];
    order.bytes = bytes;
    kze_log(3, "order %s of %zu bytes", kind, bytes);
    return ++order.count;
}

call_result engine_calls::set_drive(const record &request) {
    const bool known = request.first == DRIVE_SWITCH_DRIVE || request.first == DRIVE_SWITCH_COLLECT;
    if (!known || request.second < 0 || request.second > 1) {
        return refused(client_invalid);
    }
    const std::string error = settings_.set_drive_state(request.first, request.second);
    if (!error.empty()) {
        kze_log(1, "the drive switch isn't kept: %s", error.c_str());
        return refused(client_failed);
    }
    return {};
}

void engine_calls::note_drive_order(const record &request, const call_result &result) {
    json order = {{"time_us", now_us()},
                  {"switch", request.first},
                  {"value", request.second},
                  {"answered", result.answered}};
    if (result.answered) {
        order["code"] = result.code;
        if (result.code == 0) {
            order["result"] = result.payload == unwritten_mark ? json() : json(result.second);
        }
    }
    keep_newest(drive_orders_, std::move(order), drive_orders_kept);
}

void engine_calls::begin_load(engine_call call, const record &request) {
    bool escaped = false;
    json load = {{"number", ++load_number_},
                 {"time_us", now_us()},
                 {"type", request.first},
                 {"file", text_of_bytes(request.payload.substr(0, PATH_MAX), escaped)},
                 {"asynchronous", call == engine_call::engine_update_async}};
    if (const char *name = versioned_name(request.first)) {
        load["before"] = settings_.version(name);
    }
    keep_newest(loads_, std::move(load), loads_kept);
}

void engine_calls::end_load(call_result &result) {
    loads_.back()["answered"] = result.answered;
    if (result.answered) {
        loads_.back()["code"] = result.code;
    }
    if (result.later) {
        result.later->load = load_number_;
    }
}

/* A load that isn't kept any more is passed over. */
void engine_calls::note_in_load(std::uint64_t number, const char *key, const json &value) {
    const std::uint64_t age = load_number_ - number;
    if (number != 0 && age < loads_.size()) {
        loads_[loads_.size() - 1 - age][key] = value;
    }
}

void engine_calls::describe(json &into) const {
    for (const auto &[number, on] : capabilities_) {
        into["capabilities"][capability_name(number)] = on;
    }
    into["run_level"] = run_level_;
    into["drive_orders"] = drive_orders_;
    into["loads"] = loads_;
    into["orders"] = json::object();
    for (const auto &[kind, order] : orders_) {
        into["orders"][kind] = {{"count", order.count}, {"bytes", order.bytes}};
    }
    into["updates"] = json::object();
    for (const auto &[type, path] : updates_) {
        bool escaped = false;
        into["updates"][capability_name(type)] = text_of_bytes(path, escaped);
    }
    into["rules"] = rules_.describe();
}

}  // namespace kze::engine
