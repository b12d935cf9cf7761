/* The central configuration's store. */
#include "agent/central_config/store.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <atomic>
#include <thread>

#include "platform/common/descriptor.h"
#include "tests/support/process_state.h"
#include "tests/support/temp_tree.h"

namespace {

using namespace kze::config;
using testing::HasSubstr;

constexpr char file[] = "config/kzacfgc/store.json";

class config_store : public testing::Test {
  protected:
    int set(const std::string &module, const std::string &key, const std::string &text,
            int type = VALUE_STRING) {
        return store_.set(module, key, {type, text});
    }
    /* The value's text, or the result's. */
    std::string get(const std::string &module, const std::string &key) {
        store_value value;
        const int result = store_.get(module, key, value);
        return result == STORE_OK ? value.text : store_text(result);
    }
    int type(const std::string &module, const std::string &key) {
        store_value value;
        value.type = -1;
        store_.get(module, key, value);
        return value.type;
    }
    void write(const std::string &text) { tree_.write(file, text); }
    std::string text() const { return tree_.read(file); }

    kze_test::temp_tree tree_;
    std::string directory_ = tree_.path("config/kzacfgc");
    store store_{directory_};
};

TEST_F(config_store, a_value_that_was_set_is_there_for_everybody) {
    ASSERT_EQ(set("/mgr/base_collect", "/adv_threats", "true"), STORE_OK) << store_.problem();
    EXPECT_EQ(get("/mgr/base_collect", "/adv_threats"), "true");
    store other(directory_);
    store_value value;
    ASSERT_EQ(other.get("/mgr/base_collect", "/adv_threats", value), STORE_OK);
    EXPECT_EQ(value.type, VALUE_STRING);
    EXPECT_EQ(value.text, "true");
}

TEST_F(config_store, the_file_is_an_object_of_modules_of_keys) {
    set("/mgr/b", "/two", "2");
    set("/mgr/a", "/one", "1");
    EXPECT_EQ(text(),
              "{\n  \"/mgr/a\": {\n    \"/one\": \"1\"\n  },\n"
              "  \"/mgr/b\": {\n    \"/two\": \"2\"\n  }\n}\n");
}

TEST_F(config_store, each_json_type_has_its_own_type) {
    write(R"({"/m": {"s": "text", "b": true, "i": -7, "u": 18446744073709551615, "r": 1.5,
                     "n": null, "o": {"k": 1}, "a": [1, 2]}})");
    EXPECT_EQ(type("/m", "s"), 3);
    EXPECT_EQ(type("/m", "b"), VALUE_BOOLEAN);
    EXPECT_EQ(type("/m", "i"), VALUE_INTEGER);
    EXPECT_EQ(type("/m", "u"), VALUE_INTEGER);
    EXPECT_EQ(type("/m", "r"), VALUE_REAL);
    EXPECT_EQ(type("/m", "n"), VALUE_NULL);
    EXPECT_EQ(type("/m", "o"), VALUE_STRUCTURE);
    EXPECT_EQ(type("/m", "a"), VALUE_STRUCTURE);
    EXPECT_EQ(get("/m", "i"), "-7");
    EXPECT_EQ(get("/m", "u"), "18446744073709551615");
    EXPECT_EQ(get("/m", "o"), "{\"k\":1}");
}

TEST_F(config_store, values_are_set_with_their_type_and_a_text_that_is_of_it) {
    EXPECT_EQ(set("/m", "b", "true", VALUE_BOOLEAN), STORE_OK);
    EXPECT_EQ(set("/m", "i", "42", VALUE_INTEGER), STORE_OK);
    EXPECT_EQ(set("/m", "o", "{\"k\": [1]}", VALUE_STRUCTURE), STORE_OK);
    EXPECT_EQ(type("/m", "b"), VALUE_BOOLEAN);
    EXPECT_EQ(type("/m", "i"), VALUE_INTEGER);
    EXPECT_EQ(get("/m", "o"), "{\"k\":[1]}");
    EXPECT_EQ(set("/m", "b", "yes", VALUE_BOOLEAN), STORE_BAD_ARGUMENT);
    EXPECT_EQ(set("/m", "b", "1", VALUE_BOOLEAN), STORE_BAD_ARGUMENT);
    EXPECT_EQ(store_.problem(), "the value is not of the type boolean");
    EXPECT_EQ(get("/m", "b"), "true");
}

