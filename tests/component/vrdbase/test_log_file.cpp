// Which file a record goes to, how files grow and turn, and what happens when they can't be
// written.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
#include <vector>

#include "log_test.h"
#include "run_program.h"
#include "tests/support/sanitizers.h"

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

namespace {

class LogFileTest : public LogTest {
  protected:
    static mode_t mode_of(const std::string &name) {
        struct stat status {};
        EXPECT_EQ(stat(name.c_str(), &status), 0) << name;
        return status.st_mode & 07777U;
    }

    // Writes `mib` MiB of records of 64 KiB each, numbered from 0, and returns their number.
    int write_mib(const std::string &to, int files, int mib) {
        const std::string text(64 * 1024 - 100, 'x');
        const int records = mib * 16;
        std::thread([&] {
            autolog_init(to.c_str(), files);
            for (int i = 0; i < records; ++i)
                kze_log(1, "%s #%d", text.c_str(), i);
        }).join();
        return records;
    }
};

constexpr std::chrono::seconds deadline(20);
constexpr uintmax_t max_file_size = 10UL * 1024 * 1024;

}  // namespace

TEST_F(LogFileTest, and_the_directories_above_it_are_made_for_the_owner_only) {
    log([] { kze_log(1, "x"); });
    EXPECT_EQ(mode_of(path("var")), 0700U);
    EXPECT_EQ(mode_of(path("var/log")), 0700U);
    EXPECT_EQ(mode_of(directory()), 0700U);
    EXPECT_EQ(mode_of(file()), 0600U);
    EXPECT_THAT(names_in(directory()), UnorderedElementsAre("test.log"));
}

TEST_F(LogFileTest, is_shared_by_threads_that_name_one_directory_however_they_spell_it) {
    std::filesystem::create_directory(path("var"));
    std::filesystem::create_directory_symlink(path("var"), path("link"));
    const std::vector<std::string> spellings = {directory(), directory() + "/",
                                                path("link/log/test"), path("var/../var/log//test"),
                                                "@/../var/log/test"};
    constexpr int records = 500;
    std::vector<std::thread> threads;
    for (size_t i = 0; i < spellings.size(); ++i)
        threads.emplace_back([&, i] {
            autolog_init(spellings[i].c_str(), 5);
            for (int record = 0; record < records; ++record)
                kze_log(1, "thread %zu record %d end", i, record);
        });
    for (auto &thread : threads)
        thread.join();

    // Whole lines, each thread's in its order.
    std::map<std::string, int> next;
    const auto lines = lines_of(file());
    EXPECT_EQ(lines.size(), spellings.size() * records);
    for (const auto &line : lines) {
        const size_t begin = line.find("thread ");
        ASSERT_NE(begin, std::string::npos) << line;
        const std::string thread = line.substr(begin, line.find(" record") - begin);
        EXPECT_THAT(line, EndsWith(thread + " record " + std::to_string(next[thread]++) + " end"));
    }
    int open_for_it = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        open_for_it += std::filesystem::read_symlink(entry, gone) == file() ? 1 : 0;
    }
    EXPECT_EQ(open_for_it, 1);
}

TEST_F(LogFileTest, differs_for_threads_of_different_directories) {
    std::vector<std::thread> threads;
    for (const char *name : {"worker", "worker/task", "worker/upgrade"})
        threads.emplace_back([this, name] {
            autolog_init(path(name).c_str(), 5);
            for (int i = 0; i < 100; ++i)
                kze_log(1, "of %s.", name);
        });
    for (auto &thread : threads)
        thread.join();
    for (const char *name : {"worker", "worker/task", "worker/upgrade"}) {
        const std::string last = std::filesystem::path(name).filename();
        const auto lines = lines_of(path(name) + "/" + last + ".log");
        EXPECT_EQ(lines.size(), 100U);
        EXPECT_THAT(lines, Each(EndsWith(std::string(" of ") + name + ".")));
    }
}

TEST_F(LogFileTest, of_a_thread_changes_when_it_names_another_directory) {
    log([this] {
        kze_log(1, "first");
        autolog_init(path("other").c_str(), 5);
        kze_log(1, "second");
        autolog_init(directory().c_str(), 5);
        kze_log(1, "third");
    });
    EXPECT_THAT(lines_of(file()), ElementsAre(EndsWith(" first"), EndsWith(" third")));
    EXPECT_THAT(lines_of(path("other/other.log")), ElementsAre(EndsWith(" second")));
}

TEST_F(LogFileTest, is_the_hosts_for_a_thread_that_never_named_a_directory) {
    const ProgramRun run = run_program(LOG_PROGRAM, "one");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "");
    EXPECT_THAT(lines_of(path("var/log/host/host.log")),
                ElementsAre(EndsWith(" a record of the host")));
}

