#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "agent/common/record_file.h"
#include "kzautil.h"
#include "platform/common/descriptor.h"
#include "vrdbase.h"

namespace kze {
namespace {

std::string schema_of(const record_form &form) {
    const std::string kind =
        form.kind == nullptr ? "" : std::string(form.kind) + " INTEGER NOT NULL, ";
    return std::string("BEGIN IMMEDIATE; CREATE TABLE ") + form.table +
           "(id INTEGER PRIMARY KEY AUTOINCREMENT, " + form.time + " INTEGER NOT NULL, " + kind +
           "size INTEGER NOT NULL, data BLOB NOT NULL);" + form.further +
           "PRAGMA user_version = 1; COMMIT;";
}
static_assert(records_version == 1, "the schema above writes the version");

std::string insertion_of(const record_form &form) {
    const bool has_kind = form.kind != nullptr;
    return std::string("INSERT INTO ") + form.table + "(" + form.time + ", size, data" +
           (has_kind ? std::string(", ") + form.kind : "") + ") VALUES(?1, ?2, ?3" +
           (has_kind ? ", ?4)" : ")");
}

void bind(sqlite3_stmt *to, int place, const record_writer::value &bound) {
    if (const auto *number = std::get_if<std::int64_t>(&bound)) {
        sqlite3_bind_int64(to, place, *number);
        return;
    }
    const std::string_view bytes = std::get<std::string_view>(bound);
    /* A null pointer would be bound as NULL. */
    sqlite3_bind_blob64(to, place, bytes.empty() ? "" : bytes.data(), bytes.size(), SQLITE_STATIC);
}

}  // namespace

record_writer::record_writer(std::string path, const record_form &form)
    : record_file(std::move(path), form), insert_(insertion_of(form)) {}

std::optional<std::int64_t> record_writer::append(const new_record &record) {
    std::int64_t id = 0;
    const bool kept = transaction([&] {
        if (!add(record)) {
            return false;
        }
        id = sqlite3_last_insert_rowid(db_.get());
        return drop_oldest();
    });
    return kept ? std::optional(id) : std::nullopt;
}

bool record_writer::replace(std::int64_t id, std::string_view data) {
    return transaction([&] {
        if (!run(std::string("UPDATE ") + form_.table + " SET size = ?2, data = ?3 WHERE id = ?1",
                 {id, static_cast<std::int64_t>(data.size()), data})) {
            return false;
        }
        if (sqlite3_changes(db_.get()) != 1) {
            problem_ = path_ + " no longer has the record " + std::to_string(id);
            return false;
        }
        return drop_oldest();
    });
}

bool record_writer::transaction(const std::function<bool()> &body) {
    for (int attempt = 1; attempt <= 2 && open(); ++attempt) {
        again_ = false;
        if (run("BEGIN IMMEDIATE")) {
            if (body() && run("COMMIT")) {
                return true;
            }
            if (db_ != nullptr) {
                run("ROLLBACK");
            }
        }
        if (!again_) {
            break;
        }
    }
    return false;
}

bool record_writer::add(const new_record &record) {
    return run(insert_, {record.time_us, record.size, record.data, std::int64_t{record.kind}});
}

bool record_writer::run(const std::string &sql, std::initializer_list<value> values) {
    sqlite3_stmt *const ready = prepared(sql);
    if (ready == nullptr) {
        return fail();
    }
    int place = 0;
    for (const value &each : values) {
        bind(ready, ++place, each);
    }
    const int code = sqlite3_step(ready);
    sqlite3_reset(ready);
    sqlite3_clear_bindings(ready);
    return code == SQLITE_DONE || fail();
}

sqlite3_stmt *record_writer::prepared(const std::string &sql) {
    auto found = statements_.find(sql);
    if (found == statements_.end()) {
        found = statements_.emplace(sql, prepare(sql)).first;
    }
    return found->second.get();
}

/* Numbers have no gaps, so that the newest ones end at a number. */
bool record_writer::drop_oldest() {
    const std::string table = form_.table;
    if (form_.most_records != 0 &&
        !run("DELETE FROM " + table + " WHERE id <= (SELECT max(id) FROM " + table + ") - ?1",
             {form_.most_records})) {
        return false;
    }
    return form_.most_bytes == 0 ||
           run("DELETE FROM " + table + " WHERE id < (SELECT max(id) FROM " + table +
                   ") AND id <= (SELECT max(id) FROM (SELECT id, sum(size) OVER (ORDER BY id DESC)"
                   " AS bytes FROM " +
                   table + ") WHERE bytes > ?1)",
               {form_.most_bytes});
}

bool record_writer::open() {
    again_ = false;
    return ensure_open() || (again_ && ensure_open());
}

bool record_writer::ensure_open() {
    struct stat info {};
    if (db_ != nullptr && ::stat(path_.c_str(), &info) == 0 && info.st_size == 0) {
        ::unlink(path_.c_str()); /* closing it would put a part of it back */
    }
    if (db_ != nullptr && is_in_place()) {
        return true;
    }
    if (db_ != nullptr) { /* one that was moved takes with it what SQLite kept beside it */
        sqlite3_wal_checkpoint_v2(db_.get(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    }
    close();
    kze_dirutils_mkdir(path_.substr(0, path_.rfind('/')).c_str(), 0700);
    /* SQLite's own files take the permissions of the first one: what is in it is nobody else's. */
    descriptor made(::open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!made.valid() && errno != EEXIST) {
        problem_ = path_ + ": " + std::strerror(errno);
        return false;
    }
    if (::stat(path_.c_str(), &info) == 0 && info.st_size == 0) {
        /* Those of a file that was here before. A reader of it may yet put them back. */
        again_ = true;
        ::unlink((path_ + "-wal").c_str());
        ::unlink((path_ + "-shm").c_str());
    }
    made.reset(); /* now, for it would take SQLite's locks with it */
    return (open_connection(SQLITE_OPEN_READWRITE, form_.patience_ms) && set_up()) ||
           (db_ != nullptr && fail());
}

bool record_writer::set_up() {
    const std::string modes = std::string("PRAGMA journal_mode = WAL; PRAGMA synchronous = ") +
                              (form_.synced ? "NORMAL" : "OFF") +
                              "; PRAGMA journal_size_limit = 67108864;";
    if (sqlite3_exec(db_.get(), modes.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        return false;
    }
    const auto version = number("PRAGMA user_version");
    const auto tables = number("SELECT count(*) FROM sqlite_master");
    if (!version || !tables) {
        return false;
    }
    if (*version == 0 && *tables == 0) {
        return sqlite3_exec(db_.get(), schema_of(form_).c_str(), nullptr, nullptr, nullptr) ==
               SQLITE_OK;
    }
    if (*version != records_version) {
        put_aside(std::string("it ") + form_.foreign);
        return false;
    }
    return true;
}

void record_writer::close() {
    statements_.clear();
    db_.reset();
}

/* Notes why, closes the file, which takes back the transaction, and puts a damaged file aside.
 * Always false. */
bool record_writer::fail() {
    const int code = sqlite3_errcode(db_.get());
    note_failure();
    close();
    if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB) {
        put_aside(problem_);
    }
    return false;
}

void record_writer::put_aside(const std::string &reason) {
    close();
    again_ = true;
    problem_ = reason;
    const std::string aside = path_ + unusable_suffix;
    kze_log(1, "%s can't be used: %s; it is now %s, and a new one is begun", path_.c_str(),
            reason.c_str(), aside.c_str());
    /* Its unfinished part goes with it: together they may still be read. */
    kze_path_del_file_u((aside + "-wal").c_str());
    kze_file_rename((path_ + "-wal").c_str(), (aside + "-wal").c_str());
    kze_path_del_file_u((path_ + "-shm").c_str());
    kze_file_rename(path_.c_str(), aside.c_str());
}

}  // namespace kze
