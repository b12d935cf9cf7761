/*
 * What a message holds, and what it can hold.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDAUX_MESSAGE_H
#define KZEMDLMGR_PLATFORM_VRDAUX_MESSAGE_H

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "vrdaux.h"

// One thread at a time; reading may be shared. Throws std::bad_alloc and is then as before.
struct xmsg {
  public:
    using field_map = std::map<std::string, std::string, std::less<>>;

    // The name is within XMSG_MAX_NAME.
    explicit xmsg(std::string_view name) : own_name(name) {}

    // XMSG_OK, XMSG_E_TOO_LARGE or XMSG_E_EXISTS.
    int add(std::string_view key, std::string_view value);

    // The value, null where there is none. Valid as long as the message.
    const std::string *find(std::string_view key) const;

    const std::string &name() const { return own_name; }
    const field_map &fields() const { return own_fields; }

  private:
    std::string own_name;
    field_map own_fields;        // a node each, which stays where it is when others come
    std::size_t byte_count = 0;  // of all keys and values
};

#endif