TEST_F(LogFileTest, that_cant_be_made_for_the_host_is_replaced_by_standard_error) {
    write_content(path("var"), "a file in the way");
    const ProgramRun run = run_program(LOG_PROGRAM, "one");
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.output, EndsWith(" a record of the host\n"));
    EXPECT_EQ(content_of(path("var")), "a file in the way");
}

TEST_F(LogFileTest, that_cant_be_made_does_no_harm_when_the_reader_of_standard_error_is_gone) {
    write_content(path("var"), "a file in the way");
    EXPECT_EQ(run_program(LOG_PROGRAM, "reader_gone").status, 0);
}

TEST_F(LogFileTest, that_cant_be_made_keeps_nobody_waiting_for_the_reader_of_standard_error) {
    write_content(path("var"), "a file in the way");
    EXPECT_EQ(run_program(LOG_PROGRAM, "reader_stalled").status, 0);
}

TEST_F(LogFileTest, that_cant_be_made_counts_what_standard_error_doesnt_take) {
    write_content(path("var"), "a file in the way");
    const auto end = std::chrono::steady_clock::now() + deadline;
    int gone[2];
    ASSERT_EQ(pipe2(gone, O_CLOEXEC), 0);
    close(gone[0]);
    {
        const StandardErrorTo capture("/proc/self/fd/" + std::to_string(gone[1]));
        log([] { kze_log(1, "lost"); });
        std::filesystem::remove(path("var"));
        log([this, end] {
            std::filesystem::remove_all(path("var"));
            while (!std::filesystem::exists(file()) && std::chrono::steady_clock::now() < end)
                kze_log(1, "lost too");
        });
    }
    close(gone[1]);
    ASSERT_FALSE(lines_of(file()).empty());
    const std::string told = lines_of(file()).front();
    const size_t number = told.find("-:0 ") + 4;
    const std::string count = told.substr(number, told.find(' ', number) - number);
    EXPECT_THAT(told, EndsWith(" -:0 " + count + " records went to standard error, " + count +
                               " of them are lost"));
    EXPECT_GE(std::stol(count), 2);
}

TEST_F(LogFileTest, is_continued_by_the_next_process) {
    run_program(LOG_PROGRAM, "one");
    run_program(LOG_PROGRAM, "one");
    EXPECT_EQ(lines_of(path("var/log/host/host.log")).size(), 2U);
}

TEST_F(LogFileTest, with_half_a_line_at_its_end_goes_on_with_a_new_line) {
    write_content(file(), "half a li");
    log([] { kze_log(1, "whole"); });
    EXPECT_THAT(lines_of(file()), ElementsAre("half a li", EndsWith(" whole")));
}

TEST_F(LogFileTest, turns_at_10_mib_and_never_holds_more_files_than_allowed) {
    const int records = write_mib(directory(), 3, 45);
    EXPECT_THAT(names_in(directory()),
                UnorderedElementsAre("test.log", "test.1.log", "test.2.log"));
    int next = records;
    for (const char *name : {"/test.log", "/test.1.log", "/test.2.log"}) {
        EXPECT_LE(std::filesystem::file_size(directory() + name), max_file_size);
        EXPECT_EQ(mode_of(directory() + name), 0600U);
        const auto lines = lines_of(directory() + name);
        for (auto line = lines.rbegin(); line != lines.rend(); ++line)
            ASSERT_THAT(line->substr(line->size() - 10), EndsWith(" #" + std::to_string(--next)));
    }
    // Two full files and the current one: nothing newer is missing.
    EXPECT_LE(next, records - 2 * 150);
}

TEST_F(LogFileTest, turns_into_nothing_when_one_file_is_allowed) {
    const int records = write_mib(directory(), 1, 11);
    EXPECT_THAT(names_in(directory()), UnorderedElementsAre("test.log"));
    EXPECT_LE(std::filesystem::file_size(file()), max_file_size);
    EXPECT_THAT(lines_of(file()).back(), EndsWith(" #" + std::to_string(records - 1)));
}

TEST_F(LogFileTest, count_below_one_is_one) {
    write_mib(directory(), -5, 11);
    EXPECT_THAT(names_in(directory()), UnorderedElementsAre("test.log"));
}

TEST_F(LogFileTest, is_closed_in_programs_that_the_process_starts) {
    log([] { kze_log(1, "x"); });
    const ProgramRun run = run_program("/bin/ls", "-l/proc/self/fd");
    EXPECT_THAT(run.output, Not(HasSubstr(".log")));
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry, gone) == file()) {
            EXPECT_NE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0);
        }
    }
}

