#include "agent/services/record_reader.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace kze::services {
namespace {

constexpr int busy_ms = 2000;

using statement = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)>;

statement prepare(sqlite3 *db, const char *sql) {
    sqlite3_stmt *prepared = nullptr;
    sqlite3_prepare_v2(db, sql, -1, &prepared, nullptr);
    return statement(prepared, &sqlite3_finalize);
}

kept_record record_of(sqlite3_stmt *row) {
    kept_record record;
    record.id = sqlite3_column_int64(row, 0);
    record.received_us = sqlite3_column_int64(row, 1);
    record.size = sqlite3_column_int64(row, 2);
    const void *bytes = sqlite3_column_blob(row, 3);
    const int size = sqlite3_column_bytes(row, 3);
    if (bytes != nullptr) {
        record.data.assign(static_cast<const char *>(bytes), static_cast<std::size_t>(size));
    }
    return record;
}

std::string beginnings(const record_kind &kind) {
    return "SELECT id, received_us, size, substr(data, 1, " + std::to_string(kind.beginning) +
           ") FROM " + kind.table;
}

}  // namespace

record_reader::record_reader(std::string path, const record_kind &kind)
    : path_(std::move(path)), kind_(kind) {}

std::optional<std::vector<kept_record>> record_reader::list(std::int64_t after_id,
                                                            unsigned int limit) {
    return read(beginnings(kind_) + " WHERE id > ?1 ORDER BY id LIMIT ?2", after_id, limit);
}

std::optional<std::vector<kept_record>> record_reader::newest(unsigned int limit) {
    auto found = read(beginnings(kind_) + " WHERE id > ?1 ORDER BY id DESC LIMIT ?2", 0, limit);
    if (found) {
        std::reverse(found->begin(), found->end());
    }
    return found;
}

std::optional<std::vector<kept_record>> record_reader::show(std::int64_t id) {
    return read(std::string("SELECT id, received_us, size, data FROM ") + kind_.table +
                    " WHERE id = ?1 LIMIT ?2",
                id, 1);
}

std::optional<std::int64_t> record_reader::newest_id() {
    const auto found = newest(1);
    if (!found) {
        return std::nullopt;
    }
    return found->empty() ? 0 : found->back().id;
}

std::optional<std::vector<kept_record>> record_reader::read(const std::string &sql,
                                                            std::int64_t first,
                                                            std::int64_t second) {
    std::vector<kept_record> found;
    struct stat info {};
    if (stat(path_.c_str(), &info) != 0 && errno == ENOENT) {
        return found;
    }
    sqlite3 *opened = nullptr;
    const int code = sqlite3_open_v2(path_.c_str(), &opened,
                                     SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    const database db(opened, &sqlite3_close_v2);
    if (code != SQLITE_OK) {
        fail(db.get());
        return std::nullopt;
    }
    sqlite3_busy_timeout(db.get(), busy_ms);
    if (!is_ours(db.get())) {
        return problem_.empty() ? std::optional(found) : std::nullopt;
    }
    const statement rows = prepare(db.get(), sql.c_str());
    sqlite3_bind_int64(rows.get(), 1, first);
    sqlite3_bind_int64(rows.get(), 2, second);
    int step = SQLITE_ROW;
    while ((step = sqlite3_step(rows.get())) == SQLITE_ROW) {
        found.push_back(record_of(rows.get()));
    }
    if (step != SQLITE_DONE) {
        fail(db.get());
        return std::nullopt;
    }
    return found;
}

/* Without a problem where it is false, the file has been made and its table not yet. */
bool record_reader::is_ours(sqlite3 *db) {
    problem_.clear();
    const statement query = prepare(db, "PRAGMA user_version");
    if (sqlite3_step(query.get()) != SQLITE_ROW) {
        return fail(db);
    }
    const int version = sqlite3_column_int(query.get(), 0);
    if (version != 0 && version != records_version) {
        problem_ = path_ + " holds no " + kind_.noun + " of version 1";
    }
    return version == records_version;
}

bool record_reader::fail(sqlite3 *db) {
    problem_ = path_ + ": " + sqlite3_errmsg(db);
    return false;
}

}  // namespace kze::services
