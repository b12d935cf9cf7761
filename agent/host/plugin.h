/* One plug-in of the host. */
#ifndef KZE_AGENT_HOST_PLUGIN_H
#define KZE_AGENT_HOST_PLUGIN_H

#include <string>
#include <vector>

namespace kze::host {

/* How far a plug-in came; a plain value. */
struct plugin_status {
    std::string name;
    bool loaded = false;      /* its library is open and has both functions */
    bool initialised = false; /* its init returned 0 and its uninit wasn't called since */
    int init_result = 0;      /* of the last init; 0 before the first */
    std::string problem;      /* why it isn't initialised; empty before the first init */

    /* "initialised", "init failed", "not loaded" or "stopped" */
    std::string state() const;
};

/*
 * The library "@/../agent_plugins/lib<name>.so" with its functions <name>_init and <name>_uninit.
 * Used by the host's main thread alone, on which the functions run.
 */
class plugin {
  public:
    explicit plugin(std::string name);
    ~plugin();
    plugin(plugin &&other) noexcept;
    plugin &operator=(plugin &&) = delete;
    plugin(const plugin &) = delete;
    plugin &operator=(const plugin &) = delete;

    const plugin_status &status() const { return status_; }
    /* Opens the library, where it isn't open yet, and calls init. Failures are logged. */
    void start();
    /* Calls uninit after an init that returned 0; otherwise does nothing. */
    void stop();
    /* Stops it and closes the library. */
    void unload();

  private:
    using function = int (*)();

    bool load();
    bool look_up(const char *suffix, function &out);
    void fail(const std::string &problem);

    plugin_status status_;
    void *handle_ = nullptr;
    function init_ = nullptr;
    function uninit_ = nullptr;
};

/*
 * The names in a list that is separated by commas or blanks, without repetitions. A name that isn't
 * made of letters, digits and "_" is logged and left out.
 */
std::vector<std::string> plugin_names(const std::string &list);

}  // namespace kze::host

#endif
