/*
 * The central configuration client: a store that a test fills, and all the ways in which reading it
 * can fail. The store is empty to begin with.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_FAKE_CENTRAL_CONFIG_H
#define KZEMDLMGR_TESTS_FAKES_FAKE_CENTRAL_CONFIG_H

#include <string>
#include <vector>

#include "tests/fakes/fake_libraries.h"

namespace fakes {

// What ErrorString says to every code.
constexpr char config_error_text[] = "no such value";

void config_set(const std::string &module, const std::string &key, const std::string &text);
void config_remove(const std::string &module, const std::string &key);
// GetValue gives this result; with_value: and a value all the same.
void config_get_returns(const std::string &module, const std::string &key, int result,
                        bool with_value = false);
// ValueType gives this code for the value, which must be set.
void config_set_type(const std::string &module, const std::string &key, int type);
// ValueAsString gives null for the value, which must be set.
void config_set_null_text(const std::string &module, const std::string &key);

// DllNewObject gives this result, and a table or null.
void config_new_object_returns(int result, bool with_table = true);
// Nulls one of the table's 52 entries.
void config_drop_entry(int position);
// NewClient gives null.
void config_refuses_client();

// "GetValue /module /key", in order.
std::vector<std::string> config_reads();
// The codes that ErrorString was asked about, in order.
std::vector<int> config_errors();
// "NewClient <name> <directory>", in order.
std::vector<std::string> config_clients();

struct config_balance {
    unsigned int tables;   // made and not destroyed
    unsigned int clients;  // made and not deleted
    unsigned int values;   // given out and not freed
};
config_balance config_open();

symbols config_symbols();
void reset_config();

}  // namespace fakes

#endif
