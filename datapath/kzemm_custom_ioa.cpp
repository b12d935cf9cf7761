// Custom IOA rules: from a request to the engine, and the outcome to the console.

#include <cjson/cJSON.h>
#include <jansson.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "config/kzemm_config.h"
#include "datapath/kzemm_task.h"
#include "engine/qd_calls.h"
#include "plugin/kzemm_data_conv.h"
#include "vrdbase.h"

namespace {

constexpr int host_order = 0;

struct json_deleter {
    void operator()(json_t *object) const { json_decref(object); }
};
struct cjson_deleter {
    void operator()(cJSON *object) const { cJSON_Delete(object); }
};

// The engine's verdicts come on its own threads, also while the worker stops. The mutex keeps the
// task queue in being, and its identifier whole, while a verdict copies that; it is not held while
// anything is saved or sent.
std::mutex s_verdict_mutex;
kzemm_task *s_verdict_taker = nullptr;

// The JSON text of a request's frame, without the zero bytes behind it.
size_t text_length(const char *body, const _module_header &header) {
    size_t length = module_field(header.msg_len, true);
    while (length != 0 && body[length - 1] == '\0') {
        --length;
    }
    return length;
}

// A member's text, or null, with a log line, where there is none.
const char *string_member(const json_t *object, const char *key) {
    const char *const text = json_string_value(json_object_get(object, key));
    if (text == nullptr) {
        kze_log(1, "json judge failed %s", key);
    }
    return text;
}

}  // namespace

int kzemm_task::deal_customioa_task(const char *data, unsigned int len) {
    if (data == nullptr || len == 0) {
        kze_log(1, "param error,data:%p,length:%u", static_cast<const void *>(data), len);
        return -1;
    }
    const _module_header header = read_module_header(data);
    const char *const body = data + sizeof(header);
    json_error_t error = {};
    const std::unique_ptr<json_t, json_deleter> request(
        json_loadb(body, text_length(body, header), JSON_DECODE_ANY, &error));
    if (!json_is_object(request.get())) {
        kze_log(1, "load msg_json failed, err: %s", error.text);
        return -1;
    }
    const char *const rule_id = string_member(request.get(), "rulesId");
    if (rule_id == nullptr) {
        return -1;
    }
    const char *const rules = string_member(request.get(), "rulesInfo");
    if (rules == nullptr) {
        return -1;
    }
    const auto rule_id_len = static_cast<unsigned int>(strlen(rule_id));
    const auto rules_len = static_cast<unsigned int>(strlen(rules));
    if (rule_id_len == 0 || rules_len == 0) {
        kze_log(1, "ioa rule len:%d, rule_id len:%d", static_cast<int>(rules_len),
                static_cast<int>(rule_id_len));
        return -1;
    }
    kze_log(3, "json parse custom ioa success,rule id:%s, ioa_data len:%d", rule_id,
            static_cast<int>(rules_len));

    _customioa_info info = {};
    std::string taken_rule_id;
    try {
        info.rule_id = rule_id;
        taken_rule_id = rule_id;  // so that nothing can fail once the engine has the rules
    } catch (const std::bad_alloc &) {
        kze_log(1, "no memory for the rule id");
        return -1;
    }
    info.ret =
        qd::engine_update_by_data(ENGINE_CUSTOM_IOA, rules, rules_len, engine_upd_by_data_cb, this);
    if (info.ret != 0) {
        kze_log(1, "invoke engine update by data failed:%d", info.ret);
        report_ctmioa_info(info);
        return -1;
    }
    {
        const std::lock_guard<std::mutex> lock(s_verdict_mutex);
        cur_rule_id.swap(taken_rule_id);
    }
    kze_log(3, "invoke engine update by data success");
    return 0;
}

void kzemm_task::take_verdicts() {
    const std::lock_guard<std::mutex> lock(s_verdict_mutex);
    s_verdict_taker = this;
}

void kzemm_task::refuse_verdicts() {
    const std::lock_guard<std::mutex> lock(s_verdict_mutex);
    s_verdict_taker = nullptr;
}

bool kzemm_task::copy_rule_id(const kzemm_task *task, std::string &out) {
    const std::lock_guard<std::mutex> lock(s_verdict_mutex);
    if (task != s_verdict_taker) {
        return false;
    }
    out = task->cur_rule_id;
    return true;
}

