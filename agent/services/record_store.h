/* Records that a service keeps: the writing side. */
#ifndef KZE_AGENT_SERVICES_RECORD_STORE_H
#define KZE_AGENT_SERVICES_RECORD_STORE_H

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "agent/services/record_kind.h"

namespace kze::services {

/* The newest records are kept, at most so many. One that alone is above the bytes is kept alone. */
struct record_bounds {
    std::int64_t records = 1000;
    std::int64_t bytes = std::int64_t{64} << 20; /* of the records' data */
};

/*
 * An SQLite file in write-ahead mode. Each record is a transaction: it outlives the process from
 * add's return on, and a crash at any point leaves whole records. A file that can't be used is put
 * aside as <path>.unusable; one that is moved away is begun anew. One thread at a time.
 */
class record_store {
  public:
    /* Nothing is opened or made yet. */
    record_store(std::string path, const record_kind &kind, const record_bounds &bounds = {});

    /* Keeps a record, which came now, and gives its id. None when it can't be written; it may be
     * tried again. */
    std::optional<std::int64_t> add(std::string_view data);
    /* Puts other data in a record's place. False when it can't be written or is no longer there. */
    bool replace(std::int64_t id, std::string_view data);
    /* Why the last of these failed. */
    const std::string &problem() const { return problem_; }

  private:
    using statement = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)>;

    bool ensure_open();
    bool is_in_place();
    bool open_file();
    bool set_up();
    bool set_up_schema();
    bool insert(std::string_view data);
    bool update(std::int64_t id, std::string_view data);
    bool drop_oldest();
    bool run(const std::string &sql);
    statement prepare(const std::string &sql);
    bool read_number(const char *sql, std::int64_t &out);
    bool fail();
    void put_aside(const std::string &reason);

    const std::string path_;
    const record_kind &kind_;
    const record_bounds bounds_;
    std::unique_ptr<sqlite3, int (*)(sqlite3 *)> db_;
    std::string problem_;
};

}  // namespace kze::services

#endif
