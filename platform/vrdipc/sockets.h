// The sockets of endpoints: where they lie, who may use them.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <string>
#include <utility>

#include "platform/vrdipc/peer_log.h"

namespace kze_ipc {

// Owns a descriptor. One thread at a time.
class unique_fd {
  public:
    explicit unique_fd(int fd = -1) : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(unique_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd &operator=(unique_fd &&other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }

    int get() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }
    void reset();

  private:
    int fd_;
};

// Whether an endpoint may have this name; null is no name.
bool is_valid_name(const char *name);

// The listening socket of an endpoint and its file. One thread at a time, guarded by its owner.
class listener {
  public:
    listener() = default;
    listener(listener &&) = default;
    listener &operator=(listener &&) = default;

    // Takes the name, in place of what a dead process left there. VRD_IPC_OK or a negative code,
    // with the reason in the log.
    int open(const std::string &name);

    int fd() const { return fd_.get(); }

    // Refuses whoever still tries to connect; fd() stays open.
    void refuse();

    // Gives the name back. Waits while another process holds the directory's lock, not longer than
    // `wait` says; then the file stays, for whoever takes the name next.
    enum class patience { usual, brief };
    void withdraw(patience wait);

    void close() { fd_.reset(); }

  private:
    int bind_name(int directory, const std::string &name);

    unique_fd fd_;
    std::string directory_;
    std::string file_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

// A non-blocking stream socket, or one that isn't open.
unique_fd make_socket();

enum class connect_state { done, full, failed };

// Tries to connect `fd` to the endpoint `name`; never waits. `full`: it lives, but takes no
// connection now; try again. `failed`: *code_out is the negative code.
connect_state connect_to(int fd, const std::string &name, int *code_out);

// Who is at the other end. False, with a line in the log, when it is neither root nor our own
// effective user.
bool is_allowed_peer(int fd, const std::string &endpoint, peer_log &log, struct ucred *peer_out);

}  // namespace kze_ipc
