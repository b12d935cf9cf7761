/* Decodes what the gateway was handed, for a person's eye. */
#ifndef KZE_AGENT_GATEWAY_FRAME_H
#define KZE_AGENT_GATEWAY_FRAME_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kze::gateway {

/* The size of the module header that begins a frame. */
constexpr std::size_t frame_header_size = 20;

/* No frame is inflated to more than this, whatever its header says. */
constexpr std::size_t inflate_bound = std::size_t{256} << 20;

/* A record's module header, and the payload. */
struct frame {
    bool has_header = false; /* it begins with the version "3200" and is long enough */
    bool net_order = false;  /* proto_type and msg_len are big-endian */
    unsigned int compress_flag = 0;
    unsigned int proto_type = 0;
    std::uint32_t msg_len = 0;
    std::size_t payload_size = 0; /* bytes behind the header, as they lie there */
    std::string content;          /* the payload, inflated where compress_flag is 2 */
    std::string problem;          /* why the frame is broken; empty for a good one */
};

/*
 * Reads the header only; content stays empty. The byte order, which no field tells, is the one in
 * which msg_len fits the record. total_size is the record's size, of which data may be just the
 * beginning (20 bytes at least).
 */
frame decode_header(std::string_view data, std::size_t total_size);

/* Reads a whole record. A broken frame has a problem, and as much content as could be read. */
frame decode_frame(std::string_view data);

}  // namespace kze::gateway

#endif
