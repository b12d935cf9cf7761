// The hello about the custom IOA rules at the worker's start.

#include <cstring>
#include <new>

#include "config/kzemm_config.h"
#include "plugin/kzemm_data_conv.h"
#include "plugin/kzemm_work.h"
#include "vrdbase.h"

void kzemm_work::send_ctm_helloinfo() {
    try {
        const std::string rule_id = kzemm_config::get_instance().ctmioa_rule_id;
        char *text = nullptr;
        const int result = build_cusioa_hello_msg(rule_id, &text);
        const malloc_ptr owned(text);
        if (result != 0) {
            kze_log(1, "build hello msg");
            return;
        }
        kze_log(3, "custom ioa hello msg:%s", text);
        if (task->send_ctmdata_to_gw(KZEMM_DATA_CTMIOA_HELLO, text,
                                     static_cast<unsigned int>(strlen(text))) != 0) {
            kze_log(1, "send custom ioa hello failed");
        }
    } catch (const std::bad_alloc &) {
        kze_log(1, "build hello msg");
    }
}

int kzemm_work::build_cusioa_hello_msg(const std::string &rule_id, char **out) {
    if (rule_id.empty()) {
        kze_log(1, "ruleid is empty");
        return -1;
    }
    return build_ctmioa_msg(nullptr, rule_id, out);
}
