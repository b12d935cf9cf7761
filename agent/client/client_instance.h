/* The client library's one client: which session is in force. */
#ifndef KZE_AGENT_CLIENT_CLIENT_INSTANCE_H
#define KZE_AGENT_CLIENT_CLIENT_INSTANCE_H

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "agent/client/client_session.h"

namespace kze::engine {

/*
 * Starts and stops sessions, one start or stop after the other. Safe from any thread and from
 * callbacks. Its destructor stops the client, so that the library can be unloaded at any time.
 */
class client_instance {
  public:
    static client_instance &get();
    ~client_instance();
    client_instance(const client_instance &) = delete;
    client_instance &operator=(const client_instance &) = delete;

    /* Opens a session in place of the one before. */
    int start(const qd_client_callbacks *callbacks, void *context);
    /* Ends the session, if there is one. */
    int stop();
    /* The session in force, which may be offline; null when the client isn't started. */
    std::shared_ptr<client_session> session();

  private:
    client_instance() = default;
    /* Waits for its turn. False for a callback of a session that is just being ended: whoever ends
     * it waits for that callback. */
    bool enter();
    void leave();
    int end_session();
    int end(const std::shared_ptr<client_session> &session);
    void join_ended();

    std::mutex lock_;
    std::condition_variable changed_;
    bool busy_ = false;                       /* guarded by lock_ */
    std::shared_ptr<client_session> session_; /* guarded by lock_ */
    /* Ended by a callback of theirs, which may still run; only for who is busy. */
    std::vector<std::shared_ptr<client_session>> ended_;
};

}  // namespace kze::engine

#endif
