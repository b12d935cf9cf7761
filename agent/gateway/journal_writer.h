/* The writing side of the gateway's journal, a SQLite file. */
#ifndef KZE_AGENT_GATEWAY_JOURNAL_WRITER_H
#define KZE_AGENT_GATEWAY_JOURNAL_WRITER_H

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "agent/gateway/record_queue.h"

namespace kze::gateway {

/* What is added to the counters with the next transaction. */
struct count_deltas {
    std::uint64_t refused_invalid = 0;
    std::uint64_t refused_full = 0;
    std::uint64_t lost = 0;
};

/*
 * Any failure closes the file; the next write opens it again. A file that is no journal, or a
 * damaged one, is put aside under another name and a new one is begun.
 * One thread at a time.
 */
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
    /* Opens the file now instead of with the first write. */
    bool open() { return ensure_open(); }
    /* Bytes of all records that are in the journal, as far as it could be opened. */
    std::uint64_t stored_bytes() const { return static_cast<std::uint64_t>(stored_before_); }
    const std::string &problem() const { return problem_; }

  private:
    using statement = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)>;

    bool ensure_open();
    bool open_file();
    bool create_file() const;
    bool set_up();
    bool set_up_schema();
    bool is_in_place();
    bool begin();
    bool insert(const record &added);
    bool add_count(const char *name, std::int64_t delta);
    bool add_counts(const count_deltas &deltas, std::uint64_t accepted);
    bool commit();
    bool run(const char *sql);
    bool prepare(const char *sql, statement &out);
    bool read_number(const char *sql, std::int64_t &out);
    bool fail(const char *what);
    void put_aside(const std::string &reason);
    void close();

    const std::string path_;
    std::unique_ptr<sqlite3, int (*)(sqlite3 *)> db_;
    /* Prepared while the file is open; they go before it. */
    statement insert_;
    statement count_;
    std::int64_t stored_bytes_ = 0;  /* as the transaction in hand will leave it */
    std::int64_t stored_before_ = 0; /* as the last commit left it */
    std::string problem_;
};

}  // namespace kze::gateway

#endif
