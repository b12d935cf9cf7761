#include "agent/message_bus/tap.h"

#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cstring>

namespace kze::bus {

off_t tap_place(std::uint64_t number) {
    return static_cast<off_t>((number - 1) % tap_form.slots + 1) * tap_form.slot_size;
}

std::uint32_t tap_checksum(const tap_slot &slot, const char *data) {
    tap_slot head = slot;
    head.checksum = 0;
    uLong sum = crc32(0, reinterpret_cast<const Bytef *>(&head), sizeof(head));
    if (slot.kept != 0) {
        sum = crc32(sum, reinterpret_cast<const Bytef *>(data), slot.kept);
    }
    return static_cast<std::uint32_t>(sum);
}

bool is_tap(int file) {
    struct stat info {};
    tap_header header = {};
    return fstat(file, &info) == 0 && info.st_size == tap_size &&
           pread(file, &header, sizeof(header), 0) == ssize_t{sizeof(header)} &&
           std::memcmp(&header, &tap_form, sizeof(header)) == 0;
}

}  // namespace kze::bus
