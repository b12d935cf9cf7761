/* libkzethtgw.3.so: what it takes, what it refuses, and where that ends up. */
#include "agent/gateway/gateway.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <thread>

#include "agent/gateway/journal.h"
#include "agent/tests/component/gateway/gateway_library.h"
#include "tests/support/child_process.h"
#include "tests/support/process_state.h"
#include "tests/support/temp_tree.h"
#include "vrdbase.h"

namespace {

using kze::kept_record;
using kze::record_reader;
using kze::gateway::journal_form;
using kze_test::child_process;
using kze_test::eventually;
using kze_test::gateway_library;
using testing::HasSubstr;
using testing::Not;

class gateway : public testing::Test {
  protected:
    void set(const std::string &lines) { tree_.write("config/gateway.ini", "[gateway]\n" + lines); }
    std::string journal_path() const { return tree_.path("var/lib/gateway.db"); }
    std::string log() const { return tree_.read("var/log/gateway/gateway.log"); }

    std::vector<kept_record> entries() const {
        return record_reader(journal_path(), journal_form)
            .list(0, 1000000)
            .value_or(std::vector<kept_record>());
    }
    bool eventually_holds(std::size_t records) const {
        return eventually([&] { return entries().size() == records; });
    }
    std::int64_t counter(const std::string &name) const {
        return record_reader(journal_path(), journal_form)
            .numbers(kze::gateway::counters_table)
            .value_or(std::map<std::string, std::int64_t>())[name];
    }
    std::string data_of(std::int64_t id) const {
        const auto found = record_reader(journal_path(), journal_form).show(id);
        return found && !found->empty() ? found->front().data : "no such record";
    }

    kze_test::temp_tree tree_;
};

/* A database connection that keeps the gateway from writing. */
class exclusive_lock {
  public:
    explicit exclusive_lock(const std::string &path) {
        sqlite3_open(path.c_str(), &db_);
        sqlite3_busy_timeout(db_, 5000);
        held_ = sqlite3_exec(db_, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) == SQLITE_OK;
    }
    ~exclusive_lock() { sqlite3_close(db_); }
    exclusive_lock(const exclusive_lock &) = delete;
    exclusive_lock &operator=(const exclusive_lock &) = delete;
    bool held() const { return held_; }

  private:
    sqlite3 *db_ = nullptr;
    bool held_ = false;
};

std::int64_t now_us() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

TEST_F(gateway, exports_its_one_function_and_nothing_else) {
    std::FILE *listing = popen("nm -D --defined-only '" GATEWAY_LIBRARY "'", "r");
    ASSERT_NE(listing, nullptr);
    std::array<char, 4096> text{};
    const std::size_t size = std::fread(text.data(), 1, text.size() - 1, listing);
    pclose(listing);
    const std::string symbols(text.data(), size);
    EXPECT_THAT(symbols, testing::EndsWith(" T kzethtgw_async_send\n"));
    EXPECT_EQ(std::count(symbols.begin(), symbols.end(), '\n'), 1);
}

TEST_F(gateway, keeps_what_it_was_handed_with_its_type_size_and_time) {
    const gateway_library library;
    std::string data = "an alarm";
    data += '\0';
    data += "\xff with any bytes";
    const std::string original = data;
    const std::int64_t before = now_us();
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, data), GATEWAY_ACCEPTED);
    const std::int64_t after = now_us();
    data.assign(data.size(), 'z'); /* the caller's buffer is the caller's again */

    ASSERT_TRUE(eventually_holds(1));
    const kept_record entry = entries()[0];
    EXPECT_EQ(entry.id, 1);
    EXPECT_EQ(entry.kind, KZEMM_DATA_ALARM);
    EXPECT_EQ(entry.size, static_cast<std::int64_t>(original.size()));
    EXPECT_GE(entry.time_us, before);
    EXPECT_LE(entry.time_us, after);
    EXPECT_EQ(data_of(1), original);
}

