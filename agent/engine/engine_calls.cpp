#include "agent/engine/engine_calls.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "agent/engine/process_snapshot.h"
#include "vrdbase.h"

namespace kze::engine {
namespace {

using nlohmann::json;

constexpr std::pair<int, const char *> capabilities[] = {
    {ENGINE_IOC, "ioc"},
    {ENGINE_IOA, "ioa"},
    {ENGINE_MD, "md"},
    {ENGINE_BRUTEFORCE_GLOBAL, "bruteforce_global"},
    {ENGINE_COLLECT, "collect"},
    {ENGINE_ABNORMAL_SCAN, "abnormal_scan"},
    {ENGINE_BRUTEFORCE_SSH, "bruteforce_ssh"},
    {ENGINE_ABNORMAL_IP_LOGIN, "abnormal_ip_login"},
    {ENGINE_ABNORMAL_TIME_LOGIN, "abnormal_time_login"},
    {ENGINE_REVERSESHELL, "reverseshell"},
    {ENGINE_DETANAL, "detanal"},
};

/* Takes rule text like a capability but can't be switched: custom IOA rules. */
constexpr int custom_ioa = 7;
constexpr std::size_t name_limit = 64;
constexpr int cycle_limit_s = 7 * 24 * 3600;

/* The types that have a version, by the names of the settings. */
const char *versioned_name(int type) {
    return type >= ENGINE_IOC && type <= ENGINE_MD ? capability_name(type) : nullptr;
}

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

call_result refused(int code) {
    call_result result;
    result.code = code;
    return result;
}

}  // namespace

const char *capability_name(int type) {
    for (const auto &[number, name] : capabilities) {
        if (number == type) {
            return name;
        }
    }
    return nullptr;
}

engine_calls::engine_calls(engine_settings &settings, engine_clients &clients, order_snapshot order)
    : settings_(settings), clients_(clients), order_(std::move(order)) {
    for (const auto &[number, name] : capabilities) {
        capabilities_[number] = false;
    }
}

call_result engine_calls::carry_out(engine_call call, const record &request,
                                    const std::optional<call_answer> &told) {
    if (told && told->code != 0) {
        call_result result = refused(told->code);
        result.second = told->value.value_or(0);
        return result;
    }
    if (told && told->value && call == engine_call::set_drive_switch) {
        call_result result; /* another outcome than success leaves the switch as it is */
        result.second = *told->value;
        return result;
    }
    call_result result = effect(call, request);
    if (told && told->value && call != engine_call::start) {
        result.second = *told->value;
        if (result.later) {
            result.later->result = *told->value;
        }
    }
    return result;
}

call_result engine_calls::effect(engine_call call, const record &request) {
    switch (call) {
        case engine_call::start:
            return start(request);
        case engine_call::stop:
            kze_log(3, "client %u leaves", request.client);
            clients_.remove(request.client);
            return {};
        case engine_call::engine_update:
            return update(request, false);
        case engine_call::engine_update_async:
            return update(request, true);
        case engine_call::engine_update_by_data:
            return update_by_data(request);
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
            result.second = drive_[call == engine_call::get_drive_state ? DRIVE_SWITCH_DRIVE
                                                                        : DRIVE_SWITCH_COLLECT];
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

call_result engine_calls::update(const record &request, bool answered_later) {
    const std::string path(request.payload);
    if (versioned_name(request.first) == nullptr || path.empty() || path.size() >= PATH_MAX ||
        path.find('\0') != std::string::npos || ::access(path.c_str(), R_OK) != 0) {
        kze_log(2, "type %d can't be updated from \"%s\"", request.first, path.c_str());
        return refused(client_invalid);
    }
    kze_log(3, "type %d updated from \"%s\"", request.first, path.c_str());
    updates_[request.first] = path;
    call_result result;
    if (answered_later) {
        result.later = call_result::completion{request.second, 0, {}};
    }
    return result;
}

call_result engine_calls::update_by_data(const record &request) {
    if (capability_name(request.first) == nullptr && request.first != custom_ioa) {
        return refused(client_invalid);
    }
    kze_log(3, "type %d got %zu bytes of rules", request.first, request.payload.size());
    rule_texts_[request.first] = std::string(request.payload);
    call_result result;
    result.later = call_result::completion{request.second, 0, {}};
    return result;
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
    result.payload = settings_.version(name);
    const unsigned long number = std::strtoul(result.payload.c_str(), nullptr, 10);
    result.second = static_cast<int>(static_cast<unsigned int>(number));
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
    if (!kind || request.payload.empty()) {
        return refused(client_invalid);
    }
    order_count &order = orders_[event_name(*kind)];
    ++order.count;
    order.bytes = request.payload.size();
    kze_log(3, "order %s of %zu bytes", event_name(*kind), order.bytes);
    return {};
}

call_result engine_calls::dispose_trace(const record &request) {
    if (request.payload.empty()) {
        return refused(client_invalid);
    }
    order_count &order = orders_["linkage_analysis"];
    ++order.count;
    order.bytes = request.payload.size();
    call_result result;
    const json analysis = {{"analysis", "linkage"}, {"request_bytes", order.bytes}};
    result.later = call_result::completion{request.second, 0, analysis.dump()};
    return result;
}

call_result engine_calls::set_drive(const record &request) {
    const bool known = request.first == DRIVE_SWITCH_DRIVE || request.first == DRIVE_SWITCH_COLLECT;
    if (!known || request.second < 0 || request.second > 1) {
        return refused(client_invalid);
    }
    drive_[request.first] = request.second;
    return {};
}

const std::string *engine_calls::rule_text(int type) const {
    const auto found = rule_texts_.find(type);
    return found == rule_texts_.end() ? nullptr : &found->second;
}

void engine_calls::describe(json &into) const {
    for (const auto &[number, on] : capabilities_) {
        into["capabilities"][capability_name(number)] = on;
    }
    into["run_level"] = run_level_;
    into["drive"] = {{"drive", drive_[DRIVE_SWITCH_DRIVE]},
                     {"collect", drive_[DRIVE_SWITCH_COLLECT]}};
    into["orders"] = json::object();
    for (const auto &[kind, order] : orders_) {
        into["orders"][kind] = {{"count", order.count}, {"bytes", order.bytes}};
    }
    into["updates"] = json::object();
    for (const auto &[type, path] : updates_) {
        bool escaped = false;
        into["updates"][capability_name(type)] = text_of_bytes(path, escaped);
    }
    into["rule_texts"] = json::object();
    for (const auto &[type, text] : rule_texts_) {
        into["rule_texts"][std::to_string(type)] = text.size();
    }
}

}  // namespace kze::engine
