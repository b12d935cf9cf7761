/*
 * What the engine was told to answer, and the versions it reports: kept in a file of the tree, so
 * that it outlives the process. The engine alone reads and writes it; who finds no engine leaves a
 * request for its start (left_requests.h).
 */
#ifndef KZE_AGENT_ENGINE_ENGINE_SETTINGS_H
#define KZE_AGENT_ENGINE_ENGINE_SETTINGS_H

#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "agent/engine/engine_answer.h"

namespace kze::engine {

constexpr char settings_file[] = "@/../var/lib/qd_agent.json";

/* The settings in one file, which no other process changes. Safe from any thread. */
class engine_settings {
  public:
    /* Reads the file, if there is one. path is absolute. */
    explicit engine_settings(std::string path);

    /* Whether apply knows the request's "op". */
    static bool is_settings_request(const nlohmann::json &request);

    /* What speaks against a request, whatever is set; empty when nothing does. */
    static std::string check(const nlohmann::json &request);

    /*
     * Carries out one of
     *   {"op":"answer","call":name, ...}, with the members of read_answer
     *   {"op":"clear"} or {"op":"clear","call":name}
     *   {"op":"version","type":"ioc|ioa|md","version":text}
     *   {"op":"rise","type":"ioc|ioa|md", ...}, with the members of read_rise; none: as usual
     *   {"op":"drive","drive":n,"collect":n}, or one of the two
     * and returns the answer to it, {"ok":true} or {"ok":false,"error":text}.
     */
    nlohmann::json apply(const nlohmann::json &request);

    /* The answer set for a call of that name with that first argument, if any; counts one of its
     * times as used. */
    std::optional<call_answer> take(const std::string &call, int type = 0);

    /* The version of "ioc", "ioa" or "md"; empty for another type. */
    std::string version(const std::string &type);

    /* How the type's version is to rise with this load, if that was set; counts as take does. */
    std::optional<version_rise> take_rise(const std::string &type);

    /* The following return what went wrong, an empty text when nothing did. */

    /* Sets a type's version, but not to a lower one unless it may fall. */
    std::string raise_version(const std::string &type, const std::string &version, bool may_fall);
    /* Keeps what is told of the rule file that was loaded last, with its numbers of "rules" and
     * whether it is "full"; adds "rules_held", in which those before count where it isn't. */
    std::string keep_pack(const std::string &type, const nlohmann::json &pack);
    std::string set_drive_state(int drive_switch, int state);

    /* The state of a qd_drive_switch. */
    int drive_state(int drive_switch);

    /* {"answers":{name:{...}},"versions":{type:text},"rises":{type:{...}},"packs":{type:{...}},
     * "drive":{"drive":n,"collect":n}}, for a status; the file has the same. */
    nlohmann::json describe();

    struct content {
        std::map<std::string, call_answer> answers;
        std::map<std::string, std::string> versions;
        std::map<std::string, version_rise> rises;   /* by type of rules, as all but answers */
        std::map<std::string, nlohmann::json> packs; /* objects */
        int drive_states[2] = {0, 0};                /* by qd_drive_switch */
    };

  private:
    /* Changes the content and returns what speaks against it; empty when nothing does. */
    using change = std::function<std::string(content &in)>;

    std::string change_file(const change &how);
    std::string save() const;
    template <typename Set>
    Set take_one(std::map<std::string, Set> &from,
                 typename std::map<std::string, Set>::iterator set);

    const std::string path_;
    std::mutex lock_; /* guards what follows */
    content content_;
};

/*
 * Whether a version of rules is lower than another: both are "<number>" or "<number>.<number>", and
 * what is no number counts as 0.
 */
bool is_version_below(const std::string &left, const std::string &right);

}  // namespace kze::engine

#endif
