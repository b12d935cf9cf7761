#include "plugin/kzemm_data_conv.h"

#include <endian.h>
#include <sys/mman.h>
#include <unistd.h>
#include <uuid/uuid.h>
#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "kzautil.h"
#include "vrdbase.h"

namespace {

constexpr uint16_t proto_type_request = 1;
constexpr uint16_t proto_type_compressed = 2;
constexpr uint16_t compress_flag_zlib = 2;
constexpr uint32_t max_msg_len = 0xA00000;
constexpr uint32_t header_size = sizeof(_module_header);

// The commands whose messages carry a header.
constexpr uint32_t cmd_custom_ioa = 102;
constexpr uint32_t cmd_hunting = 1002;
constexpr uint32_t cmd_credible = 10001;

// From this size on, new memory usually comes fresh from the kernel.
constexpr size_t fresh_memory_size = 128 * 1024;

// Zeroes a new buffer. Touching the fresh pages that a compressed stream never reaches would cost
// several per cent of the compression, so a large buffer's whole pages are given back to the
// kernel, which supplies zeroed ones where the buffer is written to. The rest, and everything where
// the kernel refuses (locked memory), is zeroed here.
void zero_new_buffer(char *buffer, size_t size) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t head = (page - reinterpret_cast<uintptr_t>(buffer) % page) % page;
    const size_t pages = size > head ? (size - head) / page * page : 0;
    if (size < fresh_memory_size || madvise(buffer + head, pages, MADV_DONTNEED) != 0) {
        memset(buffer, 0, size);
        return;
    }
    memset(buffer, 0, head);
    memset(buffer + head + pages, 0, size - head - pages);
}

uint16_t in_frame_order(uint16_t value, bool net_order) {
    return net_order ? htobe16(value) : value;
}

uint32_t in_frame_order(uint32_t value, bool net_order) {
    return net_order ? htobe32(value) : value;
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

    _module_header received;  // the frame may lie at any address
    memcpy(&received, header, header_size);
    const uint32_t msg_len = in_frame_order(received.msg_len, net_order);
    if (msg_len > data_size || msg_len > max_msg_len || msg_len + header_size != data_size) {
        kze_log(2, "invalid message, data_size:%u, msg_len:%u", data_size, msg_len);
        return -1;
    }
    if (memcmp(received.version, message_version, sizeof(message_version)) != 0) {
        kze_log(2, "invalid version massage header:[%c %c %c %c]", received.version[0],
                received.version[1], received.version[2], received.version[3]);
        return -1;
    }
    const uint16_t proto_type = in_frame_order(received.proto_type, net_order);
    if (proto_type != proto_type_request) {
        kze_log(2, "unknow proto type, proto type: %u", proto_type);
        return -1;
    }
    return 0;
}

int check_msg_invalid(uint32_t cmd, const void *data, uint32_t data_size, bool net_order) {
    if (cmd == cmd_hunting || cmd == cmd_custom_ioa || cmd == cmd_credible) {
        if (check_msg_header(data, data_size, net_order) != 0) {
            kze_log(2, "check msg header failed, cmd: %u", cmd);
            return -1;
        }
        return 0;
    }
    return data_size != 0 ? 0 : -1;
}

void add_msg_header(const char *data, uint32_t len, std::string &out, int proto_type,
                    int net_order) {
    const size_t frame_size = size_t{len} + header_size;
    const malloc_ptr frame(static_cast<char *>(malloc(frame_size)));
    if (frame == nullptr) {
        kze_log(1, "malloc %u byte failed", static_cast<uint32_t>(frame_size));
        return;
    }

    _module_header header = {};
    memcpy(header.version, message_version, sizeof(message_version));
    header.proto_type = in_frame_order(static_cast<uint16_t>(proto_type), net_order != 0);
    header.msg_len = in_frame_order(len, net_order != 0);
    memcpy(frame.get(), &header, header_size);
    if (len != 0) {
        memcpy(frame.get() + header_size, data, len);
    }
    try {
        out.assign(frame.get(), frame_size);
    } catch (const std::bad_alloc &) {
        kze_log(1, "malloc %u byte failed", static_cast<uint32_t>(frame_size));
    }
}

void write_module_head(char *frame, const _module_header *header, uint32_t payload_size,
                       bool net_order) {
    _module_header frame_header;  // template and frame may lie at any address
    memcpy(&frame_header, header, header_size);
    frame_header.msg_len = in_frame_order(payload_size, net_order);
    frame_header.proto_type = in_frame_order(proto_type_request, net_order);
    memcpy(frame, &frame_header, header_size);
    kze_log(4, "string data add module header done, data len: %d", static_cast<int>(payload_size));
}

char *string_data_add_module_head(const std::string &data, const _module_header *header,
                                  uint32_t &out_len, bool net_order) {
    const auto payload_size = static_cast<uint32_t>(data.size());
    out_len = payload_size + header_size;
    const size_t frame_size = size_t{payload_size} + header_size;
    const auto frame = static_cast<char *>(malloc(frame_size));
    if (frame == nullptr) {
        kze_log(2, "malloc %zu byte for out_data failed", frame_size);
        return nullptr;
    }
    memcpy(frame + header_size, data.data(), payload_size);
    write_module_head(frame, header, payload_size, net_order);
    return frame;
}

char *add_module_head(const char *data, uint32_t raw_size, uint32_t comp_size, uint32_t *out_len) {
    if (data == nullptr || raw_size == 0 || comp_size == 0 || out_len == nullptr) {
        kze_log(1, "params invalid, data: %p, raw_size: %u, comp_size: %u",
                static_cast<const void *>(data), raw_size, comp_size);
        return nullptr;
    }
    const size_t frame_size = size_t{comp_size} + header_size;
    const auto frame = static_cast<char *>(malloc(frame_size));
    if (frame == nullptr) {
        kze_log(2, "malloc %zu byte for send msg failed.", frame_size);
        return nullptr;
    }

    _module_header header = {};
    memcpy(header.version, message_version, sizeof(message_version));
    header.msg_len = raw_size;
    header.compress_flag = compress_flag_zlib;
    header.proto_type = proto_type_compressed;
    memcpy(frame, &header, header_size);
    memcpy(frame + header_size, data, comp_size);
    *out_len = static_cast<uint32_t>(frame_size);
    return frame;
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
    zero_new_buffer(buffer, bound);

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
