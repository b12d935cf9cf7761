/*
 * Files of records: what the gateway took, what was published on the message bus, linkage replies,
 * disposal orders. Each is an SQLite file in write-ahead mode, which one process writes and any
 * process may read meanwhile.
 */
#ifndef KZE_AGENT_COMMON_RECORD_FILE_H
#define KZE_AGENT_COMMON_RECORD_FILE_H

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kze {

/* A kind of file. Its table has the columns id, size, data and the two that are named here. */
struct record_form {
    const char *table;
    const char *time;      /* column: microseconds since 1970, UTC */
    const char *kind;      /* column: a number that records may be chosen by; null: there is none */
    const char *beginning; /* SQL: how many bytes of a record's data a list has */
    const char *further;   /* SQL that makes what else is in the file; may be empty */
    const char *foreign; /* what a file of another version does: "holds no replies of version 1" */
    /* Whether the disk is waited for, at checkpoints: then a crash of the whole host costs the last
     * records. Otherwise it may cost the file. */
    bool synced;
    int patience_ms; /* for which a writer waits while another process holds the file */
    /* The newest are kept, so many with so many bytes of data, and one alone that has more. 0: all.
     */
    std::int64_t most_records;
    std::int64_t most_bytes;
};

/* The user_version of every such file. */
constexpr int records_version = 1;
/* Appended to the name of a file that can't be used and is put aside. */
constexpr char unusable_suffix[] = ".unusable";

/* A record, with its data or the beginning of them. */
struct kept_record {
    std::int64_t id = 0;      /* 1, 2, 3 ...; never given twice in a file */
    std::int64_t time_us = 0; /* microseconds since 1970, UTC */
    std::int64_t size = 0;    /* bytes that it had when it came */
    int kind = 0;
    std::string data;
};

/* Microseconds since 1970, UTC. */
std::int64_t now_us();

/* A record that is added; the data stay the caller's. */
struct new_record {
    std::string_view data;
    std::int64_t size = static_cast<std::int64_t>(data.size());
    int kind = 0;
    std::int64_t time_us = now_us();
};

/* The file, as readers and writers have it. */
class record_file {
  public:
    /* Why the last call failed, in words for the user. */
    const std::string &problem() const { return problem_; }

  protected:
    using statement = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)>;

    /* The form outlives the object. Nothing is opened or made yet. */
    record_file(std::string path, const record_form &form);

    bool open_connection(int flags, int busy_ms);
    /* Whether the path still leads to the file that is open. */
    bool is_in_place() const;
    statement prepare(const std::string &sql) const;
    /* The first value of the first row. Empty without one, and on failure. */
    std::optional<std::int64_t> number(const std::string &sql) const;
    /* Sets problem() to what SQLite says. Always false. */
    bool note_failure();

    const std::string path_;
    const record_form &form_;
    std::unique_ptr<sqlite3, int (*)(sqlite3 *)> db_;
    std::string problem_;
};

/*
 * The writing side. A file that can't be used is put aside with a line in the log, and a new one is
 * begun; so is one that is moved away, deleted or cut to nothing. Any failure closes the file; the
 * next call opens it again. One thread at a time.
 */
class record_writer : public record_file {
  public:
    using value = std::variant<std::int64_t, std::string_view>;

    record_writer(std::string path, const record_form &form);

    /* Opens the file, or makes it, unless it is open. */
    bool open();

    /* Each of these is a transaction: what it wrote outlives the process from its return on, and a
     * crash at any point leaves it whole or undone. */

    /* Keeps a record and gives its id. None when it can't be written; it may be tried again. */
    std::optional<std::int64_t> append(const new_record &record);
    /* Puts other data in a record's place. False when it can't be written or is no longer there. */
    bool replace(std::int64_t id, std::string_view data);
    /* Whatever `body` does with the functions below; taken back when it says false. It may be
     * called a second time, when the first one finds a damaged file. */
    bool transaction(const std::function<bool()> &body);

    /* Within a transaction. */
    bool add(const new_record &record);
    bool run(const std::string &sql, std::initializer_list<value> values = {});

    /* The first number that a query of the open file gives. */
    using record_file::number;

  private:
    bool ensure_open();
    bool set_up();
    bool drop_oldest();
    sqlite3_stmt *prepared(const std::string &sql);
    void close();
    bool fail();
    void put_aside(const std::string &reason);

    const std::string insert_;
    std::map<std::string, statement> statements_; /* by their text; while the file is open */
    bool again_ = false;                          /* a second attempt may succeed */
};

/* The reading side, which never holds the writer up. One thread at a time. */
class record_reader : public record_file {
  public:
    record_reader(std::string path, const record_form &form) : record_file(std::move(path), form) {}

    /* Whether the last call found no file, or one that is just being made: it has no records. */
    bool absent() const { return absent_; }

    /* Without a value these have failed. The records come with the beginning of their data, oldest
     * first; of one kind only when it isn't 0. */

    /* The oldest `limit` with an id above that. */
    std::optional<std::vector<kept_record>> list(std::int64_t after, unsigned int limit,
                                                 int kind = 0);
    /* The newest `limit`. */
    std::optional<std::vector<kept_record>> newest(unsigned int limit, int kind = 0);
    /* As list, and moves `after` to the last one; from the beginning in a file that was begun
     * anew. */
    std::optional<std::vector<kept_record>> next(std::int64_t &after, unsigned int limit,
                                                 int kind = 0);
    /* One record with all of its data; none for an id that isn't there. */
    std::optional<std::vector<kept_record>> show(std::int64_t id);
    /* The highest id, 0 when there is none. */
    std::optional<std::int64_t> newest_id();
    /* The rows of a table of the columns name and value. */
    std::optional<std::map<std::string, std::int64_t>> numbers(const std::string &table);

  private:
    bool ensure_open();
    bool fail();
    std::string select(const std::string &data) const;
    bool rows(const std::string &sql, std::initializer_list<std::int64_t> values,
              const std::function<void(sqlite3_stmt *)> &each);
    std::optional<std::vector<kept_record>> records(const std::string &sql,
                                                    std::initializer_list<std::int64_t> values);

    bool absent_ = false;
    bool begun_anew_ = false; /* another file than before is open, and next hasn't told yet */
};

}  // namespace kze

#endif