TEST_F(config_store, words_for_types_and_their_numbers_belong_together) {
    for (int number = VALUE_NULL; number <= VALUE_STRUCTURE; ++number) {
        EXPECT_EQ(value_type_number(value_type_name(number)), number);
    }
    EXPECT_EQ(value_type_number("text"), -1);
}

TEST_F(config_store, lists_all_values_by_module_and_key) {
    set("/b", "k", "3");
    set("/a", "y", "2");
    set("/a", "x", "1");
    std::vector<store_entry> entries;
    ASSERT_EQ(store_.list(entries), STORE_OK);
    ASSERT_EQ(entries.size(), 3U);
    EXPECT_EQ(entries[0].module + entries[0].key + entries[0].value.text, "/ax1");
    EXPECT_EQ(entries[1].module + entries[1].key + entries[1].value.text, "/ay2");
    EXPECT_EQ(entries[2].module + entries[2].key + entries[2].value.text, "/bk3");
}

TEST_F(config_store, unset_removes_a_key_and_with_the_last_one_its_module) {
    set("/a", "x", "1");
    set("/a", "y", "2");
    ASSERT_EQ(store_.unset("/a", "x"), STORE_OK);
    EXPECT_EQ(get("/a", "x"), store_text(STORE_NO_KEY));
    EXPECT_EQ(store_.unset("/a", "x"), STORE_NO_KEY);
    ASSERT_EQ(store_.unset("/a", "y"), STORE_OK);
    EXPECT_EQ(get("/a", "y"), store_text(STORE_NO_MODULE));
    EXPECT_EQ(store_.unset("/a", "y"), STORE_NO_MODULE);
    EXPECT_EQ(text(), "{}\n");
}

TEST_F(config_store, a_store_that_is_not_there_is_told_and_has_an_empty_list) {
    std::vector<store_entry> entries;
    EXPECT_EQ(get("/a", "x"), store_text(STORE_ABSENT));
    EXPECT_THAT(store_.problem(), HasSubstr(store_.path()));
    EXPECT_EQ(store_.list(entries), STORE_OK);
    EXPECT_TRUE(entries.empty());
    EXPECT_EQ(store_.unset("/a", "x"), STORE_ABSENT);
    EXPECT_FALSE(std::filesystem::exists(store_.path()));
}

TEST_F(config_store, failures_leave_the_out_parameter_alone) {
    store_value value{VALUE_REAL, "before"};
    store_.get("/a", "x", value);
    EXPECT_EQ(value.type, VALUE_REAL);
    EXPECT_EQ(value.text, "before");
}

TEST_F(config_store, bad_json_is_told_with_file_line_and_column) {
    write("{\n  \"/a\": {\n    \"x\" \"1\"\n  }\n}\n");
    EXPECT_EQ(get("/a", "x"), store_text(STORE_BROKEN));
    EXPECT_EQ(store_.problem(), store_.path() + ": line 3, column 11: not valid JSON");
}

TEST_F(config_store, a_broken_store_is_never_overwritten) {
    write("{ broken");
    EXPECT_EQ(set("/a", "x", "1"), STORE_BROKEN);
    EXPECT_EQ(store_.unset("/a", "x"), STORE_BROKEN);
    EXPECT_EQ(text(), "{ broken");
}

TEST_F(config_store, a_broken_store_that_is_put_right_is_read_again) {
    write("{ broken");
    EXPECT_EQ(get("/a", "x"), store_text(STORE_BROKEN));
    EXPECT_EQ(get("/a", "x"), store_text(STORE_BROKEN));
    EXPECT_THAT(store_.problem(), HasSubstr("line 1, column 3"));
    write(R"({"/a": {"x": "1"}})");
    EXPECT_EQ(get("/a", "x"), "1");
}

