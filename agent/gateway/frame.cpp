#include "agent/gateway/frame.h"

#include <zlib.h>

#include "engine/module_header.h"

namespace kze::gateway {
namespace {

/* A compressed frame's fields are always in host order. */
bool is_net_order(const frame &host, unsigned int swapped_type, std::uint32_t swapped_len) {
    if (host.compress_flag == module_compressed || swapped_len != host.payload_size) {
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
    const _module_header header = read_module_header(data.data());
    if (!has_module_version(header)) {
        decoded.problem = "it doesn't begin with the version \"3200\"";
        return decoded;
    }
    decoded.has_header = true;
    decoded.payload_size = total_size - frame_header_size;
    decoded.compress_flag = header.compress_flag;
    decoded.proto_type = header.proto_type;
    decoded.msg_len = header.msg_len;
    const unsigned int swapped_type = module_field(header.proto_type, true);
    const std::uint32_t swapped_len = module_field(header.msg_len, true);
    if (is_net_order(decoded, swapped_type, swapped_len)) {
        decoded.net_order = true;
        decoded.proto_type = swapped_type;
        decoded.msg_len = swapped_len;
    }
    if (decoded.compress_flag != module_compressed && decoded.msg_len != decoded.payload_size) {
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
    if (decoded.compress_flag != module_compressed) {
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
