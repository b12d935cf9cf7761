/* The central configuration's store: one JSON file of modules, keys and values. */
#ifndef KZE_AGENT_CENTRAL_CONFIG_STORE_H
#define KZE_AGENT_CENTRAL_CONFIG_STORE_H

#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace kze::config {

/* Results; also those of the central configuration client. store_text has their texts. */
enum store_result {
    STORE_OK = 0,
    STORE_BAD_ARGUMENT = -1,   /* null, or a module, key or value that the store doesn't take */
    STORE_ABSENT = -2,         /* there is no store in the directory yet */
    STORE_UNREADABLE = -3,     /* the file can't be read */
    STORE_BROKEN = -4,         /* the file isn't a store: bad JSON, another structure, too large */
    STORE_NO_MODULE = -5,      /* no such module */
    STORE_NO_KEY = -6,         /* the module has no such key */
    STORE_LOCKED = -7,         /* another writer holds the store */
    STORE_NOT_WRITTEN = -8,    /* the file can't be written; the old one is as it was */
    STORE_FULL = -9,           /* the store would be larger than store_size_bound */
    STORE_NOT_SUPPORTED = -10, /* an operation that isn't there */
    STORE_NO_MEMORY = -11,
};

/* The text of a result, never null; constant. */
const char *store_text(int result);

/* A value's type, as the client's ValueType gives it. */
enum value_type {
    VALUE_NULL = 0,
    VALUE_BOOLEAN = 1,
    VALUE_INTEGER = 2,
    VALUE_STRING = 3,
    VALUE_REAL = 4,
    VALUE_STRUCTURE = 5, /* an object or an array */
};

/* The word for a type, "string" for instance, and back; -1 for a word that is none. */
const char *value_type_name(int type);
int value_type_number(const std::string &name);

constexpr std::size_t store_size_bound = std::size_t{8} << 20; /* bytes of the file */
constexpr std::size_t value_size_bound = std::size_t{1} << 20; /* bytes of a value's text */
constexpr std::size_t name_size_bound = 255;                   /* bytes of a module or a key */

/* A value: the text of a string, the JSON text of any other. */
struct store_value {
    int type = VALUE_NULL;
    std::string text;
};

struct store_entry {
    std::string module;
    std::string key;
    store_value value;
};

/*
 * The store in one directory. The file is read again only when it has changed. Writers, in any
 * process, take turns; a reader sees the file before or after a change, never half of one.
 * One thread at a time.
 */
class store {
  public:
    /* Nothing is opened or made yet. */
    explicit store(std::string directory);

    const std::string &path() const { return path_; }
    /* Why the last call failed, in words for the user, with the file, and its line where that is
     * known. */
    const std::string &problem() const { return problem_; }

    /* Results are store_result; out is untouched on failure. */
    int get(const std::string &module, const std::string &key, store_value &out);
    /* All entries, by module and key. A store that isn't there has none. */
    int list(std::vector<store_entry> &out);
    /* Adds or replaces a value; makes the directory and the store where missing. */
    int set(const std::string &module, const std::string &key, const store_value &value);
    /* The same with several values: all of them at once, or on failure none. */
    int set(const std::vector<store_entry> &entries);
    /* Removes a value, and with the last one its module. */
    int unset(const std::string &module, const std::string &key);

  private:
    /* What tells one state of the file from another. */
    struct identity {
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = 0;
        struct timespec changed {};
        bool operator==(const identity &other) const;
    };

    int refresh();
    int load();
    int accept(const std::string &text);
    int find(const std::string &module, const std::string &key);
    int lock_for_writing();
    int save(const nlohmann::json &content);
    bool write_beside(const std::string &path, const std::string &text) const;
    int fail(int result, const std::string &reason);

    const std::string directory_;
    const std::string path_;
    std::string problem_;
    /* The file as it was read last, and what came of that. */
    bool loaded_ = false;
    identity identity_;
    nlohmann::json content_;
    int loaded_result_ = STORE_ABSENT;
    std::string loaded_problem_;
};

}  // namespace kze::config

#endif
