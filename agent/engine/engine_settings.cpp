#include "agent/engine/engine_settings.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "agent/engine/engine_protocol.h"
#include "agent/engine/owned_descriptor.h"
#include "kzautil.h"
#include "vrdbase.h"

namespace kze::engine {
namespace {

using nlohmann::json;

constexpr unsigned int delay_limit_ms = 600000;
constexpr unsigned int times_limit = 1000000;
constexpr std::size_t version_length_limit = 64;
constexpr off_t file_size_limit = 1 << 20;

std::string system_error(const std::string &what, const std::string &path) {
    return what + " " + path + ": " + std::strerror(errno);
}

bool has(const json &in, const char *key) {
    return in.contains(key) && !in.at(key).is_null();
}

/* Reads an optional whole number within bounds; returns what speaks against it. */
std::string read_number(const json &in, const char *key, std::int64_t low, std::int64_t high,
                        std::int64_t &out) {
    if (!has(in, key)) {
        return {};
    }
    const json &value = in.at(key);
    if (!value.is_number_integer() ||
        (value.is_number_unsigned() && value.get<std::uint64_t>() > INT64_MAX) ||
        value.get<std::int64_t>() < low || value.get<std::int64_t>() > high) {
        return std::string("\"") + key + "\" must be a whole number from " + std::to_string(low) +
               " to " + std::to_string(high);
    }
    out = value.get<std::int64_t>();
    return {};
}

std::string read_flag(const json &in, const char *key, bool &out) {
    if (!has(in, key)) {
        return {};
    }
    if (!in.at(key).is_boolean()) {
        return std::string("\"") + key + "\" must be true or false";
    }
    out = in.at(key).get<bool>();
    return {};
}

std::string read_text(const json &in, const char *key, std::string &out) {
    if (!has(in, key) || !in.at(key).is_string()) {
        return std::string("\"") + key + "\" must be there, as a text";
    }
    out = in.at(key).get<std::string>();
    return {};
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

/* Reads what a request or the file says of one answer; returns what speaks against it. */
std::string read_answer(const json &in, call_answer &out) {
    std::int64_t code = 0;
    std::int64_t value = 0;
    std::int64_t delay = 0;
    std::int64_t times = 0;
    bool refuse = false;
    for (const std::string &error : {
             read_number(in, "code", INT_MIN, INT_MAX, code),
             read_number(in, "value", INT_MIN, INT_MAX, value),
             read_number(in, "delay_ms", 0, delay_limit_ms, delay),
             read_number(in, "times", 0, times_limit, times),
             read_flag(in, "refuse", refuse),
             read_flag(in, "never", out.never),
         }) {
        if (!error.empty()) {
            return error;
        }
    }
    if (refuse && (has(in, "code") || out.never)) {
        return "\"refuse\" stands alone, without \"code\" and \"never\"";
    }
    out.code = refuse ? client_offline : static_cast<int>(code);
    if (has(in, "value")) {
        out.value = static_cast<int>(value);
    }
    out.delay_ms = static_cast<unsigned int>(delay);
    out.times = static_cast<unsigned int>(times);
    return {};
}

json answer_to_json(const call_answer &from) {
    json out = {{"code", from.code},
                {"delay_ms", from.delay_ms},
                {"times", from.times},
                {"never", from.never}};
    if (from.value) {
        out["value"] = *from.value;
    }
    return out;
}

json to_json(const engine_settings::content &from) {
    json answers = json::object();
    for (const auto &[call, answer] : from.answers) {
        answers[call] = answer_to_json(answer);
    }
    return {{"answers", answers}, {"versions", from.versions}};
}

engine_settings::content default_content() {
    return {{}, {{"ioc", "1.0"}, {"ioa", "1"}, {"md", "1"}}};
}

std::string check_version(const std::string &version) {
    const bool printable =
        std::all_of(version.begin(), version.end(), [](char c) { return c > ' ' && c <= '~'; });
    if (version.empty() || version.size() > version_length_limit || !printable) {
        return "\"version\" must be 1 to 64 printable characters without blanks";
    }
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
    if (in.contains("answers") && in.at("answers").is_object()) {
        for (const auto &[call, value] : in.at("answers").items()) {
            call_answer answer;
            if (call_of_name(call) && value.is_object() && read_answer(value, answer).empty()) {
                out.answers[call] = answer;
            } else {
                kze_log(2, "%s: the answer for \"%s\" is not valid, left out", path.c_str(),
                        call.c_str());
            }
        }
    }
    if (in.contains("versions") && in.at("versions").is_object()) {
        for (const auto &[type, value] : in.at("versions").items()) {
            if (out.versions.count(type) != 0 && value.is_string() &&
                check_version(value.get<std::string>()).empty()) {
                out.versions[type] = value.get<std::string>();
            }
        }
    }
    return out;
}

std::string change_answer(engine_settings::content &in, const json &request) {
    std::string call;
    call_answer answer;
    std::string error = read_call(request, call);
    if (error.empty()) {
        error = read_answer(request, answer);
    }
    if (!error.empty()) {
        return error;
    }
    const auto set = {"code", "value", "delay_ms", "refuse", "never"};
    if (std::none_of(set.begin(), set.end(), [&](const char *key) { return has(request, key); })) {
        return "say how to answer: \"code\", \"value\", \"delay_ms\", \"refuse\" or \"never\"";
    }
    in.answers[call] = answer;
    return {};
}

std::string clear_answers(engine_settings::content &in, const json &request) {
    if (!has(request, "call")) {
        in.answers.clear();
        return {};
    }
    std::string call;
    std::string error = read_call(request, call);
    if (error.empty()) {
        in.answers.erase(call);
    }
    return error;
}

std::string change_version(engine_settings::content &in, const json &request) {
    std::string type;
    std::string version;
    std::string error = read_text(request, "type", type);
    if (error.empty() && in.versions.count(type) == 0) {
        error = "no type \"" + type + "\"; the types are ioc ioa md";
    }
    if (error.empty()) {
        error = read_text(request, "version", version);
    }
    if (error.empty()) {
        error = check_version(version);
    }
    if (error.empty()) {
        in.versions[type] = version;
    }
    return error;
}

bool same_file(const struct stat &left, const struct stat &right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino &&
           left.st_size == right.st_size && left.st_ctim.tv_sec == right.st_ctim.tv_sec &&
           left.st_ctim.tv_nsec == right.st_ctim.tv_nsec;
}

std::string write_all(int descriptor, const std::string &text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = ::write(descriptor, text.data() + done, text.size() - done);
        if (wrote < 0 && errno != EINTR) {
            return std::strerror(errno);
        }
        done += wrote > 0 ? static_cast<std::size_t>(wrote) : 0;
    }
    return {};
}

}  // namespace

engine_settings::engine_settings(std::string path)
    : path_(std::move(path)), content_(default_content()) {}

bool engine_settings::is_settings_request(const json &request) {
    if (!request.is_object() || !request.contains("op")) {
        return false;
    }
    const json &op = request.at("op");
    return op == "answer" || op == "clear" || op == "version";
}

json engine_settings::apply(const json &request) {
    if (!request.is_object() || !has(request, "op") || !request.at("op").is_string()) {
        return {{"ok", false}, {"error", "\"op\" must be there, as a text"}};
    }
    const std::string op = request.at("op").get<std::string>();
    const std::string error = change_file([&](content &in) -> std::string {
        if (op == "answer") {
            return change_answer(in, request);
        }
        if (op == "clear") {
            return clear_answers(in, request);
        }
        if (op == "version") {
            return change_version(in, request);
        }
        return "no settings request \"" + op + "\"; there are answer, clear and version";
    });
    if (!error.empty()) {
        return {{"ok", false}, {"error", error}};
    }
    return {{"ok", true}};
}

std::optional<call_answer> engine_settings::take(const std::string &call) {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        refresh();
        const auto found = content_.answers.find(call);
        if (found == content_.answers.end()) {
            return std::nullopt;
        }
        if (found->second.times == 0) {
            return found->second;
        }
    }
    std::optional<call_answer> taken;
    const std::string error = change_file([&](content &in) -> std::string {
        const auto found = in.answers.find(call);
        if (found == in.answers.end()) {
            return {};
        }
        taken = found->second;
        if (found->second.times == 1) {
            in.answers.erase(found);
        } else if (found->second.times > 1) {
            --found->second.times;
        }
        return {};
    });
    if (!error.empty()) {
        kze_log(1, "the use of an answer isn't counted: %s", error.c_str());
    }
    return taken;
}

