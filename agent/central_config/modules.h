/* The configuration modules that are asked for as a whole, and what the service answers. */
#ifndef KZE_AGENT_CENTRAL_CONFIG_MODULES_H
#define KZE_AGENT_CENTRAL_CONFIG_MODULES_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/central_config/store.h"

namespace kze::config {

/* How a stored value stands in an answer, and what a user may give for it. */
enum class field_kind {
    text,        /* as it is */
    json_object, /* as it is; a user's is checked to be a JSON object */
    digit_flag,  /* "1" or "0" */
    word_flag,   /* "true" or "false" */
};

/* Immutable. */
struct module_field {
    const char *name; /* the key without its leading slash */
    field_kind kind;
    const char *meaning; /* for the help */
};

/* A module and its fields, in the order in which they are shown. Immutable. */
struct module_description {
    const char *name;
    std::vector<module_field> fields;

    /* Its module in the store, "/mgr/base_drive" for instance. */
    std::string path() const;
    /* The field of that name, or null. */
    const module_field *find(std::string_view field) const;
};

/* All modules that are answered; any thread. */
const std::vector<module_description> &modules();
/* The module of that name, or null; any thread. */
const module_description *find_module(std::string_view name);

/*
 * Whether a stored text switches on for those who read single values: the empty text, "t", "tr",
 * "tru", "true" and "1" do, all else doesn't. The flags of an answer go by it too, so that a stored
 * value means the same to both kinds of readers.
 */
bool counts_as_true(std::string_view text);

/* What is in the store for a module, as it is answered. */
struct module_content {
    std::vector<std::pair<std::string, std::string>> fields; /* names and rendered values */
    std::vector<std::string> missing;                        /* names of what isn't stored */
    std::vector<std::string> no_text; /* names of what is stored as another type than string: it
                                         isn't answered, just as it can't be read as single value */
};

/* Reads a module at one moment. A store_result; out is untouched on failure. A store that isn't
 * there, or has nothing of the module, gives no fields. */
int read_module(store &from, const module_description &of, module_content &out);

/*
 * Checks a value that a user gives for a field and makes the text to be stored of it: a flag is
 * true, false, 1 or 0 and stored as "true" or "false". Returns an empty text, or what is wrong;
 * stored_out is untouched then.
 */
std::string check_field(const module_field &field, const std::string &given,
                        std::string &stored_out);

}  // namespace kze::config

#endif
