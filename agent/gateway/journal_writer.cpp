#include "agent/gateway/journal_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "agent/common/tree.h"
#include "agent/gateway/gateway.h"
#include "kzautil.h"
#include "vrdbase.h"

namespace kze::gateway {
namespace {

constexpr std::uint64_t transaction_bytes = 8U << 20;
constexpr int busy_ms = 100;

constexpr char schema[] =
    "BEGIN IMMEDIATE;"
    "CREATE TABLE records("
    " id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " accepted_us INTEGER NOT NULL,"
    " type INTEGER NOT NULL,"
    " size INTEGER NOT NULL,"
    " data BLOB NOT NULL);"
    "CREATE INDEX records_by_type ON records(type, id);"
    "CREATE TABLE counters(name TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;"
    "PRAGMA user_version = 1;"
    "COMMIT;";
static_assert(GATEWAY_JOURNAL_VERSION == 1, "the schema above writes the version");

bool is_damage(int code) {
    const int primary = code & 0xFF;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

std::string parent_of(const std::string &path) {
    return path.substr(0, path.rfind('/'));
}

}  // namespace

journal_writer::journal_writer()
    : path_(tree_path(GATEWAY_JOURNAL_PATH)),
      db_(nullptr, &sqlite3_close),
      insert_(nullptr, &sqlite3_finalize),
      count_(nullptr, &sqlite3_finalize) {}

std::size_t journal_writer::write(const std::vector<record> &records, std::size_t first,
                                  count_deltas &deltas) {
    if (!ensure_open() || !begin()) {
        return 0;
    }
    std::uint64_t bytes = 0;
    std::size_t next = first;
    while (next < records.size() &&
           (next == first || bytes + records[next].size <= transaction_bytes)) {
        if (!insert(records[next])) {
            return 0;
        }
        bytes += records[next].size;
        ++next;
    }
    if (!add_counts(deltas, next - first) || !commit()) {
        return 0;
    }
    deltas = {};
    return next - first;
}

bool journal_writer::write_counts(count_deltas &deltas) {
    if (!ensure_open() || !begin() || !add_counts(deltas, 0) || !commit()) {
        return false;
    }
    deltas = {};
    return true;
}

bool journal_writer::ensure_open() {
    if (db_ != nullptr && is_in_place()) {
        return true;
    }
    close();
    return open_file() && set_up();
}

/* Whoever deletes or replaces the file expects a new one, not records in one without a name. */
bool journal_writer::is_in_place() {
    int moved = 0;
    return sqlite3_file_control(db_.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK &&
           moved == 0;
}

/* SQLite's own files take the permissions of the first one: what is in it is nobody else's. */
bool journal_writer::create_file() const {
    kze_dirutils_mkdir(parent_of(path_).c_str(), 0700);
    const int descriptor = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600);
    if (descriptor < 0) {
        return false;
    }
    ::close(descriptor);
    return true;
}

bool journal_writer::open_file() {
    if (!create_file()) {
        problem_ = path_ + ": " + std::strerror(errno);
        return false;
    }
    sqlite3 *opened = nullptr;
    const int code = sqlite3_open_v2(path_.c_str(), &opened,
                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    db_.reset(opened);
    if (code != SQLITE_OK) {
        return fail("open");
    }
    sqlite3_extended_result_codes(db_.get(), 1);
    sqlite3_busy_timeout(db_.get(), busy_ms);
    return true;
}

bool journal_writer::set_up() {
    /* Synced at checkpoints only: a record outlives the process at once, and a crash of the whole
     * host costs the last few, never the file. */
    if (!run("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;"
             "PRAGMA journal_size_limit = 67108864;") ||
        !set_up_schema()) {
        return false;
    }
    return prepare("INSERT INTO records(accepted_us, type, size, data) VALUES(?, ?, ?, ?)",
                   insert_) &&
           prepare(
               "INSERT INTO counters(name, value) VALUES(?1, ?2)"
               " ON CONFLICT(name) DO UPDATE SET value = value + excluded.value",
               count_) &&
           read_number(
               "SELECT coalesce((SELECT value FROM counters WHERE name = "
               "'" GATEWAY_COUNT_STORED_BYTES "'), 0)",
               stored_before_);
}

bool journal_writer::set_up_schema() {
    std::int64_t version = 0;
    std::int64_t tables = 0;
    if (!read_number("PRAGMA user_version", version) ||
        !read_number("SELECT count(*) FROM sqlite_master", tables)) {
        return false;
    }
    if (version == 0 && tables == 0) {
        return run(schema);
    }
    if (version != GATEWAY_JOURNAL_VERSION) {
        put_aside("it is no journal of version 1");
        return false;
    }
    return true;
}

bool journal_writer::begin() {
    stored_bytes_ = stored_before_;
    return run("BEGIN IMMEDIATE");
}

bool journal_writer::insert(const record &added) {
    sqlite3_bind_int64(insert_.get(), 1, added.accepted_us);
    sqlite3_bind_int(insert_.get(), 2, added.type);
    sqlite3_bind_int64(insert_.get(), 3, added.size);
    sqlite3_bind_blob64(insert_.get(), 4, added.data.get(), added.size, SQLITE_STATIC);
    const int code = sqlite3_step(insert_.get());
    sqlite3_reset(insert_.get());
    sqlite3_clear_bindings(insert_.get());
    if (code != SQLITE_DONE) {
        return fail("insert");
    }
    stored_bytes_ += added.size;
    return true;
}

bool journal_writer::add_count(const char *name, std::int64_t delta) {
    if (delta == 0) {
        return true;
    }
    sqlite3_bind_text(count_.get(), 1, name, -1, SQLITE_STATIC);
    sqlite3_bind_int64(count_.get(), 2, delta);
    const int code = sqlite3_step(count_.get());
    sqlite3_reset(count_.get());
    return code == SQLITE_DONE || fail("count");
}

bool journal_writer::add_counts(const count_deltas &deltas, std::uint64_t accepted) {
    return add_count(GATEWAY_COUNT_ACCEPTED, static_cast<std::int64_t>(accepted)) &&
           add_count(GATEWAY_COUNT_REFUSED_INVALID,
                     static_cast<std::int64_t>(deltas.refused_invalid)) &&
           add_count(GATEWAY_COUNT_REFUSED_FULL, static_cast<std::int64_t>(deltas.refused_full)) &&
           add_count(GATEWAY_COUNT_LOST, static_cast<std::int64_t>(deltas.lost)) &&
           add_count(GATEWAY_COUNT_STORED_BYTES, stored_bytes_ - stored_before_);
}

bool journal_writer::commit() {
    if (!run("COMMIT")) {
        return false;
    }
    stored_before_ = stored_bytes_;
    return true;
}

bool journal_writer::run(const char *sql) {
    return sqlite3_exec(db_.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK || fail(sql);
}

bool journal_writer::prepare(const char *sql, statement &out) {
    sqlite3_stmt *prepared = nullptr;
    if (sqlite3_prepare_v2(db_.get(), sql, -1, &prepared, nullptr) != SQLITE_OK) {
        return fail(sql);
    }
    out.reset(prepared);
    return true;
}

bool journal_writer::read_number(const char *sql, std::int64_t &out) {
    statement query(nullptr, &sqlite3_finalize);
    if (!prepare(sql, query)) {
        return false;
    }
    if (sqlite3_step(query.get()) != SQLITE_ROW) {
        query.reset();
        return fail(sql);
    }
    out = sqlite3_column_int64(query.get(), 0);
    return true;
}

/* Notes why, closes the file, which takes back the transaction, and puts a damaged file aside.
 * Always false. */
bool journal_writer::fail(const char *what) {
    const int code = sqlite3_errcode(db_.get());
    const std::string reason = sqlite3_errmsg(db_.get());
    problem_ = std::string(what) + ": " + reason;
    close();
    if (is_damage(code)) {
        put_aside(reason);
    }
    return false;
}

void journal_writer::put_aside(const std::string &reason) {
    close();
    const std::string aside = path_ + GATEWAY_UNUSABLE_SUFFIX;
    kze_log(1, "%s can't be used: %s; it is now %s, and a new one is begun", path_.c_str(),
            reason.c_str(), aside.c_str());
    /* Its unfinished part goes with it: together they may still be read. */
    kze_path_del_file_u((aside + "-wal").c_str());
    kze_file_rename((path_ + "-wal").c_str(), (aside + "-wal").c_str());
    kze_path_del_file_u((path_ + "-shm").c_str());
    kze_file_rename(path_.c_str(), aside.c_str());
    problem_ = reason;
}

void journal_writer::close() {
    insert_.reset();
    count_.reset();
    db_.reset();
}

}  // namespace kze::gateway
