#include "platform/vrdipc/frame.h"

#include <algorithm>
#include <cstring>

namespace kze_ipc {
namespace {

constexpr std::uint32_t frame_magic = 0x3143505a;
constexpr std::size_t kept_memory = 256 * 1024;  // what a decoder keeps between frames

void put_u32(unsigned char *out, std::uint32_t value) {
    for (unsigned int i = 0; i < 4; ++i) {
        out[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

std::uint32_t get_u32(const unsigned char *in) {
    return std::uint32_t{in[0]} | std::uint32_t{in[1]} << 8 | std::uint32_t{in[2]} << 16 |
           std::uint32_t{in[3]} << 24;
}

bool is_allowed(const frame_header &header) {
    switch (header.type) {
        case frame_type::request:
        case frame_type::response:
            return header.length <= frame_max_body;
        case frame_type::message:
            return header.length <= frame_max_body && header.request_id == 0;
        case frame_type::refusal:
            return header.length == static_cast<std::uint32_t>(refusal_reason::no_handler) ||
                   header.length == static_cast<std::uint32_t>(refusal_reason::busy);
    }
    return false;
}

bool decode_at(const char *data, frame_header *out) {
    unsigned char bytes[frame_header_size];
    std::memcpy(bytes, data, sizeof bytes);
    return decode_header(bytes, out);
}

}  // namespace

void encode_header(const frame_header &header, unsigned char (&out)[frame_header_size]) {
    put_u32(out, frame_magic);
    put_u32(out + 4, static_cast<std::uint32_t>(header.type));
    put_u32(out + 8, header.cmd);
    put_u32(out + 12, header.request_id);
    put_u32(out + 16, header.length);
}

bool decode_header(const unsigned char (&in)[frame_header_size], frame_header *out) {
    if (get_u32(in) != frame_magic) {
        return false;
    }
    const frame_header header{static_cast<frame_type>(get_u32(in + 4)), get_u32(in + 8),
                              get_u32(in + 12), get_u32(in + 16)};
    if (!is_allowed(header)) {
        return false;
    }
    *out = header;
    return true;
}

void frame_decoder::keep(const char *data, std::size_t size, std::size_t frame_size) {
    const std::size_t needed = partial.size() + size;
    if (needed > partial.capacity()) {
        partial.reserve(std::min(frame_size, 2 * needed));
    }
    partial.insert(partial.end(), data, data + size);
}

void frame_decoder::drop_partial() {
    partial.clear();
    if (partial.capacity() > kept_memory) {
        partial.shrink_to_fit();
    }
}

// Adds to the kept beginning what is missing of its header and then of its body.
frame_decoder::outcome frame_decoder::complete_partial(const char **data, std::size_t *size,
                                                       frame_sink &sink) {
    const auto take = [&](std::size_t frame_size) {
        const std::size_t taken = std::min(frame_size - partial.size(), *size);
        keep(*data, taken, frame_size);
        *data += taken;
        *size -= taken;
        return partial.size() == frame_size;
    };
    if (partial.size() < frame_header_size && !take(frame_header_size)) {
        return outcome::more;
    }
    frame_header header;
    if (!decode_at(partial.data(), &header)) {
        return outcome::broken;
    }
    if (!take(frame_header_size + body_length(header))) {
        return outcome::more;
    }
    if (!sink.on_frame(header, partial.data() + frame_header_size)) {
        return outcome::stopped;
    }
    drop_partial();
    return outcome::more;
}

frame_decoder::outcome frame_decoder::feed(const char *data, std::size_t size, frame_sink &sink) {
    if (inside_frame()) {
        const outcome result = complete_partial(&data, &size, sink);
        if (result != outcome::more) {
            return result;
        }
    }
    while (size >= frame_header_size) {
        frame_header header;
        if (!decode_at(data, &header)) {
            return outcome::broken;
        }
        const std::size_t frame_size = frame_header_size + body_length(header);
        if (size < frame_size) {
            keep(data, size, frame_size);
            return outcome::more;
        }
        if (!sink.on_frame(header, data + frame_header_size)) {
            return outcome::stopped;
        }
        data += frame_size;
        size -= frame_size;
    }
    if (size > 0) {
        keep(data, size, frame_header_size);
    }
    return outcome::more;
}

}  // namespace kze_ipc
