/* A service at its endpoint, and what all services have in common there. */
#ifndef KZE_AGENT_SERVICES_ENDPOINT_SERVICE_H
#define KZE_AGENT_SERVICES_ENDPOINT_SERVICE_H

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "vrdipc.h"

namespace kze::services {

/*
 * Answers control requests (agent/common/control.h), "status" by itself, and hands all else to the
 * service proper. What that throws is logged and ends nothing.
 * All on the one thread that makes the object and turns its loop.
 */
class endpoint_service {
  public:
    explicit endpoint_service(std::string endpoint);
    virtual ~endpoint_service();
    endpoint_service(const endpoint_service &) = delete;
    endpoint_service &operator=(const endpoint_service &) = delete;

    /* Creates the endpoint and begins to serve. False, with the reason in the log. */
    bool open();

  protected:
    vrd_ipc_st *ipc() const { return ipc_; }
    /* Sends an answer; what hinders that is logged. */
    void respond(const vrd_addr_st *to, unsigned int request_id, unsigned int cmd,
                 std::string_view body) const;

    /* A request that is no control request; unless overridden its answer is empty. */
    virtual void on_request(vrd_addr_st *from, unsigned int request_id, unsigned int cmd,
                            std::string_view body);
    /* A one-way message; unless overridden it is logged and dropped. */
    virtual void on_message(unsigned int cmd, std::string_view body);
    /* A control request other than "status"; what this throws is answered as an error. */
    virtual nlohmann::json on_control(const std::string &op, const nlohmann::json &request);
    /* Adds to the answer to "status"; "summary" is a text for people. */
    virtual void add_status(nlohmann::json &status) const = 0;

  private:
    nlohmann::json answer_control(const nlohmann::json &request);

    static void take_request(vrd_ipc_st *ipc, vrd_addr_st *addr, unsigned int request_id,
                             unsigned int cmd, const char *data, unsigned int len, void *self);
    static void take_message(vrd_ipc_st *ipc, vrd_addr_st *addr, unsigned int cmd, const char *data,
                             unsigned int len, void *self);

    const std::string endpoint_;
    const std::chrono::steady_clock::time_point started_;
    vrd_ipc_st *ipc_ = nullptr;
};

}  // namespace kze::services

#endif
