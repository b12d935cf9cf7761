/* The rules that the engine holds: what came as text, and what it read from rule files. */
#ifndef KZE_AGENT_ENGINE_ENGINE_RULES_H
#define KZE_AGENT_ENGINE_ENGINE_RULES_H

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>

namespace kze::engine {

/*
 * The newest text of each capability. A text can be addressed to a part of a capability and is then
 * held beside the capability's own: "tkbfd", which a JSON text names by beginning with its name,
 * and "file", the rule file that was loaded last. One thread at a time.
 */
class engine_rules {
  public:
    /* Holds rule text that came by data. */
    void take_text(int type, std::string_view text);
    /* Holds the text of a rule file. */
    void take_file(int type, std::string text, const std::string &path);

    /* The text of a part, "" for the capability's own; null when there is none. */
    const std::string *find(int type, const std::string &part) const;

    /* An array, by type and part, of {"type":n,"name":text,"part":text,"source":"data" or the
     * file's path,"bytes":n,"md5":text,"time_us":n,"first_line":text,"count":how many came}. */
    nlohmann::json describe() const;

  private:
    struct held_text {
        std::string text;
        std::string source;
        std::string md5;
        std::int64_t time_us = 0; /* since 1970-01-01 UTC */
        std::uint64_t count = 0;
    };
    void hold(int type, const std::string &part, std::string text, const std::string &source);

    std::map<std::pair<int, std::string>, held_text> texts_; /* by type and part */
};

/* Microseconds since 1970-01-01 UTC. */
std::int64_t now_us();

}  // namespace kze::engine

#endif
