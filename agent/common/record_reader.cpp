#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "agent/common/record_file.h"

namespace kze {
namespace {

constexpr int busy_ms = 2000;

std::string bytes_in(sqlite3_stmt *row, int column) {
    const void *bytes = sqlite3_column_blob(row, column);
    const int size = sqlite3_column_bytes(row, column);
    return bytes == nullptr
               ? std::string()
               : std::string(static_cast<const char *>(bytes), static_cast<std::size_t>(size));
}

}  // namespace

std::optional<std::vector<kept_record>> record_reader::list(std::int64_t after, unsigned int limit,
                                                            int kind) {
    /* Two texts, as one with "kind = ? OR ? = 0" would use no index. */
    const std::string chosen = kind == 0 ? "" : std::string(form_.kind) + " = ?3 AND ";
    return records(select(form_.beginning) + " WHERE " + chosen + "id > ?1 ORDER BY id LIMIT ?2",
                   {after, limit, kind});
}

std::optional<std::vector<kept_record>> record_reader::newest(unsigned int limit, int kind) {
    const std::string chosen = kind == 0 ? "" : std::string(form_.kind) + " = ?2 AND ";
    auto found =
        records(select(form_.beginning) + " WHERE " + chosen + "id > 0 ORDER BY id DESC LIMIT ?1",
                {limit, kind});
    if (found) {
        std::reverse(found->begin(), found->end());
    }
    return found;
}

std::optional<std::vector<kept_record>> record_reader::next(std::int64_t &after, unsigned int limit,
                                                            int kind) {
    if (!ensure_open() && !absent_) {
        return std::nullopt;
    }
    if (absent_ || begun_anew_) {
        after = 0;
        begun_anew_ = false;
    }
    auto found = list(after, limit, kind);
    if (found && !found->empty()) {
        after = found->back().id;
    }
    return found;
}

std::optional<std::vector<kept_record>> record_reader::show(std::int64_t id) {
    return records(select("size") + " WHERE id = ?1", {id});
}

std::optional<std::int64_t> record_reader::newest_id() {
    std::int64_t id = 0;
    const bool read = rows(std::string("SELECT max(id) FROM ") + form_.table, {},
                           [&](sqlite3_stmt *row) { id = sqlite3_column_int64(row, 0); });
    return read ? std::optional(id) : std::nullopt;
}

std::optional<std::map<std::string, std::int64_t>> record_reader::numbers(
    const std::string &table) {
    std::map<std::string, std::int64_t> found;
    const bool read = rows("SELECT name, value FROM " + table, {}, [&](sqlite3_stmt *row) {
        found[bytes_in(row, 0)] = sqlite3_column_int64(row, 1);
    });
    return read ? std::optional(found) : std::nullopt;
}

std::string record_reader::select(const std::string &data) const {
    return std::string("SELECT id, ") + form_.time + ", size, " +
           (form_.kind == nullptr ? "0" : form_.kind) + ", substr(data, 1, " + data + ") FROM " +
           form_.table;
}

std::optional<std::vector<kept_record>> record_reader::records(
    const std::string &sql, std::initializer_list<std::int64_t> values) {
    std::vector<kept_record> found;
    const bool read = rows(sql, values, [&](sqlite3_stmt *row) {
        found.push_back({sqlite3_column_int64(row, 0), sqlite3_column_int64(row, 1),
                         sqlite3_column_int64(row, 2), sqlite3_column_int(row, 3),
                         bytes_in(row, 4)});
    });
    return read ? std::optional(std::move(found)) : std::nullopt;
}

/* True also for a file that isn't there. */
bool record_reader::rows(const std::string &sql, std::initializer_list<std::int64_t> values,
                         const std::function<void(sqlite3_stmt *)> &each) {
    if (!ensure_open()) {
        return absent_;
    }
    const statement query = prepare(sql);
    int place = 0;
    for (const std::int64_t value : values) {
        sqlite3_bind_int64(query.get(), ++place, value); /* those that the text doesn't use go */
    }
    int code = SQLITE_ROW;
    while ((code = sqlite3_step(query.get())) == SQLITE_ROW) {
        each(query.get());
    }
    return code == SQLITE_DONE || fail();
}

/* A file of version 0 has been made, and its table not yet. */
bool record_reader::ensure_open() {
    absent_ = false;
    if (db_ != nullptr && is_in_place()) {
        return true;
    }
    begun_anew_ = begun_anew_ || db_ != nullptr;
    db_.reset();
    struct stat info {};
    if (::stat(path_.c_str(), &info) != 0) {
        absent_ = errno == ENOENT;
        problem_ = path_ + ": " + std::strerror(errno);
        return false;
    }
    if (!open_connection(SQLITE_OPEN_READONLY, busy_ms)) {
        return fail();
    }
    const auto version = number("PRAGMA user_version");
    if (!version) {
        return fail();
    }
    if (*version == records_version) {
        return true;
    }
    absent_ = *version == 0;
    problem_ = path_ + (absent_ ? " is being made" : std::string(" ") + form_.foreign);
    db_.reset();
    return false;
}

bool record_reader::fail() {
    note_failure();
    db_.reset();
    return false;
}

}  // namespace kze
