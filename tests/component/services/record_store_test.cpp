/* A service's records on disk: what is kept, what is dropped, and what a bad file costs. */
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/services/record_reader.h"
#include "agent/services/record_store.h"
#include "tests/support/process_state.h"
#include "tests/support/temp_tree.h"

namespace kze::services {
namespace {

class RecordStore : public ::testing::Test {
  protected:
    std::vector<std::string> kept() {
        std::vector<std::string> texts;
        const auto found = reader.newest(10000);
        EXPECT_TRUE(found.has_value()) << reader.problem();
        for (const kept_record &reply : found.value_or(std::vector<kept_record>())) {
            texts.push_back(reply.data);
        }
        return texts;
    }

    kze_test::temp_tree tree;
    const std::string path = tree.path("var/lib/linkage.db").string();
    record_reader reader{path, linkage_replies};
};

using texts = std::vector<std::string>;

TEST_F(RecordStore, there_are_no_replies_before_the_first) {
    EXPECT_EQ(kept(), texts());
    EXPECT_EQ(reader.newest_id(), 0);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(RecordStore, replies_are_numbered_and_kept_as_they_came) {
    const std::size_t descriptors = kze_test::descriptor_count();
    {
        record_store replies(path, linkage_replies);
        const std::string bytes("a\0\xFF", 3);
        for (const std::string &each : {std::string("first"), std::string(), bytes}) {
            ASSERT_TRUE(replies.add(each)) << replies.problem();
        }
        EXPECT_EQ(kept(), (texts{"first", "", bytes}));
        const auto second = reader.show(2);
        ASSERT_TRUE(second && second->size() == 1);
        EXPECT_EQ(second->front().size, 0);
        EXPECT_GT(second->front().received_us, 1577836800000000);
        EXPECT_EQ(reader.list(1, 1)->front().id, 2);
        EXPECT_TRUE(reader.show(4)->empty());
    }
    EXPECT_EQ(reader.newest_id(), 3);
    EXPECT_EQ(kze_test::descriptor_count(), descriptors);
}

TEST_F(RecordStore, list_shows_the_beginning_of_a_reply_and_show_all_of_it) {
    const std::string whole(1000, 'x');
    record_store replies(path, linkage_replies);
    ASSERT_TRUE(replies.add(whole));
    EXPECT_EQ(kept(), texts{whole.substr(0, 80)});
    EXPECT_EQ(reader.newest(1)->front().size, 1000);
    EXPECT_EQ(reader.show(1)->front().data, whole);
}

TEST_F(RecordStore, of_too_many_replies_the_oldest_go_and_numbers_are_not_given_again) {
    record_store replies(path, linkage_replies, {3, 1000});
    for (const char *text : {"1", "2", "3"}) {
        ASSERT_TRUE(replies.add(text));
    }
    EXPECT_EQ(kept(), (texts{"1", "2", "3"}));
    ASSERT_TRUE(replies.add("4"));
    EXPECT_EQ(kept(), (texts{"2", "3", "4"}));
    EXPECT_EQ(reader.newest_id(), 4);
}

TEST_F(RecordStore, of_too_many_bytes_the_oldest_go_and_the_newest_stays_even_alone) {
    record_store replies(path, linkage_replies, {100, 10});
    for (const char *text : {"aaaa", "bbbb", "cc"}) {
        ASSERT_TRUE(replies.add(text));
    }
    EXPECT_EQ(kept(), (texts{"aaaa", "bbbb", "cc"})) << "exactly at the bound";
    ASSERT_TRUE(replies.add("d"));
    EXPECT_EQ(kept(), (texts{"bbbb", "cc", "d"}));
    ASSERT_TRUE(replies.add("eleven byte"));
    EXPECT_EQ(kept(), texts{"eleven byte"});
    ASSERT_TRUE(replies.add("f"));
    EXPECT_EQ(kept(), texts{"f"});
}

TEST_F(RecordStore, replies_outlive_a_process_that_is_killed_while_it_writes) {
    const pid_t child = fork();
    if (child == 0) {
        record_store replies(path, linkage_replies, {1000000, 1 << 30});
        for (int i = 1;; ++i) {
            replies.add(std::to_string(i));
        }
    }
    ASSERT_TRUE(kze_test::eventually([&] { return reader.newest_id().value_or(0) >= 50; }));
    const std::int64_t seen = reader.newest_id().value_or(0);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    const texts all = kept();
    ASSERT_GE(static_cast<std::int64_t>(all.size()), seen);
    for (std::size_t i = 0; i < all.size(); ++i) {
        ASSERT_EQ(all[i], std::to_string(i + 1));
    }
    record_store again(path, linkage_replies);
    ASSERT_TRUE(again.add("after")) << again.problem();
    EXPECT_EQ(kept().back(), "after");
}

TEST_F(RecordStore, file_that_is_no_database_is_put_aside) {
    const std::string rubbish(5000, 'r');
    tree.write("var/lib/linkage.db", rubbish);
    EXPECT_FALSE(reader.newest(1).has_value());
    EXPECT_NE(reader.problem().find("not a database"), std::string::npos) << reader.problem();
    record_store replies(path, linkage_replies);
    EXPECT_FALSE(replies.add("lost"));
    EXPECT_TRUE(replies.add("kept")) << replies.problem();
    EXPECT_EQ(kept(), texts{"kept"});
    EXPECT_EQ(tree.read("var/lib/linkage.db.unusable"), rubbish);
}

TEST_F(RecordStore, data_are_put_in_a_records_place_as_long_as_it_is_there) {
    record_store replies(path, linkage_replies, {2, 1000});
    ASSERT_EQ(replies.add("first"), 1);
    ASSERT_EQ(replies.add("second"), 2);
    EXPECT_TRUE(replies.replace(1, "other")) << replies.problem();
    EXPECT_EQ(kept(), (texts{"other", "second"}));
    ASSERT_EQ(replies.add("third"), 3);
    EXPECT_FALSE(replies.replace(1, "too late"));
    EXPECT_NE(replies.problem().find("no longer has the record 1"), std::string::npos);
    EXPECT_EQ(replies.add("fourth"), 4) << "a refused change leaves the file usable";
    EXPECT_EQ(kept(), (texts{"third", "fourth"}));
}

TEST_F(RecordStore, file_that_is_moved_away_is_begun_anew) {
    record_store replies(path, linkage_replies);
    ASSERT_TRUE(replies.add("old"));
    std::filesystem::rename(path, path + ".moved");
    ASSERT_TRUE(replies.add("new")) << replies.problem();
    EXPECT_EQ(kept(), texts{"new"});
}

TEST_F(RecordStore, directory_that_can_not_be_made_loses_the_reply_and_says_why) {
    tree.write("var/lib", "a file");
    record_store replies(path, linkage_replies);
    EXPECT_FALSE(replies.add("lost"));
    EXPECT_NE(replies.problem().find("Not a directory"), std::string::npos) << replies.problem();
    std::filesystem::remove(tree.path("var/lib"));
    EXPECT_TRUE(replies.add("kept")) << replies.problem();
}

}  // namespace
}  // namespace kze::services
