// The ring behind the bus: what it keeps, what it leaves out, and what a crash or a hand may do.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <thread>

#include "agent/message_bus/events.h"
#include "agent/message_bus/tap.h"
#include "agent/message_bus/tap_reader.h"
#include "agent/message_bus/tap_writer.h"
#include "tests/support/process_state.h"
#include "tests/support/temp_tree.h"

using kze::bus::publication;
using kze::bus::tap_form;
using kze::bus::tap_kept_at_most;
using kze::bus::tap_reader;
using kze::bus::tap_writer;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr std::size_t all = 1000000;
constexpr std::uint32_t origin = kze::bus::event_origin;

class bus_tap_test : public testing::Test {
  protected:
    std::vector<publication> list(std::uint64_t after = 0, std::size_t limit = all) const {
        tap_reader reader(path);
        auto found = reader.list(after, limit);
        EXPECT_TRUE(found.has_value()) << reader.problem();
        return found.value_or(std::vector<publication>());
    }

    static std::vector<std::uint64_t> numbers(const std::vector<publication> &found) {
        std::vector<std::uint64_t> result;
        for (const publication &each : found) {
            result.push_back(each.number);
        }
        return result;
    }

    static void fill(tap_writer &tap, std::size_t publications) {
        for (std::size_t i = 0; i < publications; ++i) {
            ASSERT_TRUE(tap.add(origin, "text")) << tap.problem();
        }
    }

    void damage(off_t place) const {
        const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
        char byte = 0;
        ASSERT_EQ(pread(file, &byte, 1, place), 1);
        byte = static_cast<char>(byte ^ 0x40);
        ASSERT_EQ(pwrite(file, &byte, 1, place), 1);
        close(file);
    }

    kze_test::temp_tree tree;
    const std::string path = tree.path("var/bus.tap").string();
};

}  // namespace

TEST_F(bus_tap_test, a_tap_that_is_not_there_has_nothing) {
    EXPECT_THAT(list(), IsEmpty());
    tap_reader reader(path);
    EXPECT_EQ(reader.newest_number(), 0U);
}

TEST_F(bus_tap_test, publications_come_back_as_they_were_in_their_order) {
    tap_writer tap(path);
    const std::string bytes("a\0b\xFF", 4);
    ASSERT_TRUE(tap.add(origin, "first"));
    ASSERT_TRUE(tap.add(kze::bus::event_offline, bytes));
    ASSERT_TRUE(tap.add(7, ""));
    const auto found = list();
    ASSERT_THAT(found, SizeIs(3));
    EXPECT_THAT(numbers(found), ElementsAre(1, 2, 3));
    EXPECT_EQ(found[0].data, "first");
    EXPECT_EQ(found[1].data, bytes);
    EXPECT_EQ(found[1].event_id, 1022U);
    EXPECT_EQ(found[2].data, "");
    EXPECT_EQ(found[2].size, 0U);
    EXPECT_GT(found[0].published_us, 0);
}

TEST_F(bus_tap_test, long_data_is_cut_at_the_end_of_its_slot_and_its_size_is_told) {
    tap_writer tap(path);
    for (const std::size_t size :
         {tap_kept_at_most - 1, tap_kept_at_most, tap_kept_at_most + 1, std::size_t{100000}}) {
        ASSERT_TRUE(tap.add(origin, std::string(size, 'x')));
        const auto found = list();
        EXPECT_EQ(found.back().size, size);
        EXPECT_EQ(found.back().data, std::string(std::min(size, tap_kept_at_most), 'x'));
    }
    EXPECT_THAT(list(), SizeIs(4)) << "no slot reaches into the next";
}

