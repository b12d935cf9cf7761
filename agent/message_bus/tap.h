/*
 * The file of the bus's tap: a ring of slots of one size, in which the newest publications stand.
 *
 * The bus's process alone writes it, a slot with one write; any process may read meanwhile. Each
 * slot has a checksum, so that a reader that meets a write, or comes after a crash, leaves out
 * what is not whole. What the machine had not written to its disk when its power went is gone.
 */
#ifndef KZE_AGENT_MESSAGE_BUS_TAP_H
#define KZE_AGENT_MESSAGE_BUS_TAP_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace kze::bus {

constexpr char tap_directory[] = "@/../var/lib";
constexpr char tap_path[] = "@/../var/lib/bus.tap";

/* At the beginning of the file. */
struct tap_header {
    char magic[8];
    std::uint32_t slots;
    std::uint32_t slot_size;
};
constexpr tap_header tap_form = {{'K', 'Z', 'E', 'B', 'U', 'S', 'T', '1'}, 1024, 4096};

/* At the beginning of a slot; the data follows. Publication n lies in slot (n - 1) % slots. */
struct tap_slot {
    std::uint64_t number;      /* from 1 on; 0 in a slot that was never used */
    std::int64_t published_us; /* microseconds since 1970, UTC */
    std::uint64_t size;        /* bytes that were published */
    std::uint32_t event_id;
    std::uint32_t kept;     /* bytes that follow: all, or as many as fit */
    std::uint32_t checksum; /* of the slot with 0 in this field, and of the data */
    std::uint32_t unused;   /* 0 */
};
static_assert(sizeof(tap_slot) == 40, "nothing lies between the fields");

constexpr std::size_t tap_kept_at_most = tap_form.slot_size - sizeof(tap_slot);
/* The first slot has the place of slot -1, the header's. */
constexpr off_t tap_size = off_t{tap_form.slots + 1} * tap_form.slot_size;

/* Where the slot of a publication begins. */
off_t tap_place(std::uint64_t number);
std::uint32_t tap_checksum(const tap_slot &slot, const char *data);
/* Whether a file begins with the header of a tap and has its size. */
bool is_tap(int file);

}  // namespace kze::bus

#endif
