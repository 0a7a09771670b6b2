#ifndef TANDEM_GATEWAY_IP_NETWORK_H
#define TANDEM_GATEWAY_IP_NETWORK_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace tandem {

// An IPv4 or IPv6 address with the length of its network's prefix: a network, or one address (the full length).
struct ip_network_t {
    int family = 0;  // AF_INET or AF_INET6
    std::array<uint8_t, 16> address{};
    unsigned prefix = 0;

    // ADDRESS or ADDRESS/PREFIX, numeric.
    static std::optional<ip_network_t> parse(const std::string& text);

    unsigned bits() const;
    size_t bytes() const { return bits() / 8; }
    // Whether every address of `other` is one of this network.
    bool contains(const ip_network_t& other) const;
    // Without the bits behind the prefix.
    ip_network_t base() const;
    std::string text() const;
};

}  // namespace tandem

#endif  // TANDEM_GATEWAY_IP_NETWORK_H
