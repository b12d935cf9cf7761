// Configuration modules: asking for them, and the service's notice that some have changed.

#include "plugin/kzemm_work_module_config.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "plugin/kzemm_data_conv.h"
#include "plugin/kzemm_drive_switch.h"
#include "plugin/kzemm_work.h"
#include "vrdbase.h"

namespace {

constexpr char service_name[] = "agt_cfgc";
constexpr int service_a = 1;
constexpr int service_b = 2;
constexpr unsigned int cmd_request_module = 1004;
constexpr unsigned int request_limit_seconds = 60;
constexpr char field_module[] = "module";
constexpr unsigned short field_module_len = 6;

struct config_module {
    const char *name;
    unsigned int name_len;
    vrd_ipc_reply_cb callback;
};

// In the order in which they are always handled.
constexpr config_module modules[] = {
    {"abnormal_login", 14, on_engine_cfg_response},
    {"anti_bfa", 8, on_engine_cfg_response},
    {"trust_ip", 8, on_engine_cfg_response},
    {"base_drive", 10, on_base_drive_cfg_response},
};

// Endpoint and address of retry_request_cfg; made on first need and kept for the process's life.
// The endpoint is bound to the worker that was there then: after a restart in one process it is
// deaf.
vrd_ipc_st *retry_ipc = nullptr;
vrd_addr_st *retry_addr = nullptr;

vrd_addr_st *create_service_addr() {
    return vrd_addr_create(service_name, service_a, service_b);
}

struct addr_deleter {
    void operator()(vrd_addr_st *addr) const { vrd_addr_destroy(addr); }
};

}  // namespace

int kzemm_work::request_cfg() {
    const std::unique_ptr<vrd_addr_st, addr_deleter> addr(create_service_addr());
    if (addr == nullptr) {
        kze_log(1, "vrd addr create failed");
        return -1;
    }
    set_qd_swicth();
    for (const config_module &each : modules) {
        handle_cfg_msg(ipc, addr.get(), each.name, each.callback);
    }
    kze_log(3, "request cfgc success");
    return 0;
}

int kzemm_work::do_cfgc_notify(vrd_ipc_st *from, vrd_addr_st *addr, const char *data,
                               unsigned int len) {
    set_qd_swicth();
    kze_log(3, "do cfgc notify success");
    for (const config_module &each : modules) {
        if (cfg_msg_has_module(data, len, each.name, each.name_len) == 0) {
            kze_log(3, "handle adv threat [%s] cfg msg", each.name);
            handle_cfg_msg(from, addr, each.name, each.callback);
        }
    }
    return 0;
}

int handle_cfg_msg(vrd_ipc_st *ipc, const vrd_addr_st *addr, const char *module,
                   vrd_ipc_reply_cb callback) {
    if (ipc == nullptr || addr == nullptr) {
        return -1;
    }
    const xmsg_ptr request(xmsg_new(module));
    if (request == nullptr) {
        kze_log(1, "xmsg new abnormaol login request msg failed");
        return -1;
    }
    const int added = xmsg_add(request.get(), field_module, field_module_len, module,
                               static_cast<unsigned int>(strlen(module)));
    if (added != 0) {
        kze_log(1, "add field module failed");
        return added;
    }
    const int size = xmsg_pack_size(request.get());
    const malloc_ptr buffer(static_cast<char *>(malloc(static_cast<size_t>(size))));
    if (buffer == nullptr) {
        kze_log(1, "malloc memory failed");
        return added;
    }
    memset(buffer.get(), 0, static_cast<size_t>(size));
    const int packed = xmsg_pack(request.get(), buffer.get(), static_cast<unsigned int>(size));
    if (packed <= 0) {
        kze_log(1, "xmsg pack failed");
    } else {
        vrd_ipc_make_request(ipc, addr, cmd_request_module, buffer.get(),
                             static_cast<unsigned int>(packed), callback,
                             const_cast<char *>(module), request_limit_seconds);
    }
    return packed;
}

void retry_request_cfg(char *module) {
    if (retry_ipc == nullptr) {
        retry_ipc = vrd_ipc_create_temp("req_tmp", 0);
        if (retry_ipc == nullptr) {
            kze_log(1, "vrd ipc create failed");
            return;
        }
    }
    if (retry_addr == nullptr) {
        retry_addr = create_service_addr();
        if (retry_addr == nullptr) {
            kze_log(1, "vrd addr create failed");
            return;
        }
    }
    handle_cfg_msg(retry_ipc, retry_addr, module, on_engine_cfg_response);
    kze_log(3, "request cfgc success");
}

int cfg_msg_has_module(const char *data, unsigned int len, const char *key, unsigned int key_len) {
    if (data == nullptr || len == 0 || key == nullptr) {
        kze_log(1, "param error");
        return -1;
    }
    const xmsg_ptr notification(xmsg_unpack(data, len));
    if (notification == nullptr) {
        kze_log(1, "unpack xmsg failed");
        return -1;
    }
    xmsg_debug(notification.get());
    if (xmsg_get(notification.get(), key, static_cast<unsigned short>(key_len), nullptr, nullptr) ==
        nullptr) {
        return -1;
    }
    kze_log(4, "msg module is[%s]", key);
    return 0;
}

xmsg_ptr open_cfg_answer(int result, const char *data, unsigned int len) {
    if (result != 0) {
        kze_log(1, "get conf from cfg failed, res = %d", result);
        return nullptr;
    }
    xmsg_ptr answer(xmsg_unpack(data, len));
    if (answer == nullptr) {
        kze_log(1, "xmsg unpack failed");
        return nullptr;
    }
    xmsg_debug(answer.get());
    return answer;
}

const char *get_cfg_field(const xmsg_ptr &answer, const char *key) {
    const char *const value =
        xmsg_get(answer.get(), key, static_cast<unsigned short>(strlen(key)), nullptr, nullptr);
    if (value == nullptr) {
        kze_log(1, "get cfg msg [%s] failed.", key);
    }
    return value;
}
