/* The linkage replies that are kept: the reading side, for viewers. */
#ifndef KZE_AGENT_SERVICES_REPLY_READER_H
#define KZE_AGENT_SERVICES_REPLY_READER_H

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kze::services {

/* A reply, with its data or the beginning of them. */
struct linkage_reply {
    std::int64_t id = 0;          /* 1, 2, 3 ...; never given twice in a file */
    std::int64_t received_us = 0; /* microseconds since 1970, UTC */
    std::int64_t size = 0;        /* bytes of the data; 0 says that the analysis failed */
    std::string data;
};

/* Opens the file anew for each call, so that it may be replaced meanwhile. One thread at a time. */
class reply_reader {
  public:
    explicit reply_reader(std::string path);

    /*
     * The replies with an id above after_id, oldest first, the oldest `limit` of them, each with
     * the first 80 bytes of its data. A file that isn't there yet has none. Empty optional on
     * failure.
     */
    std::optional<std::vector<linkage_reply>> list(std::int64_t after_id, unsigned int limit);
    /* The same for the newest ones; oldest first. */
    std::optional<std::vector<linkage_reply>> newest(unsigned int limit);
    /* One reply with all of its data; none for an id that isn't there. */
    std::optional<std::vector<linkage_reply>> show(std::int64_t id);
    /* The highest id, 0 when there is none. */
    std::optional<std::int64_t> newest_id();

    /* Why the last call failed, in words for the user. */
    const std::string &problem() const { return problem_; }

  private:
    using database = std::unique_ptr<sqlite3, int (*)(sqlite3 *)>;

    std::optional<std::vector<linkage_reply>> read(const char *sql, std::int64_t first,
                                                   std::int64_t second);
    bool is_ours(sqlite3 *db);
    bool fail(sqlite3 *db);

    const std::string path_;
    std::string problem_;
};

}  // namespace kze::services

#endif
