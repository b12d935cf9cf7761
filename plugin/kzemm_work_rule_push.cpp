// Answers with detection rules: which capability of the engine gets which text.

#include <cjson/cJSON.h>

#include <cstring>
#include <iterator>
#include <memory>

#include "engine/qd_calls.h"
#include "plugin/kzemm_data_conv.h"
#include "plugin/kzemm_work_module_config.h"
#include "vrdbase.h"

namespace {

struct cjson_deleter {
    void operator()(cJSON *object) const { cJSON_Delete(object); }
};
using cjson_ptr = std::unique_ptr<cJSON, cjson_deleter>;

// Lives as long as the requests that it is handed to, which don't write to it.
char module_trust_ip[] = "trust_ip";

int push_text(_engine_type type, const char *text) {
    return qd::engine_update_by_data(type, text, static_cast<unsigned int>(strlen(text)),
                                     engine_upd_by_data_cb, nullptr);
}

// Rules of one capability: the flag of an answer that enables them, and the lines that tell what
// came of handing them over.
struct rule_push {
    const char *flag;
    _engine_type type;
    const char *failed;
    const char *done;
};

// In the order in which they are handed over.
constexpr rule_push login_pushes[] = {
    {"abnormal_ip_login_enable", ENGINE_ABNORMAL_IP_LOGIN, "set login ip rule failed,ret=%d .",
     "set login ip rule success."},
    {"abnormal_time_login_enable", ENGINE_ABNORMAL_TIME_LOGIN,
     "set login time rule failed,ret=%d .", "set login time rule success."},
    {"abnormal_scan_enable", ENGINE_ABNORMAL_SCAN, "set abnormal scan rule failed,ret=%d .",
     "set abnormal scan rule success."},
};
constexpr rule_push ssh_push = {"ssh_enable", ENGINE_BRUTEFORCE_SSH,
                                "set bruteforce ssh rule failed,ret=%d .",
                                "set bruteforce ssh rule success."};

// 0, or -1 when the engine refused.
int push_rules(const rule_push &push, const char *config) {
    if (const int result = push_text(push.type, config); result != 0) {
        kze_log(1, push.failed, result);
        return -1;
    }
    kze_log(3, "%s", push.done);
    return 0;
}

// Whether a text begins with these characters; what follows them doesn't count.
bool begins_with(const char *text, const char *beginning) {
    return strncmp(text, beginning, strlen(beginning)) == 0;
}

int handle_abnormal_login_cfg(const xmsg_ptr &answer, const char *config) {
    constexpr size_t pushes = std::size(login_pushes);
    const char *flags[pushes] = {};
    for (size_t each = 0; each < pushes; ++each) {
        flags[each] = get_cfg_field(answer, login_pushes[each].flag);
        if (flags[each] == nullptr) {
            return -1;
        }
    }
    kze_log(4, "%s:%s,%s:%s,%s:%s", login_pushes[1].flag, flags[1], login_pushes[0].flag, flags[0],
            login_pushes[2].flag, flags[2]);
    for (size_t each = 0; each < pushes; ++each) {
        if (begins_with(flags[each], "1") && push_rules(login_pushes[each], config) != 0) {
            return -1;
        }
    }
    return 0;
}

int handle_anti_bfa_cfg(const xmsg_ptr &answer, const char *config) {
    const char *const enable = get_cfg_field(answer, "enable");
    if (enable == nullptr) {
        return -1;
    }
    if (!begins_with(enable, "true")) {
        return 0;
    }
    const char *const ssh_enable = get_cfg_field(answer, ssh_push.flag);
    if (ssh_enable == nullptr) {
        return -1;
    }
    kze_log(4, "%s:%s", ssh_push.flag, ssh_enable);
    return begins_with(ssh_enable, "true") ? push_rules(ssh_push, config) : 0;
}

// The envelope {"tkbfd":{"white_ip":{...,"need_update":true}}} around a list, in one line; null
// when it can't be made.
malloc_ptr wrap_trust_list(const char *white_ip) {
    cjson_ptr list(cJSON_Parse(white_ip));
    if (list == nullptr) {
        kze_log(2, "parse config json failed");
        return nullptr;
    }
    cjson_ptr content(cJSON_CreateObject());
    if (content == nullptr) {
        kze_log(2, "new content json obj failed");
        return nullptr;
    }
    if (cJSON_AddTrueToObject(list.get(), "need_update") == nullptr) {
        kze_log(2, "new content json obj failed");
        return nullptr;
    }
    // The CS form keeps the key where it is and so can't fail for want of memory, which would leave
    // an envelope without a list.
    if (cJSON_AddItemToObjectCS(content.get(), "white_ip", list.get()) != 0) {
        static_cast<void>(list.release());
    }
    const cjson_ptr message(cJSON_CreateObject());
    if (message == nullptr) {
        kze_log(2, "new msg json obj failed");
        return nullptr;
    }
    if (cJSON_AddItemToObjectCS(message.get(), "tkbfd", content.get()) != 0) {
        static_cast<void>(content.release());
    }
    malloc_ptr text(cJSON_PrintUnformatted(message.get()));
    if (text == nullptr) {
        kze_log(2, "new send_msg failed");
    }
    return text;
}

void handle_trust_ip_cfg(const xmsg_ptr &answer) {
    const char *const white_ip = xmsg_get(answer.get(), "white_ip", 8, nullptr, nullptr);
    if (white_ip == nullptr) {
        kze_log(2, "get white ip failed");
        return;
    }
    kze_log(4, "white ip info is [%s]", white_ip);
    const malloc_ptr message = wrap_trust_list(white_ip);
    if (message == nullptr) {
        return;
    }
    kze_log(3, "send white info [%s]", message.get());
    if (const int result = push_text(ENGINE_BRUTEFORCE_SSH, message.get()); result != 0) {
        kze_log(1, "set white ip failed,ret=%d .", result);
        retry_request_cfg(module_trust_ip);
    }
}

int handle_rule_config(const xmsg_ptr &answer, const char *module, const char *config) {
    if (begins_with(module, "abnormal_login")) {
        return handle_abnormal_login_cfg(answer, config);
    }
    if (begins_with(module, "anti_bfa")) {
        return handle_anti_bfa_cfg(answer, config);
    }
    kze_log(2, "unknown msg type:%s", module);
    return -1;
}

}  // namespace

void on_engine_cfg_response(int result, unsigned int, const char *data, unsigned int len,
                            void *user) {
    const xmsg_ptr answer = open_cfg_answer(result, data, len);
    if (answer == nullptr) {
        return;
    }
    const char *const module = static_cast<const char *>(user);
    if (begins_with(module, module_trust_ip)) {
        handle_trust_ip_cfg(answer);
        return;
    }
    const char *const config = get_cfg_field(answer, "config");
    if (config == nullptr) {
        return;
    }
    kze_log(4, "config is:%s,len:%d", config, static_cast<int>(strlen(config)));
    if (handle_rule_config(answer, module, config) != 0) {
        kze_log(2, "update config failed");
    }
}

void engine_upd_by_data_cb(_engine_type, int, void *) {}
