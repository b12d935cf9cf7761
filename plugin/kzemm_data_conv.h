/*
 * Module messages: the writers and checkers of their frames, and the data utilities of the same
 * traffic. Everything here works on its arguments alone; any thread may call it.
 *
 * Frames and compressed data come from two allocators that must not be mixed: frames are released
 * with free, compressed data with free_zlib_data.
 */
#ifndef KZEMDLMGR_PLUGIN_KZEMM_DATA_CONV_H
#define KZEMDLMGR_PLUGIN_KZEMM_DATA_CONV_H

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "engine/module_header.h"

// Owns a frame or a text that goes back with free.
struct free_deleter {
    void operator()(char *data) const { free(data); }
};
using malloc_ptr = std::unique_ptr<char, free_deleter>;

// Checks a whole frame of data_size bytes: its sizes, version and protocol type. Returns 0 when it
// is valid; otherwise logs the reason and returns -1. A null header is invalid.
int check_msg_header(const void *header, uint32_t data_size, bool net_order);

// Checks a message by its command: a frame for the credible event's and for those that arrive
// framed, any non-empty data for every other. Returns 0 or -1.
int check_msg_invalid(uint32_t cmd, const void *data, uint32_t data_size, bool net_order);

// The frame of a payload, from malloc, with this header; null without memory. Logs nothing.
malloc_ptr make_frame(const _module_header &header, const char *payload, uint32_t payload_size);

// Assigns the frame of a payload to out. On failure out is left as it was.
void add_msg_header(const char *data, uint32_t len, std::string &out, int proto_type,
                    int net_order);

// Frames a payload behind a copy of a template header, with protocol type 1. Sets out_len in every
// case. Returns the frame, which the caller releases with free, or null.
char *string_data_add_module_head(const std::string &data, const _module_header *header,
                                  uint32_t &out_len, bool net_order);

// The two halves of it, for a payload that is written straight into its frame. First the memory of
// the frame, as above; then, with the payload in its place, the header.
char *alloc_frame_behind_head(size_t payload_size, uint32_t &out_len);
void write_module_head(char *frame, const _module_header *header, uint32_t payload_size,
                       bool net_order);

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