std::string engine_settings::version(const std::string &type) {
    const std::lock_guard<std::mutex> guard(lock_);
    refresh();
    const auto found = content_.versions.find(type);
    return found == content_.versions.end() ? std::string() : found->second;
}

json engine_settings::describe() {
    const std::lock_guard<std::mutex> guard(lock_);
    refresh();
    return to_json(content_);
}

std::string engine_settings::change_file(const change &how) {
    const std::lock_guard<std::mutex> guard(lock_);
    const std::string directory = path_.substr(0, path_.rfind('/'));
    if (const int made = kze_dirutils_mkdir(directory.c_str(), 0700); made != 0) {
        errno = made;
        return system_error("can't make", directory);
    }
    const std::string lock_path = path_ + ".lock";
    const owned_descriptor file(::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (file.get() < 0) {
        return system_error("can't open", lock_path);
    }
    while (::flock(file.get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            return system_error("can't lock", lock_path);
        }
    }
    refresh();
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

/* Reads the file again when it is another one than last time. The caller holds lock_. */
void engine_settings::refresh() {
    struct stat now {};
    const owned_descriptor file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0 || ::fstat(file.get(), &now) != 0 || !S_ISREG(now.st_mode)) {
        now = {};
    }
    if (same_file(now, stamp_)) {
        return;
    }
    stamp_ = now;
    if (now.st_ino == 0 || now.st_size > file_size_limit) {
        content_ = default_content();
        return;
    }
    std::string text(static_cast<std::size_t>(now.st_size), '\0');
    const ssize_t got = ::pread(file.get(), text.data(), text.size(), 0);
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    content_ = parse(text, path_);
}

/* Writes the content beside the file and renames it into place: it outlives the process, and need
 * not outlive the host. The caller holds both locks. */
std::string engine_settings::save() {
    const std::string beside = path_ + ".new";
    {
        const owned_descriptor file(
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
    if (::stat(path_.c_str(), &stamp_) != 0) {
        stamp_ = {};
    }
    return {};
}

}  // namespace kze::engine