TEST_F(gateway, takes_every_type_from_1_to_10) {
    const gateway_library library;
    for (int type = 1; type <= 10; ++type) {
        EXPECT_EQ(library.send(type, "data"), GATEWAY_ACCEPTED) << type;
    }
    ASSERT_TRUE(eventually_holds(10));
    for (int type = 1; type <= 10; ++type) {
        EXPECT_EQ(entries()[static_cast<std::size_t>(type - 1)].kind, type);
    }
}

TEST_F(gateway, refuses_bad_arguments_each_with_its_code_and_counts_them) {
    const gateway_library library;
    EXPECT_EQ(library.send_raw(KZEMM_DATA_ALARM, nullptr, 4), GATEWAY_NULL_DATA);
    EXPECT_EQ(library.send_raw(KZEMM_DATA_ALARM, "data", 0), GATEWAY_NO_LENGTH);
    EXPECT_EQ(library.send(0, "data"), GATEWAY_BAD_TYPE);
    EXPECT_EQ(library.send(11, "data"), GATEWAY_BAD_TYPE);
    EXPECT_EQ(library.send(-1, "data"), GATEWAY_BAD_TYPE);
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "data"), GATEWAY_ACCEPTED);
    ASSERT_TRUE(eventually_holds(1));
    EXPECT_EQ(counter(GATEWAY_COUNT_REFUSED_INVALID), 5);
    EXPECT_EQ(counter(GATEWAY_COUNT_ACCEPTED), 1);
    EXPECT_EQ(counter(GATEWAY_COUNT_STORED_BYTES), 4);
}

TEST_F(gateway, starts_no_thread_and_no_journal_for_what_it_refuses) {
    const std::size_t threads = kze_test::thread_count();
    const gateway_library library;
    EXPECT_EQ(library.send(0, "data"), GATEWAY_BAD_TYPE);
    EXPECT_TRUE(kze_test::threads_become(threads));
    EXPECT_FALSE(std::filesystem::exists(journal_path()));
}

TEST_F(gateway, takes_records_up_to_the_longest_and_refuses_longer_ones) {
    set("record_bytes = 100\n");
    const gateway_library library;
    EXPECT_EQ(library.send(KZEMM_DATA_ALARM, std::string(99, 'x')), GATEWAY_ACCEPTED);
    EXPECT_EQ(library.send(KZEMM_DATA_ALARM, std::string(100, 'x')), GATEWAY_ACCEPTED);
    EXPECT_EQ(library.send(KZEMM_DATA_ALARM, std::string(101, 'x')), GATEWAY_TOO_LONG);
    EXPECT_TRUE(eventually_holds(2));
}

TEST_F(gateway, refuses_a_record_longer_than_its_whole_queue_for_good) {
    set("queue_bytes = 1024\n");
    const gateway_library library;
    EXPECT_EQ(library.send(KZEMM_DATA_ALARM, std::string(1025, 'x')), GATEWAY_TOO_LONG);
    EXPECT_EQ(library.send(KZEMM_DATA_ALARM, std::string(1024, 'x')), GATEWAY_ACCEPTED);
    EXPECT_TRUE(eventually_holds(1));
}

TEST_F(gateway, refuses_past_its_bound_of_records_while_the_journal_is_locked_and_loses_nothing) {
    set("queue_records = 3\nretry_ms = 10\n");
    const gateway_library library;
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "first"), GATEWAY_ACCEPTED);
    ASSERT_TRUE(eventually_holds(1));
    int refused = 0;
    const auto accepts = [&](const char *text) {
        const int result = library.send(KZEMM_DATA_ALARM, text);
        refused += result == GATEWAY_QUEUE_FULL;
        return result == GATEWAY_ACCEPTED;
    };
    {
        const exclusive_lock lock(journal_path());
        ASSERT_TRUE(lock.held());
        EXPECT_TRUE(accepts("second"));
        EXPECT_TRUE(accepts("third"));
        /* The first one's room is free a moment after it is seen in the journal. */
        EXPECT_TRUE(eventually([&] { return accepts("fourth"); }));
        EXPECT_EQ(library.send(KZEMM_DATA_ALARM, "one too many"), GATEWAY_QUEUE_FULL);
        ++refused;
        ASSERT_TRUE(eventually(
            [&] { return !log().empty() && log().find("locked") != std::string::npos; }));
    }
    ASSERT_TRUE(eventually_holds(4));
    EXPECT_EQ(data_of(2), "second");
    EXPECT_EQ(data_of(3), "third");
    EXPECT_EQ(data_of(4), "fourth");
    EXPECT_TRUE(eventually([&] { return accepts("fifth"); }));
    ASSERT_TRUE(eventually_holds(5));
    EXPECT_EQ(counter(GATEWAY_COUNT_REFUSED_FULL), refused);
    EXPECT_THAT(log(), HasSubstr("is written again after"));
}

