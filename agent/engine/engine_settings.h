/*
 * What the engine was told to answer, and the versions it reports: kept in a file of the tree, so
 * that it outlives the process and can be set while there is none.
 *
 * The engine applies such requests when it runs; a program that finds no engine applies the same
 * request to the file.
 */
#ifndef KZE_AGENT_ENGINE_SETTINGS_H
#define KZE_AGENT_ENGINE_SETTINGS_H

#include <sys/stat.h>

#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace kze::engine {

constexpr char settings_file[] = "@/../var/lib/qd_agent.json";

/* How one client function is to be answered. */
struct call_answer {
    int code = 0;             /* what the function returns; 0 lets the call take its course */
    std::optional<int> value; /* what its callback or out-parameter gets in place of the usual */
    unsigned int delay_ms = 0;
    unsigned int times = 0; /* for how many calls; 0: until it is cleared */
    bool never = false;     /* the call gets no answer at all */
};

/*
 * The settings in one file. Safe from any thread, and between processes: each change is made under
 * a lock file, and a file that another process changed is read again.
 */
class engine_settings {
  public:
    /* path is absolute; nothing is read or made yet. */
    explicit engine_settings(std::string path);

    /* Whether apply knows the request's "op". */
    static bool is_settings_request(const nlohmann::json &request);

    /*
     * Carries out one of
     *   {"op":"answer","call":name,"code":n,"value":n,"delay_ms":n,"times":n,"refuse":b,"never":b}
     *   {"op":"clear"} or {"op":"clear","call":name}
     *   {"op":"version","type":"ioc|ioa|md","version":text}
     * and returns the answer to it, {"ok":true} or {"ok":false,"error":text}. In "answer" only
     * "call" and one of code, value, delay_ms, refuse and never must be there.
     */
    nlohmann::json apply(const nlohmann::json &request);

    /* The answer set for a call of that name, if any; counts one of its times as used. */
    std::optional<call_answer> take(const std::string &call);

    /* The version of "ioc", "ioa" or "md"; empty for another type. */
    std::string version(const std::string &type);

    /* {"answers":{name:{...}},"versions":{type:text}}, for a status. */
    nlohmann::json describe();

    struct content {
        std::map<std::string, call_answer> answers;
        std::map<std::string, std::string> versions;
    };

  private:
    /* Changes the content and returns what speaks against it; empty when nothing does. */
    using change = std::function<std::string(content &in)>;

    std::string change_file(const change &how);
    void refresh();
    std::string save();

    const std::string path_;
    std::mutex lock_; /* guards what follows */
    content content_;
    struct stat stamp_ {}; /* of the file as it was read; all zero: there was none */
};

}  // namespace kze::engine

#endif
