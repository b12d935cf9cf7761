/*
 * Module messages: the 20-byte frame header, its writers and checkers, and the data utilities of
 * the same traffic. Everything here works on its arguments alone; any thread may call it.
 *
 * Frames and compressed data come from two allocators that must not be mixed: frames are released
 * with free, compressed data with free_zlib_data.
 */
#ifndef KZEMDLMGR_PLUGIN_KZEMM_DATA_CONV_H
#define KZEMDLMGR_PLUGIN_KZEMM_DATA_CONV_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

// Owns a frame or a text that goes back with free.
struct free_deleter {
    void operator()(char *data) const { free(data); }
};
using malloc_ptr = std::unique_ptr<char, free_deleter>;

// What every message begins with.
constexpr char message_version[4] = {'3', '2', '0', '0'};

/*
 * The header of every module message. proto_type and msg_len are big-endian or in host order,
 * depending on the traffic; no field says which, so each reader and writer is told by its caller
 * (net_order true: big-endian).
 *
 * Example, the header of a 5-byte payload in host order:
 *   33 32 30 30  00 00 00 00  01 00 00 00  00 00 00 00  05 00 00 00
 */
struct _module_header {
    char version[4];         // "3200", no terminator
    uint16_t reserved_4;     // written 0
    uint16_t compress_flag;  // host order; 2: the payload is a zlib stream
    uint16_t proto_type;
    char reserved_10[6];  // written 0
    uint32_t msg_len;     // bytes of payload; of a compressed frame, before compression
};
static_assert(sizeof(_module_header) == 20 && offsetof(_module_header, compress_flag) == 6 &&
                  offsetof(_module_header, proto_type) == 8 &&
                  offsetof(_module_header, msg_len) == 16,
              "the header is laid out as it goes over the wire");

// Checks a whole frame of data_size bytes: its sizes, version and protocol type. Returns 0 when it
// is valid; otherwise logs the reason and returns -1. A null header is invalid.
int check_msg_header(const void *header, uint32_t data_size, bool net_order);

// Checks a message by its command: a frame for commands 102, 1002 and 10001, any non-empty data
// for every other. Returns 0 or -1.
int check_msg_invalid(uint32_t cmd, const void *data, uint32_t data_size, bool net_order);

// Assigns the frame of a payload to out. On failure out is left as it was.
void add_msg_header(const char *data, uint32_t len, std::string &out, int proto_type,
                    int net_order);

// Writes the header of a frame, which has room for it in front of its payload: a copy of a template
// with protocol type 1 and the payload's size.
void write_module_head(char *frame, const _module_header *header, uint32_t payload_size,
                       bool net_order);

// Frames a payload behind a copy of a template header, with protocol type 1. Sets out_len in every
// case. Returns the frame, which the caller releases with free, or null.
char *string_data_add_module_head(const std::string &data, const _module_header *header,
                                  uint32_t &out_len, bool net_order);

// Frames comp_size bytes of compressed data, in host order; raw_size is the size before
// compression. Sets *out_len and returns the frame, which the caller releases with free; on
// failure returns null and leaves *out_len as it was.
char *add_module_head(const char *data, uint32_t raw_size, uint32_t comp_size, uint32_t *out_len);

// Compresses in_size bytes into a buffer of its own, which the caller releases with
// free_zlib_data, and sets *out_size to the compressed size. On failure returns null and leaves
// *out_size as it was.
char *zlib_compress_data(const char *in_data, uint32_t in_size, uint32_t *out_size);

// Releases what zlib_compress_data returned; null is allowed.
void free_zlib_data(char *data);

// 32 upper-case hexadecimal digits from 16 random bytes.
std::string gen_uuid();

#endif
