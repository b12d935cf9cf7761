#include "agent/client/client_instance.h"

#include <algorithm>
#include <new>
#include <utility>

namespace kze::engine {

client_instance &client_instance::get() {
    static client_instance instance;
    return instance;
}

client_instance::~client_instance() {
    stop();
    for (const std::shared_ptr<client_session> &session : ended_) {
        /* Only when a callback ends the process: its thread is here, and goes with the process. */
        static_cast<void>(new (std::nothrow) std::shared_ptr<client_session>(session));
    }
}

int client_instance::start(const qd_client_callbacks *callbacks, void *context) {
    if (!enter()) {
        return client_offline;
    }
    end_session();
    auto session = std::make_shared<client_session>();
    const int code = session->open(callbacks == nullptr ? nullptr : callbacks->offline_cb, context);
    if (code == client_ok) {
        const std::lock_guard<std::mutex> guard(lock_);
        session_ = std::move(session);
    } else {
        end(session);
    }
    leave();
    return code;
}

int client_instance::stop() {
    if (!enter()) {
        return client_ok;
    }
    const int code = end_session();
    leave();
    return code;
}

std::shared_ptr<client_session> client_instance::session() {
    const std::lock_guard<std::mutex> guard(lock_);
    return session_;
}

bool client_instance::enter() {
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait(guard, [this] { return !busy_ || client_delivery::current_is_closed(); });
    if (busy_) {
        return false;
    }
    busy_ = true;
    return true;
}

void client_instance::leave() {
    join_ended();
    {
        const std::lock_guard<std::mutex> guard(lock_);
        busy_ = false;
    }
    changed_.notify_all();
}

int client_instance::end_session() {
    std::shared_ptr<client_session> session;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        session.swap(session_);
    }
    if (session == nullptr) {
        return client_ok;
    }
    return end(session);
}

int client_instance::end(const std::shared_ptr<client_session> &session) {
    session->begin_close();
    {
        /* A callback that waits in enter sees that its session is being ended. */
        const std::lock_guard<std::mutex> guard(lock_);
    }
    changed_.notify_all();
    const int code = session->close();
    ended_.push_back(session);
    return code;
}

void client_instance::join_ended() {
    ended_.erase(std::remove_if(ended_.begin(), ended_.end(),
                                [](const auto &session) { return session->join_delivery(); }),
                 ended_.end());
}

}  // namespace kze::engine
