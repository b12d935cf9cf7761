// The engine's data on its way out: to the gateway, and linkage results to the linkage service.

#include "config/kzemm_config.h"
#include "datapath/kzemm_dispose.h"
#include "datapath/kzemm_gateway.h"
#include "datapath/kzemm_invoke.h"
#include "engine/qd_calls.h"
#include "plugin/kzemm_work.h"
#include "vrdbase.h"

namespace {

constexpr unsigned int cmd_linkage_result = 5;

void free_engine_data(char *data) {
    if (data != nullptr) {
        qd::free(data);
    }
}

}  // namespace

void kzemm_work::qd_alarm_cb(char *data, unsigned int len, void *) {
    kze_log(3, "get qd_alarm data");
    send_data_via_gw(KZEMM_DATA_ALARM, data, len);
}

void kzemm_work::qd_coordinate_hunting_cb(char *data, unsigned int len, void *) {
    kze_log(3, "get qd_coordinate_hunting data");
    send_data_via_gw(KZEMM_DATA_HUNTING, data, len);
}

void kzemm_work::qd_coordinate_linkage_cb(char *data, unsigned int len, void *) {
    kze_log(3, "get qd_coordinate_linkage data");
    send_data_via_gw(KZEMM_DATA_LINKAGE, data, len);
}

void kzemm_work::qd_coordinate_append_cb(char *data, unsigned int len, void *) {
    kze_log(3, "get qd_coordinate_append data");
    send_data_via_gw(KZEMM_DATA_APPEND, data, len);
}

void kzemm_work::qd_origin_cb(char *data, unsigned int len, void *) {
    kze_log(3, "get qd_origin data");
    if (kzemm_config::get_instance().get_origin_forward_swith()) {
        kzemm_invoke::Publish(KZEMM_PUBLISH_ORIGIN, data, len, &kzemm_invoke::GetInstance());
    }
    if (!kzemm_config::get_instance().get_report_switch()) {
        kze_log(3, "report switch is off");
        free_engine_data(data);
        return;
    }
    char *frame = nullptr;
    unsigned int frame_len = 0;
    if (convert_origin_data(data, len, &frame, &frame_len) != 0) {
        kze_log(2, "convert origin data failed");
        free_engine_data(data);
        return;
    }
    free_engine_data(data);  // before the gateway call: the engine's buffer is the large one
    send_data_via_gw(KZEMM_DATA_ORIGIN, frame, frame_len);
}

void kzemm_work::qd_eng_sub_credible_cb(char *data, unsigned int len, void *user) {
    kze_log(3, "get qd_eng_sub_credible data");
    const kzemm_config &config = kzemm_config::get_instance();
    const auto *const work = static_cast<kzemm_work *>(user);
    if (!config.get_dispose_web_switch() && !config.get_dispose_phishing_switch()) {
        kze_log(3, "auto dispose is disabled, only send to thtgw");
        send_data_via_gw(KZEMM_DATA_CREDIBLE, data, len);
    } else if (!do_auto_dispose(data, len, work->ipc, work->rpdsp_addr)) {
        kze_log(2, "do auto dispose failed");
    }
    qd::free(data);
}

void kzemm_work::qd_send_to_kzelkganal(_x_error err, char *data, unsigned int len, void *) {
    if (err != 0) {
        kze_log(1, "qd_send_to_kzelkganal failed, err:%d\n", err);
        if (vrd_ipc_send(ipc, lkg_addr, cmd_linkage_result, nullptr, 0) != 0) {
            kze_log(1, "Ipc send failed!\n");
        }
        return;
    }
    if (vrd_ipc_send(ipc, lkg_addr, cmd_linkage_result, data, len) != 0) {
        kze_log(1, "Ipc send failed!\n");
    }
    free_engine_data(data);
}

void kzemm_send_to_kzelkganal(_x_error err, char *data, unsigned int len, void *user) {
    if (user == nullptr) {
        return;
    }
    kze_log(3, "kzemm_send_to_kzelkganal begin!");
    static_cast<kzemm_work *>(user)->qd_send_to_kzelkganal(err, data, len, user);
    kze_log(3, "kzemm_send_to_kzelkganal end!");
}
