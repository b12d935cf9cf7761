/* The engine's control requests: how a person or a test drives it. */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "agent/common/control.h"
#include "agent/common/json_text.h"
#include "agent/engine/engine_server.h"
#include "agent/engine/process_snapshot.h"
#include "agent/supervisor/service.h"
#include "platform/common/descriptor.h"
#include "vrdbase.h"

namespace kze::engine {
namespace {

using nlohmann::json;

constexpr int silent_limit_s = 24 * 3600;
constexpr std::size_t shown_text_limit = 1U << 20;
/* Enough for the answer to leave before the process does. */
constexpr unsigned int die_ms = 50;

/* Reads a regular file whole; returns what speaks against it. */
std::string read_file(const std::string &path, std::string &out) {
    const descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (file.get() < 0 || ::fstat(file.get(), &info) != 0) {
        return "can't read " + path + ": " + std::strerror(errno);
    }
    if (!S_ISREG(info.st_mode) || info.st_size == 0) {
        return path + " must be a file that is not empty";
    }
    /* What is too large shows by one byte more than may be. */
    constexpr std::size_t read_limit = payload_limit + 1;
    out.resize(std::min(static_cast<std::size_t>(info.st_size), read_limit));
    std::size_t filled = 0;
    while (filled < out.size()) {
        const ssize_t got = ::pread(file.get(), out.data() + filled, out.size() - filled,
                                    static_cast<off_t>(filled));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return "can't read " + path;
        }
        filled += static_cast<std::size_t>(got);
    }
    return {};
}

std::string text_of(const json &request, const char *key) {
    const auto found = request.find(key);
    return found != request.end() && found->is_string() ? found->get<std::string>() : std::string();
}

}  // namespace

json engine_server::control(const json &request) {
    const std::string op = text_of(request, "op");
    if (op == "status") {
        return control_status();
    }
    if (engine_settings::is_settings_request(request)) {
        if (op == "clear" && !request.contains("call")) {
            silent_until_ = {};
            clients_.set_silent(false);
        }
        return settings_.apply(request);
    }
    if (op == "take-left") {
        take_left();
        return {{"ok", true}};
    }
    if (op == "push") {
        return control_push(request);
    }
    if (op == "origin-now") {
        return control_origin_now();
    }
    if (op == "die") {
        return control_die(request);
    }
    if (op == "silent") {
        return control_silent(request);
    }
    if (op == "rule-text") {
        return control_rule_text(request);
    }
    return control_error("no request \"" + op +
                         "\"; there are status, answer, clear, version, rise, drive, push, "
                         "origin-now, die, silent, rule-text and take-left");
}

json engine_server::control_status() {
    const auto uptime =
        std::chrono::duration_cast<std::chrono::seconds>(clock::now() - started_).count();
    json status = settings_.describe();
    status["ok"] = true;
    status["pid"] = ::getpid();
    status["uptime_s"] = uptime;
    status["silent"] = silent();
    status["clients"] = clients_.describe();
    status["pushes"] = pushes_;
    status["snapshots_ordered"] = snapshots_ordered_;
    calls_.describe(status);
    return status;
}

json engine_server::control_push(const json &request) {
    const std::string name = text_of(request, "kind");
    const std::optional<event_kind> kind = event_of_name(name);
    if (!kind || *kind == event_kind::completion) {
        return control_error(
            "\"kind\" must be alarm, linkage, append, hunting, credible, clt or "
            "origin");
    }
    const std::string path = text_of(request, "file");
    if (path.empty() || path[0] != '/') {
        return control_error("\"file\" must be an absolute path");
    }
    std::string bytes;
    const std::string error = read_file(path, bytes);
    if (!error.empty()) {
        return control_error(error);
    }
    if (bytes.size() > payload_limit) {
        return control_error(path + " is larger than a message may be, " +
                             std::to_string(payload_limit) + " bytes");
    }
    if (*kind == event_kind::origin && !calls_.collecting()) {
        return control_error("the collect capability is off, turn it on first");
    }
    const engine_clients::pushed counts =
        *kind == event_kind::origin
            ? deliver_origin(std::move(bytes), clients_.origin_subscribers())
            : clients_.push(*kind, bytes);
    if (counts.meant == 0) {
        return control_error("no client has subscribed to " + name + ", start the agent first");
    }
    if (counts.taken == 0) {
        return control_error("the client has " + std::to_string(engine_clients::queue_limit >> 20) +
                             " MiB of events to fetch and takes no more, the push is dropped");
    }
    ++pushes_[name];
    return {{"ok", true}, {"clients", counts.taken}};
}

json engine_server::control_origin_now() {
    if (!calls_.collecting()) {
        return control_error("the collect capability is off, turn it on first");
    }
    const std::vector<std::uint32_t> clients = clients_.origin_subscribers();
    if (clients.empty()) {
        return control_error("no client has subscribed to origin data, start the agent first");
    }
    order_snapshot(clients);
    return {{"ok", true}, {"clients", clients.size()}};
}

json engine_server::control_die(const json &request) {
    const auto found = request.find("stay_down");
    if (found != request.end() && !found->is_boolean()) {
        return control_error("\"stay_down\" must be true or false");
    }
    const bool stay_down = found != request.end() && found->get<bool>();
    later(die_ms, [stay_down] {
        kze_log(2, "told to die%s", stay_down ? " and to stay down" : "");
        ::_exit(stay_down ? exit_stay_down : 1);
    });
    return {{"ok", true}, {"pid", ::getpid()}};
}

json engine_server::control_silent(const json &request) {
    const auto found = request.find("seconds");
    const std::optional<std::int64_t> seconds =
        found == request.end() ? 0 : number_in(*found, 0, silent_limit_s);
    if (!seconds) {
        return control_error(
            "\"seconds\" must be a whole number from 0 to 86400; 0, or none, "
            "means until \"clear\"");
    }
    silent_until_ =
        *seconds == 0 ? clock::time_point::max() : clock::now() + std::chrono::seconds(*seconds);
    clients_.set_silent(true);
    kze_log(2, "told to be silent");
    return {{"ok", true}};
}

json engine_server::control_rule_text(const json &request) {
    const std::optional<std::int64_t> type =
        number_in(request.value("type", json()), INT32_MIN, INT32_MAX);
    if (!type) {
        return control_error("\"type\" must be a capability's number");
    }
    const std::string *text =
        calls_.rules().find(static_cast<int>(*type), text_of(request, "part"));
    if (text == nullptr) {
        return control_error("no rule text has come for that type");
    }
    bool escaped = false;
    const std::string shown =
        text_of_bytes(std::string_view(*text).substr(0, shown_text_limit), escaped);
    return {{"ok", true},
            {"bytes", text->size()},
            {"text", shown},
            {"escaped", escaped},
            {"cut", text->size() > shown_text_limit}};
}

}  // namespace kze::engine
