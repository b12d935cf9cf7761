/* The reading side of the bus's tap, for viewers. */
#ifndef KZE_AGENT_MESSAGE_BUS_TAP_READER_H
#define KZE_AGENT_MESSAGE_BUS_TAP_READER_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kze::bus {

struct publication {
    std::uint64_t number = 0;
    std::int64_t published_us = 0; /* microseconds since 1970, UTC */
    std::uint64_t size = 0;        /* bytes that were published */
    std::uint32_t event_id = 0;
    std::string data; /* all of them, or as many as the tap keeps of one */
};

/* Reads while the bus writes, and never holds it up. One thread at a time. */
class tap_reader {
  public:
    /* Path of the tap, tap_path expanded. */
    explicit tap_reader(std::string path) : path_(std::move(path)) {}

    /*
     * The publications above that number that the tap still has, oldest first; of them the first
     * `limit`. None of a tap that isn't there yet. Empty optional on failure.
     */
    std::optional<std::vector<publication>> list(std::uint64_t after, std::size_t limit);
    /* The same, but the newest. */
    std::optional<std::vector<publication>> newest(std::size_t limit);
    /* The number of the newest publication; 0 when there is none. */
    std::optional<std::uint64_t> newest_number();
    /* Why the last call failed, in words for the user. */
    const std::string &problem() const { return problem_; }

  private:
    std::optional<std::vector<publication>> all_above(std::uint64_t after);

    const std::string path_;
    std::string problem_;
};

}  // namespace kze::bus

#endif
