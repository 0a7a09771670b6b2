#include "app/listener.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "app/failure.h"

namespace tandem::app {
namespace {

struct socket_address_t {
    sockaddr_storage storage{};
    socklen_t length = 0;

    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
};

socket_address_t to_socket_address(const endpoint_t& endpoint) {
    socket_address_t address;
    auto* v4 = reinterpret_cast<sockaddr_in*>(&address.storage);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&address.storage);
    if (inet_pton(AF_INET, endpoint.host.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(endpoint.port);
        address.length = sizeof(*v4);
    } else {
        address.storage = {};
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(endpoint.port);
        inet_pton(AF_INET6, endpoint.host.c_str(), &v6->sin6_addr);
        address.length = sizeof(*v6);
    }
    return address;
}

uint16_t bound_port(int fd) {
    socket_address_t address;
    address.length = sizeof(address.storage);
    if (getsockname(fd, address.get(), &address.length) != 0) return 0;
    // The port stands at the same place in both families.
    return ntohs(reinterpret_cast<const sockaddr_in*>(&address.storage)->sin_port);
}

const char* cure(int error) {
    if (error == EADDRINUSE) return "choose another port, or end the program that has this one";
    if (error == EACCES) return "choose a port above 1023, or run as root";
    return "choose an address of this machine";
}

}  // namespace

listener_t::listener_t(const endpoint_t& address, int type) : where(address) {
    // Room for a burst of datagrams while the loop is busy.
    constexpr int receive_buffer = 1 << 20;
    const bool tcp = type == SOCK_STREAM;
    socket_address_t target = to_socket_address(address);
    socket = file_t(::socket(target.storage.ss_family, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    // Two programs could have one UDP port with it, each hearing some of what comes.
    if (tcp) setsockopt(socket.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (!tcp) setsockopt(socket.fd(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(receive_buffer));
    if (!socket || bind(socket.fd(), target.get(), target.length) != 0 ||
        (tcp && listen(socket.fd(), SOMAXCONN) != 0)) {
        const int error = errno;
        throw failure_t(std::string(tcp ? "cannot listen on TCP " : "cannot listen on UDP ") + address.text() + " (" +
                        strerror(error) + "); " + cure(error));
    }
    where.port = bound_port(socket.fd());
}

}  // namespace tandem::app
