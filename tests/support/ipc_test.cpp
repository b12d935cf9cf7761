#include "tests/support/ipc_test.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <utility>

namespace kze_test {
namespace {

struct sockaddr_un address_of(const std::string &path) {
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof address.sun_path);
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

std::string body_of(const char *data, unsigned int len) {
    return data == nullptr ? std::string() : std::string(data, len);
}

std::uint32_t number_at(const std::string &bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        value |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
    }
    return value;
}

}  // namespace

int replies::request(vrd_ipc_st *ipc, const vrd_addr_st *to, unsigned int cmd,
                     const std::string &body, unsigned int limit) {
    return vrd_ipc_make_request(ipc, to, cmd, body.data(), static_cast<unsigned int>(body.size()),
                                on_reply, this, limit);
}

void replies::on_reply(int status, unsigned int cmd, const char *data, unsigned int len,
                       void *context) {
    auto *const self = static_cast<replies *>(context);
    {
        std::lock_guard<std::mutex> guard(self->lock_);
        self->list_.push_back({status, cmd, body_of(data, len), data != nullptr, pthread_self()});
    }
    self->ended_.add();
}

std::vector<replies::reply> replies::wait(int count, std::chrono::seconds deadline) {
    EXPECT_TRUE(ended_.reaches(count, deadline)) << "only " << ended_.value() << " of " << count;
    std::lock_guard<std::mutex> guard(lock_);
    return list_;
}

void echo(const incoming &request) {
    EXPECT_EQ(vrd_ipc_response(request.ipc, request.from, request.id, request.cmd,
                               request.body.data(), static_cast<unsigned int>(request.body.size())),
              VRD_IPC_OK);
}

void on_echo_request(vrd_ipc_st *ipc, vrd_addr_st *from, unsigned int id, unsigned int cmd,
                     const char *data, unsigned int len, void * /*user*/) {
    vrd_ipc_response(ipc, from, id, cmd, data, len);
}

test_endpoint::test_endpoint(loop_thread &loop, vrd_ipc_st *(*create)(const char *, int),
                             const std::string &name)
    : loop_(loop) {
    loop_.call([&] { ipc_ = create(name.c_str(), 0); });
    EXPECT_NE(ipc_, nullptr);
}

test_endpoint::test_endpoint(loop_thread &loop, const std::string &name,
                             incoming_handler on_request, incoming_handler on_message)
    : test_endpoint(loop, vrd_ipc_create, name) {
    on_request_ = std::move(on_request);
    on_message_ = std::move(on_message);
    if (on_request_ != nullptr) {
        EXPECT_EQ(vrd_ipc_on_request(
                      ipc_,
                      [](vrd_ipc_st *ipc, vrd_addr_st *from, unsigned int id, unsigned int cmd,
                         const char *data, unsigned int len, void *context) {
                          static_cast<test_endpoint *>(context)->on_request_(
                              {ipc, from, id, cmd, body_of(data, len), data != nullptr});
                      },
                      this),
                  VRD_IPC_OK);
    }
    if (on_message_ != nullptr) {
        EXPECT_EQ(vrd_ipc_msg_recv(
                      ipc_,
                      [](vrd_ipc_st *ipc, vrd_addr_st *from, unsigned int cmd, const char *data,
                         unsigned int len, void *context) {
                          static_cast<test_endpoint *>(context)->on_message_(
                              {ipc, from, 0, cmd, body_of(data, len), data != nullptr});
                      },
                      this),
                  VRD_IPC_OK);
    }
}

void test_endpoint::destroy() {
    if (vrd_ipc_st *const ipc = std::exchange(ipc_, nullptr)) {
        loop_.call([ipc] { vrd_ipc_destroy(ipc); });
    }
}

std::string header_bytes(std::uint32_t type, std::uint32_t cmd, std::uint32_t id,
                         std::uint32_t length) {
    std::string bytes = "ZPC1";
    for (const std::uint32_t number : {type, cmd, id, length}) {
        for (int shift = 0; shift < 32; shift += 8) {
            bytes.push_back(static_cast<char>(number >> shift));
        }
    }
    return bytes;
}

std::string frame_bytes(std::uint32_t type, std::uint32_t cmd, std::uint32_t id,
                        const std::string &body) {
    return header_bytes(type, cmd, id, static_cast<std::uint32_t>(body.size())) + body;
}

raw_socket::raw_socket(int fd) : fd_(fd) {
    EXPECT_GE(fd_, 0) << std::strerror(errno);
    const struct timeval limit { std::chrono::seconds(long_enough).count(), 0 };
    EXPECT_EQ(setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), 0);
    EXPECT_EQ(setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit), 0);
}

raw_socket::raw_socket(raw_socket &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

raw_socket raw_socket::connect_to(const std::string &path) {
    raw_socket made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const struct sockaddr_un address = address_of(path);
    EXPECT_EQ(
        ::connect(made.fd_, reinterpret_cast<const struct sockaddr *>(&address), sizeof address), 0)
        << path << ": " << std::strerror(errno);
    return made;
}

raw_socket raw_socket::listen_at(const std::string &path, int backlog) {
    raw_socket made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const struct sockaddr_un address = address_of(path);
    EXPECT_EQ(::bind(made.fd_, reinterpret_cast<const struct sockaddr *>(&address), sizeof address),
              0)
        << path << ": " << std::strerror(errno);
    EXPECT_EQ(::listen(made.fd_, backlog), 0);
    return made;
}

raw_socket raw_socket::accept() const {
    return raw_socket(::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC));
}

void raw_socket::close() {
    if (fd_ >= 0) {
        ::close(std::exchange(fd_, -1));
    }
}

bool raw_socket::send(const std::string &bytes) const {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t part = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (part <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(part);
    }
    return true;
}

std::string raw_socket::receive(std::size_t size) const {
    std::string bytes(size, '\0');
    std::size_t received = 0;
    while (received < size) {
        const ssize_t part = ::recv(fd_, bytes.data() + received, size - received, 0);
        if (part <= 0) {
            break;
        }
        received += static_cast<std::size_t>(part);
    }
    bytes.resize(received);
    return bytes;
}

std::string raw_socket::receive_frame(std::vector<std::uint32_t> *header_out) const {
    const std::string header = receive(20);
    header_out->clear();
    if (header.size() < 20) {
        return std::string();
    }
    for (std::size_t at = 0; at < 20; at += 4) {
        header_out->push_back(number_at(header, at));
    }
    return (*header_out)[1] == frame_refusal ? std::string() : receive((*header_out)[4]);
}

bool raw_socket::ends() const {
    char bytes[4096];
    ssize_t part;
    do {
        part = ::recv(fd_, bytes, sizeof bytes, 0);
    } while (part > 0);
    return part == 0 || errno == ECONNRESET;
}

}  // namespace kze_test
