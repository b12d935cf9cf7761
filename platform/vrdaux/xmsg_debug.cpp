#include <exception>
#include <string>
#include <string_view>

#include "platform/vrdaux/message.h"
#include "vrdbase.h"

namespace {

constexpr int dump_level = 4;
constexpr std::size_t shown_bytes = 256;
constexpr std::size_t shown_fields = 64;

// The bytes as a text in brackets; a 0 byte, which would end the record, is escaped like the log
// escapes the others.
std::string shown(std::string_view bytes) {
    std::string text = "[";
    for (const char byte : bytes.substr(0, shown_bytes)) {
        if (byte == '\0') {
            text += "\\x00";
        } else {
            text += byte;
        }
    }
    text += ']';
    if (bytes.size() > shown_bytes) {
        text += " cut, " + std::to_string(bytes.size()) + " bytes";
    }
    return text;
}

void dump(const xmsg &message) {
    const std::size_t count = message.fields().size();
    kze_log(dump_level, "xmsg %s, fields: %zu", shown(message.name()).c_str(), count);
    std::size_t number = 0;
    for (const auto &[key, value] : message.fields()) {
        if (number == shown_fields) {
            kze_log(dump_level, "xmsg fields not shown: %zu", count - shown_fields);
            return;
        }
        ++number;
        kze_log(dump_level, "xmsg field %zu %s: %s", number, shown(key).c_str(),
                shown(value).c_str());
    }
}

}  // namespace

void xmsg_debug(const xmsg *msg) {
    if (msg == nullptr || error_output_check(dump_level) == 0) {
        return;
    }
    try {
        dump(*msg);
    } catch (const std::exception &) {
        // No memory for the dump: it is lost, as the log's own records are then.
    }
}
