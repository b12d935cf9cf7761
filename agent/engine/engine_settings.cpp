#include "agent/engine/engine_settings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "agent/engine/engine_protocol.h"
#include "engine/qd_client.h"
#include "kzautil.h"
#include "platform/common/descriptor.h"
#include "vrdbase.h"

namespace kze::engine {
namespace {

using nlohmann::json;

/* The drive switches by their numbers. */
constexpr const char *drive_names[] = {"drive", "collect"};
static_assert(DRIVE_SWITCH_DRIVE == 0 && DRIVE_SWITCH_COLLECT == 1);
constexpr off_t file_size_limit = 1 << 20;

std::string system_error(const std::string &what, const std::string &path) {
    return what + " " + path + ": " + std::strerror(errno);
}

std::string read_call(const json &in, std::string &out) {
    std::string error = read_text(in, "call", out);
    if (!error.empty() || call_of_name(out)) {
        return error;
    }
    error = "no call \"" + out + "\"; the calls are";
    for (std::uint32_t number = 1; number <= engine_call_count; ++number) {
        error += std::string(" ") + call_name(static_cast<engine_call>(number));
    }
    return error;
}

json to_json(const engine_settings::content &from) {
    json out = {{"answers", json::object()},
                {"versions", from.versions},
                {"rises", json::object()},
                {"packs", from.packs},
                {"drive",
                 {{drive_names[0], from.drive_states[0]}, {drive_names[1], from.drive_states[1]}}}};
    for (const auto &[call, answer] : from.answers) {
        out["answers"][call] = answer_to_json(answer);
    }
    for (const auto &[type, rise] : from.rises) {
        out["rises"][type] = rise_to_json(rise);
    }
    return out;
}

engine_settings::content default_content() {
    engine_settings::content out;
    out.versions = {{"ioc", "1.0"}, {"ioa", "1"}, {"md", "1"}};
    return out;
}

/* A member that is an object, else an empty one. */
const json &object_in(const json &in, const char *key) {
    static const json empty = json::object();
    const auto found = in.find(key);
    return found != in.end() && found->is_object() ? *found : empty;
}

void parse_answers(const json &in, engine_settings::content &out, const std::string &path) {
    for (const auto &[call, value] : object_in(in, "answers").items()) {
        call_answer answer;
        const std::optional<engine_call> known = call_of_name(call);
        if (known && value.is_object() && read_answer(*known, value, answer).empty()) {
            out.answers[call] = answer;
        } else {
            kze_log(2, "%s: the answer for \"%s\" is not valid, left out", path.c_str(),
                    call.c_str());
        }
    }
}

std::string read_drive(const json &in, int (&out)[2]) {
    std::int64_t states[] = {out[0], out[1]};
    for (std::size_t at = 0; at < 2; ++at) {
        std::string error = read_number(in, drive_names[at], INT_MIN, INT_MAX, states[at]);
        if (!error.empty()) {
            return error;
        }
    }
    out[0] = static_cast<int>(states[0]);
    out[1] = static_cast<int>(states[1]);
    return {};
}

/* Takes over what the file's text says as far as it is valid. */
engine_settings::content parse(const std::string &text, const std::string &path) {
    engine_settings::content out = default_content();
    const json in = json::parse(text, nullptr, false);
    if (!in.is_object()) {
        kze_log(2, "%s is no JSON object, the engine uses its defaults", path.c_str());
        return out;
    }
    parse_answers(in, out, path);
    for (const auto &[type, value] : object_in(in, "versions").items()) {
        if (out.versions.count(type) != 0 && value.is_string() &&
            check_version("version", value.get<std::string>()).empty()) {
            out.versions[type] = value.get<std::string>();
        }
    }
    for (const auto &[type, value] : object_in(in, "rises").items()) {
        version_rise rise;
        if (out.versions.count(type) != 0 && value.is_object() && read_rise(value, rise).empty()) {
            out.rises[type] = rise;
        }
    }
    for (const auto &[type, value] : object_in(in, "packs").items()) {
        if (out.versions.count(type) != 0 && value.is_object()) {
            out.packs[type] = value;
        }
    }
    read_drive(object_in(in, "drive"), out.drive_states);
    return out;
}

engine_settings::content read_content(const std::string &path) {
    struct stat info {};
    const descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.valid() || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) ||
        info.st_size > file_size_limit) {
        return default_content();
    }
    std::string text(static_cast<std::size_t>(info.st_size), '\0');
    const ssize_t got = ::pread(file.get(), text.data(), text.size(), 0);
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return parse(text, path);
}

