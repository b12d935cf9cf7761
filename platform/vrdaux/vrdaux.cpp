#include "vrdaux.h"

#include <cstring>
#include <exception>

#include "platform/vrdaux/format.h"
#include "platform/vrdaux/message.h"

namespace {

unsigned int type_of(const std::string &value) {
    const std::size_t zero = value.find('\0');
    return zero == std::string::npos || zero + 1 == value.size() ? XMSG_TYPE_TEXT : XMSG_TYPE_BYTES;
}

}  // namespace

xmsg *xmsg_new(const char *name) {
    if (name == nullptr || strnlen(name, XMSG_MAX_NAME + 1) > XMSG_MAX_NAME) {
        return nullptr;
    }
    try {
        return std::make_unique<xmsg>(name).release();
    } catch (const std::exception &) {
        return nullptr;
    }
}

int xmsg_add(xmsg *msg, const char *key, unsigned short key_len, const void *value,
             unsigned int value_len) {
    if (msg == nullptr || key == nullptr || (value == nullptr && value_len != 0)) {
        return XMSG_E_ARGUMENT;
    }
    try {
        return msg->add({key, key_len}, {static_cast<const char *>(value), value_len});
    } catch (const std::exception &) {
        return XMSG_E_NO_MEMORY;
    }
}

int xmsg_pack_size(const xmsg *msg) {
    return msg == nullptr ? 0 : static_cast<int>(kze_message::packed_size(*msg));
}

int xmsg_pack(const xmsg *msg, char *buffer, unsigned int size) {
    if (msg == nullptr || buffer == nullptr) {
        return -1;
    }
    const std::size_t needed = kze_message::packed_size(*msg);
    if (needed > size) {
        return -1;
    }
    kze_message::write(*msg, buffer);
    return static_cast<int>(needed);
}

xmsg *xmsg_unpack(const char *data, unsigned int len) {
    if (data == nullptr) {
        return nullptr;
    }
    try {
        return kze_message::read({data, len}).release();
    } catch (const std::exception &) {
        return nullptr;
    }
}

const char *xmsg_get(const xmsg *msg, const char *key, unsigned short key_len,
                     unsigned int *value_len_out, unsigned int *type_out) {
    if (msg == nullptr || key == nullptr) {
        return nullptr;
    }
    const std::string *value = msg->find({key, key_len});
    if (value == nullptr) {
        return nullptr;
    }
    if (value_len_out != nullptr) {
        *value_len_out = static_cast<unsigned int>(value->size());
    }
    if (type_out != nullptr) {
        *type_out = type_of(*value);
    }
    return value->c_str();
}

void xmsg_release(xmsg *msg) {
    delete msg;
}
