// What the engine pushes: which callback is registered for which kind of data.

#include "config/kzemm_config.h"
#include "engine/qd_calls.h"
#include "plugin/kzemm_work.h"
#include "vrdbase.h"

namespace {

constexpr unsigned int cancel_cycle = 1;

}  // namespace

int kzemm_work::qd_client_subscribe() {
    const int alarm = qd::engine_subscribe_alarm(qd_alarm_cb, nullptr);
    kze_log(3, "qd subscribe alarm ret: %d", alarm);
    const int hunting =
        qd::register_coordinate_cb(QD_TRACE_HUNTING, qd_coordinate_hunting_cb, nullptr);
    kze_log(3, "qd register hunting coordinate cb ret: %d", hunting);
    const int linkage =
        qd::register_coordinate_cb(QD_TRACE_LINKAGE, qd_coordinate_linkage_cb, nullptr);
    kze_log(3, "qd register linakge coordinate cb ret: %d", linkage);
    const int append =
        qd::register_coordinate_cb(QD_TRACE_APPEND, qd_coordinate_append_cb, nullptr);
    kze_log(3, "qd register append coordinate cb ret: %d", append);
    const int credible = qd::engine_subscribe_credible(qd_eng_sub_credible_cb, this);
    kze_log(3, "qd register engine credible cb ret: %d", credible);
    return alarm == 0 && hunting == 0 && linkage == 0 && append == 0 && credible == 0 ? 0 : -1;
}

int kzemm_work::qd_client_subscribe_origin() {
    kzemm_config &config = kzemm_config::get_instance();
    if (!config.get_report_switch() && !config.get_origin_forward_swith()) {
        if (qd::subscribe_origin_data(cancel_cycle, nullptr, nullptr) != 0) {
            kze_log(2, "cancel subscribe origin data failed");
            return -1;
        }
        kze_log(3, "cancel subscribe origin data success");
        return 0;
    }
    if (config.set_report_cycle() != 0) {
        kze_log(2, "set report cycle failed, use default");
    }
    const unsigned int cycle = config.get_collect_report_cycle();
    if (qd::subscribe_origin_data(cycle, qd_origin_cb, nullptr) != 0) {
        kze_log(2, "qd subscribe origin data failed, cycle: %u", cycle);
        return -1;
    }
    kze_log(3, "qd subscribe origin data success, cycle: %u", cycle);
    return 0;
}

int kzemm_work::qd_client_subscribe_RealTime() {
    return 0;
}