TEST_F(config_store, each_kind_of_broken_file_is_told_and_none_crashes) {
    const std::string deep(200000, '[');
    for (const std::string &broken :
         {std::string(), std::string("[]"), std::string("\"text\""), std::string("{\"/a\": 1}"),
          std::string("{\"/a\": {\"x\": \"\xff\"}}"), std::string("{\"/a\": {\"x\": 1e999}}"),
          std::string("{} {}"), std::string(1, '\0'), "{\"/a\": {\"x\": " + deep, deep,
          "{\"/a\": {\"x\": " + deep + std::string(200000, ']') + "}}"}) {
        write(broken);
        EXPECT_EQ(get("/a", "x"), store_text(STORE_BROKEN)) << broken.substr(0, 40);
        EXPECT_THAT(store_.problem(), HasSubstr(store_.path()));
    }
}

TEST_F(config_store, a_directory_in_its_place_is_told) {
    std::filesystem::create_directories(tree_.path(file));
    EXPECT_EQ(get("/a", "x"), store_text(STORE_BROKEN));
    EXPECT_THAT(store_.problem(), HasSubstr("is no regular file"));
}

TEST_F(config_store, a_file_up_to_the_bound_is_read_and_a_larger_one_is_not) {
    const std::string head = R"({"/a": {"x": "1"}})";
    write(head + std::string(store_size_bound - head.size(), ' '));
    EXPECT_EQ(get("/a", "x"), "1");
    write(head + std::string(store_size_bound + 1 - head.size(), ' '));
    EXPECT_EQ(get("/a", "x"), store_text(STORE_BROKEN));
    EXPECT_THAT(store_.problem(), HasSubstr("is larger than 8388608 bytes"));
}

TEST_F(config_store, values_up_to_the_bound_are_taken_and_longer_ones_are_not) {
    EXPECT_EQ(set("/a", "x", std::string(value_size_bound - 1, 'v')), STORE_OK);
    EXPECT_EQ(set("/a", "x", std::string(value_size_bound, 'v')), STORE_OK);
    EXPECT_EQ(set("/a", "x", std::string(value_size_bound + 1, 'w')), STORE_BAD_ARGUMENT);
    EXPECT_EQ(get("/a", "x"), std::string(value_size_bound, 'v'));
}

TEST_F(config_store, a_store_that_would_grow_past_its_bound_is_full) {
    for (int i = 0; i < 7; ++i) {
        ASSERT_EQ(set("/a", std::to_string(i), std::string(value_size_bound, 'v')), STORE_OK);
    }
    const std::string before = text();
    EXPECT_EQ(set("/a", "8", std::string(value_size_bound, 'v')), STORE_FULL);
    EXPECT_EQ(text(), before);
}

TEST_F(config_store, names_have_1_to_255_bytes_of_utf8_without_control_characters) {
    EXPECT_EQ(set(std::string(255, 'm'), std::string(255, 'k'), "v"), STORE_OK);
    EXPECT_EQ(set(std::string(256, 'm'), "k", "v"), STORE_BAD_ARGUMENT);
    EXPECT_EQ(set("m", std::string(256, 'k'), "v"), STORE_BAD_ARGUMENT);
    EXPECT_EQ(set("", "k", "v"), STORE_BAD_ARGUMENT);
    EXPECT_EQ(set("m", "", "v"), STORE_BAD_ARGUMENT);
    EXPECT_EQ(set("m", "line\nend", "v"), STORE_BAD_ARGUMENT);
    EXPECT_EQ(set("m", "\xc3", "v"), STORE_BAD_ARGUMENT);
    EXPECT_EQ(set("m", "k", "\xff"), STORE_BAD_ARGUMENT);
    EXPECT_EQ(store_.problem(), "the value is not UTF-8");
}

TEST_F(config_store, a_text_keeps_its_line_ends_quotes_and_other_alphabets) {
    const std::string value = "\"quoted\"\n\ttab \\ \xd0\x96 \xe5\xad\x97";
    ASSERT_EQ(set("/a", "x", value), STORE_OK);
    EXPECT_EQ(get("/a", "x"), value);
    EXPECT_EQ(set("/a", "x", ""), STORE_OK);
    EXPECT_EQ(get("/a", "x"), "");
}