std::string change_answer(engine_settings::content &in, const json &request) {
    std::string call;
    call_answer answer;
    std::string error = read_call(request, call);
    if (error.empty()) {
        error = find_unknown(
            request, {"op", "call", "code", "value", "unwritten", "delay_ms", "times", "refuse",
                      "never", "callback_delay_ms", "callback_never", "callback_type", "for_type"});
    }
    if (error.empty()) {
        error = read_answer(*call_of_name(call), request, answer);
    }
    if (!error.empty()) {
        return error;
    }
    const auto set = {"code",         "value", "unwritten",         "delay_ms",
                      "refuse",       "never", "callback_delay_ms", "callback_never",
                      "callback_type"};
    if (std::none_of(set.begin(), set.end(),
                     [&](const char *key) { return has_member(request, key); })) {
        return "say how to answer: \"code\", \"value\", \"unwritten\", \"delay_ms\", \"refuse\", "
               "\"never\", \"callback_delay_ms\", \"callback_never\" or \"callback_type\"";
    }
    in.answers[call] = answer;
    return {};
}

std::string clear_answers(engine_settings::content &in, const json &request) {
    if (!has_member(request, "call")) {
        in.answers.clear();
        in.rises.clear();
        return {};
    }
    std::string call;
    std::string error = read_call(request, call);
    if (error.empty()) {
        in.answers.erase(call);
    }
    return error;
}

std::string read_type(const engine_settings::content &in, const json &request, std::string &type) {
    std::string error = read_text(request, "type", type);
    if (error.empty() && in.versions.count(type) == 0) {
        error = "no type \"" + type + "\"; the types are ioc ioa md";
    }
    return error;
}

std::string change_version(engine_settings::content &in, const json &request) {
    std::string type;
    std::string version;
    std::string error = read_type(in, request, type);
    if (error.empty()) {
        error = read_text(request, "version", version);
    }
    if (error.empty()) {
        error = check_version("version", version);
    }
    if (error.empty()) {
        in.versions[type] = version;
    }
    return error;
}

std::string change_rise(engine_settings::content &in, const json &request) {
    std::string type;
    version_rise rise;
    std::string error = read_type(in, request, type);
    if (error.empty()) {
        error = find_unknown(request, {"op", "type", "to", "after_ms", "never", "times"});
    }
    if (error.empty()) {
        error = read_rise(request, rise);
    }
    if (!error.empty()) {
        return error;
    }
    if (rise.to || rise.never || rise.after_ms != 0) {
        in.rises[type] = rise;
    } else {
        in.rises.erase(type);
    }
    return {};
}

std::string change_drive(engine_settings::content &in, const json &request) {
    std::string error = find_unknown(request, {"op", drive_names[0], drive_names[1]});
    if (error.empty() && !has_member(request, drive_names[0]) &&
        !has_member(request, drive_names[1])) {
        error = "say which state: \"drive\" or \"collect\", or both";
    }
    return error.empty() ? read_drive(request, in.drive_states) : error;
}

using settings_change = std::string (*)(engine_settings::content &in, const json &request);
constexpr std::pair<const char *, settings_change> settings_requests[] = {
    {"answer", change_answer}, {"clear", clear_answers}, {"version", change_version},
    {"rise", change_rise},     {"drive", change_drive},
};

settings_change find_change(const json &request) {
    const auto op = request.is_object() ? request.find("op") : request.end();
    for (const auto &[name, how] : settings_requests) {
        if (op != request.end() && *op == name) {
            return how;
        }
    }
    return nullptr;
}

std::string change_content(engine_settings::content &in, const json &request) {
    if (const settings_change how = find_change(request)) {
        return how(in, request);
    }
    std::string error = "no settings request; there are";
    for (const auto &[name, known] : settings_requests) {
        error += std::string(" ") + name;
    }
    return error;
}

/* What is told of a pack may have come from a file that a person has changed. */
std::uint64_t rules_held(const json &pack) {
    const auto found = pack.find("rules_held");
    return found != pack.end() && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

std::string write_all(int file, const std::string &text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = ::write(file, text.data() + done, text.size() - done);
        if (wrote < 0 && errno != EINTR) {
            return std::strerror(errno);
        }
        done += wrote > 0 ? static_cast<std::size_t>(wrote) : 0;
    }
    return {};
}

}  // namespace

engine_settings::engine_settings(std::string path)
    : path_(std::move(path)), content_(read_content(path_)) {}

