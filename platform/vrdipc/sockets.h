/*
 * The sockets of endpoints: where they lie, who may use them.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDIPC_SOCKETS_H
#define KZEMDLMGR_PLATFORM_VRDIPC_SOCKETS_H

#include <sys/socket.h>
#include <sys/types.h>

#include <string>

#include "platform/common/descriptor.h"
#include "platform/vrdipc/peer_log.h"

namespace kze_ipc {

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

    int fd() const { return own_fd.get(); }

    // Refuses whoever still tries to connect; fd() stays open.
    void refuse();

    // Gives the name back. Waits while another process holds the directory's lock, not longer than
    // `wait` says; then the file stays, for whoever takes the name next.
    enum class patience { usual, brief };
    void withdraw(patience wait);

    void close() { own_fd.reset(); }

  private:
    int bind_name(int directory, const std::string &name);

    kze::descriptor own_fd;
    std::string own_directory;
    std::string own_file;
    dev_t device = 0;
    ino_t inode = 0;
};

// A non-blocking stream socket, or one that isn't open.
kze::descriptor make_socket();

enum class connect_state { done, full, failed };

// Tries to connect `fd` to the endpoint `name`; never waits. `full`: it lives, but takes no
// connection now; try again. `failed`: *code_out is the negative code.
connect_state connect_to(int fd, const std::string &name, int *code_out);

// Who is at the other end. False, with a line in the log, when it is neither root nor our own
// effective user.
bool is_allowed_peer(int fd, const std::string &endpoint, peer_log &log, struct ucred *peer_out);

}  // namespace kze_ipc

#endif
