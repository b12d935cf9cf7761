/* Requests to an endpoint of the tree and their answers, as bytes. */
#ifndef KZE_AGENT_CTL_CORE_REQUEST_CALL_H
#define KZE_AGENT_CTL_CORE_REQUEST_CALL_H

#include <string>
#include <string_view>
#include <vector>

namespace kze::ctl {

/* How one request ended. */
struct request_end {
    int status = 0; /* 0, or a VRD_IPC_E_... code */
    unsigned int cmd = 0;
    std::string answer; /* with the status 0 */
};

/*
 * Sends the same request `count` times without waiting in between, and then waits for the end of
 * each, at most for so many whole seconds (1 at least); the ends are in the order of the sends.
 * Turns an event loop of the calling thread's own. Throws failure when no endpoint can be made.
 */
std::vector<request_end> send_requests(const std::string &endpoint, unsigned int cmd,
                                       std::string_view body, unsigned int count,
                                       unsigned int seconds);

}  // namespace kze::ctl

#endif
