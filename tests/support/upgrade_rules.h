/*
 * A second statement of what the upgrade relay does, written for reading and not for speed, to be
 * held against the relay: a rule directory as a table of names, and the calls that a tick makes.
 */
#ifndef KZEMDLMGR_TESTS_SUPPORT_UPGRADE_RULES_H
#define KZEMDLMGR_TESTS_SUPPORT_UPGRADE_RULES_H

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace upgrade_rules {

using version = std::pair<int, int>;

// What the relay meets outside of itself.
class surroundings {
  public:
    virtual ~surroundings() = default;

    // The engine, by its client's numbers (1 IOC, 2 IOA, 3 MD). No text: the client gives none.
    virtual int query(int engine, std::optional<std::string> &text) = 0;
    virtual int update(int engine, const std::string &file) = 0;
    virtual int update_async(const std::string &file,
                             const std::function<void(int engine, int result)> &callback) = 0;
    // One run of tar on a pack with this content, or on none: the file that came out.
    virtual std::optional<std::string> unpack(const std::optional<std::string> &content) = 0;
    // All names of the rule directory in its own order.
    virtual std::vector<std::string> listing() = 0;
    virtual int random_number() = 0;
};

struct places {
    std::string rules;
    std::string flag;
    std::string program_directory;
};

class relay {
  public:
    relay(surroundings &outside, places where) : out(outside), at(std::move(where)) {}

    void tick(bool ioc, bool ioa, bool md);
    void md_ends(int engine, int result);

    std::map<std::string, std::string> files;  // of the rule directory: content by name
    bool has_flag = false;
    bool has_target = false;  // the IOA configuration in the engine's program directory
    // Each call to the engine, on files and to sleep, in order and in the journal's words.
    std::vector<std::string> calls;
    version engine = {0, 0};
    int md_last = 0;
    int md_failures = 0;

    // What a look makes of the names of IOC packs.
    struct pack {
        std::string name;  // without its last extension
        version at;
    };
    struct order {
        std::vector<pack> apply;
        std::vector<std::string> drop;
    };
    static order sort_ioc(const std::vector<std::string> &names);

  private:
    void ioc_pass();
    bool ioc_pack(const pack &each, bool first);
    std::string ioc_update(const pack &each);
    bool ask_ioc();
    void other_pass(bool ioa);
    void update_ioa(const std::string &backup);
    std::string ioa_update();
    bool ask_ioa(unsigned long &number);
    void update_md(const std::string &backup);

    std::vector<std::string> list(const std::string &start);
    void remove(const std::string &name);
    bool unpack(const std::string &name);
    void sleep(const char *us) { calls.emplace_back(us); }
    std::string path(const std::string &name) const { return at.rules + "/" + name; }

    surroundings &out;
    places at;
    std::string md_backup;
    std::string md_config;
};

}  // namespace upgrade_rules

#endif
