/* A socket address as a value. */
#ifndef TANDEM_PLATFORM_TNDM_UDP_ADDRESS_H
#define TANDEM_PLATFORM_TNDM_UDP_ADDRESS_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace tndm {

/* An IPv4 or IPv6 address with a port, or nothing (`length` 0). The bytes of `storage` behind `length` mean nothing. */
struct endpoint {
    union {
        sockaddr_storage storage{};
        sockaddr any;
        sockaddr_in ip4;
        sockaddr_in6 ip6;
    };
    socklen_t length = 0;

    endpoint() = default;
    /* Copies `length` bytes; any family but IPv4 and IPv6, and a length too short for the family, gives nothing. */
    endpoint(const sockaddr* address, socklen_t length);
    static endpoint from(const in_addr& address, uint16_t port);
    static endpoint from(const in6_addr& address, uint16_t port, uint32_t scope = 0);
    /* A numeric address ("192.0.2.1", "2001:db8::1", "fe80::1%eth0"); never looks a name up. */
    static std::optional<endpoint> parse(const std::string& address, uint16_t port);

    bool empty() const { return length == 0; }
    /* AF_INET, AF_INET6, or AF_UNSPEC when empty. */
    int family() const { return length == 0 ? AF_UNSPEC : storage.ss_family; }
    /* Host byte order. */
    uint16_t port() const;
    void set_port(uint16_t port);
    /* The IPv4 address for an IPv4-mapped IPv6 one, else the same. */
    endpoint unmapped() const;
    /* An IPv6 address that means something on one link only. */
    bool is_link_local() const { return family() == AF_INET6 && IN6_IS_ADDR_LINKLOCAL(&ip6.sin6_addr); }
    /* True for 0.0.0.0, :: and nothing. */
    bool is_wildcard() const;

    sockaddr* address() { return &any; }
    const sockaddr* address() const { return &any; }

    /* "192.0.2.1:443", "[2001:db8::1]:443"; "-" when empty. */
    std::string text() const;
    /* The address alone. */
    std::string host_text() const;
};

/* Family, address, port and (IPv6) scope are equal. An IPv4-mapped IPv6 address is not equal to its IPv4 address. */
bool operator==(const endpoint& a, const endpoint& b);
/* The same without the port. */
bool same_host(const endpoint& a, const endpoint& b);

struct endpoint_hash {
    size_t operator()(const endpoint& value) const;
};

}  // namespace tndm

#endif