TEST_F(gateway, refuses_past_its_bound_of_bytes_while_the_journal_is_locked) {
    set("queue_bytes = 1024\nretry_ms = 10\n");
    const gateway_library library;
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "first"), GATEWAY_ACCEPTED);
    ASSERT_TRUE(eventually_holds(1));
    {
        const exclusive_lock lock(journal_path());
        ASSERT_TRUE(lock.held());
        EXPECT_EQ(library.send(KZEMM_DATA_ALARM, std::string(1000, 'x')), GATEWAY_ACCEPTED);
        EXPECT_EQ(library.send(KZEMM_DATA_ALARM, std::string(25, 'x')), GATEWAY_QUEUE_FULL);
        /* The first one's room is free a moment after it is seen in the journal. */
        EXPECT_TRUE(eventually([&] {
            return library.send(KZEMM_DATA_ALARM, std::string(24, 'x')) == GATEWAY_ACCEPTED;
        }));
        EXPECT_EQ(library.send(KZEMM_DATA_ALARM, "x"), GATEWAY_QUEUE_FULL);
    }
    EXPECT_TRUE(eventually_holds(3));
}

TEST_F(gateway, is_not_held_up_by_a_reader_in_the_middle_of_a_transaction) {
    const gateway_library library;
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "first"), GATEWAY_ACCEPTED);
    ASSERT_TRUE(eventually_holds(1));
    sqlite3 *reader = nullptr;
    ASSERT_EQ(sqlite3_open(journal_path().c_str(), &reader), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(reader, "BEGIN; SELECT * FROM records", nullptr, nullptr, nullptr),
              SQLITE_OK);
    EXPECT_EQ(library.send(KZEMM_DATA_ALARM, "second"), GATEWAY_ACCEPTED);
    EXPECT_TRUE(eventually_holds(2));
    sqlite3_close(reader);
}

TEST_F(gateway, keeps_what_it_accepts_while_the_directory_cannot_be_made) {
    set("retry_ms = 10\n");
    tree_.write("var/lib", "a file where the directory should be");
    const gateway_library library;
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "kept"), GATEWAY_ACCEPTED);
    ASSERT_TRUE(eventually([&] {
        return log().find("gateway journal can't be written (attempts: 1)") != std::string::npos;
    }));
    std::filesystem::remove(tree_.path("var/lib"));
    ASSERT_TRUE(eventually_holds(1));
    EXPECT_EQ(data_of(1), "kept");
}

TEST_F(gateway, closes_within_its_drain_time_on_a_bad_disk_and_says_what_is_lost) {
    set("retry_ms = 10\ndrain_ms = 50\n");
    tree_.write("var/lib", "a file where the directory should be");
    gateway_library library;
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "one"), GATEWAY_ACCEPTED);
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "two"), GATEWAY_ACCEPTED);
    library.close();
    EXPECT_THAT(log(), HasSubstr("2 accepted records lost"));
}

TEST_F(gateway, tells_of_a_bad_disk_at_once_and_not_again_with_every_attempt) {
    set("retry_ms = 10\ndrain_ms = 300\n");
    tree_.write("var/lib", "a file where the directory should be");
    gateway_library library;
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "one"), GATEWAY_ACCEPTED);
    library.close(); /* time for some thirty attempts */
    const std::string text = log();
    EXPECT_THAT(text, HasSubstr("can't be written (attempts: 1)"));
    EXPECT_EQ(text.find("(attempts: "), text.rfind("(attempts: "));
}

