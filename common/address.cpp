#include "common/address.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstring>
#include <memory>

namespace {

void set_ipv4(sockaddr_storage* out, const in_addr& address, uint16_t port) {
    sockaddr_in ipv4 = {};
    ipv4.sin_family = AF_INET;
    ipv4.sin_addr = address;
    ipv4.sin_port = htons(port);
    std::memcpy(out, &ipv4, sizeof(ipv4));
}

void set_ipv6(sockaddr_storage* out, const in6_addr& address, uint16_t port) {
    sockaddr_in6 ipv6 = {};
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_addr = address;
    ipv6.sin6_port = htons(port);
    std::memcpy(out, &ipv6, sizeof(ipv6));
}

// Wildcards and numeric addresses.
bool parse_literal(const char* host, uint16_t port, sockaddr_storage* out) {
    in_addr ipv4 = {};
    in6_addr ipv6 = in6addr_any;
    if (host[0] == '\0' || host[0] == '*') {
        set_ipv4(out, ipv4, port);
    } else if (std::strncmp(host, "[*]", 3) == 0) {
        set_ipv6(out, ipv6, port);
    } else if (inet_pton(AF_INET, host, &ipv4) == 1) {
        set_ipv4(out, ipv4, port);
    } else if (inet_pton(AF_INET6, host, &ipv6) == 1) {
        set_ipv6(out, ipv6, port);
    } else {
        return false;
    }
    return true;
}

int look_up(const char* host, uint16_t port, sockaddr_storage* out, bool& is_name) {
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_protocol = IPPROTO_UDP;
    addrinfo* list = nullptr;
    const int error = getaddrinfo(host, nullptr, &hints, &list);
    if (error != 0) {
        std::fprintf(stderr, "Cannot get IP address for %s, err = %d (0x%x)\n", host, error,
                     static_cast<unsigned int>(error));
        return -1;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> guard(list, &freeaddrinfo);
    is_name = true;
    if (list->ai_family == AF_INET) {
        sockaddr_in ipv4 = {};
        std::memcpy(&ipv4, list->ai_addr, sizeof(ipv4));
        set_ipv4(out, ipv4.sin_addr, port);
        return 0;
    }
    if (list->ai_family == AF_INET6) {
        sockaddr_in6 ipv6 = {};
        std::memcpy(&ipv6, list->ai_addr, sizeof(ipv6));
        set_ipv6(out, ipv6.sin6_addr, port);
        return 0;
    }
    std::fprintf(stderr, "Error getting IPv6 address for %s, family = %d\n", host, list->ai_family);
    return -1;
}

}  // namespace

int t_get_address(const char* host, uint16_t port, sockaddr_storage* out, bool& is_name, bool defer_lookup) {
    std::memset(out, 0, sizeof(*out));
    is_name = false;
    if (parse_literal(host, port, out)) return 0;
    if (defer_lookup) {
        is_name = true;
        return 0;
    }
    return look_up(host, port, out, is_name);
}

int t_format_sockaddr(sockaddr_storage* addr, char* buf, uint32_t buf_len, uint16_t* port) {
    if (addr == nullptr || buf == nullptr || buf_len < 2) return -1;
    buf[0] = '\0';
    if (port != nullptr) *port = 0;
    const void* address = nullptr;
    uint16_t network_port = 0;
    if (addr->ss_family == AF_INET) {
        const auto* ipv4 = reinterpret_cast<const sockaddr_in*>(addr);
        address = &ipv4->sin_addr;
        network_port = ipv4->sin_port;
    } else if (addr->ss_family == AF_INET6) {
        const auto* ipv6 = reinterpret_cast<const sockaddr_in6*>(addr);
        address = &ipv6->sin6_addr;
        network_port = ipv6->sin6_port;
    } else {
        return -1;
    }
    if (inet_ntop(addr->ss_family, address, buf, buf_len) == nullptr) return 0;
    if (port != nullptr) *port = ntohs(network_port);
    return 1;
}

int t_format_sockaddr_with_port(sockaddr_storage* addr, char* buf, uint32_t buf_len) {
    uint16_t port = 0;
    const int formatted = t_format_sockaddr(addr, buf, buf_len, &port);
    if (formatted < 1) return formatted;
    char suffix[16];
    const auto suffix_length = static_cast<size_t>(std::snprintf(suffix, sizeof(suffix), ":%u", port));
    const size_t length = std::strlen(buf);
    if (buf_len < length + suffix_length + 1) return 0;
    std::memcpy(buf + length, suffix, suffix_length + 1);
    return static_cast<int>(length + suffix_length);
}
