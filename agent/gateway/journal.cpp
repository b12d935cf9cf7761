#include "agent/gateway/journal.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <thread>
#include <utility>

#include "agent/gateway/gateway.h"
#include "engine/qd_client.h"

namespace kze::gateway {
namespace {

constexpr int busy_ms = 2000;
static_assert(GATEWAY_JOURNAL_VERSION == 1, "the text below names the version");
constexpr unsigned int follow_batch = 256;

/* What entry_of reads. The beginning is a header, an order's result as far as a list shows it, or
 * all of a short kind whose content a list shows. */
#define ENTRY_COLUMNS                                                                            \
    "id, accepted_us, type, size, "                                                              \
    "substr(data, 1, CASE WHEN type IN (8, 9) THEN 4096 WHEN type IN (2, 3, 4) THEN 80 ELSE 20 " \
    "END)"

struct type_name {
    int type;
    const char *name;
};

constexpr type_name type_names[] = {
    {KZEMM_DATA_ALARM, "alarm"},
    {KZEMM_DATA_LINKAGE, "linkage"},
    {KZEMM_DATA_APPEND, "append"},
    {KZEMM_DATA_HUNTING, "hunting"},
    {KZEMM_DATA_ORIGIN, "origin"},
    {KZEMM_DATA_CTMIOA_RESULT, "ctmioa_result"},
    {KZEMM_DATA_CTMIOA_HELLO, "ctmioa_hello"},
    {KZEMM_DATA_CREDIBLE, "credible"},
};

std::string column_bytes(sqlite3_stmt *row, int column) {
    const void *bytes = sqlite3_column_blob(row, column);
    const int size = sqlite3_column_bytes(row, column);
    return bytes == nullptr
               ? std::string()
               : std::string(static_cast<const char *>(bytes), static_cast<std::size_t>(size));
}

journal_entry entry_of(sqlite3_stmt *row) {
    journal_entry entry;
    entry.id = sqlite3_column_int64(row, 0);
    entry.accepted_us = sqlite3_column_int64(row, 1);
    entry.type = sqlite3_column_int(row, 2);
    entry.size = sqlite3_column_int64(row, 3);
    entry.beginning = column_bytes(row, 4);
    return entry;
}

}  // namespace

const char *data_type_name(int type) {
    for (const type_name &known : type_names) {
        if (known.type == type) {
            return known.name;
        }
    }
    return "unknown";
}

int data_type_number(const std::string &name) {
    for (const type_name &known : type_names) {
        if (name == known.name) {
            return known.type;
        }
    }
    return 0;
}

journal_reader::journal_reader(std::string path)
    : path_(std::move(path)), db_(nullptr, &sqlite3_close) {}

void journal_reader::fail() {
    problem_ = path_ + ": " + sqlite3_errmsg(db_.get());
}

bool journal_reader::is_in_place() {
    int moved = 0;
    return sqlite3_file_control(db_.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK &&
           moved == 0;
}

journal_reader::file_state journal_reader::ensure_open() {
    if (db_ != nullptr && is_in_place()) {
        return file_state::ready;
    }
    db_.reset();
    struct stat info {};
    if (stat(path_.c_str(), &info) != 0) {
        const bool absent = errno == ENOENT;
        problem_ = absent ? nothing_yet() : path_ + ": " + std::strerror(errno);
        return absent ? file_state::absent : file_state::broken;
    }
    sqlite3 *opened = nullptr;
    const int code = sqlite3_open_v2(path_.c_str(), &opened,
                                     SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    db_.reset(opened);
    if (code != SQLITE_OK) {
        fail();
        db_.reset();
        return file_state::broken;
    }
    sqlite3_busy_timeout(db_.get(), busy_ms);
    const file_state state = check_version();
    if (state != file_state::ready) {
        db_.reset();
    }
    return state;
}

/* A file of version 0 has been made, and its tables not yet. */
journal_reader::file_state journal_reader::check_version() {
    const statement query = prepare("PRAGMA user_version");
    if (query == nullptr) {
        return file_state::broken;
    }
    if (sqlite3_step(query.get()) != SQLITE_ROW) {
        fail();
        return file_state::broken;
    }
    const int version = sqlite3_column_int(query.get(), 0);
    if (version == 0) {
        problem_ = nothing_yet();
        return file_state::absent;
    }
    if (version != GATEWAY_JOURNAL_VERSION) {
        problem_ = path_ + " is no journal of version 1";
        return file_state::broken;
    }
    return file_state::ready;
}

std::string journal_reader::nothing_yet() const {
    return "there is no journal at " + path_ + ": nothing has been handed to the gateway yet";
}

journal_reader::statement journal_reader::prepare(const char *sql) {
    sqlite3_stmt *prepared = nullptr;
    if (sqlite3_prepare_v2(db_.get(), sql, -1, &prepared, nullptr) != SQLITE_OK) {
        fail();
    }
    return statement(prepared, &sqlite3_finalize);
}

journal_reader::statement journal_reader::query(const char *sql) {
    const file_state state = ensure_open();
    absent_ = state == file_state::absent;
    return state == file_state::ready ? prepare(sql) : statement(nullptr, &sqlite3_finalize);
}

std::optional<std::vector<journal_entry>> journal_reader::entries(const char *sql,
                                                                  std::int64_t after_id, int type,
                                                                  unsigned int limit) {
    const statement rows = query(sql);
    if (rows == nullptr) {
        return std::nullopt;
    }
    sqlite3_bind_int64(rows.get(), 1, after_id);
    sqlite3_bind_int(rows.get(), 2, type);
    sqlite3_bind_int64(rows.get(), 3, limit);
    std::vector<journal_entry> found;
    int code = SQLITE_ROW;
    while ((code = sqlite3_step(rows.get())) == SQLITE_ROW) {
        found.push_back(entry_of(rows.get()));
    }
    if (code != SQLITE_DONE) {
        fail();
        return std::nullopt;
    }
    return found;
}

std::optional<std::vector<journal_entry>> journal_reader::list(std::int64_t after_id, int type,
                                                               unsigned int limit) {
    /* Two texts, as one with "type = ?2 OR ?2 = 0" would use no index. */
    return entries(type == 0 ? "SELECT " ENTRY_COLUMNS
                               " FROM records WHERE id > ?1 ORDER BY id LIMIT ?3"
                             : "SELECT " ENTRY_COLUMNS
                               " FROM records WHERE type = ?2 AND id > ?1 ORDER BY id LIMIT ?3",
                   after_id, type, limit);
}

std::optional<std::vector<journal_entry>> journal_reader::newest(int type, unsigned int limit) {
    auto found = entries(
        type == 0 ? "SELECT " ENTRY_COLUMNS " FROM records WHERE id > ?1 ORDER BY id DESC LIMIT ?3"
                  : "SELECT " ENTRY_COLUMNS
                    " FROM records WHERE type = ?2 AND id > ?1 ORDER BY id DESC LIMIT ?3",
        0, type, limit);
    if (found) {
        std::reverse(found->begin(), found->end());
    }
    return found;
}

std::optional<journal_record> journal_reader::show(std::int64_t id) {
    const statement rows = query("SELECT " ENTRY_COLUMNS ", data FROM records WHERE id = ?1");
    if (rows == nullptr) {
        return std::nullopt;
    }
    sqlite3_bind_int64(rows.get(), 1, id);
    const int code = sqlite3_step(rows.get());
    if (code == SQLITE_DONE) {
        problem_ = "there is no record " + std::to_string(id) + " in the journal";
        return std::nullopt;
    }
    if (code != SQLITE_ROW) {
        fail();
        return std::nullopt;
    }
    journal_record found;
    found.entry = entry_of(rows.get());
    found.data = column_bytes(rows.get(), 5);
    return found;
}

std::optional<std::map<std::string, std::int64_t>> journal_reader::counters() {
    const statement rows = query("SELECT name, value FROM counters");
    if (rows == nullptr) {
        return std::nullopt;
    }
    std::map<std::string, std::int64_t> found;
    int code = SQLITE_ROW;
    while ((code = sqlite3_step(rows.get())) == SQLITE_ROW) {
        found[column_bytes(rows.get(), 0)] = sqlite3_column_int64(rows.get(), 1);
    }
    if (code != SQLITE_DONE) {
        fail();
        return std::nullopt;
    }
    return found;
}

bool journal_reader::follow(std::int64_t after_id, int type, std::chrono::milliseconds period,
                            const std::function<void(const journal_entry &)> &each,
                            const std::function<bool()> &keep_going) {
    while (keep_going()) {
        if (db_ != nullptr && !is_in_place()) {
            db_.reset();
            after_id = 0;
        }
        const file_state state = ensure_open();
        if (state == file_state::absent) {
            after_id = 0;
            std::this_thread::sleep_for(period);
            continue;
        }
        const auto found = list(after_id, type, follow_batch);
        if (!found) {
            return false;
        }
        for (const journal_entry &entry : *found) {
            each(entry);
            after_id = entry.id;
        }
        if (found->size() < follow_batch) {
            std::this_thread::sleep_for(period);
        }
    }
    return true;
}

}  // namespace kze::gateway