TEST_F(bus_tap_test, the_oldest_gives_way_and_the_file_never_grows) {
    tap_writer tap(path);
    fill(tap, tap_form.slots - 1);
    EXPECT_EQ(list().size(), tap_form.slots - 1);
    const auto size = std::filesystem::file_size(path);
    fill(tap, 1);
    EXPECT_EQ(list().size(), tap_form.slots);
    EXPECT_EQ(list().front().number, 1U);
    fill(tap, 1);
    EXPECT_EQ(list().size(), tap_form.slots);
    EXPECT_EQ(list().front().number, 2U);
    fill(tap, tap_form.slots);
    EXPECT_EQ(list().back().number, 2U * tap_form.slots + 1);
    EXPECT_EQ(std::filesystem::file_size(path), size);
}

TEST_F(bus_tap_test, a_list_takes_the_first_behind_a_number_and_newest_takes_the_last) {
    tap_writer tap(path);
    fill(tap, 10);
    EXPECT_THAT(numbers(list(7)), ElementsAre(8, 9, 10));
    EXPECT_THAT(numbers(list(3, 2)), ElementsAre(4, 5));
    EXPECT_THAT(list(10), IsEmpty());
    tap_reader reader(path);
    EXPECT_THAT(numbers(reader.newest(2).value()), ElementsAre(9, 10));
    EXPECT_EQ(reader.newest_number(), 10U);
}

TEST_F(bus_tap_test, the_next_writer_goes_on_with_the_numbers) {
    {
        tap_writer first(path);
        fill(first, 5);
    }
    tap_writer second(path);
    fill(second, 1);
    EXPECT_THAT(numbers(list()), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_F(bus_tap_test, a_second_writer_is_refused_and_says_why) {
    tap_writer first(path);
    fill(first, 1);
    tap_writer second(path);
    EXPECT_FALSE(second.add(origin, "text"));
    EXPECT_THAT(second.problem(), HasSubstr("another process writes to it"));
    fill(first, 1);
    EXPECT_THAT(list(), SizeIs(2));
}

TEST_F(bus_tap_test, what_is_not_whole_is_left_out) {
    {
        tap_writer tap(path);
        fill(tap, 4);
    }
    damage(kze::bus::tap_place(2) + off_t{sizeof(kze::bus::tap_slot)});  // its data
    damage(kze::bus::tap_place(4));                                      // its number
    EXPECT_THAT(numbers(list()), ElementsAre(1, 3));
    tap_writer next(path);
    fill(next, 1);
    EXPECT_THAT(numbers(list()), ElementsAre(1, 3, 4)) << "only what is whole has a number";
}

TEST_F(bus_tap_test, a_file_that_is_no_tap_is_told_of_and_replaced) {
    std::ofstream(path) << "this is a text\n";
    tap_reader reader(path);
    EXPECT_FALSE(reader.list(0, all).has_value());
    EXPECT_THAT(reader.problem(), HasSubstr("is no tap of the message bus"));
    tap_writer tap(path);
    fill(tap, 1);
    EXPECT_THAT(list(), SizeIs(1));
}

TEST_F(bus_tap_test, a_tap_that_is_taken_away_is_begun_anew) {
    tap_writer tap(path);
    fill(tap, 3);
    std::filesystem::remove(path);
    fill(tap, 1);
    EXPECT_THAT(numbers(list()), ElementsAre(1));
}

TEST_F(bus_tap_test, a_tap_that_is_moved_or_cut_is_begun_anew) {
    tap_writer tap(path);
    fill(tap, 3);
    std::filesystem::rename(path, path + ".old");
    fill(tap, 1);
    EXPECT_THAT(numbers(list()), ElementsAre(1));
    std::filesystem::resize_file(path, 0);
    fill(tap, 2);
    EXPECT_THAT(numbers(list()), ElementsAre(1, 2));
    EXPECT_EQ(std::filesystem::file_size(path), std::filesystem::file_size(path + ".old"));
}

TEST_F(bus_tap_test, a_place_that_cannot_be_written_fails_and_may_be_tried_again) {
    tap_writer tap(tree.path("no/folder/bus.tap").string());
    EXPECT_FALSE(tap.add(origin, "text"));
    EXPECT_THAT(tap.problem(), HasSubstr("No such file or directory"));
    std::filesystem::create_directories(tree.path("no/folder"));
    EXPECT_TRUE(tap.add(origin, "text"));
}

TEST_F(bus_tap_test, only_its_owner_may_read_it) {
    tap_writer tap(path);
    fill(tap, 1);
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status(path).permissions(), perms::owner_read | perms::owner_write);
}

TEST_F(bus_tap_test, a_reader_beside_the_writer_sees_whole_publications_only) {
    tap_writer tap(path);
    fill(tap, 1);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (std::size_t round = 1; round < 5000; ++round) {
            const std::string data(round % tap_kept_at_most, static_cast<char>('a' + round % 26));
            EXPECT_TRUE(tap.add(origin, data));
        }
        done = true;
    });
    while (!done) {
        for (const publication &each : list(1)) {
            const std::string whole((each.number - 1) % tap_kept_at_most,
                                    static_cast<char>('a' + (each.number - 1) % 26));
            EXPECT_EQ(each.data, whole) << "publication " << each.number;
        }
    }
    writer.join();
}

