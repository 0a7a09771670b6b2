#include "platform/tndm/udp/address.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string_view>

namespace tndm {

endpoint::endpoint(const sockaddr* address, socklen_t size) {
    if (address == nullptr || size < sizeof(address->sa_family)) return;
    socklen_t wanted = 0;
    if (address->sa_family == AF_INET) wanted = sizeof(sockaddr_in);
    if (address->sa_family == AF_INET6) wanted = sizeof(sockaddr_in6);
    if (wanted == 0 || size < wanted) return;
    std::memcpy(&storage, address, wanted);
    length = wanted;
}

endpoint endpoint::from(const in_addr& address, uint16_t port) {
    endpoint result;
    result.ip4.sin_family = AF_INET;
    result.ip4.sin_addr = address;
    result.ip4.sin_port = htons(port);
    result.length = sizeof(sockaddr_in);
    return result;
}

endpoint endpoint::from(const in6_addr& address, uint16_t port, uint32_t scope) {
    endpoint result;
    result.ip6.sin6_family = AF_INET6;
    result.ip6.sin6_addr = address;
    result.ip6.sin6_port = htons(port);
    result.ip6.sin6_scope_id = scope;
    result.length = sizeof(sockaddr_in6);
    return result;
}

std::optional<endpoint> endpoint::parse(const std::string& address, uint16_t port) {
    in_addr v4;
    if (inet_pton(AF_INET, address.c_str(), &v4) == 1) return from(v4, port);

    const size_t percent = address.find('%');
    in6_addr v6;
    if (inet_pton(AF_INET6, address.substr(0, percent).c_str(), &v6) != 1) return std::nullopt;
    uint32_t scope = 0;
    if (percent != std::string::npos) {
        scope = if_nametoindex(address.substr(percent + 1).c_str());
        if (scope == 0) return std::nullopt;
    }
    return from(v6, port, scope);
}

uint16_t endpoint::port() const {
    if (family() == AF_INET) return ntohs(ip4.sin_port);
    if (family() == AF_INET6) return ntohs(ip6.sin6_port);
    return 0;
}

void endpoint::set_port(uint16_t port) {
    if (family() == AF_INET) ip4.sin_port = htons(port);
    if (family() == AF_INET6) ip6.sin6_port = htons(port);
}

endpoint endpoint::unmapped() const {
    if (family() != AF_INET6 || !IN6_IS_ADDR_V4MAPPED(&ip6.sin6_addr)) return *this;
    in_addr inner;
    std::memcpy(&inner, &ip6.sin6_addr.s6_addr[12], sizeof inner);
    return from(inner, port());
}

bool endpoint::is_wildcard() const {
    if (family() == AF_INET) return ip4.sin_addr.s_addr == htonl(INADDR_ANY);
    if (family() == AF_INET6) return IN6_IS_ADDR_UNSPECIFIED(&ip6.sin6_addr);
    return true;
}

std::string endpoint::host_text() const {
    char text[INET6_ADDRSTRLEN];
    if (family() == AF_INET) return inet_ntop(AF_INET, &ip4.sin_addr, text, sizeof text);
    if (family() != AF_INET6) return "-";
    std::string result = inet_ntop(AF_INET6, &ip6.sin6_addr, text, sizeof text);
    if (ip6.sin6_scope_id != 0) {
        char name[IF_NAMESIZE];
        result += '%';
        result += if_indextoname(ip6.sin6_scope_id, name) ? std::string(name) : std::to_string(ip6.sin6_scope_id);
    }
    return result;
}

std::string endpoint::text() const {
    if (family() == AF_INET6) return "[" + host_text() + "]:" + std::to_string(port());
    return empty() ? "-" : host_text() + ":" + std::to_string(port());
}

bool same_host(const endpoint& a, const endpoint& b) {
    if (a.family() != b.family()) return false;
    if (a.family() == AF_INET) return a.ip4.sin_addr.s_addr == b.ip4.sin_addr.s_addr;
    if (a.family() == AF_INET6)
        return IN6_ARE_ADDR_EQUAL(&a.ip6.sin6_addr, &b.ip6.sin6_addr) && a.ip6.sin6_scope_id == b.ip6.sin6_scope_id;
    return true;
}

bool operator==(const endpoint& a, const endpoint& b) {
    return same_host(a, b) && a.port() == b.port();
}

size_t endpoint_hash::operator()(const endpoint& value) const {
    std::string_view address;
    if (value.family() == AF_INET)
        address = {reinterpret_cast<const char*>(&value.ip4.sin_addr), sizeof value.ip4.sin_addr};
    if (value.family() == AF_INET6)
        address = {reinterpret_cast<const char*>(&value.ip6.sin6_addr), sizeof value.ip6.sin6_addr};
    return std::hash<std::string_view>{}(address)*31 + value.port();
}

}  // namespace tndm
