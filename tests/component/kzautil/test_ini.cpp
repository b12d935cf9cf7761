// Ini files: reading, changing and saving.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "kzautil.h"
#include "tests/component/vrdbase/temporary_tree.h"

using ::testing::UnorderedElementsAre;

namespace {

using Document = std::unique_ptr<void, void (*)(void *)>;

Document load(const std::string &path) {
    return {kze_ini_file_load(path.c_str()), kze_ini_file_free};
}

Document empty() {
    return {kze_ini_file_load(nullptr), kze_ini_file_free};
}

class Ini : public TemporaryTree {
  protected:
    Ini() { std::filesystem::create_directory(path("d")); }

    std::string file() const { return path("d/settings.ini"); }

    Document document(const std::string &text) const {
        write_content(file(), text);
        Document loaded = load(file());
        EXPECT_NE(loaded, nullptr) << text;
        return loaded;
    }

    // A value as text, "(none)" where there is none.
    static std::string get(const Document &from, const char *section, const char *key) {
        const char *value = kze_ini_file_get(from.get(), section, key);
        return value == nullptr ? "(none)" : value;
    }

    std::string value_in(const std::string &text, const char *section, const char *key) const {
        return get(document(text), section, key);
    }

    // The saved text after a value was set in what was loaded from `text`.
    std::string after_set(const std::string &text, const char *section, const char *key,
                          const char *value) const {
        const Document changed = document(text);
        EXPECT_EQ(kze_ini_file_set(changed.get(), section, key, value), 0);
        EXPECT_EQ(get(changed, section, key), value);
        EXPECT_EQ(kze_ini_file_save(changed.get(), file().c_str(), 0), 0);
        EXPECT_EQ(get(load(file()), section, key), value);
        return content_of(file());
    }

    static mode_t mode_of(const std::string &name) {
        struct stat status {};
        EXPECT_EQ(stat(name.c_str(), &status), 0) << name;
        return status.st_mode & 07777U;
    }
};

const char *const sample =
    "; the agent's settings\n"
    "\n"
    "[basic]\n"
    "; how many\n"
    "task_queue_size = 10\n"
    "  unknown=kept as it is   \n"
    "\n"
    "# about time\n"
    "[time]\n"
    "upgrade_check_interval=120 ; seconds\n"
    "; the end\n";

}  // namespace

TEST_F(Ini, gives_the_value_of_a_key_without_the_blanks_around_it) {
    const Document loaded = document(sample);
    EXPECT_EQ(get(loaded, "basic", "task_queue_size"), "10");
    EXPECT_EQ(get(loaded, "basic", "unknown"), "kept as it is");
    EXPECT_EQ(get(loaded, "time", "upgrade_check_interval"), "120 ; seconds");
}

TEST_F(Ini, gives_null_for_what_isnt_there) {
    const Document loaded = document(sample);
    EXPECT_EQ(get(loaded, "basic", "upgrade_check_interval"), "(none)");
    EXPECT_EQ(get(loaded, "missing", "task_queue_size"), "(none)");
    EXPECT_EQ(get(loaded, "Basic", "task_queue_size"), "(none)");
    EXPECT_EQ(get(loaded, "basic", "Task_queue_size"), "(none)");
    EXPECT_EQ(get(loaded, "basic", ""), "(none)");
}

TEST_F(Ini, finds_empty_values_keys_without_a_section_and_the_last_of_two) {
    EXPECT_EQ(value_in("[s]\nk=\n", "s", "k"), "");
    EXPECT_EQ(value_in("k=1\n[s]\nk=2\n", "", "k"), "1");
    EXPECT_EQ(value_in("[s]\nk=1\nk=2\n[t]\nk=3\n[s]\nk=4", "s", "k"), "4");
    EXPECT_EQ(value_in("[s]\nk=a=b\n", "s", "k"), "a=b");
    EXPECT_EQ(value_in("[s]\nk = \"quoted\"\n", "s", "k"), "\"quoted\"");
    EXPECT_EQ(value_in("[s]\nk = <<<END\nx=1\nEND\n", "s", "k"), "<<<END");
}

TEST_F(Ini, understands_both_line_ends_and_a_byte_order_mark) {
    EXPECT_EQ(value_in("[s]\r\nk=1\r\nl=2\r\n", "s", "k"), "1");
    EXPECT_EQ(value_in("[s]\r\nk=1\r\nl=2\r\n", "s", "l"), "2");
    EXPECT_EQ(value_in("\xEF\xBB\xBF[s]\nk=1\n", "s", "k"), "1");
    EXPECT_EQ(value_in("[s]\nk=\xC3\xA9\n", "s", "k"), "\xC3\xA9");
    EXPECT_EQ(value_in("[s]\nk=\xE9\xFF\n", "s", "k"), "\xE9\xFF");
}

