#include "xmsg_fuzz.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "platform/vrdaux/message.h"

namespace {

void require(bool good, const char *rule) {
    if (good)
        return;
    std::fprintf(stderr, "broken: %s\n", rule);
    std::abort();
}

struct releaser {
    void operator()(xmsg *msg) const { xmsg_release(msg); }
};
using message = std::unique_ptr<xmsg, releaser>;

// From memory of its own, so that a read beyond the bytes is seen.
message unpack(std::string_view bytes) {
    const auto copy = std::make_unique<char[]>(bytes.size());
    bytes.copy(copy.get(), bytes.size());
    return message(xmsg_unpack(copy.get(), static_cast<unsigned int>(bytes.size())));
}

std::string pack(const message &msg) {
    const int size = xmsg_pack_size(msg.get());
    require(size > 0, "a message has a size");
    const auto room = static_cast<unsigned int>(size);
    const auto bytes = std::make_unique<char[]>(room);
    require(xmsg_pack(msg.get(), bytes.get(), room - 1) == -1, "a smaller buffer is refused");
    require(xmsg_pack(msg.get(), bytes.get(), room) == size, "the size is that of the bytes");
    return std::string(bytes.get(), room);
}

void require_each_field_is_found(const message &msg) {
    for (const auto &[key, value] : msg->fields()) {
        unsigned int size = 0;
        unsigned int type = 0;
        const char *found =
            xmsg_get(msg.get(), key.data(), static_cast<unsigned short>(key.size()), &size, &type);
        require(found != nullptr && std::string_view(found, size) == value, "a field is found");
        require(found[size] == '\0', "a value is terminated");
        const bool whole = std::string_view(found).size() + 1 >= size;
        require((type == XMSG_TYPE_TEXT) == whole, "a text is whole");
    }
}

// The same fields, added in the opposite order, each a second time with another value.
message made_anew(const message &msg) {
    message made(xmsg_new(msg->name().c_str()));
    require(made != nullptr, "a name can be given again");
    for (auto field = msg->fields().rbegin(); field != msg->fields().rend(); ++field) {
        const auto &[key, value] = *field;
        const auto key_size = static_cast<unsigned short>(key.size());
        require(xmsg_add(made.get(), key.data(), key_size, value.data(),
                         static_cast<unsigned int>(value.size())) == XMSG_OK,
                "a field can be added again");
        require(xmsg_add(made.get(), key.data(), key_size, "x", 1) == XMSG_E_EXISTS,
                "a key stands once");
    }
    return made;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string bytes(reinterpret_cast<const char *>(data), size);
    const message msg = unpack(bytes);
    if (msg == nullptr)
        return 0;
    require(unpack(bytes + '\0') == nullptr, "nothing follows a message");
    require(unpack(bytes.substr(0, size - 1)) == nullptr, "a message is whole");

    const std::string packed = pack(msg);
    require(packed.size() <= size, "lengths are written in the shortest form");
    const message again = unpack(packed);
    require(again != nullptr, "what is packed can be unpacked");
    require(again->name() == msg->name() && again->fields() == msg->fields(),
            "packing loses nothing");

    require_each_field_is_found(msg);
    require(pack(made_anew(msg)) == packed, "equal messages have equal bytes");
    return 0;
}
