/*
 * Clients that send management requests of all kinds, valid and broken, many at once, and keep what
 * came of each.
 */
#ifndef KZEMDLMGR_TESTS_COMPONENT_PLUGIN_LOAD_CLIENTS_H
#define KZEMDLMGR_TESTS_COMPONENT_PLUGIN_LOAD_CLIENTS_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/ipc_test.h"

// One request as it is to be sent, and the codes that may answer it.
struct planned_request {
    unsigned int cmd;
    std::string body;
    bool valid;  // answered with 0, or with 1 while the queue is full
    int code;    // of a broken one
    // Of a valid one: the task's type, and what of it the engine gets.
    int task_type;
    std::string engine_gets;
};

// The request with this number of this client; always the same.
planned_request plan(unsigned int client, unsigned int number);

// The body behind a module header of a request, and that of a response with this code.
std::string request_frame(const std::string &body);
std::string response_frame(int code);

// What came of one request.
struct request_outcome {
    int ends = 0;            // must become 1
    int status = 0;          // of the IPC
    int code = -1;           // of a response that is exactly what it is to be
    std::uint64_t sent = 0;  // moments, all different, in their order
    std::uint64_t ended = 0;
    std::uint32_t waited_ms = 0;
};

/*
 * One client, on a loop of its own, with so many requests unanswered at a time. Threads: its
 * members are called by one thread; the outcomes are its loop's until it is done.
 */
class load_client {
  public:
    // Has room for so many requests.
    load_client(unsigned int number, unsigned int window, unsigned int room);
    ~load_client();
    load_client(const load_client &) = delete;
    load_client &operator=(const load_client &) = delete;

    // Sends the requests from `first` to `last - 1`, within the room, and one-way messages between
    // them. Once a request ends without a response, those behind it are not sent.
    void send(unsigned int first, unsigned int last);
    bool done() const { return open == 0; }
    const std::vector<request_outcome> &outcomes() const { return all; }
    unsigned int number() const { return own_number; }

  private:
    struct pending {
        load_client *client;
        unsigned int number;
        unsigned int cmd;
    };

    void send_more();
    void send_one(unsigned int request);
    void give_up();
    static void on_reply(int status, unsigned int cmd, const char *data, unsigned int len,
                         void *context);

    const unsigned int own_number;
    const unsigned int window;
    kze_test::loop_thread loop;
    kze_test::temp_endpoint ipc;
    const kze_test::test_address plugin;
    // The loop's thread's until nothing is open.
    std::vector<request_outcome> all;
    std::vector<pending> contexts;
    unsigned int next = 0;
    unsigned int end = 0;
    unsigned int unanswered = 0;
    // Requests of this send() that have not ended.
    std::atomic<unsigned int> open{0};
};

#endif
