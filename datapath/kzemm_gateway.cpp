#include "datapath/kzemm_gateway.h"

#include <cstdlib>

#include "engine/qd_calls.h"
#include "plugin/kzemm_data_conv.h"
#include "vrdbase.h"

namespace {

int send_once(KZEMM_DATA_TYPE type, const char *data, unsigned int len) {
    if (len == 0) {
        kze_log(2, "param is invalid,  length: 0");
        return -1;
    }
    if (type < KZEMM_DATA_ALARM || type > KZEMM_DATA_CREDIBLE) {
        kze_log(2, "type invalid, type: %d", static_cast<int>(type));
        return -1;
    }
    if (qd::async_send(type, data, len) != 0) {
        kze_log(1, "send data to kzethtgw failed, type: %d", static_cast<int>(type));
        return -1;
    }
    kze_log(3, "send data to thtgw success");
    return 0;
}

void release_by_type(KZEMM_DATA_TYPE type, char *data) {
    switch (type) {
        case KZEMM_DATA_ORIGIN:
            free(data);
            return;
        case KZEMM_DATA_CREDIBLE:
            return;  // the caller's
        default:
            qd::free(data);
    }
}

}  // namespace

int send_data_via_gw(KZEMM_DATA_TYPE type, char *data, unsigned int len) {
    if (data == nullptr) {
        kze_log(2, "data is null");
        return -1;
    }
    const int result = send_once(type, data, len);
    release_by_type(type, data);
    return result;
}

int convert_origin_data(const char *data, unsigned int len, char **frame_out,
                        unsigned int *frame_len_out) {
    if (data == nullptr || len == 0) {
        kze_log(2, "origin data empty, data: %p, len: %u", static_cast<const void *>(data), len);
        return -1;
    }
    unsigned int compressed_len = 0;
    char *compressed = zlib_compress_data(data, len, &compressed_len);
    if (compressed == nullptr || compressed_len == 0) {
        kze_log(2, "zlib compress data failed");
        free_zlib_data(compressed);
        return -1;
    }
    unsigned int frame_len = 0;
    char *frame = add_module_head(compressed, len, compressed_len, &frame_len);
    free_zlib_data(compressed);
    if (frame == nullptr || frame_len == 0) {
        kze_log(2, "add module head failed");
        free(frame);
        return -1;
    }
    *frame_out = frame;
    *frame_len_out = frame_len;
    return 0;
}
