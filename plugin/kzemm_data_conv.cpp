#include "plugin/kzemm_data_conv.h"

#include <uuid/uuid.h>
#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "kzautil.h"
#include "plugin/kzemm_command.h"
#include "vrdbase.h"

namespace {

constexpr uint32_t max_msg_len = 0xA00000;
constexpr uint32_t header_size = sizeof(_module_header);
constexpr bool host_order = false;

// A credible event of the engine is a frame too.
constexpr uint32_t cmd_credible = 10001;

bool is_framed(uint32_t cmd) {
    const kzemm_command *const command = find_command(cmd);
    return cmd == cmd_credible || (command != nullptr && command->body == KZEMM_BODY_FRAMED);
}

}  // namespace

int check_msg_header(const void *header, uint32_t data_size, bool net_order) {
    if (header == nullptr) {
        kze_log(2, "check msg header failed, header is null");
        return -1;
    }
    if (data_size < header_size) {
        kze_log(2, "invalid message, data_size:%u", data_size);
        return -1;
    }

    const _module_header received = read_module_header(header);
    const uint32_t msg_len = module_field(received.msg_len, net_order);
    if (msg_len > data_size || msg_len > max_msg_len || msg_len + header_size != data_size) {
        kze_log(2, "invalid message, data_size:%u, msg_len:%u", data_size, msg_len);
        return -1;
    }
    if (!has_module_version(received)) {
        kze_log(2, "invalid version massage header:[%c %c %c %c]", received.version[0],
                received.version[1], received.version[2], received.version[3]);
        return -1;
    }
    const uint16_t proto_type = module_field(received.proto_type, net_order);
    if (proto_type != module_request) {
        kze_log(2, "unknow proto type, proto type: %u", proto_type);
        return -1;
    }
    return 0;
}

int check_msg_invalid(uint32_t cmd, const void *data, uint32_t data_size, bool net_order) {
    if (is_framed(cmd)) {
        if (check_msg_header(data, data_size, net_order) != 0) {
            kze_log(2, "check msg header failed, cmd: %u", cmd);
            return -1;
        }
        return 0;
    }
    return data_size != 0 ? 0 : -1;
}

malloc_ptr make_frame(const _module_header &header, const char *payload, uint32_t payload_size) {
    malloc_ptr frame(static_cast<char *>(malloc(size_t{payload_size} + header_size)));
    if (frame != nullptr) {
        memcpy(frame.get(), &header, header_size);
        if (payload_size != 0) {
            memcpy(frame.get() + header_size, payload, payload_size);
        }
    }
    return frame;
}

void add_msg_header(const char *data, uint32_t len, std::string &out, int proto_type,
                    int net_order) {
    const size_t frame_size = size_t{len} + header_size;
    const malloc_ptr frame = make_frame(
        module_header(static_cast<uint16_t>(proto_type), len, net_order != 0), data, len);
    if (frame == nullptr) {
        kze_log(1, "malloc %u byte failed", static_cast<uint32_t>(frame_size));
        return;
    }
    try {
        out.assign(frame.get(), frame_size);
    } catch (const std::bad_alloc &) {
        kze_log(1, "malloc %u byte failed", static_cast<uint32_t>(frame_size));
    }
}

char *alloc_frame_behind_head(size_t payload_size, uint32_t &out_len) {
    const size_t frame_size = payload_size + header_size;
    out_len = static_cast<uint32_t>(frame_size);
    const auto frame = static_cast<char *>(malloc(frame_size));
    if (frame == nullptr) {
        kze_log(2, "malloc %zu byte for out_data failed", frame_size);
    }
    return frame;
}

void write_module_head(char *frame, const _module_header *header, uint32_t payload_size,
                       bool net_order) {
    _module_header head = read_module_header(header);
    head.msg_len = module_field(payload_size, net_order);
    head.proto_type = module_field(module_request, net_order);
    memcpy(frame, &head, header_size);
    kze_log(4, "string data add module header done, data len: %d", static_cast<int>(payload_size));
}

char *string_data_add_module_head(const std::string &data, const _module_header *header,
                                  uint32_t &out_len, bool net_order) {
    const auto frame = alloc_frame_behind_head(data.size(), out_len);
    if (frame != nullptr) {
        memcpy(frame + header_size, data.data(), data.size());
        write_module_head(frame, header, static_cast<uint32_t>(data.size()), net_order);
    }
    return frame;
}

char *add_module_head(const char *data, uint32_t raw_size, uint32_t comp_size, uint32_t *out_len) {
    if (data == nullptr || raw_size == 0 || comp_size == 0 || out_len == nullptr) {
        kze_log(1, "params invalid, data: %p, raw_size: %u, comp_size: %u",
                static_cast<const void *>(data), raw_size, comp_size);
        return nullptr;
    }
    const size_t frame_size = size_t{comp_size} + header_size;
    _module_header header = module_header(module_response, raw_size, host_order);
    header.compress_flag = module_compressed;
    malloc_ptr frame = make_frame(header, data, comp_size);
    if (frame == nullptr) {
        kze_log(2, "malloc %zu byte for send msg failed.", frame_size);
        return nullptr;
    }
    *out_len = static_cast<uint32_t>(frame_size);
    return frame.release();
}

char *zlib_compress_data(const char *in_data, uint32_t in_size, uint32_t *out_size) {
    if (in_data == nullptr || out_size == nullptr || in_size == 0) {
        kze_log(1, "params invalid, in_data: %p, in_size: %u", static_cast<const void *>(in_data),
                in_size);
        return nullptr;
    }
    const uLong bound = compressBound(in_size);
    if (bound == 0) {
        kze_log(1, "compressBound failed");
        return nullptr;
    }
    const auto buffer = new (std::nothrow) char[bound];
    if (buffer == nullptr) {
        kze_log(1, "new %lu byte for buffer failed", bound);
        return nullptr;
    }
    memset(buffer, 0, bound);

    uLongf compressed_size = bound;
    const int code = compress(reinterpret_cast<Bytef *>(buffer), &compressed_size,
                              reinterpret_cast<const Bytef *>(in_data), in_size);
    if (code != Z_OK) {
        kze_log(1, "compress buffer failed with code = %d", code);
        delete[] buffer;
        return nullptr;
    }
    *out_size = static_cast<uint32_t>(compressed_size);
    return buffer;
}

void free_zlib_data(char *data) {
    delete[] data;
}

std::string gen_uuid() {
    uuid_t id;
    uuid_generate_random(id);
    char text[64] = {};
    kze_str_snprintf(text, sizeof(text),
                     "%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X", id[0],
                     id[1], id[2], id[3], id[4], id[5], id[6], id[7], id[8], id[9], id[10], id[11],
                     id[12], id[13], id[14], id[15]);
    return text;
}
