/*
 * The IPC layer: hands out endpoints and addresses, records what is sent and asked, and lets a test
 * speak in a peer's place. The journal has each call, "request 1004, 30" for instance.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_FAKE_IPC_H
#define KZEMDLMGR_TESTS_FAKES_FAKE_IPC_H

#include <pthread.h>

#include <functional>
#include <string>
#include <vector>

#include "vrdipc.h"

namespace fakes {

struct ipc_send {
    vrd_ipc_st *ipc;
    const vrd_addr_st *addr;
    unsigned int cmd;
    bool null_data;
    std::string data;
    pthread_t thread;
};

std::vector<ipc_send> ipc_sends();

struct ipc_response {
    vrd_ipc_st *ipc;
    const vrd_addr_st *addr;
    unsigned int request_id;
    unsigned int cmd;
    std::string data;
};
std::vector<ipc_response> ipc_responses();

// A request that was made. Its callback is the test's to call; how, says ipc_answer.
struct ipc_request {
    vrd_ipc_st *ipc;
    const vrd_addr_st *addr;
    unsigned int cmd;
    std::string data;
    vrd_ipc_reply_cb callback;
    void *context;
    unsigned int time_limit;
};
std::vector<ipc_request> ipc_requests();
// Answers a request on the calling thread: with status 0 and this body, or with a negative status.
void ipc_answer(const ipc_request &request, const std::string &body);
void ipc_fail(const ipc_request &request, int status);

// The open endpoints and addresses, and one of them by its name; null when there is none.
std::vector<std::string> open_ipcs();
std::vector<std::string> open_addrs();
vrd_ipc_st *ipc_by_name(const std::string &name);
const vrd_addr_st *addr_by_name(const std::string &name);
// An address as a callback gets it, which nobody has to destroy.
vrd_addr_st *ipc_peer();

// Lets a peer send to an endpoint, on the calling thread. False when no callback is registered.
bool ipc_receives_request(const std::string &name, unsigned int request_id, unsigned int cmd,
                          const std::string &data);
bool ipc_receives_message(const std::string &name, unsigned int cmd, const std::string &data);

// The result of every vrd_ipc_send from now on; 0 to begin with.
void ipc_send_returns(int result);
// Runs on the sending thread within each vrd_ipc_send, after it was recorded.
void on_ipc_send(std::function<void()> hook);
// Runs on the asking thread within each vrd_ipc_make_request, after it was recorded.
void on_ipc_request(std::function<void(const ipc_request &)> hook);
// Gives null for an endpoint, temporary or not, or an address of that name.
void ipc_create_fails(const std::string &name);
void addr_create_fails(const std::string &name);
// What the registrations return; 0 to begin with.
void ipc_on_request_returns(int result);
void ipc_msg_recv_returns(int result);
// What every vrd_ipc_make_request and vrd_ipc_response returns; 0 to begin with.
void ipc_make_request_returns(int result);
void ipc_response_returns(int result);

// The names of the endpoints and addresses that are open, without the pair that the plug-in keeps
// for the process's life, "req_tmp" and one address of "agt_cfgc". They count as closed from now
// on.
std::vector<std::string> take_left_ipc_handles();

// Leaves the handles as they are: a test may begin with the lasting pair of an earlier one.
void reset_ipc();

}  // namespace fakes

#endif
