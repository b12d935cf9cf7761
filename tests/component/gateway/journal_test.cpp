/* Reading the gateway's journal. */
#include "agent/gateway/journal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <thread>

#include "tests/support/process_state.h"
#include "tests/support/temp_tree.h"

namespace {

using kze::gateway::journal_entry;
using kze::gateway::journal_reader;
using testing::HasSubstr;

constexpr char tables[] =
    "PRAGMA journal_mode = WAL;"
    "CREATE TABLE records(id INTEGER PRIMARY KEY AUTOINCREMENT, accepted_us INTEGER NOT NULL,"
    " type INTEGER NOT NULL, size INTEGER NOT NULL, data BLOB NOT NULL);"
    "CREATE INDEX records_by_type ON records(type, id);"
    "CREATE TABLE counters(name TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;"
    "PRAGMA user_version = 1;";

class journal : public testing::Test {
  protected:
    void TearDown() override { sqlite3_close(db_); }

    void run(const std::string &sql) {
        if (db_ == nullptr) {
            ASSERT_EQ(sqlite3_open(path_.c_str(), &db_), SQLITE_OK);
        }
        ASSERT_EQ(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(db_);
    }
    void add(int type, const std::string &text) {
        run("INSERT INTO records(accepted_us, type, size, data) VALUES(1000, " +
            std::to_string(type) + ", " + std::to_string(text.size()) + ", CAST('" + text +
            "' AS BLOB))");
    }
    /* A journal of records 1 to 6, of the types 1, 5, 1, 5, 1, 5. */
    void fill() {
        run(tables);
        for (int i = 1; i <= 6; ++i) {
            add(i % 2 == 1 ? 1 : 5, "record number " + std::to_string(i) + " of six");
        }
    }

    kze_test::temp_tree tree_;
    std::string path_ = tree_.path("var/gateway.db");
    sqlite3 *db_ = nullptr;
    journal_reader reader_{path_};
};

std::vector<std::int64_t> ids(const std::optional<std::vector<journal_entry>> &entries) {
    std::vector<std::int64_t> found;
    for (const journal_entry &entry : entries.value()) {
        found.push_back(entry.id);
    }
    return found;
}

TEST_F(journal, lists_in_order_after_an_id_of_one_type_and_up_to_a_limit) {
    fill();
    EXPECT_EQ(ids(reader_.list(0, 0, 100)), (std::vector<std::int64_t>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(ids(reader_.list(4, 0, 100)), (std::vector<std::int64_t>{5, 6}));
    EXPECT_EQ(ids(reader_.list(0, 5, 100)), (std::vector<std::int64_t>{2, 4, 6}));
    EXPECT_EQ(ids(reader_.list(2, 5, 1)), (std::vector<std::int64_t>{4}));
    EXPECT_EQ(ids(reader_.list(6, 0, 100)), (std::vector<std::int64_t>{}));
}

TEST_F(journal, lists_the_newest_oldest_first) {
    fill();
    EXPECT_EQ(ids(reader_.newest(0, 2)), (std::vector<std::int64_t>{5, 6}));
    EXPECT_EQ(ids(reader_.newest(1, 2)), (std::vector<std::int64_t>{3, 5}));
}

TEST_F(journal, an_entry_has_the_first_20_bytes_and_a_record_all_of_them) {
    fill();
    const auto entries = reader_.list(0, 0, 1);
    ASSERT_TRUE(entries);
    EXPECT_EQ(entries->front().beginning, "record number 1 of s");
    EXPECT_EQ(entries->front().size, 22);
    EXPECT_EQ(entries->front().accepted_us, 1000);
    const auto record = reader_.show(1);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->data, "record number 1 of six");
    EXPECT_EQ(record->entry.beginning, "record number 1 of s");
}

TEST_F(journal, a_record_that_is_not_there_is_told) {
    fill();
    EXPECT_FALSE(reader_.show(7));
    EXPECT_EQ(reader_.problem(), "there is no record 7 in the journal");
}

TEST_F(journal, gives_the_counters_by_name) {
    fill();
    run("INSERT INTO counters VALUES('accepted', 6), ('lost', 2)");
    EXPECT_EQ(reader_.counters(),
              (std::map<std::string, std::int64_t>{{"accepted", 6}, {"lost", 2}}));
}

TEST_F(journal, a_journal_that_does_not_exist_yet_is_told_and_not_made) {
    EXPECT_FALSE(reader_.list(0, 0, 1));
    EXPECT_THAT(reader_.problem(), HasSubstr("nothing has been handed to the gateway yet"));
    EXPECT_TRUE(reader_.absent());
    EXPECT_FALSE(std::filesystem::exists(path_));
    fill();
    EXPECT_EQ(reader_.list(0, 0, 100)->size(), 6U);
    EXPECT_FALSE(reader_.absent());
}

TEST_F(journal, a_file_that_is_none_is_told) {
    tree_.write("var/gateway.db", std::string(8192, 'g'));
    EXPECT_FALSE(reader_.list(0, 0, 1));
    EXPECT_THAT(reader_.problem(), HasSubstr("file is not a database"));
    EXPECT_FALSE(reader_.absent());
}

TEST_F(journal, a_version_it_does_not_know_is_told) {
    run("CREATE TABLE other(x); PRAGMA user_version = 2");
    EXPECT_FALSE(reader_.show(1));
    EXPECT_THAT(reader_.problem(), HasSubstr("is no journal of version 1"));
}

TEST_F(journal, follow_gives_what_is_there_and_what_comes) {
    fill();
    std::vector<std::int64_t> seen;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    EXPECT_TRUE(reader_.follow(
        3, 0, std::chrono::milliseconds(1),
        [&](const journal_entry &entry) {
            seen.push_back(entry.id);
            if (entry.id == 6) {
                add(1, "while followed");
            }
        },
        [&] { return seen.size() < 4 && std::chrono::steady_clock::now() < end; }));
    EXPECT_EQ(seen, (std::vector<std::int64_t>{4, 5, 6, 7}));
}

TEST_F(journal, follow_waits_for_a_journal_that_is_not_there_yet) {
    std::size_t looks = 0;
    std::size_t seen = 0;
    EXPECT_TRUE(reader_.follow(
        0, 0, std::chrono::milliseconds(1), [&](const journal_entry &) { ++seen; },
        [&] {
            ++looks;
            if (looks == 3) {
                fill();
            }
            return seen < 6 && looks < 1000;
        }));
    EXPECT_EQ(seen, 6U);
}

TEST_F(journal, follow_begins_anew_with_a_journal_that_replaces_the_first) {
    fill();
    std::size_t seen = 0;
    std::size_t looks = 0;
    EXPECT_TRUE(reader_.follow(
        0, 0, std::chrono::milliseconds(1),
        [&](const journal_entry &) {
            ++seen;
            if (seen == 6) {
                sqlite3_close(db_);
                db_ = nullptr;
                for (const char *suffix : {"", "-wal", "-shm"}) {
                    std::filesystem::remove(path_ + suffix);
                }
                fill();
            }
        },
        [&] {
            ++looks;
            return seen < 12 && looks < 1000;
        }));
    EXPECT_EQ(seen, 12U);
}

TEST_F(journal, a_reader_leaves_no_descriptor) {
    fill();
    sqlite3_close(db_);
    db_ = nullptr;
    const std::size_t before = kze_test::descriptor_count();
    {
        journal_reader reader(path_);
        ASSERT_TRUE(reader.list(0, 0, 10));
        ASSERT_TRUE(reader.show(1));
    }
    EXPECT_EQ(kze_test::descriptor_count(), before);
}

TEST(data_type, names_and_numbers_belong_together) {
    for (const int type : {1, 2, 3, 4, 5, 8, 9, 10}) {
        EXPECT_EQ(kze::gateway::data_type_number(kze::gateway::data_type_name(type)), type);
    }
    EXPECT_STREQ(kze::gateway::data_type_name(6), "unknown");
    EXPECT_EQ(kze::gateway::data_type_number("nothing"), 0);
}

}  // namespace