TEST_F(gateway, counts_what_it_lost_on_closing_once_the_journal_can_be_written_again) {
    set("retry_ms = 10\ndrain_ms = 0\n");
    {
        gateway_library library;
        ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "written"), GATEWAY_ACCEPTED);
        ASSERT_TRUE(eventually_holds(1));
        const exclusive_lock lock(journal_path());
        ASSERT_TRUE(lock.held());
        ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "lost"), GATEWAY_ACCEPTED);
        library.close();
    }
    EXPECT_THAT(log(), HasSubstr("1 accepted records lost"));
    EXPECT_EQ(entries().size(), 1U);
}

TEST_F(gateway, puts_a_file_that_is_no_journal_aside_and_begins_a_new_one) {
    const std::string garbage(8192, 'g');
    tree_.write("var/lib/gateway.db", garbage);
    const gateway_library library;
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "data"), GATEWAY_ACCEPTED);
    ASSERT_TRUE(eventually_holds(1));
    EXPECT_EQ(tree_.read("var/lib/gateway.db.unusable"), garbage);
    EXPECT_THAT(log(), HasSubstr("can't be used"));
}

TEST_F(gateway, puts_a_journal_of_a_version_it_does_not_know_aside) {
    std::filesystem::create_directories(tree_.path("var/lib"));
    sqlite3 *db = nullptr;
    ASSERT_EQ(sqlite3_open(journal_path().c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE other(x); PRAGMA user_version = 99", nullptr, nullptr,
                           nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    const gateway_library library;
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "data"), GATEWAY_ACCEPTED);
    ASSERT_TRUE(eventually_holds(1));
    EXPECT_TRUE(std::filesystem::exists(journal_path() + kze::unusable_suffix));
}

TEST_F(gateway, puts_a_journal_with_damaged_pages_aside_and_writes_on) {
    {
        const gateway_library library;
        for (int i = 0; i < 200; ++i) {
            ASSERT_EQ(library.send(KZEMM_DATA_ALARM, std::string(3000, 'x')), GATEWAY_ACCEPTED);
        }
    }
    ASSERT_EQ(entries().size(), 200U);
    std::string damaged = tree_.read("var/lib/gateway.db");
    damaged.replace(4096, damaged.size() - 4096, damaged.size() - 4096, '\xA5');
    tree_.write("var/lib/gateway.db", damaged);

    const gateway_library library;
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "after the damage"), GATEWAY_ACCEPTED);
    ASSERT_TRUE(eventually_holds(1));
    EXPECT_EQ(data_of(1), "after the damage");
    EXPECT_TRUE(std::filesystem::exists(journal_path() + kze::unusable_suffix));
}

TEST_F(gateway, begins_a_new_journal_when_the_file_is_deleted_under_it) {
    const gateway_library library;
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "first"), GATEWAY_ACCEPTED);
    ASSERT_TRUE(eventually_holds(1));
    for (const char *suffix : {"", "-wal", "-shm"}) {
        std::filesystem::remove(journal_path() + suffix);
    }
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "second"), GATEWAY_ACCEPTED);
    ASSERT_TRUE(eventually_holds(1));
    EXPECT_EQ(data_of(1), "second");
}

TEST_F(gateway, refuses_past_the_journals_bound_and_keeps_what_it_took) {
    set("journal_bytes = 1024\nretry_ms = 10\n");
    const gateway_library library;
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(library.send(KZEMM_DATA_ALARM, std::string(256, static_cast<char>('a' + i))),
                  GATEWAY_ACCEPTED);
    }
    EXPECT_EQ(library.send(KZEMM_DATA_ALARM, "x"), GATEWAY_JOURNAL_FULL);
    ASSERT_TRUE(eventually_holds(4));
    EXPECT_EQ(library.send(KZEMM_DATA_ALARM, "x"), GATEWAY_JOURNAL_FULL);
    EXPECT_EQ(data_of(1), std::string(256, 'a'));
    EXPECT_EQ(counter(GATEWAY_COUNT_STORED_BYTES), 1024);
    EXPECT_TRUE(eventually([&] { return counter(GATEWAY_COUNT_REFUSED_FULL) == 2; }));
}

