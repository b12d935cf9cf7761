/* Records that a service keeps: the reading side, for viewers. */
#ifndef KZE_AGENT_SERVICES_RECORD_READER_H
#define KZE_AGENT_SERVICES_RECORD_READER_H

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/services/record_kind.h"

namespace kze::services {

/* A record, with its data or the beginning of them. */
struct kept_record {
    std::int64_t id = 0;          /* 1, 2, 3 ...; never given twice in a file */
    std::int64_t received_us = 0; /* microseconds since 1970, UTC */
    std::int64_t size = 0;        /* bytes of the data */
    std::string data;
};

/* Opens the file anew for each call, so that it may be replaced meanwhile. One thread at a time. */
class record_reader {
  public:
    record_reader(std::string path, const record_kind &kind);

    /*
     * The records with an id above after_id, oldest first, the oldest `limit` of them, each with
     * the beginning of its data. A file that isn't there yet has none. Empty optional on
     * failure.
     */
    std::optional<std::vector<kept_record>> list(std::int64_t after_id, unsigned int limit);
    /* The same for the newest ones; oldest first. */
    std::optional<std::vector<kept_record>> newest(unsigned int limit);
    /* One record with all of its data; none for an id that isn't there. */
    std::optional<std::vector<kept_record>> show(std::int64_t id);
    /* The highest id, 0 when there is none. */
    std::optional<std::int64_t> newest_id();

    /* Why the last call failed, in words for the user. */
    const std::string &problem() const { return problem_; }

  private:
    using database = std::unique_ptr<sqlite3, int (*)(sqlite3 *)>;

    std::optional<std::vector<kept_record>> read(const std::string &sql, std::int64_t first,
                                                 std::int64_t second);
    bool is_ours(sqlite3 *db);
    bool fail(sqlite3 *db);

    const std::string path_;
    const record_kind &kind_;
    std::string problem_;
};

}  // namespace kze::services

#endif
