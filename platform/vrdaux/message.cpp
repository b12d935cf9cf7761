#include "platform/vrdaux/message.h"

int xmsg::add(std::string_view key, std::string_view value) {
    if (key.size() > XMSG_MAX_KEY || value.size() > XMSG_MAX_VALUE)
        return XMSG_E_TOO_LARGE;
    const auto next = fields_.lower_bound(key);
    if (next != fields_.end() && next->first == key)
        return XMSG_E_EXISTS;
    const std::size_t bytes = bytes_ + key.size() + value.size();
    if (fields_.size() == XMSG_MAX_FIELDS || bytes > XMSG_MAX_BYTES)
        return XMSG_E_TOO_LARGE;
    fields_.emplace_hint(next, key, value);
    bytes_ = bytes;
    return XMSG_OK;
}

const std::string *xmsg::find(std::string_view key) const {
    const auto found = fields_.find(key);
    return found == fields_.end() ? nullptr : &found->second;
}
