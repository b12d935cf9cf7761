/* The agent's host: its plug-ins' life, and the orders it takes meanwhile. */
#ifndef KZE_AGENT_HOST_HOST_H
#define KZE_AGENT_HOST_HOST_H

#include <chrono>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "agent/common/control.h"
#include "agent/host/plugin.h"
#include "platform/common/descriptor.h"

namespace kze::host {

/*
 * run is for the main thread, on which plug-ins are initialised; control requests come on the
 * control server's thread.
 *
 * The order of the end: tell the service manager, refuse the reloads that wait, uninit the plug-ins
 * in reverse, close their libraries in reverse, close the control endpoint.
 */
class host {
  public:
    host();

    /*
     * Blocks the signals that run waits for. Before other threads exist, which inherit this;
     * programs that the plug-ins start with fork don't.
     */
    static bool block_signals();

    /* Runs until SIGTERM, SIGINT or the order to stop. False when it can't begin. */
    bool run();

  private:
    bool open_descriptors();
    void load_plugins();
    void start_plugins();
    void stop_plugins();
    void unload_plugins();
    void publish(bool ready);
    bool serve_once();
    bool take_signal();
    bool take_orders();
    void reload(const std::vector<control_ticket> &waiting);
    void refuse_reloads();
    nlohmann::json status();

    /* On the control server's thread. */
    std::optional<nlohmann::json> answer(const nlohmann::json &request,
                                         const control_ticket &ticket);
    std::optional<nlohmann::json> order_reload(const control_ticket &ticket);
    void order_stop(const control_ticket &ticket);
    void wake() const;

    const std::chrono::steady_clock::time_point started_;
    /* The main thread's. */
    std::vector<plugin> plugins_;
    descriptor signals_{-1};
    /* Written by the control thread, read by the main thread. */
    descriptor orders_{-1};

    std::mutex mutex_;
    /* These are guarded by mutex_. */
    std::vector<plugin_status> published_; /* what the plug-ins' states were last */
    bool ready_ = false;                   /* each plug-in's init was called */
    bool stop_ordered_ = false;
    bool stopping_ = false;
    std::vector<control_ticket> reloads_;

    /* The last to be made and the first to go: its thread uses all of the above. */
    control_server control_;
};

}  // namespace kze::host

#endif
