#include "platform/vrdaux/message.h"

int xmsg::add(std::string_view key, std::string_view value) {
    if (key.size() > XMSG_MAX_KEY || value.size() > XMSG_MAX_VALUE) {
        return XMSG_E_TOO_LARGE;
    }
    const auto next = own_fields.lower_bound(key);
    if (next != own_fields.end() && next->first == key) {
        return XMSG_E_EXISTS;
    }
    const std::size_t bytes = byte_count + key.size() + value.size();
    if (own_fields.size() == XMSG_MAX_FIELDS || bytes > XMSG_MAX_BYTES) {
        return XMSG_E_TOO_LARGE;
    }
    own_fields.emplace_hint(next, key, value);
    byte_count = bytes;
    return XMSG_OK;
}

const std::string *xmsg::find(std::string_view key) const {
    const auto found = own_fields.find(key);
    return found == own_fields.end() ? nullptr : &found->second;
}
