/*
 * The gateway: keeps a copy of everything that it was given.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_FAKE_GATEWAY_H
#define KZEMDLMGR_TESTS_FAKES_FAKE_GATEWAY_H

#include <pthread.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/fakes/fake_libraries.h"

namespace fakes {

struct gateway_send {
    int type;
    std::string data;  // as it was during the call
    pthread_t thread;
};

std::vector<gateway_send> gateway_sends();
// The result of every send from now on; 0 to begin with.
void gateway_returns(int result);
// Runs on the sending thread within each send, after it was recorded.
void on_gateway_send(std::function<void()> hook);

symbols gateway_symbols();
void reset_gateway();

}  // namespace fakes

#endif
