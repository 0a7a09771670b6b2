#include "bench/rig/flow_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace flow {

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_in address(const std::string& host, uint16_t port) {
    sockaddr_in filled{};
    filled.sin_family = AF_INET;
    filled.sin_port = htons(port);
    if (::inet_pton(AF_INET, host.c_str(), &filled.sin_addr) != 1) throw std::runtime_error("not an address: " + host);
    return filled;
}

int make_socket() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) fail("socket");
    return fd;
}

}  // namespace

connection::connection(int fd) : fd_(fd) {
    const int on = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

connection::~connection() {
    if (fd_ >= 0) ::close(fd_);
}

connection connection::to(const std::string& host, uint16_t port) {
    connection made(make_socket());
    const sockaddr_in target = address(host, port);
    if (::connect(made.fd_, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0) fail("connect");
    return made;
}

void connection::send_all(const void* data, size_t bytes) const {
    const auto* at = static_cast<const char*>(data);
    while (bytes > 0) {
        const ssize_t sent = ::send(fd_, at, bytes, MSG_NOSIGNAL);
        if (sent < 0) fail("send");
        at += sent;
        bytes -= static_cast<size_t>(sent);
    }
}

void connection::end() const {
    if (::shutdown(fd_, SHUT_WR) != 0) fail("shutdown");
}

size_t connection::receive(void* data, size_t room) const {
    const ssize_t bytes = ::recv(fd_, data, room, 0);
    if (bytes < 0) fail("receive");
    return static_cast<size_t>(bytes);
}

bool connection::receive_all(void* data, size_t bytes) const {
    auto* at = static_cast<char*>(data);
    for (size_t have = 0; have < bytes;) {
        const size_t more = receive(at + have, bytes - have);
        if (more == 0 && have == 0) return false;
        if (more == 0) throw std::runtime_error("the peer ended in the middle of a message");
        have += more;
    }
    return true;
}

void serve(uint16_t port, const std::string& congestion, void (*handle)(connection&)) {
    const int listener = make_socket();
    const int on = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in own = address("0.0.0.0", port);
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) fail("bind");
    if (!congestion.empty() && ::setsockopt(listener, IPPROTO_TCP, TCP_CONGESTION, congestion.data(),
                                            static_cast<socklen_t>(congestion.size())) != 0) {
        fail("congestion control");
    }
    if (::listen(listener, 128) != 0) fail("listen");
    while (true) {
        const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) fail("accept");
        std::thread([handle, fd] {
            try {
                connection accepted(fd);
                handle(accepted);
            } catch (const std::exception& error) {
                std::fprintf(stderr, "rig_flow: %s\n", error.what());
            }
        }).detach();
    }
}

}  // namespace flow
