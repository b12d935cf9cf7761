#include "tests/fakes/fake_central_config.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <utility>

#include "config/kzacfgc_api.h"
#include "tests/fakes/journal.h"

struct cfgc_client_st {};

struct cfgc_value_st {
    int type;
    bool null_text;
    std::string text;
};

namespace {

constexpr int result_missing = -2;

struct entry {
    std::string text;
    int type = CFGC_VALUE_STRING;
    bool null_text = false;
    int result = 0;
    bool with_value = true;
};

struct config_state {
    std::map<std::pair<std::string, std::string>, entry> entries;
    int new_object_result = 0;
    bool gives_table = true;
    std::set<int> dropped;
    bool refuses_client = false;
    std::vector<std::string> reads;
    std::vector<int> errors;
    std::vector<std::string> client_names;
    cfgc_operations table = {};
    cfgc_client_st client;
    unsigned int tables = 0;
    unsigned int clients = 0;
    std::set<const cfgc_value_st *> values;
};

std::mutex s_mutex;
config_state s_state;

const char *fake_error_string(int result) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.errors.push_back(result);
    return fakes::config_error_text;
}

cfgc_client_st *fake_new_client(const char *name, const char *directory) {
    const std::string text = std::string("NewClient ") + name + " " + directory;
    fakes::note(fakes::what::config, text);
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.client_names.push_back(text);
    if (s_state.refuses_client) {
        return nullptr;
    }
    ++s_state.clients;
    return &s_state.client;
}

void fake_delete_client(cfgc_client_st *client) {
    fakes::note(fakes::what::config, "DeleteClient");
    const std::lock_guard<std::mutex> lock(s_mutex);
    EXPECT_EQ(client, &s_state.client);
    EXPECT_GT(s_state.clients, 0U) << "a client is deleted once";
    --s_state.clients;
}

int fake_get_value(cfgc_client_st *client, const char *module, const char *key,
                   cfgc_value_st **value_out) {
    const std::string text = std::string("GetValue ") + module + " " + key;
    fakes::note(fakes::what::config, text);
    const std::lock_guard<std::mutex> lock(s_mutex);
    EXPECT_EQ(client, &s_state.client);
    EXPECT_EQ(*value_out, nullptr) << "there is no value before it is read";
    s_state.reads.push_back(text);
    const auto found = s_state.entries.find({module, key});
    if (found == s_state.entries.end()) {
        return result_missing;
    }
    const entry &stored = found->second;
    if (stored.with_value) {
        *value_out = new cfgc_value_st{stored.type, stored.null_text, stored.text};
        s_state.values.insert(*value_out);
    }
    return stored.result;
}

void fake_free_value(cfgc_value_st *value) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    if (s_state.values.erase(value) == 0) {
        ADD_FAILURE() << "FreeValue of what is not a value, or was freed before";
        return;
    }
    delete value;
}

int fake_value_type(const cfgc_value_st *value) {
    return value->type;
}

const char *fake_value_as_string(const cfgc_value_st *value) {
    return value->null_text ? nullptr : value->text.c_str();
}

void never_called() {
    ADD_FAILURE() << "an operation of the table that nothing should call";
}

int fake_new_object(cfgc_operations **table_out) {
    fakes::note(fakes::what::config, "DllNewObject");
    const std::lock_guard<std::mutex> lock(s_mutex);
    cfgc_entry entries[CFGC_TABLE_SIZE];
    for (cfgc_entry &each : entries) {
        each = never_called;
    }
    memcpy(&s_state.table, entries, sizeof(entries));
    s_state.table.ErrorString = fake_error_string;
    s_state.table.NewClient = fake_new_client;
    s_state.table.DeleteClient = fake_delete_client;
    s_state.table.GetValue = fake_get_value;
    s_state.table.FreeValue = fake_free_value;
    s_state.table.ValueType = fake_value_type;
    s_state.table.ValueAsString = fake_value_as_string;
    memcpy(entries, &s_state.table, sizeof(entries));
    for (const int position : s_state.dropped) {
        entries[position] = nullptr;
    }
    memcpy(&s_state.table, entries, sizeof(entries));
    if (s_state.gives_table) {
        *table_out = &s_state.table;
        ++s_state.tables;
    }
    return s_state.new_object_result;
}

void fake_destroy_object(cfgc_operations *table) {
    fakes::note(fakes::what::config, "DllDestroyObject");
    const std::lock_guard<std::mutex> lock(s_mutex);
    EXPECT_EQ(table, &s_state.table);
    EXPECT_GT(s_state.tables, 0U) << "a table is destroyed once";
    --s_state.tables;
}

}  // namespace

namespace fakes {

void config_set(const std::string &module, const std::string &key, const std::string &text) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    entry stored;
    stored.text = text;
    s_state.entries[{module, key}] = stored;
}

void config_remove(const std::string &module, const std::string &key) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.entries.erase({module, key});
}

void config_get_returns(const std::string &module, const std::string &key, int result,
                        bool with_value) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.entries[{module, key}].result = result;
    s_state.entries[{module, key}].with_value = with_value;
}

void config_set_type(const std::string &module, const std::string &key, int type) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.entries.at({module, key}).type = type;
}

void config_set_null_text(const std::string &module, const std::string &key) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.entries.at({module, key}).null_text = true;
}

void config_new_object_returns(int result, bool with_table) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.new_object_result = result;
    s_state.gives_table = with_table;
}

void config_drop_entry(int position) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.dropped.insert(position);
}

void config_refuses_client() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.refuses_client = true;
}

std::vector<std::string> config_reads() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.reads;
}

std::vector<int> config_errors() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.errors;
}

std::vector<std::string> config_clients() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.client_names;
}

config_balance config_open() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return {s_state.tables, s_state.clients, static_cast<unsigned int>(s_state.values.size())};
}

symbols config_symbols() {
    const cfgc_new_object_fn new_object = fake_new_object;
    const cfgc_destroy_object_fn destroy_object = fake_destroy_object;
    return {{"DllNewObject", reinterpret_cast<void *>(new_object)},
            {"DllDestroyObject", reinterpret_cast<void *>(destroy_object)}};
}

void reset_config() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    for (const cfgc_value_st *const each : s_state.values) {
        delete each;
    }
    s_state = config_state();
}

}  // namespace fakes
