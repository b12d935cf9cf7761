// Management requests become tasks.

#include <new>

#include "plugin/kzemm_data_conv.h"
#include "plugin/kzemm_work.h"
#include "vrdbase.h"

namespace {

constexpr int net_order = 1;

}  // namespace

KZEMM_TRACE_ERRORCODE kzemm_work::do_trace(KZEMM_TASK_TYPE type, const char *data,
                                           unsigned int len) {
    const kzemm_command *const command = find_command_of_task(type);
    if (command == nullptr) {
        kze_log(1, "task type %d is invalid", type);
        return KZEMM_TRACE_INVALID;
    }
    const char *body = data;
    unsigned int size = len;
    std::string frame;
    if (command->body == KZEMM_BODY_TO_FRAME) {
        add_msg_header(data, len, frame, module_request, net_order);
        if (frame.empty()) {
            kze_log(2, "add msg header failed, type: %d", type);
            return KZEMM_TRACE_FAILED;
        }
        body = frame.data();
        size = static_cast<unsigned int>(frame.size());
    }
    qd_dispose_trc_cb callback = nullptr;
    void *user = nullptr;
    if (type == KZEMM_TASK_LKGANAL) {
        kze_log(3, "get lkganal msg success!");
        callback = kzemm_send_to_kzelkganal;
        user = this;
    }
    kze_log(3, "task info, type: %d, size: %u", type, size);

    auto *const info = new (std::nothrow) kzemm::task_info(type, body, size, callback, user);
    if (info == nullptr) {
        kze_log(1, "new task info failed");
        return KZEMM_TRACE_FAILED;
    }
    info->add_reference();
    const KZEMM_TRACE_ERRORCODE code = task->add_task(info);
    if (code != KZEMM_TRACE_OK) {
        kze_log(1, "add task failed, type: %d, ret: %d", type, code);
        info->release();
    }
    return code;
}
