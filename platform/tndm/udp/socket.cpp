#include "platform/tndm/udp/socket.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/udp.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

namespace tndm {
namespace {

constexpr int buffer_bytes = 4 * 1024 * 1024;

/* Closes the descriptor, keeping errno, unless it was released. */
class fd_guard {
  public:
    explicit fd_guard(int fd) : fd_(fd) {}
    fd_guard(const fd_guard&) = delete;
    fd_guard& operator=(const fd_guard&) = delete;
    ~fd_guard() {
        if (fd_ < 0) return;
        const int saved = errno;
        close(fd_);
        errno = saved;
    }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

bool set_option(int fd, int level, int name, int value) {
    return setsockopt(fd, level, name, &value, sizeof value) == 0;
}

/* The forced variants pass over the administrator's limit but need CAP_NET_ADMIN. */
void enlarge_buffers(int fd) {
    if (!set_option(fd, SOL_SOCKET, SO_RCVBUFFORCE, buffer_bytes)) set_option(fd, SOL_SOCKET, SO_RCVBUF, buffer_bytes);
    if (!set_option(fd, SOL_SOCKET, SO_SNDBUFFORCE, buffer_bytes)) set_option(fd, SOL_SOCKET, SO_SNDBUF, buffer_bytes);
}

bool set_ipv4_options(int fd) {
    return set_option(fd, IPPROTO_IP, IP_PKTINFO, 1) && set_option(fd, IPPROTO_IP, IP_RECVTOS, 1) &&
           set_option(fd, IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_PROBE);
}

bool set_ipv6_options(int fd) {
    return set_option(fd, IPPROTO_IPV6, IPV6_V6ONLY, 0) && set_option(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1) &&
           set_option(fd, IPPROTO_IPV6, IPV6_RECVTCLASS, 1) &&
           set_option(fd, IPPROTO_IPV6, IPV6_MTU_DISCOVER, IPV6_PMTUDISC_PROBE);
}

bool configure(int fd, int family) {
    enlarge_buffers(fd);
    set_option(fd, SOL_UDP, UDP_GRO, 1);
    /* An IPv6 socket takes the IPv4 options too: they hold for its IPv4-mapped peers. */
    return (family != AF_INET6 || set_ipv6_options(fd)) && set_ipv4_options(fd);
}

/* Link-local IPv6 addresses are taken only when there is no other: the peer is rarely on the link. */
endpoint interface_address(const std::string& name, int family) {
    endpoint link_local;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return {};
    endpoint result;
    for (const ifaddrs* entry = list; entry != nullptr && result.empty(); entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != family || name != entry->ifa_name) continue;
        const socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        const endpoint candidate(entry->ifa_addr, length);
        if (family == AF_INET6 && IN6_IS_ADDR_LINKLOCAL(&candidate.ip6.sin6_addr)) {
            if (link_local.empty()) link_local = candidate;
        } else {
            result = candidate;
        }
    }
    freeifaddrs(list);
    return result.empty() ? link_local : result;
}

/* What the socket is to be bound to; empty with errno on failure. */
endpoint choose_address(int fd, int family, const std::string& path) {
    const endpoint wildcard =
        family == AF_INET ? endpoint::from(in_addr{INADDR_ANY}, 0) : endpoint::from(in6addr_any, 0);
    if (path.empty()) return wildcard;

    if (const auto address = endpoint::parse(path, 0)) {
        if (address->family() == family) return *address;
        errno = EAFNOSUPPORT;
        return {};
    }
    if (if_nametoindex(path.c_str()) == 0) {
        errno = ENODEV;
        return {};
    }
    if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, path.c_str(), static_cast<socklen_t>(path.size() + 1)) == 0)
        return wildcard;
    if (errno != EPERM) return {};
    const endpoint address = interface_address(path, family);
    if (address.empty()) errno = EADDRNOTAVAIL;
    return address;
}

std::string path_name(const char* path) {
    const std::string text = path == nullptr ? "" : path;
    return text.substr(0, text.find(';'));
}

}  // namespace

int open_path_socket(int family, uint16_t port, const char* path) {
    if (family != AF_INET && family != AF_INET6) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    fd_guard fd(socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd.get() < 0 || !configure(fd.get(), family)) return -1;

    endpoint address = choose_address(fd.get(), family, path_name(path));
    if (address.empty()) return -1;
    address.set_port(port);
    if (bind(fd.get(), address.address(), address.length) != 0) return -1;
    return fd.release();
}

bool can_reach(const char* path, const endpoint& remote) {
    const fd_guard fd(open_path_socket(remote.family(), 0, path));
    if (fd.get() < 0 || connect(fd.get(), remote.address(), remote.length) != 0) return false;
    /* Bound to an interface without an address of the family, a socket has its route all the same, but would send from
     * an address of another interface or of the link, which nobody behind a router answers. */
    const std::string name = path_name(path);
    const bool by_interface = !name.empty() && !endpoint::parse(name, 0);
    if (by_interface) {
        const endpoint own = interface_address(name, remote.family());
        if (own.empty() || (own.is_link_local() && !remote.is_link_local())) return false;
    }
    return remote.is_link_local() || !local_endpoint(fd.get()).is_link_local();
}

endpoint local_endpoint(int fd) {
    sockaddr_storage storage;
    socklen_t length = sizeof storage;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0) return {};
    return endpoint(reinterpret_cast<const sockaddr*>(&storage), length);
}

bool is_dead_socket_error(int error) {
    switch (error) {
        case EBADF:
        case ENOTSOCK:
        case ENODEV:
        case ENXIO:
        case EADDRNOTAVAIL:
        case EAFNOSUPPORT:
        case ESHUTDOWN:
        case EPIPE:
        case EDESTADDRREQ:
            return true;
        default:
            return false;
    }
}

}  // namespace tndm