TEST_F(Ini, isnt_loaded_from_what_is_no_readable_text_file) {
    EXPECT_EQ(load(path("missing.ini")), nullptr);
    EXPECT_EQ(load(path("bin")), nullptr);
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(load(path("pipe")), nullptr);
    write_content(file(), std::string("[s]\nk=1\n\0", 9));
    EXPECT_EQ(load(file()), nullptr);
    EXPECT_EQ(load(""), nullptr);
}

TEST_F(Ini, without_permission_to_read_isnt_loaded) {
    if (geteuid() == 0)
        GTEST_SKIP() << "root may read everything";
    write_content(file(), sample);
    ASSERT_EQ(chmod(file().c_str(), 0), 0);
    EXPECT_EQ(load(file()), nullptr);
}

TEST_F(Ini, is_loaded_up_to_a_size_of_1_mib) {
    const std::string text = "[s]\nk=1\n;";
    constexpr size_t limit = 1024UL * 1024;
    EXPECT_EQ(value_in(text + std::string(limit - text.size(), 'x'), "s", "k"), "1");
    write_content(file(), text + std::string(limit - text.size() + 1, 'x'));
    EXPECT_EQ(load(file()), nullptr);
}

TEST_F(Ini, doesnt_grow_past_the_size_that_can_be_loaded) {
    const std::string text = "[s]\nk=1\n;";
    const Document full = document(text + std::string(1024 * 1024 - text.size(), 'x'));
    EXPECT_EQ(kze_ini_file_set(full.get(), "s", "k", "22"), EFBIG);
    EXPECT_EQ(get(full, "s", "k"), "1");
    EXPECT_EQ(kze_ini_file_set(full.get(), "s", "k", "2"), 0);
}

TEST_F(Ini, without_a_file_starts_empty_and_takes_values) {
    const Document fresh = empty();
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(get(fresh, "ioa", "ruleid"), "(none)");
    EXPECT_EQ(kze_ini_file_set(fresh.get(), "ioa", "ruleid", "0"), 0);
    EXPECT_EQ(get(fresh, "ioa", "ruleid"), "0");
    EXPECT_EQ(kze_ini_file_save(fresh.get(), file().c_str(), 0), 0);
    EXPECT_EQ(content_of(file()), "[ioa]\nruleid = 0\n");
}

TEST_F(Ini, saved_unchanged_is_the_same_to_the_byte) {
    const std::string odd =
        "\xEF\xBB\xBF\r\n;a\n\n;b\r\nnonsense\n=x\n[s\nk=1\n[]\n[t] tail\nk = 1 \nk=2";
    for (const std::string &text : {std::string(sample), odd, std::string()}) {
        const Document loaded = document(text);
        std::filesystem::remove(file());
        EXPECT_EQ(kze_ini_file_save(loaded.get(), file().c_str(), 0), 0);
        EXPECT_EQ(content_of(file()), text);
    }
}

TEST_F(Ini, changed_value_leaves_every_other_byte) {
    std::string expected = sample;
    expected.replace(expected.find("10"), 2, "25");
    EXPECT_EQ(after_set(sample, "basic", "task_queue_size", "25"), expected);
}

TEST_F(Ini, new_key_goes_behind_the_last_one_of_its_section) {
    std::string expected = sample;
    const std::string before = "  unknown=kept as it is   \n";
    expected.insert(expected.find(before) + before.size(), "offline_retry_times = 7\n");
    EXPECT_EQ(after_set(sample, "basic", "offline_retry_times", "7"), expected);
}

TEST_F(Ini, new_section_goes_to_the_end) {
    EXPECT_EQ(after_set(sample, "ioa", "ruleid", "9"),
              std::string(sample) + "\n[ioa]\nruleid = 9\n");
    EXPECT_EQ(after_set("[s]\nk=1", "t", "k", "2"), "[s]\nk=1\n\n[t]\nk = 2\n");
}

TEST_F(Ini, set_changes_the_key_that_counts) {
    EXPECT_EQ(after_set("[s]\nk=1\nk=2\n[t]\nk=3\n", "s", "k", "9"), "[s]\nk=1\nk=9\n[t]\nk=3\n");
    EXPECT_EQ(after_set("[s]\nk=1\n[t]\nk=3\n[s]\n", "s", "k", "9"), "[s]\nk=9\n[t]\nk=3\n[s]\n");
    EXPECT_EQ(after_set("[s]\nk=\n", "s", "k", "9"), "[s]\nk=9\n");
    EXPECT_EQ(after_set("[s]\n\tk =  old words \nl=1\n", "s", "k", "new"),
              "[s]\n\tk =  new\nl=1\n");
    EXPECT_EQ(after_set("[s]\n;k=1\n#k=2\n", "s", "k", "9"), "[s]\nk = 9\n;k=1\n#k=2\n");
    EXPECT_EQ(after_set("[ s ]x\nk=1\n", "s", "k", "9"), "[ s ]x\nk=9\n");
}

