#include "platform/vrdaux/format.h"

#include <cstdint>
#include <cstring>
#include <msgpack.hpp>
#include <utility>

namespace kze_message {
namespace {

struct counting_stream {
    void write(const char *, std::size_t size) { count += size; }
    std::size_t count = 0;
};

struct memory_stream {
    void write(const char *bytes, std::size_t size) {
        memcpy(at, bytes, size);
        at += size;
    }
    char *at;
};

template <typename Stream>
void pack_bytes(msgpack::packer<Stream> &packer, const std::string &bytes) {
    packer.pack_bin(static_cast<std::uint32_t>(bytes.size()));
    packer.pack_bin_body(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

template <typename Stream>
void pack(const xmsg &message, Stream &stream) {
    msgpack::packer<Stream> packer(stream);
    packer.pack_array(2);
    pack_bytes(packer, message.name());
    packer.pack_map(static_cast<std::uint32_t>(message.fields().size()));
    for (const auto &[key, value] : message.fields()) {
        pack_bytes(packer, key);
        pack_bytes(packer, value);
    }
}

// Takes what a message is made of, in its order, and stops the parser at anything else: it goes no
// deeper than the map, and keeps nothing but the message. One thread at a time.
class reader : public msgpack::null_visitor {
  public:
    bool start_array(std::uint32_t size) {
        return size == 2 && advance(expected::array, expected::name);
    }
    bool start_map(std::uint32_t) { return advance(expected::map, expected::key); }
    bool end_map() { return advance(expected::key, expected::nothing); }
    bool visit_bin(const char *data, std::uint32_t size);

    bool visit_nil() { return false; }
    bool visit_boolean(bool) { return false; }
    bool visit_positive_integer(std::uint64_t) { return false; }
    bool visit_negative_integer(std::int64_t) { return false; }
    bool visit_float32(float) { return false; }
    bool visit_float64(double) { return false; }
    bool visit_str(const char *, std::uint32_t) { return false; }
    bool visit_ext(const char *, std::uint32_t) { return false; }

    // The message, when the parser has come to its end.
    std::unique_ptr<xmsg> take() { return std::move(message); }

  private:
    enum class expected { array, name, map, key, value, nothing };

    bool advance(expected now, expected next) {
        if (next_expected != now) {
            return false;
        }
        next_expected = next;
        return true;
    }

    expected next_expected = expected::array;
    std::unique_ptr<xmsg> message;
    std::string_view key;  // in the parsed bytes
};

bool reader::visit_bin(const char *data, std::uint32_t size) {
    const std::string_view bytes(data, size);
    switch (next_expected) {
        case expected::name:
            if (size > XMSG_MAX_NAME || bytes.find('\0') != std::string_view::npos) {
                return false;
            }
            message = std::make_unique<xmsg>(bytes);
            return advance(expected::name, expected::map);
        case expected::key:
            key = bytes;
            return advance(expected::key, expected::value);
        case expected::value:
            return message->add(key, bytes) == XMSG_OK && advance(expected::value, expected::key);
        default:
            return false;
    }
}

}  // namespace

std::size_t packed_size(const xmsg &message) {
    counting_stream stream;
    pack(message, stream);
    return stream.count;
}

void write(const xmsg &message, char *out) {
    memory_stream stream{out};
    pack(message, stream);
}

std::unique_ptr<xmsg> read(std::string_view bytes) {
    reader visitor;
    std::size_t end = 0;
    const bool complete = msgpack::parse(bytes.data(), bytes.size(), end, visitor);
    return complete && end == bytes.size() ? visitor.take() : nullptr;
}

}  // namespace kze_message
