/* The writing side of the bus's tap. */
#ifndef KZE_AGENT_MESSAGE_BUS_TAP_WRITER_H
#define KZE_AGENT_MESSAGE_BUS_TAP_WRITER_H

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "agent/common/descriptor.h"
#include "agent/message_bus/tap.h"

namespace kze::bus {

/*
 * Goes on with the numbers of the file that is there. A file that is no tap is replaced; one that
 * is taken away, moved or cut is begun anew with the next publication. One writer at a time has a
 * tap, in all processes. One thread at a time.
 */
class tap_writer {
  public:
    /* Nothing is opened or made yet. */
    explicit tap_writer(std::string path) : path_(std::move(path)) {}

    /* Keeps a publication, which came now. False when it can't be written. */
    bool add(std::uint32_t event_id, std::string_view data);
    /* Why the last add failed. */
    const std::string &problem() const { return problem_; }

  private:
    bool ensure_open();
    bool is_in_place() const;
    bool open_file();
    bool make_file();
    std::uint64_t newest_number() const;
    bool fail(const char *what);

    const std::string path_;
    descriptor file_{-1};
    std::uint64_t next_ = 1;
    std::string problem_;
    /* What a slot is put together in, for one write. */
    std::array<char, tap_form.slot_size> slot_;
};

}  // namespace kze::bus

#endif
