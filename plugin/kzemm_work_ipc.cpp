// The endpoint of the plug-in: what comes in, under which switch, and what is answered.

#include <cstring>

#include "config/kzemm_config.h"
#include "kzautil.h"
#include "plugin/kzemm_data_conv.h"
#include "plugin/kzemm_work.h"
#include "vrdbase.h"

namespace {

constexpr char own_name[] = "agt_rpt";
constexpr char linkage_name[] = "agt_lkg";
constexpr char disposal_name[] = "agt_rpdsp";

// The change notification of the configuration service, a one-way message.
constexpr unsigned int cmd_cfgc_notify = 1002;

constexpr bool net_order = true;

// The command, where it is switched on; null for any other.
const kzemm_command *find_permitted(unsigned int cmd) {
    const kzemm_command *const command = find_command(cmd);
    if (command == nullptr) {
        kze_log(2, "invalid cmd: %d", static_cast<int>(cmd));
        return nullptr;
    }
    return kzemm_config::get_instance().get_switch(command->permitted_by) ? command : nullptr;
}

}  // namespace

int kzemm_work::init_ipc() {
    kze_log(3, "init ipc");
    ipc = vrd_ipc_create(own_name, 0);
    if (ipc == nullptr) {
        kze_log(1, "create ipc %s failed", own_name);
        return -1;
    }
    lkg_addr = vrd_addr_create(linkage_name, 1, 0);
    if (lkg_addr == nullptr) {
        kze_log(1, "Create address handle failed!\n");
        return -1;
    }
    rpdsp_addr = vrd_addr_create(disposal_name, 0, 0);
    if (rpdsp_addr == nullptr) {
        kze_log(1, "create ipc address %s failed", disposal_name);
        return -1;
    }
    kze_log(3, "init ipc succeed");
    return 0;
}

void kzemm_work::uninit_ipc() {
    kze_log(3, "uninit ipc");
    if (ipc != nullptr) {
        vrd_ipc_destroy(ipc);
        ipc = nullptr;
    }
    if (rpdsp_addr != nullptr) {
        vrd_addr_destroy(rpdsp_addr);
        rpdsp_addr = nullptr;
    }
    if (lkg_addr != nullptr) {
        vrd_addr_destroy(lkg_addr);
        lkg_addr = nullptr;
    }
}

int kzemm_work::register_ipc_cb() {
    if (const int result = vrd_ipc_on_request(ipc, on_ipc_request, this); result != 0) {
        kze_log(2, "register ipc_on_request failed, ret %d, error: %s", result,
                vrd_ipc_strerror(result));
        return -1;
    }
    if (const int result = vrd_ipc_msg_recv(ipc, on_ipc_recv, this); result != 0) {
        kze_log(2, "register on_ipc_recv failed, ret %d, error: %s", result,
                vrd_ipc_strerror(result));
        return -1;
    }
    kze_log(3, "register ipc callback success");
    return 0;
}

void kzemm_work::on_ipc_request(vrd_ipc_st *from, vrd_addr_st *addr, unsigned int request_id,
                                unsigned int cmd, const char *data, unsigned int len,
                                void *context) {
    static_cast<kzemm_work *>(context)->handle_ipc_request(from, addr, request_id, cmd, data, len);
}

void kzemm_work::on_ipc_recv(vrd_ipc_st *from, vrd_addr_st *addr, unsigned int cmd,
                             const char *data, unsigned int len, void *context) {
    static_cast<kzemm_work *>(context)->handle_ipc_recv_msg(from, addr, cmd, data, len);
}

void kzemm_work::handle_ipc_request(vrd_ipc_st *from, vrd_addr_st *addr, unsigned int request_id,
                                    unsigned int cmd, const char *data, unsigned int len) {
    if (from == nullptr || addr == nullptr || data == nullptr) {
        kze_log(2, "params is invalid");
        return;
    }
    kze_log(3, "receive request cmd: %u", cmd);
    KZEMM_TRACE_ERRORCODE code = KZEMM_TRACE_OK;
    if (check_msg_invalid(cmd, data, len, net_order) != 0) {
        kze_log(2, "msg is invalid");
        code = KZEMM_TRACE_INVALID;
    } else if (const kzemm_command *const command = find_permitted(cmd); command == nullptr) {
        kze_log(2, "check permission failed, cmd: %u", cmd);
        code = KZEMM_TRACE_NO_PERMISSION;
    } else {
        code = do_trace(command->task, data, len);
    }
    kze_log(3, "exec cmd: %u, response code: %d", cmd, code);
    response_mgr_msg(from, addr, request_id, cmd, code);
}

void kzemm_work::handle_ipc_recv_msg(vrd_ipc_st *from, vrd_addr_st *addr, unsigned int cmd,
                                     const char *data, unsigned int len) {
    if (from == nullptr || addr == nullptr || data == nullptr) {
        kze_log(2, "params is invalid");
        return;
    }
    if (cmd == cmd_cfgc_notify) {
        do_cfgc_notify(from, addr, data, len);
        return;
    }
    kze_log(2, "invalid cmd: %u", cmd);
}

void kzemm_work::response_mgr_msg(vrd_ipc_st *from, vrd_addr_st *addr, unsigned int request_id,
                                  unsigned int cmd, KZEMM_TRACE_ERRORCODE code) {
    char text[4096] = {};
    kze_str_snprintf(text, sizeof(text), "{\"resp_code\":%d, \"resp_msg\":\"\"}", code);
    const size_t text_len = strlen(text);
    const size_t frame_size = text_len + sizeof(_module_header);
    const auto payload_size = static_cast<uint32_t>(text_len);
    const malloc_ptr frame =
        make_frame(module_header(module_response, payload_size, net_order), text, payload_size);
    if (frame == nullptr) {
        kze_log(1, "malloc %lu byte failed", frame_size);
        return;
    }
    // The header's fifth byte ends the string: what shows is the version.
    kze_log(4, "response_mgr_msg: %s!", frame.get());
    vrd_ipc_response(from, addr, request_id, cmd, frame.get(),
                     static_cast<unsigned int>(frame_size));
}
