/* Reading records: which are given, while a writer writes and when the file changes. */
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <thread>

#include "agent/tests/component/records/record_file_test.h"
#include "tests/support/process_state.h"

namespace kze_test {
namespace {

using testing::HasSubstr;

class record_reading_test : public record_file_test {
  protected:
    /* Records 1 to 6, of the kinds 1, 5, 1, 5, 1, 5. */
    void fill() {
        for (int i = 1; i <= 6; ++i) {
            const std::string text = "record number " + std::to_string(i) + " of six";
            ASSERT_EQ(writer.append({text, 22, i % 2 == 1 ? 1 : 5}), i);
        }
    }

    record_writer writer{path, plain_form};
};

TEST_F(record_reading_test, a_file_that_is_not_there_has_no_records_and_is_not_made) {
    EXPECT_EQ(kept(), texts());
    EXPECT_TRUE(reader.absent());
    EXPECT_EQ(reader.newest_id(), 0);
    EXPECT_FALSE(std::filesystem::exists(path));
    tree.write("var/lib/things.db", ""); /* as while it is being made */
    EXPECT_EQ(kept(), texts());
    EXPECT_TRUE(reader.absent());
    fill();
    EXPECT_EQ(reader.newest_id(), 6);
    EXPECT_FALSE(reader.absent());
}

TEST_F(record_reading_test, a_list_is_in_order_after_an_id_of_one_kind_and_up_to_a_limit) {
    fill();
    EXPECT_EQ(ids_of(reader.list(0, 100)), (ids{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(ids_of(reader.list(4, 100)), (ids{5, 6}));
    EXPECT_EQ(ids_of(reader.list(0, 100, 5)), (ids{2, 4, 6}));
    EXPECT_EQ(ids_of(reader.list(2, 1, 5)), (ids{4}));
    EXPECT_EQ(ids_of(reader.list(6, 100)), (ids{}));
}

TEST_F(record_reading_test, the_newest_come_oldest_first) {
    fill();
    EXPECT_EQ(ids_of(reader.newest(2)), (ids{5, 6}));
    EXPECT_EQ(ids_of(reader.newest(2, 1)), (ids{3, 5}));
    EXPECT_EQ(ids_of(reader.newest(0)), (ids{}));
}

TEST_F(record_reading_test, a_list_has_the_beginning_of_a_record_and_show_all_of_it) {
    fill();
    EXPECT_EQ(reader.list(0, 1)->at(0).data, "record number 1 of s");
    EXPECT_EQ(reader.list(0, 1)->at(0).size, 22);
    EXPECT_EQ(texts_of(reader.show(1)), texts{"record number 1 of six"});
    EXPECT_TRUE(reader.show(7)->empty());
}

TEST_F(record_reading_test, numbers_of_another_table_are_given_by_name) {
    record_form form = plain_form;
    form.further = "CREATE TABLE counts(name TEXT PRIMARY KEY, value INTEGER NOT NULL);";
    record_writer counting(tree.path("var/counts.db"), form);
    ASSERT_TRUE(counting.transaction(
        [&] { return counting.run("INSERT INTO counts VALUES('one', ?1)", {std::int64_t{1}}); }));
    record_reader counted(tree.path("var/counts.db"), form);
    EXPECT_EQ(counted.numbers("counts"), (std::map<std::string, std::int64_t>{{"one", 1}}));
    EXPECT_FALSE(counted.numbers("nothing"));
}

TEST_F(record_reading_test, a_file_that_is_none_and_one_of_another_version_are_told) {
    tree.write("var/lib/things.db", std::string(8192, 'g'));
    EXPECT_FALSE(reader.list(0, 1));
    EXPECT_THAT(reader.problem(), HasSubstr(path + ": file is not a database"));
    EXPECT_FALSE(reader.absent());
    std::filesystem::remove(path);
    sqlite3 *db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE other(x); PRAGMA user_version = 2", nullptr, nullptr,
                           nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    EXPECT_FALSE(reader.show(1));
    EXPECT_EQ(reader.problem(), path + " holds no things of version 1");
    EXPECT_FALSE(reader.absent());
}

TEST_F(record_reading_test, next_gives_what_has_come_and_begins_anew_with_another_file) {
    std::int64_t after = 3;
    EXPECT_EQ(ids_of(reader.next(after, 10)), (ids{}));
    EXPECT_EQ(after, 0) << "in a file that isn't there nothing has come yet";
    fill();
    after = 3;
    EXPECT_EQ(ids_of(reader.next(after, 2)), (ids{4, 5}));
    EXPECT_EQ(ids_of(reader.next(after, 2)), (ids{6}));
    EXPECT_EQ(ids_of(reader.next(after, 2)), (ids{}));
    EXPECT_EQ(after, 6);
    std::filesystem::rename(path, path + ".moved");
    ASSERT_EQ(writer.append({"anew"}), 1);
    ASSERT_TRUE(reader.show(1)) << "another call sees the other file first";
    EXPECT_EQ(texts_of(reader.next(after, 2)), texts{"anew"});
    EXPECT_EQ(after, 1);
}

TEST_F(record_reading_test, readers_are_in_nobodys_way_while_the_file_is_replaced) {
    const pid_t beside = fork(); /* a process of its own, with its own locks */
    if (beside == 0) {
        for (;;) {
            record_reader other(path, plain_form);
            for (int look = 0; look < 20; ++look) {
                other.newest_id();
            }
        }
    }
    for (int round = 1; round <= 300; ++round) {
        EXPECT_EQ(writer.append({"new"}), 1) << writer.problem() << ", round " << round;
        EXPECT_EQ(writer.append({"newer"}), 2) << writer.problem() << ", round " << round;
        std::filesystem::remove(path);
    }
    kill(beside, SIGKILL);
    waitpid(beside, nullptr, 0);
    EXPECT_FALSE(std::filesystem::exists(path + ".unusable"));
}

TEST_F(record_reading_test, a_follower_beside_the_writer_sees_each_record_once_and_whole) {
    constexpr std::int64_t all = 3000;
    const auto data_of = [](std::int64_t id) {
        return std::string(static_cast<std::size_t>(id % 20 + 1), static_cast<char>('a' + id % 26));
    };
    std::thread writing([&] {
        for (std::int64_t id = 1; id <= all; ++id) {
            ASSERT_EQ(writer.append({data_of(id)}), id) << writer.problem();
        }
    });
    std::int64_t after = 0;
    std::int64_t seen = 0;
    const bool done = eventually([&] {
        const auto found = reader.next(after, 100);
        EXPECT_TRUE(found) << reader.problem();
        for (const kept_record &each : found.value_or(std::vector<kept_record>())) {
            EXPECT_EQ(each.id, ++seen);
            EXPECT_EQ(each.data, data_of(each.id));
        }
        return seen >= all;
    });
    writing.join();
    EXPECT_TRUE(done) << seen;
    EXPECT_EQ(seen, all);
}

}  // namespace
}  // namespace kze_test
