/*
 * The IPC layer, as far as the plug-in calls it: records what is sent.
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
// The result of every vrd_ipc_send from now on; 0 to begin with.
void ipc_send_returns(int result);
// Runs on the sending thread within each vrd_ipc_send, after it was recorded.
void on_ipc_send(std::function<void()> hook);

void reset_ipc();

}  // namespace fakes

#endif
