#include "datapath/kzemm_task_info.h"

#include <cstring>
#include <new>

#include "kzabase.h"
#include "vrdbase.h"

namespace kzemm {

task_info::task_info(KZEMM_TASK_TYPE task_type, const char *data, unsigned int size,
                     qd_dispose_trc_cb callback, void *user) noexcept {
    kze_log(3, "new task info");
    auto *const request = new (std::nothrow) TASK_COORDINATE;
    if (request == nullptr) {
        kze_log(1, "new TASK_COORDINATE failed");
        return;
    }
    request->data = new (std::nothrow) char[size];
    if (request->data == nullptr) {
        kze_log(1, "new data failed");
        delete request;
        return;
    }
    if (size != 0) {
        memcpy(request->data, data, size);
    }
    request->size = size;
    request->callback = callback;
    request->user = user;
    coordinate = request;
    type = task_type;
}

void task_info::add_reference() {
    kze_atomic32_add_and_fetch(&ref_count, 1);
}

void task_info::release() {
    if (kze_atomic32_add_and_fetch(&ref_count, -1) != 0) {
        return;
    }
    kze_log(3, "free task info");
    if (coordinate != nullptr) {
        delete[] coordinate->data;
        coordinate->data = nullptr;
        delete coordinate;
        coordinate = nullptr;
    }
    delete this;
}

}  // namespace kzemm
