/* The linkage replies that are kept: the writing side. */
#ifndef KZE_AGENT_SERVICES_REPLY_STORE_H
#define KZE_AGENT_SERVICES_REPLY_STORE_H

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace kze::services {

constexpr char replies_path[] = "@/../var/lib/linkage.db";
/* Of the file, in its user_version. */
constexpr int replies_version = 1;

/* The newest replies are kept, at most so many. One that alone is above the bytes is kept alone. */
struct reply_bounds {
    std::int64_t replies = 1000;
    std::int64_t bytes = std::int64_t{64} << 20; /* of the replies' data */
};

/*
 * An SQLite file in write-ahead mode. Each reply is a transaction: it outlives the process from
 * add's return on, and a crash at any point leaves whole replies. A file that can't be used is put
 * aside as <path>.unusable; one that is moved away is begun anew. One thread at a time.
 */
class reply_store {
  public:
    /* Nothing is opened or made yet. */
    explicit reply_store(std::string path, const reply_bounds &bounds = {});

    /* Keeps a reply, which came now. False when it can't be written; it may be tried again. */
    bool add(std::string_view data);
    /* Why the last add failed. */
    const std::string &problem() const { return problem_; }

  private:
    using statement = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)>;

    bool ensure_open();
    bool is_in_place();
    bool open_file();
    bool set_up();
    bool set_up_schema();
    bool insert(std::string_view data);
    bool drop_oldest();
    bool run(const char *sql);
    statement prepare(const char *sql);
    bool read_number(const char *sql, std::int64_t &out);
    bool fail();
    void put_aside(const std::string &reason);

    const std::string path_;
    const reply_bounds bounds_;
    std::unique_ptr<sqlite3, int (*)(sqlite3 *)> db_;
    std::string problem_;
};

}  // namespace kze::services

#endif
