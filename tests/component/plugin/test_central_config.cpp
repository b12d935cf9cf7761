/*
 * libkzacfgc.so of these tests, over the stage's store. It is built once whole, and once for each
 * defect: HOLE is the table's position that is empty (-1: none), REFUSES_CLIENT that NewClient
 * gives null; an export that is missing was given another name on the compiler's command line.
 */
#include <cstring>
#include <string>

#include "config/kzacfgc_api.h"
#include "tests/component/plugin/stage.h"

#define EXPORTED __attribute__((visibility("default")))

using plugin_stage::stage;

struct cfgc_client_st {};

struct cfgc_value_st {
    std::string text;
};

namespace {

constexpr int hole = HOLE;
constexpr int result_missing = -2;

const char *error_string(int) {
    return "not configured";
}

cfgc_client_st *new_client(const char *, const char *) {
    if (REFUSES_CLIENT) {
        return nullptr;
    }
    stage::instance().count_config_objects(1);
    return new cfgc_client_st;
}

void delete_client(cfgc_client_st *client) {
    stage::instance().count_config_objects(-1);
    delete client;
}

int get_value(cfgc_client_st *, const char *module, const char *key, cfgc_value_st **value_out) {
    stage::instance().note(std::string("GetValue ") + module + " " + key);
    const std::string *const text = stage::instance().config_text(module, key);
    if (text == nullptr) {
        return result_missing;
    }
    stage::instance().count_config_objects(1);
    *value_out = new cfgc_value_st{*text};
    return 0;
}

void free_value(cfgc_value_st *value) {
    stage::instance().count_config_objects(-1);
    delete value;
}

int value_type(const cfgc_value_st *) {
    return CFGC_VALUE_STRING;
}

const char *value_as_string(const cfgc_value_st *value) {
    return value->text.c_str();
}

void not_used() {}

}  // namespace

extern "C" {

EXPORTED int DllNewObject(cfgc_operations **table_out) {
    cfgc_entry entries[CFGC_TABLE_SIZE];
    for (cfgc_entry &each : entries) {
        each = not_used;
    }
    const auto table = new cfgc_operations;
    memcpy(table, entries, sizeof(entries));
    table->ErrorString = error_string;
    table->NewClient = new_client;
    table->DeleteClient = delete_client;
    table->GetValue = get_value;
    table->FreeValue = free_value;
    table->ValueType = value_type;
    table->ValueAsString = value_as_string;
    memcpy(entries, table, sizeof(entries));
    for (int position = 0; position < CFGC_TABLE_SIZE; ++position) {
        if (position == hole) {
            entries[position] = nullptr;
        }
    }
    memcpy(table, entries, sizeof(entries));
    stage::instance().count_config_objects(1);
    *table_out = table;
    return 0;
}

EXPORTED void DllDestroyObject(cfgc_operations *table) {
    stage::instance().count_config_objects(-1);
    delete table;
}

}  // extern "C"