bool engine_settings::is_settings_request(const json &request) {
    return find_change(request) != nullptr;
}

std::string engine_settings::check(const json &request) {
    content any = default_content();
    return change_content(any, request);
}

json engine_settings::apply(const json &request) {
    const std::string error = change_file([&](content &in) { return change_content(in, request); });
    return error.empty() ? json{{"ok", true}} : json{{"ok", false}, {"error", error}};
}

/* The file is written only for what is set for a number of uses. */
std::optional<call_answer> engine_settings::take(const std::string &call, int type) {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto found = content_.answers.find(call);
    if (found == content_.answers.end() || found->second.for_type.value_or(type) != type) {
        return std::nullopt;
    }
    return take_one(content_.answers, found);
}

std::optional<version_rise> engine_settings::take_rise(const std::string &type) {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto found = content_.rises.find(type);
    return found == content_.rises.end() ? std::nullopt
                                         : std::optional(take_one(content_.rises, found));
}

/* Counts one use of what is set; what is used up goes. */
template <typename Set>
Set engine_settings::take_one(std::map<std::string, Set> &from,
                              typename std::map<std::string, Set>::iterator set) {
    Set taken = set->second;
    if (taken.times == 0) {
        return taken;
    }
    if (--set->second.times == 0) {
        from.erase(set);
    }
    if (const std::string error = save(); !error.empty()) {
        kze_log(1, "the use of what is set isn't counted: %s", error.c_str());
    }
    return taken;
}

std::string engine_settings::raise_version(const std::string &type, const std::string &version,
                                           bool may_fall) {
    return change_file([&](content &in) -> std::string {
        if (may_fall || is_version_below(in.versions[type], version)) {
            in.versions[type] = version;
        }
        return {};
    });
}

std::string engine_settings::keep_pack(const std::string &type, const json &pack) {
    return change_file([&](content &in) -> std::string {
        json &kept = in.packs[type];
        const std::uint64_t before = pack.at("full") == true ? 0 : rules_held(kept);
        kept = pack;
        kept["rules_held"] = before + pack.at("rules").get<std::uint64_t>();
        return {};
    });
}

int engine_settings::drive_state(int drive_switch) {
    const std::lock_guard<std::mutex> guard(lock_);
    return content_.drive_states[drive_switch == DRIVE_SWITCH_DRIVE ? 0 : 1];
}

std::string engine_settings::set_drive_state(int drive_switch, int state) {
    return change_file([&](content &in) -> std::string {
        in.drive_states[drive_switch == DRIVE_SWITCH_DRIVE ? 0 : 1] = state;
        return {};
    });
}

std::string engine_settings::version(const std::string &type) {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto found = content_.versions.find(type);
    return found == content_.versions.end() ? std::string() : found->second;
}

json engine_settings::describe() {
    const std::lock_guard<std::mutex> guard(lock_);
    return to_json(content_);
}

std::string engine_settings::change_file(const change &how) {
    const std::lock_guard<std::mutex> guard(lock_);
    content changed = content_;
    std::string error = how(changed);
    if (error.empty()) {
        std::swap(content_, changed);
        error = save();
        if (!error.empty()) {
            std::swap(content_, changed);
        }
    }
    return error;
}

/* Writes the content beside the file and renames it into place: it outlives the process, and need
 * not outlive the host. The caller holds lock_. */
std::string engine_settings::save() const {
    const std::string directory = path_.substr(0, path_.rfind('/'));
    if (const int made = kze_dirutils_mkdir(directory.c_str(), 0700); made != 0) {
        errno = made;
        return system_error("can't make", directory);
    }
    const std::string beside = path_ + ".new";
    {
        const descriptor file(
            ::open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (file.get() < 0) {
            return system_error("can't open", beside);
        }
        const std::string error = write_all(file.get(), to_json(content_).dump(2) + "\n");
        if (!error.empty()) {
            return "can't write " + beside + ": " + error;
        }
    }
    if (::rename(beside.c_str(), path_.c_str()) != 0) {
        return system_error("can't replace", path_);
    }
    return {};
}

bool is_version_below(const std::string &left, const std::string &right) {
    const auto numbers = [](const std::string &version) {
        const std::size_t dot = version.find('.');
        const char *minor = dot == std::string::npos ? "" : version.c_str() + dot + 1;
        return std::pair(std::strtoull(version.c_str(), nullptr, 10),
                         std::strtoull(minor, nullptr, 10));
    };
    return numbers(left) < numbers(right);
}

}  // namespace kze::engine