void kzemm_task::engine_upd_by_data_cb(_engine_type type, int ret, void *user) try {
    if (type != ENGINE_CUSTOM_IOA) {
        return;
    }
    _customioa_info info = {ret, {}};
    if (!copy_rule_id(static_cast<const kzemm_task *>(user), info.rule_id)) {
        return;  // the worker has ended meanwhile, and its task queue with it
    }
    kze_log(3, "custom ioa update callback ret:%d, cur rule id:%s", ret, info.rule_id.c_str());
    if (ret == 0 && kzemm_config::get_instance().set_ctmioa_rule_id(info.rule_id) != 0) {
        kze_log(1, "set custom ioa ruleid to file failed");
    }
    report_ctmioa_info(info);
} catch (const std::bad_alloc &) {
    kze_log(1, "no memory for the rule id");
}

int kzemm_task::report_ctmioa_info(_customioa_info &info) {
    if (info.rule_id.empty()) {
        return -1;
    }
    ctmioa_ret_trans(info);
    char *text = nullptr;
    if (const int result = build_cusioa_json_msg(info, &text); result != 0) {
        kze_log(1, "build custom ioa json msg failed");
        return result;
    }
    const malloc_ptr owned(text);
    kze_log(3, "custom ioa result json msg:%s", text);
    const int result =
        send_ctmdata_to_gw(KZEMM_DATA_CTMIOA_RESULT, text, static_cast<unsigned int>(strlen(text)));
    if (result != 0) {
        kze_log(1, "send_ctmdata_to_gw failed");
    }
    return result;
}

void kzemm_task::ctmioa_ret_trans(_customioa_info &info) {
    switch (info.ret) {
        case 0:
            break;
        case -16:
            info.ret = -3;
            break;
        case -8:
            info.ret = -4;
            break;
        case -7:
            info.ret = -5;
            break;
        case 2:
            info.ret = -6;
            break;
        default:
            info.ret = info.ret < 0 ? -2 : -1;
    }
}

int kzemm_task::build_cusioa_json_msg(_customioa_info &info, char **out) {
    return build_ctmioa_msg(&info.ret, info.rule_id, out);
}

int build_ctmioa_msg(const int *result, const std::string &rule_id, char **out) {
    if (out == nullptr) {
        kze_log(1, "str is null pointer");
        return -1;
    }
    const unsigned int agent_id = vrd_get_hostid();
    kze_log(3, "agent id:%u", agent_id);
    const std::unique_ptr<cJSON, cjson_deleter> message(cJSON_CreateObject());
    if (message == nullptr ||
        cJSON_AddNumberToObject(message.get(), "agentId", agent_id) == nullptr ||
        (result != nullptr && cJSON_AddNumberToObject(message.get(), "res", *result) == nullptr) ||
        cJSON_AddStringToObject(message.get(), "rulesId", rule_id.c_str()) == nullptr) {
        kze_log(0, "create json obj failed");
        return -1;
    }
    *out = cJSON_Print(message.get());
    if (*out == nullptr) {
        kze_log(1, "cJSON_Print failed");
        return -1;
    }
    kze_log(3, "custom ioa ret json encode:%s", *out);
    return 0;
}

int kzemm_task::send_ctmdata_to_gw(KZEMM_DATA_TYPE type, const char *data, unsigned int len) {
    if (data == nullptr) {
        kze_log(2, "data is null");
        return -1;
    }
    if (len == 0) {
        kze_log(2, "param is invalid,  length: 0");
        return -1;
    }
    if (type < KZEMM_DATA_CTMIOA_RESULT || type > KZEMM_DATA_CREDIBLE) {
        kze_log(2, "type invalid, type: %d", type);
        return -1;
    }
    std::string frame;
    add_msg_header(data, len, frame, module_response, host_order);
    if (frame.empty()) {
        return -1;
    }
    if (qd::async_send(type, frame.data(), static_cast<unsigned int>(frame.size())) != 0) {
        kze_log(1, "send data to kzethtgw failed, type: %d", type);
        return -1;
    }
    kze_log(3, "send data to thtgw success");
    return 0;
}
