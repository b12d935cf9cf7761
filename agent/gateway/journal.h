/* The reading side of the gateway's journal, for viewers. */
#ifndef KZE_AGENT_GATEWAY_JOURNAL_H
#define KZE_AGENT_GATEWAY_JOURNAL_H

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kze::gateway {

/* A record without its data. */
struct journal_entry {
    std::int64_t id = 0;
    std::int64_t accepted_us = 0; /* microseconds since 1970, UTC */
    int type = 0;                 /* a KZEMM_DATA_TYPE */
    std::int64_t size = 0;
    /* The first 20 bytes, for decode_header, 80 of an order's result (KZEMM_DATA_LINKAGE, _APPEND
     * and _HUNTING), or 4,096 of a short kind whose content a list shows (KZEMM_DATA_CTMIOA_RESULT
     * and _HELLO); less when it is shorter. */
    std::string beginning;
};

/* A record with its data. */
struct journal_record {
    journal_entry entry;
    std::string data;
};

/* The word for a KZEMM_DATA_TYPE, "alarm" for instance; "unknown" for a number without a name. */
const char *data_type_name(int type);
/* The number for such a word; 0 when there is none. */
int data_type_number(const std::string &name);

/*
 * Reads while the gateway writes, in short transactions that never hold it up.
 * One thread at a time.
 */
class journal_reader {
  public:
    /* Path of the journal file, GATEWAY_JOURNAL_PATH expanded. Nothing is opened yet. */
    explicit journal_reader(std::string path);

    /* Why the last call failed, in words for the user. */
    const std::string &problem() const { return problem_; }
    /* Whether that was because the gateway hasn't made the journal yet. */
    bool absent() const { return absent_; }

    /*
     * Records with an id above after_id, oldest first, at most limit of them; of one type only
     * when type isn't 0. Empty optional on failure.
     */
    std::optional<std::vector<journal_entry>> list(std::int64_t after_id, int type,
                                                   unsigned int limit);
    /* The same, but the newest limit records; oldest first. */
    std::optional<std::vector<journal_entry>> newest(int type, unsigned int limit);
    /* One record. Empty on failure and when there is none of that id. */
    std::optional<journal_record> show(std::int64_t id);
    /* The gateway's counters by name (GATEWAY_COUNT_...). */
    std::optional<std::map<std::string, std::int64_t>> counters();

    /*
     * Gives each record above after_id to `each`, then waits for new ones, looking every `period`,
     * for as long as `keep_going` (called before each look) says true. A journal that is replaced
     * is followed from its beginning; one that isn't there yet is waited for. Returns false when
     * the journal can't be read.
     */
    bool follow(std::int64_t after_id, int type, std::chrono::milliseconds period,
                const std::function<void(const journal_entry &)> &each,
                const std::function<bool()> &keep_going);

  private:
    using statement = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)>;

    enum class file_state { ready, absent, broken };

    file_state ensure_open();
    file_state check_version();
    bool is_in_place();
    std::string nothing_yet() const;
    statement prepare(const char *sql);
    statement query(const char *sql);
    std::optional<std::vector<journal_entry>> entries(const char *sql, std::int64_t after_id,
                                                      int type, unsigned int limit);
    void fail();

    const std::string path_;
    std::unique_ptr<sqlite3, int (*)(sqlite3 *)> db_;
    std::string problem_;
    bool absent_ = false;
};

}  // namespace kze::gateway

#endif
