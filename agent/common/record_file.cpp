#include "agent/common/record_file.h"

#include <chrono>
#include <utility>

namespace kze {

std::int64_t now_us() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

record_file::record_file(std::string path, const record_form &form)
    : path_(std::move(path)), form_(form), db_(nullptr, &sqlite3_close_v2) {}

bool record_file::open_connection(int flags, int busy_ms) {
    sqlite3 *opened = nullptr;
    const int code = sqlite3_open_v2(path_.c_str(), &opened, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    db_.reset(opened);
    if (code != SQLITE_OK) {
        return note_failure();
    }
    sqlite3_busy_timeout(db_.get(), busy_ms);
    return true;
}

bool record_file::is_in_place() const {
    int moved = 0;
    return sqlite3_file_control(db_.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK &&
           moved == 0;
}

record_file::statement record_file::prepare(const std::string &sql) const {
    sqlite3_stmt *made = nullptr;
    sqlite3_prepare_v2(db_.get(), sql.c_str(), -1, &made, nullptr);
    return statement(made, &sqlite3_finalize);
}

std::optional<std::int64_t> record_file::number(const std::string &sql) const {
    const statement query = prepare(sql);
    return sqlite3_step(query.get()) == SQLITE_ROW
               ? std::optional(sqlite3_column_int64(query.get(), 0))
               : std::nullopt;
}

bool record_file::note_failure() {
    problem_ = path_ + ": " + sqlite3_errmsg(db_.get());
    return false;
}

}  // namespace kze