TEST_F(LogFileTest, that_cant_be_made_is_replaced_by_standard_error_and_tried_once_a_second) {
    write_content(path("var"), "a file in the way");
    const auto start = std::chrono::steady_clock::now();
    {
        const StandardErrorTo capture(path("stderr"));
        log([] {
            kze_log(1, "first of two");
            kze_log(1, "second of two");
        });
    }
    EXPECT_THAT(lines_of(path("stderr")),
                ElementsAre(EndsWith(" first of two"), EndsWith(" second of two")));

    std::filesystem::remove(path("var"));
    {
        const StandardErrorTo capture(path("later"));
        // Naming the directory has made it. Gone again, it is for the file to make.
        log([this, start] {
            std::filesystem::remove_all(path("var"));
            while (!std::filesystem::exists(file()) &&
                   std::chrono::steady_clock::now() < start + deadline)
                kze_log(1, "trying");
        });
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(mode_of(path("var")), 0700U);
    EXPECT_EQ(mode_of(directory()), 0700U);
    const size_t tried = lines_of(path("later")).size();
    EXPECT_THAT(lines_of(file()), ElementsAre(EndsWith(" -:0 " + std::to_string(tried + 2) +
                                                       " records went to standard error"),
                                              EndsWith(" trying")));
}

TEST_F(LogFileTest, that_cant_be_made_leaves_errno_as_it_was) {
    write_content(path("var"), "a file in the way");
    const StandardErrorTo capture(path("stderr"));
    std::thread([this] {
        errno = ENOTTY;
        autolog_init(directory().c_str(), 5);
        EXPECT_EQ(errno, ENOTTY);
        kze_log(1, "x");
        EXPECT_EQ(errno, ENOTTY);
    }).join();
    EXPECT_THAT(lines_of(path("stderr")), ElementsAre(EndsWith(" x")));
}

TEST_F(LogFileTest, on_a_full_disk_loses_nothing_but_the_place_and_recovers) {
    const ProgramRun run = run_program(LOG_PROGRAM, "full");
    EXPECT_EQ(run.status, 0);
    const auto lines = lines_of(path("var/log/full/full.log"));
    // Each record is whole in one of the two places.
    const std::string everything = content_of(path("var/log/full/full.log")) + run.output;
    for (int i = 0; i < 100; ++i)
        EXPECT_THAT(everything, HasSubstr(" while full " + std::to_string(i) + "\n"));
    EXPECT_THAT(run.output, HasSubstr(" while full 99\n"));
    // It was full twice; each time says how many went elsewhere, all of which arrived there.
    long elsewhere = 0;
    int told = 0;
    for (const auto &line : lines) {
        const size_t end = line.find(" records went to standard error");
        if (end != std::string::npos) {
            elsewhere += std::stol(line.substr(line.rfind(' ', end - 1)));
            ++told;
        }
    }
    EXPECT_EQ(told, 2);
    EXPECT_EQ(elsewhere, std::count(run.output.begin(), run.output.end(), '\n'));
    EXPECT_THAT(lines.back(), EndsWith(" room again"));
    // The half line that the full disk left is a line of its own: all begin alike, with the year,
    // and nowhere within a line does another one begin.
    const std::string start = lines.back().substr(0, 5);
    for (const auto &line : lines) {
        EXPECT_EQ(line.substr(0, 5), start.substr(0, line.size()));
        EXPECT_EQ(line.find(start, 1), std::string::npos) << line;
    }
}

TEST_F(LogFileTest, of_a_thread_is_the_hosts_again_after_a_null_or_empty_directory) {
    const ProgramRun run = run_program(LOG_PROGRAM, "back");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "");
    EXPECT_THAT(lines_of(path("var/log/host/host.log")),
                ElementsAre(EndsWith(" after null"), EndsWith(" after empty")));
}

TEST_F(LogFileTest, takes_records_of_threads_that_run_while_the_process_ends) {
    const ProgramRun run = run_program(LOG_PROGRAM, "exit");
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(run.output, "");
    EXPECT_THAT(lines_of(path("var/log/host/host.log")),
                ElementsAre(EndsWith(" destroyed at exit")));
}

TEST_F(LogFileTest, takes_records_of_a_forked_child_while_other_threads_log) {
    if (kze_test::address_sanitizer || kze_test::thread_sanitizer)
        GTEST_SKIP() << "a forked child finds the sanitizer's allocator locked by another thread";
    const ProgramRun run = run_program(LOG_PROGRAM, "fork");
    EXPECT_EQ(run.status, 0) << run.output;
    const std::string text = content_of(path("var/log/even/even.log")) +
                             (std::filesystem::exists(path("var/log/even/even.1.log"))
                                  ? content_of(path("var/log/even/even.1.log"))
                                  : "");
    EXPECT_THAT(text, HasSubstr(" parent after child 29\n"));
    EXPECT_THAT(text, HasSubstr(" record of child 29\n"));
}
