#include "agent/services/config_service.h"

#include <memory>
#include <utility>

#include "agent/central_config/modules.h"
#include "agent/common/control.h"
#include "vrdaux.h"
#include "vrdbase.h"

namespace kze::services {
namespace {

using nlohmann::json;

using message_ptr = std::unique_ptr<xmsg, decltype(&xmsg_release)>;
using addr_ptr = std::unique_ptr<vrd_addr_st, decltype(&vrd_addr_destroy)>;

constexpr std::string_view module_key = "module";
constexpr std::size_t announced_modules_bound = 64;

using fields = std::vector<std::pair<std::string, std::string>>;

/* The bytes of a message; none when it can't be made. */
std::string packed(const std::string &name, const fields &content) {
    const message_ptr message(xmsg_new(name.c_str()), &xmsg_release);
    for (const auto &[key, value] : content) {
        const int result =
            xmsg_add(message.get(), key.data(), static_cast<unsigned short>(key.size()),
                     value.data(), static_cast<unsigned int>(value.size()));
        if (result != XMSG_OK && result != XMSG_E_EXISTS) {
            kze_log(1, "the message \"%s\" can't take \"%s\": %d", name.c_str(), key.c_str(),
                    result);
            return {};
        }
    }
    const int size = xmsg_pack_size(message.get());
    std::string bytes(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
    if (xmsg_pack(message.get(), bytes.data(), static_cast<unsigned int>(bytes.size())) != size) {
        return {};
    }
    return bytes;
}

/* The module that a request names. */
std::optional<std::string> module_of(std::string_view request) {
    const message_ptr message(
        xmsg_unpack(request.data(), static_cast<unsigned int>(request.size())), &xmsg_release);
    unsigned int length = 0;
    const char *name = xmsg_get(message.get(), module_key.data(),
                                static_cast<unsigned short>(module_key.size()), &length, nullptr);
    if (name == nullptr) {
        return std::nullopt;
    }
    return std::string(name, length);
}

std::string joined(const std::vector<std::string> &words) {
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : ", ") + word;
    }
    return text;
}

}  // namespace

config_service::config_service(const std::string &store_directory)
    : endpoint_service(config_endpoint), store_(store_directory) {}

void config_service::on_request(vrd_addr_st *from, unsigned int request_id, unsigned int cmd,
                                std::string_view body) {
    if (cmd != module_request_command) {
        endpoint_service::on_request(from, request_id, cmd, body);
        return;
    }
    const std::optional<std::string> module = module_of(body);
    if (!module) {
        ++refused_;
        kze_log(2, "a module request that can't be read, answered with nothing");
        respond(from, request_id, cmd, {});
        return;
    }
    respond(from, request_id, cmd, answer_for(*module));
}

std::string config_service::answer_for(const std::string &module) {
    const config::module_description *known = config::find_module(module);
    if (known == nullptr) {
        ++refused_;
        kze_log(2, "module \"%s\" is not known, answered without fields", module.c_str());
        return packed(module, {});
    }
    config::module_content content;
    if (config::read_module(store_, *known, content) != config::STORE_OK) {
        ++refused_;
        kze_log(1, "module \"%s\" is answered with nothing: %s", module.c_str(),
                store_.problem().c_str());
        return {};
    }
    for (const std::string &field : content.no_text) {
        kze_log(2, "module \"%s\": \"%s\" is no string, left out", module.c_str(), field.c_str());
    }
    ++answered_;
    kze_log(3, "module \"%s\" answered with %zu fields, not set: %s", module.c_str(),
            content.fields.size(), content.missing.empty() ? "-" : joined(content.missing).c_str());
    return packed(module, content.fields);
}

json config_service::announce(const std::vector<std::string> &modules) {
    fields content;
    for (const std::string &module : modules) {
        content.emplace_back(module, "1");
    }
    const std::string body = packed("changed", content);
    const addr_ptr to(vrd_addr_create(announced_endpoint, 0, 0), &vrd_addr_destroy);
    const int result = vrd_ipc_send(ipc(), to.get(), announcement_command, body.data(),
                                    static_cast<unsigned int>(body.size()));
    if (result != VRD_IPC_OK) {
        const std::string problem = std::string("\"") + announced_endpoint +
                                    "\" takes no message: " + vrd_ipc_strerror(result);
        kze_log(2, "a change of %s is not announced: %s", joined(modules).c_str(), problem.c_str());
        return {{"ok", true}, {"delivered", false}, {"problem", problem}};
    }
    ++announced_;
    kze_log(3, "a change of %s is announced", joined(modules).c_str());
    return {{"ok", true}, {"delivered", true}};
}

json config_service::on_control(const std::string &op, const json &request) {
    if (op != "announce") {
        return control_error("no request \"" + op + "\"; there are status and announce");
    }
    const auto modules = request.value("modules", std::vector<std::string>());
    if (modules.empty() || modules.size() > announced_modules_bound) {
        return control_error("\"modules\" is an array of 1 to " +
                             std::to_string(announced_modules_bound) + " names");
    }
    for (const std::string &module : modules) {
        if (module.empty() || module.size() > config::name_size_bound) {
            return control_error("a module's name has 1 to " +
                                 std::to_string(config::name_size_bound) + " bytes");
        }
    }
    return announce(modules);
}

void config_service::add_status(json &status) const {
    status["answered"] = answered_;
    status["refused"] = refused_;
    status["announced"] = announced_;
    status["summary"] = std::to_string(answered_) + " modules answered, " +
                        std::to_string(refused_) + " refused, " + std::to_string(announced_) +
                        " changes announced";
}

}  // namespace kze::services
