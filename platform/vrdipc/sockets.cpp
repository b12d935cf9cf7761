#include "platform/vrdipc/sockets.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "kzautil.h"
#include "platform/vrdcl_ev/timer.h"
#include "vrdbase.h"
#include "vrdipc.h"

namespace kze_ipc {
namespace {

constexpr std::size_t max_name = 64;
constexpr int backlog = 128;

// How long another process may take to bind a name; it holds the lock for microseconds.
constexpr int lock_tries = 400;
constexpr int brief_lock_tries = 20;
constexpr long lock_pause_ns = 5 * 1000 * 1000;

// A socket's address, and the descriptor that a long path is reached through.
struct socket_address {
    struct sockaddr_un name {};
    kze::descriptor directory;

    const struct sockaddr *get() const { return reinterpret_cast<const struct sockaddr *>(&name); }
};

std::string run_directory() {
    char path[PATH_MAX];
    return kze_dirutils_path_transform("@/../run", path, sizeof path) == 0 ? path : "";
}

std::string file_of(const std::string &endpoint) {
    return endpoint + ".sock";
}

// A path that is too long for an address is replaced with one through the directory's descriptor.
// 0 or an error number.
int make_address(const std::string &directory, const std::string &file, socket_address *out) {
    out->name.sun_family = AF_UNIX;
    std::string path = directory + "/" + file;
    if (path.size() >= sizeof out->name.sun_path) {
        out->directory =
            kze::descriptor(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!out->directory.valid()) {
            return errno;
        }
        path = "/proc/self/fd/" + std::to_string(out->directory.get()) + "/" + file;
    }
    if (path.size() >= sizeof out->name.sun_path) {
        return ENAMETOOLONG;
    }
    path.copy(out->name.sun_path, path.size());
    return 0;
}

int try_connect(int fd, const socket_address &address) {
    int result;
    do {
        result = ::connect(fd, address.get(), sizeof address.name);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : errno;
}

// Whether nobody but root and our own user can put sockets in place of ours, since a mode that is
// too wide on a directory of our own gets mended. Otherwise the log says why.
bool is_safe_directory(const std::string &path, const struct stat &status) {
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        kze_log(1, "ipc: directory %s belongs to user %u", path.c_str(),
                static_cast<unsigned int>(status.st_uid));
        return false;
    }
    if (status.st_uid != geteuid() && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        kze_log(1, "ipc: directory %s is writable for others, its mode is %04o", path.c_str(),
                static_cast<unsigned int>(status.st_mode & ALLPERMS));
        return false;
    }
    return true;
}

// Opens the directory of the sockets and makes it ours alone, if it is our user's. It may be new
// and without any permission, by the umask, so it is opened for reading last. Not open, with errno
// set, on failure.
kze::descriptor open_run_directory(const std::string &path) {
    const int made = kze_dirutils_mkdir(path.c_str(), S_IRWXU);
    const kze::descriptor found(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    if (!found.valid() || fstat(found.get(), &status) != 0) {
        errno = made != 0 ? made : errno;
        return kze::descriptor();
    }
    if (!is_safe_directory(path, status)) {
        errno = EPERM;
        return kze::descriptor();
    }
    const std::string itself = "/proc/self/fd/" + std::to_string(found.get());
    if (status.st_uid == geteuid() && (status.st_mode & ALLPERMS) != S_IRWXU &&
        chmod(itself.c_str(), S_IRWXU) != 0) {
        return kze::descriptor();
    }
    return kze::descriptor(::openat(found.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// Keeps other processes, and other threads, from binding in this directory at the same time. The
// lock ends with the descriptor.
bool lock_directory(int directory, int tries = lock_tries) {
    for (int i = 0; i < tries; ++i) {
        if (flock(directory, LOCK_EX | LOCK_NB) == 0) {
            return true;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return false;
        }
        const struct timespec pause { 0, lock_pause_ns };
        nanosleep(&pause, nullptr);
    }
    errno = EWOULDBLOCK;
    return false;
}

// Removes the socket of a dead process. 0 or an error number; EADDRINUSE when one lives there.
int remove_stale(int directory, const std::string &file, const socket_address &address) {
    struct stat status {};
    if (fstatat(directory, file.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? 0 : errno;
    }
    if (!S_ISSOCK(status.st_mode)) {
        return EEXIST;
    }
    const kze::descriptor probe = make_socket();
    if (!probe.valid()) {
        return errno;
    }
    const int result = try_connect(probe.get(), address);
    if (result != ECONNREFUSED) {
        return result == 0 || result == EAGAIN ? EADDRINUSE : result;
    }
    return unlinkat(directory, file.c_str(), 0) == 0 ? 0 : errno;
}

int code_of(int error) {
    switch (error) {
        case EACCES:
        case EPERM:
            return VRD_IPC_E_FORBIDDEN;
        case EMFILE:
        case ENFILE:
        case ENOMEM:
        case ENOBUFS:
            return VRD_IPC_E_NO_MEMORY;
        default:
            return VRD_IPC_E_NO_PEER;
    }
}

}  // namespace

bool is_valid_name(const char *name) {
    static const char allowed[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-.";
    if (name == nullptr || name[0] == '\0' || name[0] == '.') {
        return false;
    }
    const std::size_t length = strnlen(name, max_name + 1);
    return length <= max_name && std::strspn(name, allowed) == length;
}

kze::descriptor make_socket() {
    return kze::descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// Binds and listens. The permissions are set before the file exists, and again after it in case the
// umask took some of them away. 0 or an error number.
int listener::bind_name(int directory, const std::string &name) {
    own_file = file_of(name);
    socket_address address;
    int error = make_address(own_directory, own_file, &address);
    if (error == 0) {
        error = remove_stale(directory, own_file, address);
    }
    if (error != 0) {
        return error;
    }
    own_fd = make_socket();
    struct stat status {};
    if (!own_fd.valid() || fchmod(own_fd.get(), S_IRUSR | S_IWUSR) != 0 ||
        ::bind(own_fd.get(), address.get(), sizeof address.name) != 0) {
        return errno;
    }
    if (fchmodat(directory, own_file.c_str(), S_IRUSR | S_IWUSR, 0) != 0 ||
        fstatat(directory, own_file.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        ::listen(own_fd.get(), backlog) != 0) {
        error = errno;
        unlinkat(directory, own_file.c_str(), 0);
        return error;
    }
    device = status.st_dev;
    inode = status.st_ino;
    return 0;
}

int listener::open(const std::string &name) {
    own_directory = run_directory();
    const kze::descriptor directory = open_run_directory(own_directory);
    if (!directory.valid() || !lock_directory(directory.get())) {
        const int error = errno;
        kze_log(1, "ipc: directory %s can't be used: %s", own_directory.c_str(), strerror(error));
        return code_of(error);
    }
    const int error = bind_name(directory.get(), name);
    if (error == 0) {
        return VRD_IPC_OK;
    }
    own_fd.reset();
    kze_log(1, "ipc: name %s can't be taken in %s: %s", name.c_str(), own_directory.c_str(),
            strerror(error));
    return code_of(error);
}

void listener::refuse() {
    if (own_fd.valid()) {
        ::shutdown(own_fd.get(), SHUT_RDWR);
    }
}

void listener::withdraw(patience wait) {
    if (!own_fd.valid()) {
        return;
    }
    const kze::descriptor directory(
        ::open(own_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    const int tries = wait == patience::brief ? brief_lock_tries : lock_tries;
    if (!directory.valid() || !lock_directory(directory.get(), tries)) {
        kze_log(2, "ipc: %s stays behind in %s: %s", own_file.c_str(), own_directory.c_str(),
                strerror(errno));
        return;
    }
    // Another endpoint may have the name by now; only our own file goes.
    if (fstatat(directory.get(), own_file.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        status.st_dev == device && status.st_ino == inode) {
        unlinkat(directory.get(), own_file.c_str(), 0);
    }
}

connect_state connect_to(int fd, const std::string &name, int *code_out) {
    socket_address address;
    int error = make_address(run_directory(), file_of(name), &address);
    if (error == 0) {
        error = try_connect(fd, address);
    }
    if (error == 0) {
        return connect_state::done;
    }
    if (error == EAGAIN) {
        return connect_state::full;
    }
    *code_out = code_of(error);
    return connect_state::failed;
}

bool is_allowed_peer(int fd, const std::string &endpoint, peer_log &log, struct ucred *peer_out) {
    struct ucred peer {};
    socklen_t size = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        const int error = errno;
        if (log.admits(peer_event::not_allowed, kze_ev::now_ns())) {
            kze_log(2, "ipc: %s: peer unknown, disconnected: %s", endpoint.c_str(),
                    strerror(error));
        }
        return false;
    }
    if (peer.uid != 0 && peer.uid != geteuid()) {
        if (log.admits(peer_event::not_allowed, kze_ev::now_ns())) {
            kze_log(2, "ipc: %s: peer of user %u, process %d, is not allowed, disconnected",
                    endpoint.c_str(), static_cast<unsigned int>(peer.uid),
                    static_cast<int>(peer.pid));
        }
        return false;
    }
    *peer_out = peer;
    return true;
}

}  // namespace kze_ipc
