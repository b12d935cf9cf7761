/* The writing side of the gateway's journal. */
#ifndef KZE_AGENT_GATEWAY_JOURNAL_WRITER_H
#define KZE_AGENT_GATEWAY_JOURNAL_WRITER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "agent/common/record_file.h"
#include "agent/gateway/record_queue.h"

namespace kze::gateway {

/* What is added to the counters with the next transaction. */
struct count_deltas {
    std::uint64_t refused_invalid = 0;
    std::uint64_t refused_full = 0;
    std::uint64_t lost = 0;
};

/* Writes records and counters together. One thread at a time. */
class journal_writer {
  public:
    journal_writer();

    /*
     * Writes records from position first on, in one transaction of up to 8 MiB (one record at
     * least), and the deltas, which are set to 0 when they are on the disk. Returns how many
     * records are in the journal now; 0 is a failure, whose reason problem() tells.
     */
    std::size_t write(const std::vector<record> &records, std::size_t first, count_deltas &deltas);
    /* Writes the deltas alone. Returns whether they are on the disk. */
    bool write_counts(count_deltas &deltas);
    /* Opens the file now instead of with the first write, and looks how full it is. */
    bool look();
    /* Bytes of all records that are in the journal, as far as it could be opened. */
    std::uint64_t stored_bytes() const { return static_cast<std::uint64_t>(stored_bytes_); }
    const std::string &problem() const { return file_.problem(); }

  private:
    bool read_stored_bytes();
    bool add_count(const char *name, std::int64_t delta);
    bool add_counts(const count_deltas &deltas, std::size_t accepted, std::int64_t bytes);

    record_writer file_;
    std::int64_t stored_bytes_ = 0; /* as the last transaction or look found it */
};

}  // namespace kze::gateway

#endif
