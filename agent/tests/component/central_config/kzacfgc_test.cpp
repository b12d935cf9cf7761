/* libkzacfgc.so, as its caller opens and uses it. */
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "agent/central_config/store.h"
#include "config/kzacfgc_api.h"
#include "tests/support/process_state.h"
#include "tests/support/temp_tree.h"
#include "vrdbase.h"

namespace {

using kze::config::store_text;
using testing::HasSubstr;

/* The library with one table, and a client of the tree's store. */
class client_library {
  public:
    explicit client_library(const std::string &directory)
        : handle_(dlopen(CONFIG_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {
        if (handle_ == nullptr) {
            throw std::runtime_error(dlerror());
        }
        const auto make = reinterpret_cast<cfgc_new_object_fn>(dlsym(handle_, "DllNewObject"));
        if (make(&table_) < 0) {
            throw std::runtime_error("no table");
        }
        client_ = table_->NewClient("cfgc_ctr", directory.c_str());
    }
    ~client_library() {
        const auto destroy =
            reinterpret_cast<cfgc_destroy_object_fn>(dlsym(handle_, "DllDestroyObject"));
        table_->DeleteClient(client_);
        destroy(table_);
        dlclose(handle_);
    }
    client_library(const client_library &) = delete;
    client_library &operator=(const client_library &) = delete;

    const cfgc_operations &table() const { return *table_; }
    cfgc_client_st *client() const { return client_; }

    /* The text of a value, or of the result. */
    std::string get(const char *module, const char *key) const {
        cfgc_value_st *value = nullptr;
        const int result = table_->GetValue(client_, module, key, &value);
        if (result < 0) {
            return table_->ErrorString(result);
        }
        const char *text = table_->ValueAsString(value);
        std::string found = text == nullptr ? "not a text" : text;
        table_->FreeValue(value);
        return found;
    }
    int type(const char *module, const char *key) const {
        cfgc_value_st *value = nullptr;
        table_->GetValue(client_, module, key, &value);
        const int type = table_->ValueType(value);
        table_->FreeValue(value);
        return type;
    }

  private:
    void *handle_;
    cfgc_operations *table_ = nullptr;
    cfgc_client_st *client_ = nullptr;
};

class kzacfgc : public testing::Test {
  protected:
    void write(const std::string &text) { tree_.write("config/kzacfgc/store.json", text); }

    kze_test::temp_tree tree_;
    std::string directory_ = tree_.path("config/kzacfgc");
    client_library library_{directory_};
};

cfgc_entry entry(const cfgc_operations &table, std::size_t position) {
    return reinterpret_cast<const cfgc_entry *>(&table)[position];
}

TEST_F(kzacfgc, exports_its_two_functions_and_nothing_else) {
    std::FILE *listing = popen("nm -D --defined-only '" CONFIG_LIBRARY "'", "r");
    ASSERT_NE(listing, nullptr);
    char text[4096] = "";
    const std::size_t size = std::fread(text, 1, sizeof(text) - 1, listing);
    pclose(listing);
    const std::string symbols(text, size);
    EXPECT_THAT(symbols, HasSubstr(" T DllNewObject\n"));
    EXPECT_THAT(symbols, HasSubstr(" T DllDestroyObject\n"));
    EXPECT_EQ(std::count(symbols.begin(), symbols.end(), '\n'), 2);
}

TEST_F(kzacfgc, its_table_is_complete_but_for_four_positions) {
    std::vector<std::size_t> missing;
    for (std::size_t position = 0; position < CFGC_TABLE_SIZE; ++position) {
        if (entry(library_.table(), position) == nullptr) {
            missing.push_back(position);
        }
    }
    EXPECT_EQ(missing, (std::vector<std::size_t>{4, 9, 14, 16}));
}

TEST_F(kzacfgc, its_other_operations_say_that_they_are_not_supported) {
    const std::vector<std::size_t> named{0, 1, 2, 5, 26, 27, 42};
    for (std::size_t position = 0; position < CFGC_TABLE_SIZE; ++position) {
        const cfgc_entry operation = entry(library_.table(), position);
        if (operation == nullptr ||
            std::find(named.begin(), named.end(), position) != named.end()) {
            continue;
        }
        EXPECT_EQ(reinterpret_cast<int (*)()>(operation)(), kze::config::STORE_NOT_SUPPORTED)
            << position;
    }
}

TEST_F(kzacfgc, gives_a_text_with_type_3) {
    write(R"({"/mgr/base_collect": {"/adv_threats": "true"}})");
    EXPECT_EQ(library_.get("/mgr/base_collect", "/adv_threats"), "true");
    EXPECT_EQ(library_.type("/mgr/base_collect", "/adv_threats"), CFGC_VALUE_STRING);
}

TEST_F(kzacfgc, a_value_of_another_type_has_another_code_and_no_text) {
    write(R"({"/m": {"b": true, "i": 1, "r": 0.5, "n": null, "o": {}}})");
    EXPECT_EQ(library_.type("/m", "n"), 0);
    EXPECT_EQ(library_.type("/m", "b"), 1);
    EXPECT_EQ(library_.type("/m", "i"), 2);
    EXPECT_EQ(library_.type("/m", "r"), 4);
    EXPECT_EQ(library_.type("/m", "o"), 5);
    EXPECT_EQ(library_.get("/m", "b"), "not a text");
}

TEST_F(kzacfgc, each_reason_for_no_value_has_a_text) {
    EXPECT_EQ(library_.get("/m", "k"), "there is no configuration store yet");
    write("{ broken");
    EXPECT_EQ(library_.get("/m", "k"), "the configuration store is broken");
    write(R"({"/m": {"k": "v"}})");
    EXPECT_EQ(library_.get("/m", "k"), "v");
    EXPECT_EQ(library_.get("/other", "k"), "no such module in the configuration store");
    EXPECT_EQ(library_.get("/m", "other"), "no such key in the module");
}

TEST_F(kzacfgc, a_failed_read_leaves_the_value_pointer_alone) {
    cfgc_value_st *value = nullptr;
    EXPECT_LT(library_.table().GetValue(library_.client(), "/m", "k", &value), 0);
    EXPECT_EQ(value, nullptr);
}

TEST_F(kzacfgc, null_arguments_are_refused_and_null_objects_tolerated) {
    const cfgc_operations &table = library_.table();
    cfgc_value_st *value = nullptr;
    EXPECT_EQ(table.NewClient(nullptr, "directory"), nullptr);
    EXPECT_EQ(table.NewClient("name", nullptr), nullptr);
    EXPECT_EQ(table.NewClient("name", ""), nullptr);
    EXPECT_EQ(table.GetValue(nullptr, "/m", "k", &value), kze::config::STORE_BAD_ARGUMENT);
    EXPECT_EQ(table.GetValue(library_.client(), nullptr, "k", &value),
              kze::config::STORE_BAD_ARGUMENT);
    EXPECT_EQ(table.GetValue(library_.client(), "/m", nullptr, &value),
              kze::config::STORE_BAD_ARGUMENT);
    EXPECT_EQ(table.GetValue(library_.client(), "/m", "k", nullptr),
              kze::config::STORE_BAD_ARGUMENT);
    EXPECT_LT(table.ValueType(nullptr), 0);
    EXPECT_EQ(table.ValueAsString(nullptr), nullptr);
    table.FreeValue(nullptr);
    table.DeleteClient(nullptr);
}

TEST_F(kzacfgc, a_change_of_the_store_shows_at_the_next_read) {
    kze::config::store store(directory_);
    for (const char *text : {"true", "false", "1", "0"}) {
        ASSERT_EQ(store.set("/m", "k", {kze::config::VALUE_STRING, text}), 0) << store.problem();
        EXPECT_EQ(library_.get("/m", "k"), text);
    }
}

TEST_F(kzacfgc, a_value_stays_as_it_was_read) {
    write(R"({"/m": {"k": "before"}})");
    cfgc_value_st *value = nullptr;
    ASSERT_EQ(library_.table().GetValue(library_.client(), "/m", "k", &value), 0);
    write(R"({"/m": {"k": "after, and longer"}})");
    EXPECT_EQ(library_.get("/m", "k"), "after, and longer");
    EXPECT_STREQ(library_.table().ValueAsString(value), "before");
    library_.table().FreeValue(value);
}

TEST_F(kzacfgc, a_client_takes_calls_from_several_threads) {
    write(R"({"/m": {"k": "v"}})");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this] {
            for (int i = 0; i < 200; ++i) {
                EXPECT_EQ(library_.get("/m", "k"), "v");
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

TEST(kzacfgc_log, a_broken_store_is_logged_once_for_each_of_its_states) {
    const kze_test::temp_tree tree;
    tree.write("config/kzacfgc/store.json", "{\n broken");
    autolog_init(tree.path("var/log/test").c_str(), 1);
    const client_library library(tree.path("config/kzacfgc"));
    for (int i = 0; i < 3; ++i) {
        library.get("/m", "k");
    }
    const std::string log = tree.read("var/log/test/test.log");
    const std::string line = "store.json: line 2, column 2: not valid JSON";
    EXPECT_THAT(log, HasSubstr(line));
    EXPECT_EQ(log.find(line), log.rfind(line));
}

TEST(kzacfgc_cycles, a_hundred_openings_and_closings_leave_nothing) {
    const kze_test::temp_tree tree;
    tree.write("config/kzacfgc/store.json", R"({"/m": {"k": "v"}})");
    { const client_library warm_up(tree.path("config/kzacfgc")); }
    const std::size_t descriptors = kze_test::descriptor_count();
    const std::size_t threads = kze_test::thread_count();
    for (int i = 0; i < 100; ++i) {
        const client_library library(tree.path("config/kzacfgc"));
        ASSERT_EQ(library.get("/m", "k"), "v");
    }
    EXPECT_EQ(kze_test::descriptor_count(), descriptors);
    EXPECT_TRUE(kze_test::threads_become(threads));
    EXPECT_EQ(dlopen(CONFIG_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
}

}  // namespace
