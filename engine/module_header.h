/*
 * The frame of module messages: a header of 20 bytes and a payload.
 *
 * Engine, gateway, disposal service and management peers know a message by it. The header depends
 * on nothing, so that whoever writes frames and whoever reads them include the same text. The host
 * is little-endian.
 */
#ifndef KZEMDLMGR_ENGINE_MODULE_HEADER_H
#define KZEMDLMGR_ENGINE_MODULE_HEADER_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

/* What every frame begins with. */
constexpr char module_version[4] = {'3', '2', '0', '0'};

/* proto_type: 1 on requests and on what was asked for, 2 on responses and reports. */
constexpr uint16_t module_request = 1;
constexpr uint16_t module_response = 2;

/* compress_flag of a payload that is a zlib stream; 0 on every other frame. */
constexpr uint16_t module_compressed = 2;

/*
 * proto_type and msg_len are big-endian or in host order, depending on the traffic; no field says
 * which, so each reader and writer is told by its caller (net_order true: big-endian).
 *
 * Example, the header of a 5-byte payload in host order:
 *   33 32 30 30  00 00 00 00  01 00 00 00  00 00 00 00  05 00 00 00
 */
struct _module_header {
    char version[4];        /* module_version, no terminator */
    uint16_t reserved_4;    /* written 0 */
    uint16_t compress_flag; /* host order */
    uint16_t proto_type;
    char reserved_10[6]; /* written 0 */
    uint32_t msg_len;    /* bytes of payload; of a compressed frame, before compression */
};
static_assert(sizeof(_module_header) == 20 && offsetof(_module_header, compress_flag) == 6 &&
                  offsetof(_module_header, proto_type) == 8 &&
                  offsetof(_module_header, msg_len) == 16,
              "the header is laid out as it goes over the wire");

/* A field as it stands in a frame of that order, and back. */
constexpr uint16_t module_field(uint16_t value, bool net_order) {
    return net_order ? __builtin_bswap16(value) : value;
}
constexpr uint32_t module_field(uint32_t value, bool net_order) {
    return net_order ? __builtin_bswap32(value) : value;
}

/* The header of a frame, uncompressed. */
inline _module_header module_header(uint16_t proto_type, uint32_t msg_len, bool net_order) {
    _module_header header = {};
    memcpy(header.version, module_version, sizeof(module_version));
    header.proto_type = module_field(proto_type, net_order);
    header.msg_len = module_field(msg_len, net_order);
    return header;
}

/* The header of a frame that lies at any address; its 20 bytes must be there. */
inline _module_header read_module_header(const void *frame) {
    _module_header header;
    memcpy(&header, frame, sizeof(header));
    return header;
}

/* Whether a frame begins with the version. */
inline bool has_module_version(const _module_header &header) {
    return memcmp(header.version, module_version, sizeof(module_version)) == 0;
}

#endif