TEST_F(Ini, set_without_a_section_goes_before_the_first_one) {
    EXPECT_EQ(after_set("[s]\nk=1\n", "", "k", "9"), "k = 9\n[s]\nk=1\n");
    EXPECT_EQ(after_set("\xEF\xBB\xBFk=1\n[s]\n", "", "k", "9"), "\xEF\xBB\xBFk=9\n[s]\n");
    EXPECT_EQ(after_set("\xEF\xBB\xBF[s]\n", "", "k", "9"), "\xEF\xBB\xBFk = 9\n[s]\n");
}

TEST_F(Ini, keeps_the_line_ends_it_has) {
    EXPECT_EQ(after_set("[s]\r\nk=1\r\n", "s", "k", "9"), "[s]\r\nk=9\r\n");
    EXPECT_EQ(after_set("[s]\r\nk=1\r\n", "s", "l", "9"), "[s]\r\nk=1\r\nl = 9\r\n");
    EXPECT_EQ(after_set("[s]\r\nk=1\r\n", "t", "l", "9"), "[s]\r\nk=1\r\n\r\n[t]\r\nl = 9\r\n");
}

TEST_F(Ini, can_be_set_behind_a_header_that_doesnt_end) {
    EXPECT_EQ(after_set("[s\nk=1\n", "s", "k", "9"), "[s\nk=1\n\n[s]\nk = 9\n");
    EXPECT_EQ(after_set("[t]\n[s\nk=1\n", "t", "k", "9"), "[t]\nk = 9\n[s\nk=1\n");
}

// An identifier with blanks once lost them in the file and kept them in the plug-in.
TEST_F(Ini, keeps_blanks_around_a_value_and_within_it) {
    EXPECT_EQ(after_set("", "s", "k", " id "), "[s]\nk = \" id \"\n");
    EXPECT_EQ(after_set("[s]\nk=1 \n", "s", "k", "\tid"), "[s]\nk=\"\tid\"\n");
    EXPECT_EQ(after_set("[s]\nk=1\n", "s", "k", "id "), "[s]\nk=\"id \"\n");
    EXPECT_EQ(after_set("[s]\nk=1\n", "s", "k", " "), "[s]\nk=\" \"\n");
    EXPECT_EQ(after_set("[s]\nk=1\n", "s", "k", " a  b\tc\t"), "[s]\nk=\" a  b\tc\t\"\n");
    EXPECT_EQ(after_set("[s]\nk=\" 1 \"\n", "s", "k", "2"), "[s]\nk=2\n");
}

TEST_F(Ini, writes_a_value_without_blanks_around_it_as_it_is) {
    for (const std::string value :
         {"", "a  b\tc", "\"", "\"\"", "\"a\"", "\"a b\"", "\"a", "a\"", "'a '", "\" a", "; a"}) {
        EXPECT_EQ(after_set("[s]\nk=1\n", "s", "k", value.c_str()), "[s]\nk=" + value + "\n");
    }
}

TEST_F(Ini, keeps_quotes_that_are_set_along_with_blanks) {
    EXPECT_EQ(after_set("[s]\nk=1\n", "s", "k", "\" a \""), "[s]\nk=\"\" a \"\"\n");
    EXPECT_EQ(after_set("[s]\nk=1\n", "s", "k", "\"\" \"\""), "[s]\nk=\"\"\" \"\"\"\n");
    EXPECT_EQ(after_set("[s]\nk=1\n", "s", "k", " \"a\""), "[s]\nk=\" \"a\"\"\n");
    EXPECT_EQ(after_set("[s]\nk=1\n", "s", "k", "\" "), "[s]\nk=\"\" \"\n");
}

TEST_F(Ini, takes_quotes_for_a_part_of_the_value_unless_they_keep_blanks) {
    EXPECT_EQ(value_in("[s]\nk = \" id \"  \n", "s", "k"), " id ");
    EXPECT_EQ(value_in("k=\"id \"\n", "", "k"), "id ");
    EXPECT_EQ(value_in("[s]\nk=\"id\"\n", "s", "k"), "\"id\"");
    EXPECT_EQ(value_in("[s]\nk=\"\"\n", "s", "k"), "\"\"");
    EXPECT_EQ(value_in("[s]\nk=\" id\n", "s", "k"), "\" id");
    const std::string nested(500000, '"');
    EXPECT_EQ(value_in("[s]\nk=" + nested + "\n", "s", "k"), nested);
    EXPECT_EQ(value_in("[s]\nk=" + nested + " " + nested + "\n", "s", "k"),
              nested.substr(1) + " " + nested.substr(1));
}

