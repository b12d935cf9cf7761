#include "control_fuzz.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "agent/common/control.h"
#include "agent/common/json_text.h"
#include "agent/engine/engine_settings.h"
#include "agent/services/config_service.h"
#include "tests/support/temp_tree.h"
#include "vrdaux.h"
#include "vrdbase.h"
#include "vrdcl_ev.h"
#include "vrdipc.h"

struct vrd_ipc_st {};
struct vrd_addr_st {};

namespace {

using nlohmann::json;

constexpr unsigned int request_id = 77;
constexpr unsigned int other_command = 7;
constexpr size_t longest_input = 0xFFFF;

vrd_ipc_st s_ipc;
vrd_addr_st s_addr;
std::vector<std::string> s_answers;
bool s_answers_too_long = false;
std::optional<std::string> s_message;  // what was sent one way
bool s_messages_refused = false;
vrd_ipc_request_cb s_serve = nullptr;  // the service's, and its user
void *s_server = nullptr;
int s_reply_status = VRD_IPC_OK;  // what a caller gets
std::string s_reply;
vrd_ipc_reply_cb s_on_reply = nullptr;
void *s_caller = nullptr;

void require(bool good, const char *rule) {
    if (good) {
        return;
    }
    fprintf(stderr, "broken: %s\n", rule);
    for (const std::string &answer : s_answers) {
        fprintf(stderr, "  answer: %s\n", answer.c_str());
    }
    abort();
}

// ---- a second reading of a text ----

int depth_of(const std::string &good_text) {
    int depth = 0;
    int deepest = 0;
    bool quoted = false;
    for (size_t at = 0; at < good_text.size(); ++at) {
        const char c = good_text[at];
        if (quoted) {
            at += c == '\\';
            quoted = c != '"';
        } else if (c == '"') {
            quoted = true;
        } else if (c == '[' || c == '{') {
            deepest = std::max(deepest, ++depth);
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return deepest;
}

std::optional<json> read_again(const std::string &text) {
    // A text ends for the library where a byte is 0.
    if (text.find('\0') != text.npos || !json::accept(text) ||
        depth_of(text) > kze::json_depth_bound) {
        return std::nullopt;
    }
    return json::parse(text);
}

void check_text(const std::string &text, const std::optional<json> &expected) {
    // From memory of its own, so that a read beyond the bytes is seen.
    const std::vector<char> copy(text.begin(), text.end());
    std::string problem;
    const std::optional<json> read = kze::parse_json({copy.data(), copy.size()}, problem);
    require(read == expected, "a text is read when it is whole and not too deep");
    require(problem.empty() == read.has_value(), "what can't be read has a reason");
    require(problem.find('\n') == std::string::npos, "a reason is one line");
}

// ---- requests ----

// The one answer, read again: a line of JSON that says yes, or no and why.
json the_answer() {
    require(s_answers.size() == (s_answers_too_long ? 2U : 1U), "a request has one answer");
    const std::string &text = s_answers.back();
    require(std::none_of(text.begin(), text.end(),
                         [](char c) { return static_cast<unsigned char>(c) < 0x20; }),
            "an answer is one line");
    const json answer = json::parse(text, nullptr, false);
    require(answer.is_object(), "an answer is an object");
    const auto ok = answer.find("ok");
    require(ok != answer.end() && ok->is_boolean(), "an answer says whether it is well");
    if (*ok == false) {
        const auto error = answer.find("error");
        require(error != answer.end() && error->is_string() && *error != "",
                "a refusal has a reason");
    }
    require(!s_answers_too_long || answer["error"] == "the answer is too long to be sent",
            "an answer that is too long is told");
    return answer;
}

template <typename Handler>
json answer_of(const std::string &text, const Handler &handler) {
    s_answers.clear();
    const std::vector<char> copy(text.begin(), text.end());
    const kze::control_handler function = handler;
    const auto size = static_cast<unsigned int>(copy.size());
    require(!kze::control_answer(&s_ipc, &s_addr, request_id, other_command, copy.data(), size,
                                 function) &&
                s_answers.empty(),
            "another command is left to others");
    require(kze::control_answer(&s_ipc, &s_addr, request_id, kze::control_command, copy.data(),
                                size, function),
            "a control request is taken");
    return the_answer();
}

void check_handlers(const std::string &text, const std::optional<json> &object) {
    bool called = false;
    const json echo = answer_of(text, [&](const json &request) {
        called = true;
        require(object && request == *object, "the handler gets the request");
        return json{{"ok", true}, {"echo", request}};
    });
    require(called == object.has_value(), "the handler gets objects only");
    require(s_answers_too_long || echo["ok"] == called, "what is no object is refused");
    require(s_answers_too_long || !called || echo["echo"] == *object, "an answer loses nothing");
    if (!object) {
        require(s_answers_too_long ||
                    echo["error"].get<std::string>().rfind("the request can't be read: ", 0) == 0,
                "what can't be read is told so");
        return;
    }
    // As a handler that trusts a request; what it throws holds the request's bytes.
    answer_of(text, [](const json &request) -> json {
        if (request.contains("op")) {
            return {{"ok", true}, {"number", request["op"].get<int>()}};
        }
        throw std::runtime_error(request.dump() + "\xFF\n");
    });
}

// ---- the configuration service ----

// The fields of an announcement are the modules that are named.
void require_announced(const json &modules) {
    require(s_message.has_value(), "an announcement is sent");
    const std::unique_ptr<xmsg, decltype(&xmsg_release)> message(
        xmsg_unpack(s_message->data(), static_cast<unsigned int>(s_message->size())),
        &xmsg_release);
    require(message != nullptr, "an announcement is a message");
    for (const json &module : modules) {
        const auto &name = module.get_ref<const std::string &>();
        require(xmsg_get(message.get(), name.data(), static_cast<unsigned short>(name.size()),
                         nullptr, nullptr) != nullptr,
                "each module is announced");
    }
}

std::string check_service(const std::string &text, const std::optional<json> &object) {
    s_answers.clear();
    s_message.reset();
    kze::services::config_service service("/nonexistent");
    require(service.open(), "the service has its endpoint");
    const std::vector<char> copy(text.begin(), text.end());
    s_serve(&s_ipc, &s_addr, request_id, kze::control_command, copy.data(),
            static_cast<unsigned int>(copy.size()), s_server);
    const json answer = the_answer();
    require(answer["ok"] == false || object.has_value(), "the service answers objects only");
    if (answer.contains("delivered")) {
        require(answer["delivered"] == !s_messages_refused && object.has_value(),
                "what is delivered is told");
        require_announced((*object)["modules"]);
    }
    require(!s_message || s_answers_too_long || answer.contains("delivered"),
            "what is announced is told");
    return s_answers.front();
}

// ---- the engine's settings ----

std::string check_settings(const json &request) {
    // Its name goes with it: one tree for all inputs.
    static const kze_test::temp_tree tree;
    const std::string path = tree.path("var/settings.json");
    std::filesystem::remove(path);
    kze::engine::engine_settings settings(path);
    const json before = settings.describe();
    const json answer = answer_of(
        request.dump(), [&](const json &same_request) { return settings.apply(same_request); });
    const json after = settings.describe();
    require(kze::engine::engine_settings(path).describe() == after, "what is set is kept");
    const bool taken = std::filesystem::exists(path);
    require(s_answers_too_long || answer["ok"] == taken, "the answer tells whether it is set");
    require(taken || after == before, "a refused request changes nothing");
    require(!taken || kze::engine::engine_settings::is_settings_request(request),
            "only known requests set anything");
    return s_answers.front();
}

// ---- callers ----

kze::control_result call() {
    return kze::control_call("peer", {{"op", "status"}}, 1);
}

void check_callers(const std::string &text, const std::optional<json> &object) {
    s_reply_status = VRD_IPC_OK;
    s_reply = text;
    const kze::control_result result = call();
    require(result.answer == object, "a caller gets objects only");
    require(result.error.empty() == object.has_value() && result.status == 0,
            "a caller is told why there is no answer");
    s_reply_status = VRD_IPC_E_PEER_GONE;
    const kze::control_result failed = call();
    require(!failed.answer && failed.status == VRD_IPC_E_PEER_GONE && !failed.error.empty(),
            "a caller is told of a peer that has gone");
}

}  // namespace

// ---- the stand-ins ----

extern "C" int error_output_check(int /* level */) {
    return 1;
}
extern "C" void error_output(int /* level */, const char * /* source_file */, int /* line */,
                             const char *format, ...) {
    std::vector<char> text(4096);
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
}

vrd_ipc_st *vrd_ipc_create(const char * /* name */, int /* flags */) {
    return &s_ipc;
}
vrd_ipc_st *vrd_ipc_create_temp(const char * /* name */, int /* flags */) {
    return &s_ipc;
}
void vrd_ipc_destroy(vrd_ipc_st * /* ipc */) {}
vrd_addr_st *vrd_addr_create(const char * /* name */, int /* a */, int /* b */) {
    return &s_addr;
}
void vrd_addr_destroy(vrd_addr_st * /* addr */) {}
int vrd_ipc_on_request(vrd_ipc_st * /* ipc */, vrd_ipc_request_cb callback, void *context) {
    s_serve = callback;
    s_server = context;
    return VRD_IPC_OK;
}
int vrd_ipc_msg_recv(vrd_ipc_st * /* ipc */, vrd_ipc_recv_cb /* callback */, void * /* context */) {
    return VRD_IPC_OK;
}
int vrd_ipc_response(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int id, unsigned int cmd,
                     const char *data, unsigned int size) {
    require(ipc == &s_ipc && addr == &s_addr && id == request_id && cmd == kze::control_command,
            "the requester is answered");
    s_answers.emplace_back(data, size);
    return s_answers_too_long && s_answers.size() == 1 ? VRD_IPC_E_TOO_LARGE : VRD_IPC_OK;
}
int vrd_ipc_make_request(vrd_ipc_st * /* ipc */, const vrd_addr_st * /* addr */,
                         unsigned int /* cmd */, const char *data, unsigned int size,
                         vrd_ipc_reply_cb callback, void *context, unsigned int /* time_limit */) {
    require(json::parse(data, data + size).is_object(), "a request is an object");
    s_on_reply = callback;
    s_caller = context;
    return VRD_IPC_OK;
}
int vrd_ipc_send(vrd_ipc_st * /* ipc */, const vrd_addr_st * /* addr */, unsigned int /* cmd */,
                 const char *data, unsigned int size) {
    s_message.emplace(data, size);
    return s_messages_refused ? VRD_IPC_E_NO_PEER : VRD_IPC_OK;
}
const char *vrd_ipc_strerror(int /* code */) {
    return "the reason";
}
int cl_ev_loop_nowait(int /* on */) {
    return 0;
}
int cl_event_loop_once(void) {
    const std::vector<char> copy(s_reply.begin(), s_reply.end());
    const bool good = s_reply_status == VRD_IPC_OK;
    s_on_reply(s_reply_status, kze::control_command, good ? copy.data() : nullptr,
               good ? static_cast<unsigned int>(copy.size()) : 0, s_caller);
    return 0;
}

control_answers run_request(const std::string &text, bool answers_too_long, bool messages_refused) {
    s_answers_too_long = answers_too_long;
    s_messages_refused = messages_refused;
    const std::optional<json> value = read_again(text);
    check_text(text, value);
    const std::optional<json> object = value && value->is_object() ? value : std::nullopt;
    check_handlers(text, object);
    control_answers answers = {object.has_value(), check_service(text, object), {}};
    if (object) {
        answers.settings = check_settings(*object);
    }
    check_callers(text, object);
    return answers;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > longest_input) {
        return 0;
    }
    run_request(std::string(reinterpret_cast<const char *>(data) + 1, size - 1), (data[0] & 1) != 0,
                (data[0] & 2) != 0);
    return 0;
}