TEST_F(config_store, changes_of_the_same_length_in_quick_succession_are_all_seen) {
    store writer(directory_);
    for (int i = 0; i < 50; ++i) {
        const std::string value = std::to_string(1000 + i);
        ASSERT_EQ(writer.set("/a", "x", {VALUE_STRING, value}), STORE_OK);
        ASSERT_EQ(get("/a", "x"), value);
    }
}

TEST_F(config_store, concurrent_writers_lose_none_of_each_others_values) {
    constexpr int writers = 4;
    constexpr int each = 10;
    std::vector<std::thread> threads;
    for (int w = 0; w < writers; ++w) {
        threads.emplace_back([this, w] {
            store mine(directory_);
            for (int i = 0; i < each; ++i) {
                EXPECT_EQ(mine.set("/" + std::to_string(w), std::to_string(i), {VALUE_STRING, "v"}),
                          STORE_OK)
                    << mine.problem();
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    std::vector<store_entry> entries;
    ASSERT_EQ(store_.list(entries), STORE_OK);
    EXPECT_EQ(entries.size(), static_cast<std::size_t>(writers * each));
}

TEST_F(config_store, a_reader_sees_the_store_before_or_after_a_change_and_never_half_of_one) {
    ASSERT_EQ(set("/a", "x", std::string(100000, 'v')), STORE_OK);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        store mine(directory_);
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(mine.set("/a", "x", {VALUE_STRING, std::string(100000, 'v')}), STORE_OK);
        }
        done = true;
    });
    std::size_t reads = 0;
    while (!done || reads == 0) {
        ASSERT_EQ(get("/a", "x").size(), 100000U) << store_.problem();
        ++reads;
    }
    writer.join();
}

TEST_F(config_store, a_writer_gives_up_when_another_holds_the_store_for_too_long) {
    ASSERT_EQ(set("/a", "x", "1"), STORE_OK);
    const kze::descriptor lock(
        open((directory_ + "/store.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
    EXPECT_EQ(set("/a", "x", "2"), STORE_LOCKED);
    EXPECT_EQ(get("/a", "x"), "1");
}

TEST_F(config_store, what_a_crashed_writer_left_beside_the_store_is_replaced) {
    ASSERT_EQ(set("/a", "x", "1"), STORE_OK);
    tree_.write("config/kzacfgc/store.json.new", "{ half of a st");
    EXPECT_EQ(get("/a", "x"), "1");
    EXPECT_EQ(set("/a", "x", "2"), STORE_OK);
    EXPECT_EQ(get("/a", "x"), "2");
    EXPECT_FALSE(std::filesystem::exists(directory_ + "/store.json.new"));
}

TEST_F(config_store, a_change_that_cannot_be_written_leaves_the_old_store) {
    ASSERT_EQ(set("/a", "x", "1"), STORE_OK);
    std::filesystem::create_directory(directory_ + "/store.json.new");
    EXPECT_EQ(set("/a", "x", "2"), STORE_NOT_WRITTEN);
    EXPECT_THAT(store_.problem(), HasSubstr(store_.path()));
    EXPECT_EQ(get("/a", "x"), "1");
}

TEST_F(config_store, a_new_store_is_for_its_owner_only_and_another_keeps_its_permissions) {
    using std::filesystem::perms;
    set("/a", "x", "1");
    EXPECT_EQ(std::filesystem::status(store_.path()).permissions(),
              perms::owner_read | perms::owner_write);
    const perms wider = perms::owner_read | perms::owner_write | perms::group_read;
    std::filesystem::permissions(store_.path(), wider);
    set("/a", "x", "2");
    EXPECT_EQ(std::filesystem::status(store_.path()).permissions(), wider);
}

TEST_F(config_store, leaves_no_descriptor) {
    const std::size_t before = kze_test::descriptor_count();
    set("/a", "x", "1");
    get("/a", "x");
    store_.unset("/a", "x");
    EXPECT_EQ(kze_test::descriptor_count(), before);
}

TEST(config_store_text, every_result_has_a_text_of_its_own) {
    for (int result = STORE_NO_MEMORY; result < 0; ++result) {
        EXPECT_STRNE(store_text(result), "unknown result") << result;
    }
    EXPECT_STREQ(store_text(0), "success");
    EXPECT_STREQ(store_text(-1000), "unknown result");
}

}  // namespace