TEST_F(gateway, counts_each_refusal_of_a_full_journal_without_waiting_for_the_next) {
    set("journal_bytes = 1024\nretry_ms = 10\n");
    const gateway_library library;
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, std::string(1024, 'x')), GATEWAY_ACCEPTED);
    ASSERT_TRUE(eventually_holds(1));
    for (int refused = 1; refused <= 100; ++refused) {
        EXPECT_EQ(library.send(KZEMM_DATA_ALARM, "x"), GATEWAY_JOURNAL_FULL);
        ASSERT_TRUE(eventually([&] { return counter(GATEWAY_COUNT_REFUSED_FULL) == refused; }))
            << refused;
    }
}

TEST_F(gateway, knows_from_the_start_how_full_the_journal_is) {
    set("journal_bytes = 1024\n");
    {
        const gateway_library library;
        ASSERT_EQ(library.send(KZEMM_DATA_ALARM, std::string(1023, 'x')), GATEWAY_ACCEPTED);
    }
    const gateway_library library;
    EXPECT_EQ(library.send(KZEMM_DATA_ALARM, "xx"), GATEWAY_JOURNAL_FULL);
    EXPECT_EQ(library.send(KZEMM_DATA_ALARM, "x"), GATEWAY_ACCEPTED);
}

TEST_F(gateway, accepts_again_when_a_full_journal_was_moved_away) {
    set("journal_bytes = 1024\nretry_ms = 10\n");
    const gateway_library library;
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, std::string(1024, 'x')), GATEWAY_ACCEPTED);
    ASSERT_TRUE(eventually_holds(1));
    for (const char *suffix : {"", "-wal", "-shm"}) {
        std::filesystem::remove(journal_path() + suffix);
    }
    EXPECT_TRUE(
        eventually([&] { return library.send(KZEMM_DATA_ALARM, "small") == GATEWAY_ACCEPTED; }));
}

TEST_F(gateway, ignores_settings_out_of_their_range_and_says_so) {
    set("queue_records = 0\nrecord_bytes = many\n");
    autolog_init(tree_.path("var/log/sender").c_str(), 1);
    const gateway_library library;
    EXPECT_EQ(library.send(KZEMM_DATA_ALARM, std::string(1000, 'x')), GATEWAY_ACCEPTED);
    ASSERT_TRUE(eventually_holds(1));
    const std::string sender_log = tree_.read("var/log/sender/sender.log");
    EXPECT_THAT(sender_log, HasSubstr("gateway.ini: queue_records = 0"));
    EXPECT_THAT(sender_log, HasSubstr("gateway.ini: record_bytes = many"));
}

TEST_F(gateway, journal_files_are_for_their_owner_only) {
    const gateway_library library;
    ASSERT_EQ(library.send(KZEMM_DATA_ALARM, "data"), GATEWAY_ACCEPTED);
    ASSERT_TRUE(eventually_holds(1));
    using std::filesystem::perms;
    for (const char *suffix : {"", "-wal", "-shm"}) {
        EXPECT_EQ(std::filesystem::status(journal_path() + suffix).permissions(),
                  perms::owner_read | perms::owner_write)
            << suffix;
    }
}

TEST_F(gateway, takes_concurrent_sends_each_once_and_each_threads_in_order) {
    constexpr int threads = 8;
    constexpr int each = 500;
    {
        const gateway_library library;
        std::vector<std::thread> senders;
        for (int t = 0; t < threads; ++t) {
            senders.emplace_back([&library, t] {
                for (int i = 0; i < each; ++i) {
                    EXPECT_EQ(library.send(1 + t, std::to_string(i)), GATEWAY_ACCEPTED);
                }
            });
        }
        for (std::thread &sender : senders) {
            sender.join();
        }
    }
    record_reader journal(journal_path(), journal_form);
    for (int t = 0; t < threads; ++t) {
        const auto found = journal.list(0, 10000, 1 + t);
        ASSERT_TRUE(found) << journal.problem();
        ASSERT_EQ(found->size(), static_cast<std::size_t>(each));
        for (int i = 0; i < each; ++i) {
            ASSERT_EQ((*found)[static_cast<std::size_t>(i)].data, std::to_string(i));
        }
    }
}

