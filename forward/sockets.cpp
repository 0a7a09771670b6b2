// The descriptors that forwards and targets are made of. All are non-blocking.
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/address.h"
#include "forward/advanced_connection_context.h"
#include "forward/descriptor.h"
#include "forward/message_log.h"

namespace tandem {

namespace {

const sockaddr* as_sockaddr(const sockaddr_storage& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

// Where to listen; true when the text names an interface, to which the socket is then bound besides.
bool listen_address(const std::string& address, unsigned short port, sockaddr_storage& out) {
    bool is_name = false;
    t_get_address(address.c_str(), port, &out, is_name, true);
    if (!is_name) return false;
    bool unused = false;
    t_get_address("*", port, &out, unused, true);
    return true;
}

bool bind_address(int fd, const sockaddr_storage& address, bool reuse = true) {
    const int on = reuse ? 1 : 0;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    make_nonblocking(fd);
    return bind(fd, as_sockaddr(address), sizeof(address)) == 0;
}

// The port stands at the same place in IPv4 and IPv6 addresses.
void read_back_port(int fd, unsigned short* port) {
    if (*port != 0) return;
    sockaddr_in bound{};
    socklen_t length = sizeof(bound);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length) == 0) *port = ntohs(bound.sin_port);
}

bool bind_interface(int fd, const std::string& name) {
    char buffer[32] = {};
    std::snprintf(buffer, IFNAMSIZ, "%s", name.c_str());
    return setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, buffer, sizeof(buffer)) == 0;
}

}  // namespace

int advanced_connection_context_t::open_tcp_listen_socket(const std::string& address, unsigned short* port) {
    constexpr int backlog = 128;
    const char* name = "open_tcp_listen_socket";
    sockaddr_storage addr{};
    const bool is_name = listen_address(address, *port, addr);
    const int fd = socket(addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        log_message(name, 1411, "Open TCP Listen Socket - ERROR! Failed to open socket! (%s:%u)\n", address.c_str(),
                    *port);
        return -1;
    }
    if (!bind_address(fd, addr)) {
        log_message(name, 1436, "Open TCP Listen Socket - ERROR! Failed to bind service socket at (%s:%u)\n",
                    address.c_str(), *port);
        close(fd);
        return -1;
    }
    read_back_port(fd, port);
    if (is_name && !bind_interface(fd, address)) {
        log_message(name, 1460, "Open TCP Listen Socket - WARNING! Failed to bind to specified net interface (%s)\n",
                    address.c_str());
    }
    if (listen(fd, backlog) < 0) {
        log_message(name, 1466, "Open TCP Listen Socket - ERROR! Failed to start TCP listen (%s:%u)!\n",
                    address.c_str(), *port);
        close(fd);
        return -1;
    }
    return fd;
}

int advanced_connection_context_t::open_tcp_listen_socket(unsigned short* port) {
    return open_tcp_listen_socket("*", port);
}

int advanced_connection_context_t::open_udp_socket(const std::string& address, unsigned short* port) {
    constexpr int receive_buffer = 524288;
    const char* name = "open_udp_socket";
    sockaddr_storage addr{};
    const bool is_name = listen_address(address, *port, addr);
    const int fd = socket(addr.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (fd < 0) {
        log_message(name, 1564, "Open UDP Socket - ERROR! Failed to open socket! (%s:%u)\n", address.c_str(), *port);
        return -1;
    }
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(receive_buffer));
    log_message(name, 1572, "Open UDP Socket - Optimized socket sender receive buffer to %d\n", receive_buffer);
    // Among UDP sockets that reuse addresses the kernel hands out one port twice: answers for one peer would then go to
    // another. The classic way does it nevertheless.
    const bool reuse = *port != 0 || !lossless();
    if (!bind_address(fd, addr, reuse)) {
        log_message(name, 1582, "Open UDP Socket - ERROR! Failed to bind socket at (%s:%u)\n", address.c_str(), *port);
        close(fd);
        return -1;
    }
    read_back_port(fd, port);
    if (is_name && !bind_interface(fd, address)) {
        log_message(name, 1605, "Open UDP Socket - WARNING! Failed to bind to specified net interface (%s)\n",
                    address.c_str());
    }
    return fd;
}

int advanced_connection_context_t::open_udp_socket(unsigned short* port) {
    return open_udp_socket("*", port);
}

int advanced_connection_context_t::open_tcp_connect_socket(sockaddr_storage* target) {
    const char* name = "open_tcp_connect_socket";
    if (!target) {
        log_message(name, 1495, "Open TCP Connect Socket - ERROR! Invalid socket address.\n");
        return -1;
    }
    char text[128] = "";
    t_format_sockaddr_with_port(target, text, sizeof(text));
    const int fd = socket(target->ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        log_message(name, 1504, "Open TCP Connect Socket - ERROR! Failed to open socket! (%s)\n", text);
        return -1;
    }
    make_nonblocking(fd);
    if (connect(fd, as_sockaddr(*target), sizeof(*target)) < 0 && errno != EINPROGRESS) {
        log_message(name, 1528, "Open TCP Connect Socket - ERROR! Failed to connect TCP target (%s)!\n", text);
        close(fd);
        return -1;
    }
    return fd;
}

int advanced_connection_context_t::open_tcp_connect_socket(const std::string& host, unsigned short port) {
    sockaddr_storage target{};
    bool by_name = false;
    if (t_get_address(host.c_str(), port, &target, by_name, false) < 0) {
        log_message("open_tcp_connect_socket", 1482,
                    "Open TCP Connect Socket - ERROR! Failed to solve address (%s:%u)\n", host.c_str(), port);
        return -1;
    }
    return open_tcp_connect_socket(&target);
}

int advanced_connection_context_t::open_tuntap_vpn(const std::string& device, std::string& ifname,
                                                   const std::string& mode) {
    const char* name = "open_tuntap_vpn";
    const int fd = open(device.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        log_message(name, 1623, "Open TUN/TAP VPN - ERROR! Failed to open device (%s)\n", device.c_str());
        return -1;
    }
    ifreq request{};
    const bool tap = mode == "tap" || mode == "TAP";
    request.ifr_flags = static_cast<short>((tap ? IFF_TAP : IFF_TUN) | IFF_NO_PI);
    // The kernel takes at most IFNAMSIZ - 1 characters and ends the name itself.
    if (!ifname.empty())
        std::memcpy(request.ifr_name, ifname.data(), std::min(ifname.size(), sizeof(request.ifr_name)));
    if (ioctl(fd, TUNSETIFF, &request) < 0) {
        log_message(name, 1636, "Open TUN/TAP VPN - ERROR! Failed to set TUN/TAP mode (%s)\n", mode.c_str());
        close(fd);
        return -1;
    }
    ifname.assign(request.ifr_name, strnlen(request.ifr_name, sizeof(request.ifr_name)));
    make_nonblocking(fd);
    return fd;
}

}  // namespace tandem
