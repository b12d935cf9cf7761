#include "agent/services/record_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "kzautil.h"
#include "vrdbase.h"

namespace kze::services {
namespace {

constexpr int busy_ms = 1000;

std::string schema(const std::string &table) {
    return "BEGIN IMMEDIATE;"
           "CREATE TABLE " +
           table +
           "("
           " id INTEGER PRIMARY KEY AUTOINCREMENT,"
           " received_us INTEGER NOT NULL,"
           " size INTEGER NOT NULL,"
           " data BLOB NOT NULL);"
           "PRAGMA user_version = 1;"
           "COMMIT;";
}
static_assert(records_version == 1, "the schema above writes the version");

std::int64_t now_us() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

}  // namespace

record_store::record_store(std::string path, const record_kind &kind, const record_bounds &bounds)
    : path_(std::move(path)), kind_(kind), bounds_(bounds), db_(nullptr, &sqlite3_close_v2) {}

std::optional<std::int64_t> record_store::add(std::string_view data) {
    if (!ensure_open() || !run("BEGIN IMMEDIATE") || !insert(data)) {
        return std::nullopt;
    }
    const std::int64_t id = sqlite3_last_insert_rowid(db_.get());
    return drop_oldest() && run("COMMIT") ? std::optional(id) : std::nullopt;
}

bool record_store::replace(std::int64_t id, std::string_view data) {
    return ensure_open() && run("BEGIN IMMEDIATE") && update(id, data) && drop_oldest() &&
           run("COMMIT");
}

bool record_store::ensure_open() {
    if (db_ != nullptr && is_in_place()) {
        return true;
    }
    db_.reset();
    return open_file() && set_up();
}

/* Whoever moves the file away expects a new one, not replies in one without a name. */
bool record_store::is_in_place() {
    int moved = 0;
    return sqlite3_file_control(db_.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK &&
           moved == 0;
}

bool record_store::open_file() {
    kze_dirutils_mkdir(path_.substr(0, path_.rfind('/')).c_str(), 0700);
    /* SQLite's own files take the permissions of the first one: what is in it is nobody else's. */
    const int file = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600);
    if (file < 0) {
        problem_ = path_ + ": " + std::strerror(errno);
        return false;
    }
    ::close(file);
    sqlite3 *opened = nullptr;
    const int code = sqlite3_open_v2(path_.c_str(), &opened,
                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    db_.reset(opened);
    if (code != SQLITE_OK) {
        return fail();
    }
    sqlite3_busy_timeout(db_.get(), busy_ms);
    return true;
}

bool record_store::set_up() {
    return run("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;"
               "PRAGMA journal_size_limit = 67108864;") &&
           set_up_schema();
}

bool record_store::set_up_schema() {
    std::int64_t version = 0;
    std::int64_t tables = 0;
    if (!read_number("PRAGMA user_version", version) ||
        !read_number("SELECT count(*) FROM sqlite_master", tables)) {
        return false;
    }
    if (version == 0 && tables == 0) {
        return run(schema(kind_.table));
    }
    if (version != records_version) {
        put_aside(std::string("it holds no ") + kind_.noun + " of version 1");
        return false;
    }
    return true;
}

bool record_store::insert(std::string_view data) {
    const statement row = prepare(std::string("INSERT INTO ") + kind_.table +
                                  "(received_us, size, data) VALUES(?1, ?2, ?3)");
    if (row == nullptr) {
        return false;
    }
    sqlite3_bind_int64(row.get(), 1, now_us());
    sqlite3_bind_int64(row.get(), 2, static_cast<std::int64_t>(data.size()));
    /* A null pointer would be bound as NULL. */
    sqlite3_bind_blob64(row.get(), 3, data.empty() ? "" : data.data(), data.size(), SQLITE_STATIC);
    return sqlite3_step(row.get()) == SQLITE_DONE || fail();
}

bool record_store::update(std::int64_t id, std::string_view data) {
    const statement row =
        prepare(std::string("UPDATE ") + kind_.table + " SET size = ?2, data = ?3 WHERE id = ?1");
    if (row == nullptr) {
        return false;
    }
    sqlite3_bind_int64(row.get(), 1, id);
    sqlite3_bind_int64(row.get(), 2, static_cast<std::int64_t>(data.size()));
    sqlite3_bind_blob64(row.get(), 3, data.empty() ? "" : data.data(), data.size(), SQLITE_STATIC);
    if (sqlite3_step(row.get()) != SQLITE_DONE) {
        return fail();
    }
    if (sqlite3_changes(db_.get()) == 1) {
        return true;
    }
    run("ROLLBACK");
    problem_ = path_ + " no longer has the record " + std::to_string(id);
    return false;
}

/* All that is older than the newest records which are within the bounds; never the newest one. */
bool record_store::drop_oldest() {
    const std::string table = kind_.table;
    const statement rows =
        prepare("DELETE FROM " + table + " WHERE id < (SELECT max(id) FROM " + table +
                ") AND id NOT IN"
                " (SELECT id FROM (SELECT id, sum(size) OVER (ORDER BY id DESC) AS bytes,"
                "  row_number() OVER (ORDER BY id DESC) AS place FROM " +
                table + ")  WHERE place <= ?1 AND bytes <= ?2)");
    if (rows == nullptr) {
        return false;
    }
    sqlite3_bind_int64(rows.get(), 1, bounds_.records);
    sqlite3_bind_int64(rows.get(), 2, bounds_.bytes);
    return sqlite3_step(rows.get()) == SQLITE_DONE || fail();
}

bool record_store::run(const std::string &sql) {
    return sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK || fail();
}

record_store::statement record_store::prepare(const std::string &sql) {
    sqlite3_stmt *prepared = nullptr;
    if (sqlite3_prepare_v2(db_.get(), sql.c_str(), -1, &prepared, nullptr) != SQLITE_OK) {
        fail();
    }
    return statement(prepared, &sqlite3_finalize);
}

bool record_store::read_number(const char *sql, std::int64_t &out) {
    statement query = prepare(sql);
    if (query == nullptr) {
        return false;
    }
    if (sqlite3_step(query.get()) != SQLITE_ROW) {
        query.reset();
        return fail();
    }
    out = sqlite3_column_int64(query.get(), 0);
    return true;
}

/* Notes why, closes the file, which takes back the transaction, and puts a damaged file aside.
 * Always false. */
bool record_store::fail() {
    const int code = sqlite3_errcode(db_.get());
    problem_ = path_ + ": " + sqlite3_errmsg(db_.get());
    db_.reset();
    if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB) {
        put_aside(problem_);
    }
    return false;
}

void record_store::put_aside(const std::string &reason) {
    problem_ = reason;
    db_.reset();
    const std::string aside = path_ + ".unusable";
    kze_log(1, "%s can't be used: %s; it is now %s, and a new one is begun", path_.c_str(),
            reason.c_str(), aside.c_str());
    /* Its unfinished part goes with it: together they may still be read. */
    kze_path_del_file_u((aside + "-wal").c_str());
    kze_file_rename((path_ + "-wal").c_str(), (aside + "-wal").c_str());
    kze_path_del_file_u((path_ + "-shm").c_str());
    kze_file_rename(path_.c_str(), aside.c_str());
}

}  // namespace kze::services
