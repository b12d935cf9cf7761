// What the tests of the IPC share: endpoints that record, and peers that speak for themselves.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/ev_ipc_test.h"
#include "vrdipc.h"

namespace kze_test {

// Records how requests end. Safe from any thread; must outlive its requests.
class replies {
  public:
    struct reply {
        int status;
        unsigned int cmd;
        std::string body;
        bool had_data;
        pthread_t thread;
    };

    // Makes a request whose end is recorded here; the result is that of vrd_ipc_make_request().
    int request(vrd_ipc_st *ipc, const vrd_addr_st *to, unsigned int cmd, const std::string &body,
                unsigned int limit = 20);

    // Waits for at least so many; the test fails when they don't come. All that have come.
    std::vector<reply> wait(int count, std::chrono::seconds deadline = long_enough);

    int count() { return ended_.value(); }

    // To be given to vrd_ipc_make_request() with the object as context.
    static void on_reply(int status, unsigned int cmd, const char *data, unsigned int len,
                         void *context);

  private:
    counter ended_;
    std::mutex lock_;
    std::vector<reply> list_;  // guarded by lock_
};

// A request or a message, as an endpoint got it.
struct incoming {
    vrd_ipc_st *ipc;
    vrd_addr_st *from;
    unsigned int id;  // 0 of a message
    unsigned int cmd;
    std::string body;
    bool had_data;
};

using incoming_handler = std::function<void(const incoming &)>;

// Answers with the request's own command and body.
void echo(const incoming &request);

// The same, to be given to vrd_ipc_on_request() by a test that has the endpoint on its own thread.
// Whether the answer leaves is not looked at.
void on_echo_request(vrd_ipc_st *ipc, vrd_addr_st *from, unsigned int id, unsigned int cmd,
                     const char *data, unsigned int len, void *);

// An endpoint on a loop, destroyed on that loop's thread.
class test_endpoint {
  public:
    test_endpoint(loop_thread &loop, const std::string &name, incoming_handler on_request = nullptr,
                  incoming_handler on_message = nullptr);
    ~test_endpoint() { destroy(); }
    test_endpoint(const test_endpoint &) = delete;
    test_endpoint &operator=(const test_endpoint &) = delete;

    vrd_ipc_st *get() const { return ipc_; }
    void destroy();

  protected:
    test_endpoint(loop_thread &loop, vrd_ipc_st *(*create)(const char *, int),
                  const std::string &name);

  private:
    loop_thread &loop_;
    vrd_ipc_st *ipc_ = nullptr;
    incoming_handler on_request_;
    incoming_handler on_message_;
};

// One without a name that others know.
class temp_endpoint : public test_endpoint {
  public:
    explicit temp_endpoint(loop_thread &loop)
        : test_endpoint(loop, vrd_ipc_create_temp, "test_client") {}
};

// An address, released with the object.
class test_address {
  public:
    explicit test_address(const std::string &name) : addr_(vrd_addr_create(name.c_str(), 0, 0)) {}
    ~test_address() { vrd_addr_destroy(addr_); }
    test_address(const test_address &) = delete;
    test_address &operator=(const test_address &) = delete;

    const vrd_addr_st *get() const { return addr_; }

  private:
    vrd_addr_st *addr_;
};

constexpr std::uint32_t frame_request = 1;
constexpr std::uint32_t frame_response = 2;
constexpr std::uint32_t frame_message = 3;
constexpr std::uint32_t frame_refusal = 4;

// A frame's header, and a whole frame, as bytes.
std::string header_bytes(std::uint32_t type, std::uint32_t cmd, std::uint32_t id,
                         std::uint32_t length);
std::string frame_bytes(std::uint32_t type, std::uint32_t cmd, std::uint32_t id,
                        const std::string &body);

// A blocking socket with a time limit, for peers that don't use the library.
class raw_socket {
  public:
    // Connects to the socket file; the test fails when that doesn't work.
    static raw_socket connect_to(const std::string &path);
    // Makes the socket file and listens.
    static raw_socket listen_at(const std::string &path, int backlog = 16);

    raw_socket(raw_socket &&other) noexcept;
    ~raw_socket() { close(); }
    raw_socket(const raw_socket &) = delete;
    raw_socket &operator=(const raw_socket &) = delete;

    raw_socket accept() const;
    void close();

    // False when the other end doesn't take all of it.
    bool send(const std::string &bytes) const;
    // Exactly so many bytes, or fewer at the end of the connection.
    std::string receive(std::size_t size) const;
    // The body of a frame, whose header goes to *header_out as five numbers.
    std::string receive_frame(std::vector<std::uint32_t> *header_out) const;
    // Waits for the end of the connection; what is still to be read is passed over.
    bool ends() const;

    int fd() const { return fd_; }

  private:
    explicit raw_socket(int fd);

    int fd_;
};

class ipc_fixture : public ev_ipc {
  protected:
    std::string socket_path(const std::string &name) const {
        return tree.path("run/" + name + ".sock").string();
    }
};

}  // namespace kze_test
