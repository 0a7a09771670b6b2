#include "bench/tools/sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace bench {
namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

tcp_socket make_socket() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) fail("socket");
    return tcp_socket(fd);
}

void send_at_once(int fd) {
    const int on = 1;
    if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) fail("TCP_NODELAY");
}

}  // namespace

tcp_socket::~tcp_socket() {
    if (fd_ >= 0) close(fd_);
}

tcp_socket tcp_socket::connected_to(uint16_t port) {
    tcp_socket made = make_socket();
    const sockaddr_in address = loopback(port);
    if (connect(made.fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("connect");
    send_at_once(made.fd_);
    return made;
}

tcp_socket tcp_socket::listening(uint16_t& port) {
    tcp_socket made = make_socket();
    sockaddr_in address = loopback(0);
    if (bind(made.fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("bind");
    if (listen(made.fd_, SOMAXCONN) != 0) fail("listen");
    socklen_t length = sizeof address;
    if (getsockname(made.fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) fail("getsockname");
    port = ntohs(address.sin_port);
    return made;
}

tcp_socket tcp_socket::accepted() const {
    int fd = -1;
    do {
        fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    } while (fd < 0 && (errno == EINTR || errno == ECONNABORTED));
    if (fd < 0) fail("accept");
    tcp_socket made(fd);
    send_at_once(fd);
    return made;
}

void tcp_socket::send_all(const void* data, size_t bytes) const {
    const char* from = static_cast<const char*>(data);
    while (bytes > 0) {
        const ssize_t sent = send(fd_, from, bytes, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0) fail("send");
        from += sent;
        bytes -= static_cast<size_t>(sent);
    }
}

void tcp_socket::send_zeros(uint64_t bytes) const {
    const std::vector<char> block(block_bytes);
    while (bytes > 0) {
        const size_t part = std::min<uint64_t>(bytes, block.size());
        send_all(block.data(), part);
        bytes -= part;
    }
}

bool tcp_socket::receive_all(void* data, size_t bytes) const {
    char* to = static_cast<char*>(data);
    size_t have = 0;
    while (have < bytes) {
        const ssize_t got = recv(fd_, to + have, bytes - have, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) fail("recv");
        if (got == 0 && have == 0) return false;
        if (got == 0) throw std::runtime_error("the connection ended too early");
        have += static_cast<size_t>(got);
    }
    return true;
}

void tcp_socket::discard(uint64_t bytes) const {
    std::vector<char> block(block_bytes);
    while (bytes > 0) {
        const ssize_t got = recv(fd_, block.data(), std::min<uint64_t>(bytes, block.size()), 0);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) fail("recv");
        if (got == 0) throw std::runtime_error("the connection ended too early");
        bytes -= static_cast<uint64_t>(got);
    }
}

}  // namespace bench
