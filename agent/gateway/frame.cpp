#include "agent/gateway/frame.h"

#include <zlib.h>

#include <cstring>

namespace kze::gateway {
namespace {

constexpr char version[] = {'3', '2', '0', '0'};
constexpr unsigned int compressed = 2;

std::uint16_t read_16(std::string_view data, std::size_t offset) {
    std::uint16_t value = 0;
    std::memcpy(&value, data.data() + offset, sizeof(value));
    return value;
}

std::uint32_t read_32(std::string_view data, std::size_t offset) {
    std::uint32_t value = 0;
    std::memcpy(&value, data.data() + offset, sizeof(value));
    return value;
}

/* A compressed frame's fields are always in host order. */
bool is_net_order(const frame &host, unsigned int swapped_type, std::uint32_t swapped_len) {
    if (host.compress_flag == compressed || swapped_len != host.payload_size) {
        return false;
    }
    /* With a length that reads the same both ways the small protocol number decides. */
    return host.msg_len != host.payload_size || swapped_type < host.proto_type;
}

std::string size_text(std::uint64_t size) {
    return std::to_string(size) + (size == 1 ? " byte" : " bytes");
}

/* Inflates to no more than limit bytes; what is there is kept when the stream breaks off. */
std::string inflate_payload(std::string_view stream, std::size_t limit, std::string &content) {
    z_stream state{};
    if (inflateInit(&state) != Z_OK) {
        return "no memory to inflate it";
    }
    state.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(stream.data()));
    state.avail_in = static_cast<uInt>(stream.size());
    char block[64 * 1024];
    int result = Z_OK;
    while (result == Z_OK && content.size() <= limit) {
        state.next_out = reinterpret_cast<Bytef *>(block);
        state.avail_out = sizeof(block);
        result = inflate(&state, Z_NO_FLUSH);
        content.append(block, sizeof(block) - state.avail_out);
    }
    const std::size_t unread = state.avail_in;
    inflateEnd(&state);
    if (content.size() > limit) {
        content.resize(limit);
        return "it inflates to more than the " + size_text(limit) + " that its header says";
    }
    if (result == Z_BUF_ERROR) {
        return "its compressed data break off after " + size_text(content.size());
    }
    if (result != Z_STREAM_END) {
        return "its compressed data are damaged after " + size_text(content.size());
    }
    if (content.size() != limit) {
        return "it inflates to " + size_text(content.size()) + ", its header says " +
               size_text(limit);
    }
    return unread == 0 ? std::string() : size_text(unread) + " follow its compressed data";
}

}  // namespace

frame decode_header(std::string_view data, std::size_t total_size) {
    frame decoded;
    if (data.size() < frame_header_size || total_size < data.size()) {
        decoded.problem = "it is shorter than the header of " + size_text(frame_header_size);
        return decoded;
    }
    if (std::memcmp(data.data(), version, sizeof(version)) != 0) {
        decoded.problem = "it doesn't begin with the version \"3200\"";
        return decoded;
    }
    decoded.has_header = true;
    decoded.payload_size = total_size - frame_header_size;
    decoded.compress_flag = read_16(data, 6);
    decoded.proto_type = read_16(data, 8);
    decoded.msg_len = read_32(data, 16);
    const unsigned int swapped_type = __builtin_bswap16(read_16(data, 8));
    const std::uint32_t swapped_len = __builtin_bswap32(decoded.msg_len);
    if (is_net_order(decoded, swapped_type, swapped_len)) {
        decoded.net_order = true;
        decoded.proto_type = swapped_type;
        decoded.msg_len = swapped_len;
    }
    if (decoded.compress_flag != compressed && decoded.msg_len != decoded.payload_size) {
        decoded.problem = "its header says " + size_text(decoded.msg_len) + ", " +
                          size_text(decoded.payload_size) + " follow";
    }
    return decoded;
}

frame decode_frame(std::string_view data) {
    frame decoded = decode_header(data, data.size());
    if (!decoded.has_header) {
        return decoded;
    }
    const std::string_view payload = data.substr(frame_header_size);
    if (decoded.compress_flag != compressed) {
        decoded.content = payload;
    } else if (decoded.msg_len > inflate_bound) {
        decoded.problem = "its header says " + size_text(decoded.msg_len) + ", more than the " +
                          size_text(inflate_bound) + " that are inflated";
    } else {
        decoded.problem = inflate_payload(payload, decoded.msg_len, decoded.content);
    }
    return decoded;
}

}  // namespace kze::gateway
