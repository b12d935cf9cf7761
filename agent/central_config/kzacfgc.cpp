/* libkzacfgc.so: the central configuration client, on the store of one directory. */
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "agent/central_config/store.h"
#include "config/kzacfgc_api.h"
#include "vrdbase.h"

/* A client may be used by several threads. */
struct cfgc_client_st {
    explicit cfgc_client_st(const char *directory) : store(directory) {}

    std::mutex mutex;
    kze::config::store store; /* guarded by mutex */
    std::string told_problem; /* guarded by mutex; each state of a broken store is told once */
};

/* Immutable. */
struct cfgc_value_st {
    kze::config::store_value value;
};

namespace {

using kze::config::store_value;

static_assert(static_cast<int>(kze::config::VALUE_STRING) == static_cast<int>(CFGC_VALUE_STRING),
              "one number for texts");

cfgc_client_st *new_client(const char *client_name, const char *directory) {
    if (client_name == nullptr || directory == nullptr || directory[0] == '\0') {
        return nullptr;
    }
    try {
        return new cfgc_client_st(directory);
    } catch (const std::bad_alloc &) {
        kze_log(1, "no memory for the configuration client \"%s\"", client_name);
        return nullptr;
    }
}

void delete_client(cfgc_client_st *client) {
    delete client;
}

void tell_of_broken_store(cfgc_client_st &client, int result) {
    const bool broken =
        result == kze::config::STORE_BROKEN || result == kze::config::STORE_UNREADABLE;
    if (broken && client.told_problem != client.store.problem()) {
        client.told_problem = client.store.problem();
        kze_log(1, "configuration store: %s", client.told_problem.c_str());
    }
    if (result == kze::config::STORE_OK) {
        client.told_problem.clear();
    }
}

int read_value(cfgc_client_st &client, const char *module, const char *key, store_value &out) {
    const std::lock_guard<std::mutex> lock(client.mutex);
    const int result = client.store.get(module, key, out);
    tell_of_broken_store(client, result);
    return result;
}

int get_value(cfgc_client_st *client, const char *module, const char *key,
              cfgc_value_st **value_out) {
    if (client == nullptr || module == nullptr || key == nullptr || value_out == nullptr) {
        return kze::config::STORE_BAD_ARGUMENT;
    }
    try {
        store_value value;
        const int result = read_value(*client, module, key, value);
        if (result == kze::config::STORE_OK) {
            *value_out = new cfgc_value_st{std::move(value)};
        }
        return result;
    } catch (const std::bad_alloc &) {
        return kze::config::STORE_NO_MEMORY;
    }
}

void free_value(cfgc_value_st *value) {
    delete value;
}

int type_of_value(const cfgc_value_st *value) {
    return value == nullptr ? kze::config::STORE_BAD_ARGUMENT : value->value.type;
}

const char *text_of_value(const cfgc_value_st *value) {
    return value == nullptr || value->value.type != CFGC_VALUE_STRING ? nullptr
                                                                      : value->value.text.c_str();
}

/* Stands at all positions of which nothing is known. It takes no arguments, whatever it is given:
 * the caller of a C function clears them away. */
int not_supported() {
    kze_log(2, "an operation of the configuration client was called that is not supported");
    return kze::config::STORE_NOT_SUPPORTED;
}

/* The positions of the table that are null. */
constexpr bool is_null_position(int position) {
    return position == 4 || position == 9 || position == 14 || position == 16;
}

template <int count>
void fill(cfgc_entry (&entries)[count], int first_position) {
    for (int i = 0; i < count; ++i) {
        entries[i] = is_null_position(first_position + i)
                         ? nullptr
                         : reinterpret_cast<cfgc_entry>(&not_supported);
    }
}

}  // namespace

/* Sets *table_out to a new table of the caller's; it is untouched on failure. */
extern "C" __attribute__((visibility("default"))) int DllNewObject(cfgc_operations **table_out) {
    if (table_out == nullptr) {
        return kze::config::STORE_BAD_ARGUMENT;
    }
    cfgc_operations *table = new (std::nothrow) cfgc_operations{};
    if (table == nullptr) {
        return kze::config::STORE_NO_MEMORY;
    }
    table->ErrorString = kze::config::store_text;
    table->NewClient = new_client;
    table->DeleteClient = delete_client;
    fill(table->entry_3_4, 3);
    table->GetValue = get_value;
    fill(table->entry_6_25, 6);
    table->FreeValue = free_value;
    table->ValueType = type_of_value;
    fill(table->entry_28_41, 28);
    table->ValueAsString = text_of_value;
    fill(table->entry_43_51, 43);
    *table_out = table;
    return kze::config::STORE_OK;
}

/* Releases a table of DllNewObject; null is allowed. */
extern "C" __attribute__((visibility("default"))) void DllDestroyObject(cfgc_operations *table) {
    delete table;
}