TEST_F(Ini, refuses_what_would_not_read_back_and_stays_as_it_was) {
    const Document changed = document("[s]\nk=1\n");
    const char *const refused[][3] = {
        {"s", "k", "2\n[t]\nforged=1"},
        {"s", "k", "2\r[t]"},
        {"s", "k", "\x1b[0m"},
        {"s", "k\nforged", "2"},
        {"s\n[t", "k", "2"},
        {"a]b", "k", "2"},
        {" s", "k", "2"},
        {"s", "", "2"},
        {"s", "a=b", "2"},
        {"s", ";k", "2"},
        {"s", "#k", "2"},
        {"s", "[k", "2"},
        {"s", " k", "2"},
    };
    for (const auto &one : refused)
        EXPECT_EQ(kze_ini_file_set(changed.get(), one[0], one[1], one[2]), EINVAL)
            << one[0] << "/" << one[1] << "/" << one[2];
    EXPECT_EQ(kze_ini_file_save(changed.get(), file().c_str(), 0), 0);
    EXPECT_EQ(content_of(file()), "[s]\nk=1\n");
}

TEST_F(Ini, functions_refuse_null) {
    const Document some = empty();
    EXPECT_EQ(kze_ini_file_get(nullptr, "s", "k"), nullptr);
    EXPECT_EQ(kze_ini_file_get(some.get(), nullptr, "k"), nullptr);
    EXPECT_EQ(kze_ini_file_get(some.get(), "s", nullptr), nullptr);
    EXPECT_EQ(kze_ini_file_set(nullptr, "s", "k", "v"), EINVAL);
    EXPECT_EQ(kze_ini_file_set(some.get(), nullptr, "k", "v"), EINVAL);
    EXPECT_EQ(kze_ini_file_set(some.get(), "s", nullptr, "v"), EINVAL);
    EXPECT_EQ(kze_ini_file_set(some.get(), "s", "k", nullptr), EINVAL);
    EXPECT_EQ(kze_ini_file_save(nullptr, file().c_str(), 0), EINVAL);
    EXPECT_EQ(kze_ini_file_save(some.get(), nullptr, 0), EINVAL);
    EXPECT_EQ(kze_ini_file_save(some.get(), file().c_str(), 1), EINVAL);
    EXPECT_FALSE(std::filesystem::exists(file()));
    kze_ini_file_free(nullptr);
}

TEST_F(Ini, saved_anew_is_the_owners_only_and_saved_again_keeps_its_permissions) {
    const Document some = empty();
    EXPECT_EQ(kze_ini_file_save(some.get(), file().c_str(), 0), 0);
    EXPECT_EQ(mode_of(file()), 0600U);
    ASSERT_EQ(chmod(file().c_str(), 0644), 0);
    EXPECT_EQ(kze_ini_file_save(some.get(), file().c_str(), 0), 0);
    EXPECT_EQ(mode_of(file()), 0644U);
    EXPECT_THAT(names_in(path("d")), UnorderedElementsAre("settings.ini"));
}

TEST_F(Ini, is_replaced_not_written_over) {
    write_content(file(), "old");
    const int old = open(file().c_str(), O_RDONLY | O_CLOEXEC);
    const Document some = empty();
    EXPECT_EQ(kze_ini_file_set(some.get(), "s", "k", "v"), 0);
    EXPECT_EQ(kze_ini_file_save(some.get(), file().c_str(), 0), 0);
    char text[10] = "";
    EXPECT_EQ(read(old, text, sizeof text), 3);
    EXPECT_STREQ(text, "old");
    close(old);
}

TEST_F(Ini, that_cant_be_saved_leaves_what_was_there) {
    const Document some = empty();
    EXPECT_EQ(kze_ini_file_save(some.get(), path("no/such/file.ini").c_str(), 0), ENOENT);
    EXPECT_EQ(kze_ini_file_save(some.get(), path("bin").c_str(), 0), EISDIR);
    EXPECT_EQ(kze_ini_file_save(some.get(), "/dev/null", 0), EINVAL);
    std::filesystem::create_directory(path("d/.settings.ini.new"));
    write_content(file(), "old");
    EXPECT_EQ(kze_ini_file_save(some.get(), file().c_str(), 0), EISDIR);
    EXPECT_EQ(content_of(file()), "old");
}

TEST_F(Ini, in_the_working_directory_is_saved_by_its_bare_name) {
    const std::string before = std::filesystem::current_path();
    std::filesystem::current_path(path("d"));
    EXPECT_EQ(kze_ini_file_save(empty().get(), "bare.ini", 0), 0);
    std::filesystem::current_path(before);
    EXPECT_THAT(names_in(path("d")), UnorderedElementsAre("bare.ini"));
}