// The follower is stopped in the midst of a look again and again, and the writer passes it by.
TEST_F(bus_tap_test, a_follower_that_is_held_up_within_the_rings_length_misses_nothing) {
    constexpr std::uint64_t rounds = 30;
    constexpr std::uint64_t at_a_time = tap_form.slots / 2;
    tap_writer tap(path);
    fill(tap, at_a_time);
    int caught_up[2];
    ASSERT_EQ(pipe2(caught_up, O_CLOEXEC), 0);
    const pid_t follower = fork();
    ASSERT_GE(follower, 0);
    if (follower == 0) {
        std::uint64_t read = 0;
        while (true) {
            for (const std::uint64_t number : numbers(list(read))) {
                if (number != ++read) {
                    _exit(1);
                }
                if (read % at_a_time == 0 && write(caught_up[1], "", 1) != 1) {
                    _exit(2);
                }
            }
        }
    }
    close(caught_up[1]);
    char byte = 0;
    for (std::uint64_t round = 0; round < rounds; ++round) {
        const bool has_all = read(caught_up[0], &byte, 1) == 1;
        kill(follower, has_all ? SIGSTOP : SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(follower, &status, WUNTRACED), follower);
        ASSERT_TRUE(WIFSTOPPED(status)) << "it missed one in round " << round;
        fill(tap, at_a_time);
        kill(follower, SIGCONT);
    }
    close(caught_up[0]);
    kill(follower, SIGKILL);
    waitpid(follower, nullptr, 0);
}

TEST_F(bus_tap_test, a_writer_that_is_killed_leaves_whole_publications) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        tap_writer tap(path);
        for (;;) {
            tap.add(origin, std::string(1000, 'x'));
        }
    }
    EXPECT_TRUE(kze_test::eventually([&] { return list().size() >= 100; }));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    const auto left = list();
    ASSERT_GE(left.size(), 100U);
    for (std::size_t i = 1; i < left.size(); ++i) {
        ASSERT_EQ(left[i].number, left[i - 1].number + 1);
    }
    tap_writer next(path);
    fill(next, 1);
    EXPECT_EQ(list().back().number, left.back().number + 1);
}

TEST_F(bus_tap_test, the_length_of_an_events_data_follows_from_its_id) {
    EXPECT_EQ(kze::bus::event_data(18, "text"), "text");
    EXPECT_EQ(kze::bus::event_data(1022, "offline, and more"), "offline");
    EXPECT_EQ(kze::bus::event_data(17, "text"), "");
    EXPECT_EQ(kze::bus::event_data(18, nullptr), "");
    EXPECT_STREQ(kze::bus::event_name(18), "origin");
    EXPECT_STREQ(kze::bus::event_name(1022), "offline");
    EXPECT_STREQ(kze::bus::event_name(1), "unknown");
}