TEST_F(gateway, has_written_everything_when_it_is_closed) {
    {
        const gateway_library library;
        for (int i = 0; i < 1000; ++i) {
            ASSERT_EQ(library.send(KZEMM_DATA_ALARM, std::to_string(i)), GATEWAY_ACCEPTED);
        }
    }
    EXPECT_EQ(entries().size(), 1000U);
}

TEST_F(gateway, leaves_nothing_after_a_thousand_openings_and_closings) {
    {
        const gateway_library library;
        ASSERT_EQ(library.send(1, "warm-up"), GATEWAY_ACCEPTED);
    }
    const std::size_t threads = kze_test::thread_count();
    const std::size_t descriptors = kze_test::descriptor_count();
    for (int i = 0; i < 1000; ++i) {
        const gateway_library library;
        ASSERT_EQ(library.send(1, "data"), GATEWAY_ACCEPTED);
    }
    EXPECT_TRUE(kze_test::threads_become(threads));
    EXPECT_EQ(kze_test::descriptor_count(), descriptors);
    EXPECT_EQ(dlopen(GATEWAY_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
    EXPECT_FALSE(std::filesystem::exists(journal_path() + "-wal"));
    EXPECT_EQ(entries().size(), 1001U);
}

TEST_F(gateway, its_thread_takes_none_of_the_hosts_signals) {
    const gateway_library library;
    ASSERT_EQ(library.send(1, "data"), GATEWAY_ACCEPTED);
    bool found = false;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(task.path() / "status");
        const std::string text{std::istreambuf_iterator<char>(status), {}};
        if (text.find("Name:\tkze_gateway\n") != std::string::npos) {
            found = true;
            EXPECT_THAT(text, HasSubstr("SigBlk:\tfffffffe"));
        }
    }
    EXPECT_TRUE(found);
}

TEST_F(gateway, has_everything_accepted_when_its_process_is_killed_a_second_later) {
    child_process child({GATEWAY_SENDER, "2000", "500"});
    std::size_t accepted = 0;
    for (std::string line = child.read_line(); line != "done"; line = child.read_line()) {
        ASSERT_THAT(line, Not(testing::IsEmpty()));
        accepted += line.find("refused") == std::string::npos ? 1 : 0;
    }
    std::this_thread::sleep_for(std::chrono::seconds(1)); /* the promise: one second */
    child.signal(SIGKILL);
    const int status = child.wait();
    ASSERT_TRUE(WIFSIGNALED(status));
    const auto found = entries();
    EXPECT_EQ(accepted, 2000U);
    ASSERT_EQ(found.size(), accepted);
    for (std::size_t i = 0; i < found.size(); ++i) {
        ASSERT_EQ(found[i].size, 500);
        ASSERT_EQ(found[i].data.substr(0, found[i].data.find(' ')), std::to_string(i));
    }
}

TEST_F(gateway, survives_a_full_disk_and_writes_what_it_kept_once_there_is_room) {
    set("queue_bytes = 1048576\nretry_ms = 10\n");
    child_process child({GATEWAY_SENDER, "300", "20000", "500000"});
    std::size_t accepted = 0;
    std::size_t refused = 0;
    for (std::string line = child.read_line(); line != "done"; line = child.read_line()) {
        ASSERT_THAT(line, Not(testing::IsEmpty()));
        const bool is_refusal = line.find("refused") != std::string::npos;
        accepted += is_refusal ? 0 : 1;
        refused += is_refusal ? 1 : 0;
        if (is_refusal) {
            EXPECT_EQ(line, "refused " + std::to_string(GATEWAY_QUEUE_FULL));
        }
    }
    EXPECT_GE(accepted, 1048576U / 20000U);
    EXPECT_GT(refused, 0U);
    ASSERT_TRUE(eventually([&] { return log().find("can't be written") != std::string::npos; }));
    child.write_line("the disk has room again");
    const int status = child.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(entries().size(), accepted);
    EXPECT_EQ(counter(GATEWAY_COUNT_REFUSED_FULL), static_cast<std::int64_t>(refused));
}

}  // namespace
