/* Writing records: what is kept, what is dropped, and what a bad file, disk or end costs. */
#include "agent/tests/component/records/record_file_test.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "tests/support/process_state.h"
#include "vrdbase.h"

namespace kze_test {
namespace {

using testing::HasSubstr;

TEST_F(record_file_test, records_are_numbered_and_kept_as_they_came) {
    const std::size_t descriptors = descriptor_count();
    {
        record_reader beside(path, plain_form);
        record_writer writer(path, plain_form);
        const std::string bytes("a\0\xFF", 3);
        EXPECT_EQ(writer.append({"first"}), 1);
        EXPECT_EQ(writer.append({""}), 2);
        EXPECT_EQ(writer.append({bytes, 700, 7, 1000}), 3);
        EXPECT_EQ(texts_of(beside.newest(10)), (texts{"first", "", bytes}));
        const kept_record first = beside.show(1)->at(0);
        EXPECT_EQ(first.size, 5);
        EXPECT_EQ(first.kind, 0);
        EXPECT_GT(first.time_us, 1577836800000000);
        const kept_record third = beside.show(3)->at(0);
        EXPECT_EQ(third.size, 700) << "of data that were cut the size is told";
        EXPECT_EQ(third.kind, 7);
        EXPECT_EQ(third.time_us, 1000);
    }
    EXPECT_EQ(record_reader(path, plain_form).newest_id(), 3);
    EXPECT_EQ(descriptor_count(), descriptors);
}

TEST_F(record_file_test, the_next_writer_goes_on_with_the_numbers_and_two_at_once_share_them) {
    {
        record_writer first(path, plain_form);
        ASSERT_EQ(first.append({"one"}), 1);
    }
    record_writer second(path, plain_form);
    record_writer third(path, plain_form);
    EXPECT_EQ(second.append({"two"}), 2);
    EXPECT_EQ(third.append({"three"}), 3);
    EXPECT_EQ(second.append({"four"}), 4);
    EXPECT_EQ(kept(), (texts{"one", "two", "three", "four"}));
}

TEST_F(record_file_test, of_too_many_records_the_oldest_go_and_numbers_are_not_given_again) {
    const record_form form = bounded(3, 0);
    record_writer writer(path, form);
    for (const char *text : {"1", "2", "3"}) {
        ASSERT_TRUE(writer.append({text}));
    }
    EXPECT_EQ(kept(), (texts{"1", "2", "3"})) << "exactly at the bound";
    ASSERT_TRUE(writer.append({"4"}));
    EXPECT_EQ(kept(), (texts{"2", "3", "4"}));
    EXPECT_EQ(reader.newest_id(), 4);
}

TEST_F(record_file_test, of_too_many_bytes_the_oldest_go_and_the_newest_stays_even_alone) {
    const record_form form = bounded(100, 10);
    record_writer writer(path, form);
    for (const char *text : {"aaaa", "bbbb", "cc"}) {
        ASSERT_TRUE(writer.append({text}));
    }
    EXPECT_EQ(kept(), (texts{"aaaa", "bbbb", "cc"})) << "exactly at the bound";
    ASSERT_TRUE(writer.append({"d"}));
    EXPECT_EQ(kept(), (texts{"bbbb", "cc", "d"}));
    ASSERT_TRUE(writer.append({"eleven byte"}));
    EXPECT_EQ(kept(), texts{"eleven byte"});
    ASSERT_TRUE(writer.append({"f"}));
    EXPECT_EQ(kept(), texts{"f"});
}

TEST_F(record_file_test, a_bounded_file_stops_growing) {
    const record_form form = bounded(64, 0);
    record_writer writer(path, form);
    const std::string data(4000, 'x');
    const auto fill = [&] {
        for (int i = 0; i < 1000; ++i) {
            ASSERT_TRUE(writer.append({data}));
        }
    };
    const auto size = [&] {
        return std::filesystem::file_size(path) + std::filesystem::file_size(path + "-wal");
    };
    fill();
    const auto before = size();
    fill();
    fill();
    EXPECT_LE(size(), before + before / 4);
    EXPECT_LT(size(), 8U << 20);
}

TEST_F(record_file_test, data_are_put_in_a_records_place_as_long_as_it_is_there) {
    const record_form form = bounded(2, 0);
    record_writer writer(path, form);
    ASSERT_EQ(writer.append({"first"}), 1);
    ASSERT_EQ(writer.append({"second"}), 2);
    EXPECT_TRUE(writer.replace(1, "other")) << writer.problem();
    EXPECT_EQ(kept(), (texts{"other", "second"}));
    ASSERT_EQ(writer.append({"third"}), 3);
    EXPECT_FALSE(writer.replace(1, "too late"));
    EXPECT_THAT(writer.problem(), HasSubstr("no longer has the record 1"));
    EXPECT_EQ(writer.append({"fourth"}), 4) << "a refused change leaves the file usable";
    EXPECT_EQ(kept(), (texts{"third", "fourth"}));
}

TEST_F(record_file_test, a_transaction_is_there_as_a_whole_or_not_at_all) {
    record_writer writer(path, plain_form);
    const auto add_two = [&](bool good) {
        return [&writer, good] { return writer.add({"one"}) && writer.add({"two"}) && good; };
    };
    EXPECT_FALSE(writer.transaction(add_two(false)));
    EXPECT_EQ(kept(), texts());
    EXPECT_FALSE(writer.transaction(
        [&] { return writer.add({"one"}) && writer.run("INSERT INTO no_table VALUES(1)"); }));
    EXPECT_THAT(writer.problem(), HasSubstr("no such table"));
    EXPECT_EQ(kept(), texts());
    EXPECT_TRUE(writer.transaction(add_two(true)));
    EXPECT_EQ(numbers(), (ids{1, 2}));
}

TEST_F(record_file_test, records_outlive_a_process_that_is_killed_while_it_writes) {
    const pid_t child = fork();
    if (child == 0) {
        record_writer writer(path, plain_form);
        for (int i = 1;; ++i) {
            writer.append({std::to_string(i)});
        }
    }
    ASSERT_TRUE(eventually([&] { return reader.newest_id().value_or(0) >= 50; }));
    const std::int64_t seen = reader.newest_id().value_or(0);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    const texts all = kept();
    ASSERT_GE(static_cast<std::int64_t>(all.size()), seen);
    for (std::size_t i = 0; i < all.size(); ++i) {
        ASSERT_EQ(all[i], std::to_string(i + 1));
    }
    record_writer again(path, plain_form);
    ASSERT_TRUE(again.append({"after"})) << again.problem();
    EXPECT_EQ(kept().back(), "after");
}

TEST_F(record_file_test, a_full_disk_costs_what_comes_meanwhile_and_nothing_else) {
    const pid_t child = fork();
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        const auto limit_files = [](rlim_t bytes) {
            struct rlimit limit {};
            getrlimit(RLIMIT_FSIZE, &limit);
            limit.rlim_cur = bytes;
            setrlimit(RLIMIT_FSIZE, &limit);
        };
        record_writer writer(path, plain_form);
        limit_files(300000);
        const std::string data(10000, 'x');
        std::int64_t last = 0;
        for (int i = 0; i < 100; ++i) {
            const auto id = writer.append({data});
            last = id ? *id : last;
        }
        const bool was_full = last < 100 && !writer.append({data});
        const bool says_why = writer.problem().find(path) == 0;
        limit_files(RLIM_INFINITY);
        const bool goes_on = writer.append({"after"}) == last + 1;
        _exit(was_full && says_why && last > 5 && goes_on ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    const auto all = reader.newest(1000);
    ASSERT_TRUE(all) << reader.problem();
    EXPECT_EQ(all->back().data, "after");
    EXPECT_EQ(all->back().id, static_cast<std::int64_t>(all->size())) << "no gap";
}

TEST_F(record_file_test, a_file_that_is_no_database_is_put_aside_with_a_line_and_nothing_lost) {
    autolog_init(tree.path("var/log/test").c_str(), 5);
    const std::string rubbish(5000, 'r');
    tree.write("var/lib/things.db", rubbish);
    record_writer writer(path, plain_form);
    EXPECT_EQ(writer.append({"kept"}), 1) << writer.problem();
    EXPECT_EQ(kept(), texts{"kept"});
    EXPECT_EQ(tree.read("var/lib/things.db.unusable"), rubbish);
    const std::string line = path + " can't be used: " + path + ": file is not a database; it is " +
                             "now " + path + ".unusable, and a new one is begun";
    EXPECT_THAT(tree.read("var/log/test/test.log"), HasSubstr(line));
}

TEST_F(record_file_test, a_file_of_a_version_it_does_not_know_is_put_aside) {
    {
        record_writer writer(path, plain_form);
        ASSERT_TRUE(writer.append({"other"}));
        ASSERT_TRUE(writer.transaction([&] { return writer.run("PRAGMA user_version = 2"); }));
    }
    record_writer writer(path, plain_form);
    EXPECT_EQ(writer.append({"kept"}), 1) << writer.problem();
    EXPECT_TRUE(std::filesystem::exists(path + ".unusable"));
}

TEST_F(record_file_test, a_file_with_damaged_pages_is_put_aside_and_the_record_is_kept) {
    {
        record_writer writer(path, plain_form);
        for (int i = 0; i < 200; ++i) {
            ASSERT_TRUE(writer.append({std::string(3000, 'x')}));
        }
    }
    std::string damaged = tree.read("var/lib/things.db");
    damaged.replace(4096, damaged.size() - 4096, damaged.size() - 4096, '\xA5');
    tree.write("var/lib/things.db", damaged);
    record_writer writer(path, plain_form);
    EXPECT_EQ(writer.append({"after the damage"}), 1) << writer.problem();
    EXPECT_EQ(tree.read("var/lib/things.db.unusable").substr(4096), damaged.substr(4096));
}

TEST_F(record_file_test, a_torn_end_is_left_out) {
    {
        record_writer writer(path, plain_form);
        ASSERT_TRUE(writer.append({"whole"}));
        ASSERT_TRUE(writer.append({"torn"}));
        for (const char *suffix : {"", "-wal"}) { /* as a crash of the host leaves them */
            std::filesystem::copy_file(path + suffix, tree.path("torn").string() + suffix);
        }
    }
    const std::string torn = tree.path("torn").string();
    std::filesystem::resize_file(torn + "-wal", std::filesystem::file_size(torn + "-wal") - 100);
    record_writer writer(torn, plain_form);
    EXPECT_EQ(writer.append({"after"}), 2) << writer.problem();
    EXPECT_EQ(texts_of(record_reader(torn, plain_form).newest(10)), (texts{"whole", "after"}));
}

TEST_F(record_file_test, a_file_that_is_moved_deleted_or_cut_is_begun_anew) {
    record_writer writer(path, plain_form);
    ASSERT_EQ(writer.append({"old"}), 1);
    ASSERT_EQ(writer.append({"old too"}), 2);
    std::filesystem::rename(path, path + ".moved");
    EXPECT_EQ(writer.append({"new"}), 1) << writer.problem();
    EXPECT_EQ(kept(), texts{"new"});
    EXPECT_EQ(texts_of(record_reader(path + ".moved", plain_form).newest(10)),
              (texts{"old", "old too"}));
    std::filesystem::remove(path);
    EXPECT_EQ(writer.append({"newer"}), 1) << writer.problem();
    std::filesystem::resize_file(path, 0);
    EXPECT_EQ(writer.append({"newest"}), 1) << writer.problem();
    EXPECT_EQ(kept(), texts{"newest"});
}

TEST_F(record_file_test, a_directory_that_can_not_be_made_loses_the_record_and_says_why) {
    tree.write("var/lib", "a file");
    record_writer writer(path, plain_form);
    EXPECT_FALSE(writer.append({"lost"}));
    EXPECT_THAT(writer.problem(), HasSubstr("Not a directory"));
    std::filesystem::remove(tree.path("var/lib"));
    EXPECT_TRUE(writer.append({"kept"})) << writer.problem();
}

TEST_F(record_file_test, a_file_that_another_process_holds_fails_in_time_and_may_be_tried_again) {
    record_writer writer(path, plain_form);
    ASSERT_TRUE(writer.append({"first"}));
    sqlite3 *holder = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &holder), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_FALSE(writer.append({"lost"}));
    EXPECT_THAT(writer.problem(), HasSubstr("locked"));
    sqlite3_close(holder);
    EXPECT_EQ(writer.append({"second"}), 2) << writer.problem();
    EXPECT_FALSE(std::filesystem::exists(path + ".unusable"));
}

TEST_F(record_file_test, a_reader_leaves_no_descriptor) {
    record_writer(path, plain_form).append({"data"});
    const std::size_t before = descriptor_count();
    {
        record_reader other(path, plain_form);
        ASSERT_EQ(other.list(0, 10)->size(), 1U);
        ASSERT_EQ(other.show(1)->size(), 1U);
    }
    EXPECT_EQ(descriptor_count(), before);
}

TEST_F(record_file_test, files_are_for_their_owner_only) {
    record_writer writer(path, plain_form);
    ASSERT_TRUE(writer.append({"data"}));
    using std::filesystem::perms;
    for (const char *suffix : {"", "-wal", "-shm"}) {
        EXPECT_EQ(std::filesystem::status(path + suffix).permissions(),
                  perms::owner_read | perms::owner_write)
            << suffix;
    }
}

}  // namespace
}  // namespace kze_test
